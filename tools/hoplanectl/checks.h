// SPDX-License-Identifier: MIT
#pragma once

#include "configuration.h"
#include "nmcli.h"

#include <optional>

// What `check` looks at: each item a function that returns one finding or more.

struct Finding
{
    enum Level { Good, Warning, Fault };

    Level level;
    QString text;
    QString remedy; // what to type or to do; empty where there is nothing to do
    bool judged = true;

    static Finding good(const QString &text) { return { Good, text, QString() }; }
    static Finding warning(const QString &text, const QString &remedy)
    {
        return { Warning, text, remedy };
    }
    static Finding fault(const QString &text, const QString &remedy)
    {
        return { Fault, text, remedy };
    }
    // Never good: nobody knows.
    static Finding notJudged(const QString &reason)
    {
        return { Warning, QStringLiteral("not judged: ") + reason, QString(), false };
    }
};
using Findings = QVector<Finding>;

// A connection of NetworkManager, as it lists them.
struct Connection
{
    QString name;
    QString uuid;
    QString type;
    QString device; // empty while it is not active
};

// What several items want to know. Filled as far as there is something to know.
struct Situation
{
    QString app; // the name given with --app, empty if there was none
    QString path; // of the file; empty if no application has one
    bool readable = false; // the file is there and `settings` is what the library reads
    bool storable = true; // as far as is known
    Settings settings;
    QString nmcliVersion; // empty if there is no nmcli
    QString managerTrouble; // why NetworkManager cannot be asked; known after its own item
    std::optional<Connection> connection; // the one that is reconfigured
    QString interface; // its network interface

    // "hoplanectl REST" and "hoplanectl set REST", for the same application.
    QString command(const QString &rest) const;
    QString set(const QString &rest) const;
};

namespace Check {

// A text of unknown origin between quotes, without control characters.
QString shown(const QString &text);
// A word of a command line as one types it to a shell.
QString quoted(const QString &word);
// The name of the user whom the check runs as.
QString user();
// The command that gives the file, or the folder, to that user and his group.
QString chown(const QString &path);
// What keeps files in the folder from being written, with what comes of it; nothing if nothing
// does.
std::optional<Finding> unwritable(const QString &folder, const QString &consequence);

// checks_file.cpp
Findings file(Situation &situation);
Findings keys(Situation &situation);
Findings trust(Situation &situation);
Findings enabled(Situation &situation);

// checks_values.cpp
Findings server(const Situation &situation, int index);
Findings servers(Situation &situation);
Findings network(const Situation &situation, int index);
Findings networks(Situation &situation);
Findings name(Situation &situation);
// The static networks that a search always skips because of another interface's address.
Findings skippedForAnother(const Situation &situation);

// checks_manager.cpp
Findings nmcli(Situation &situation);
Findings awk(Situation &situation);
Findings manager(Situation &situation);
Findings connection(Situation &situation);
Findings interface(Situation &situation);
Findings profile(Situation &situation);
Findings permissions(Situation &situation);

// checks_device.cpp
Findings deviceFile(Situation &situation);
Findings linkEvents(Situation &situation);
Findings clock(Situation &situation);
Findings locale(Situation &situation);
Findings probe(const Situation &situation, int index);

} // namespace Check
