// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

// Questions to NetworkManager through nmcli. They change nothing, run no shell, and do not wait for
// a NetworkManager that hangs.
namespace Nmcli {

constexpr int patienceMs = 5000;
// nmcli's own exit statuses.
enum Status { Done = 0, NotRunning = 8, NotFound = 10 };

struct Answer
{
    enum Outcome { NotAsked, Answered, Refused, Silent, NotStarted };
    Outcome outcome = NotAsked;
    int status = 0; // nmcli's, where it ended
    QVector<QStringList> rows; // the columns of each line
    QString message; // why there is no answer, in nmcli's words where it has some

    // The first column of the first row, or nothing.
    QString word() const { return rows.value(0).value(0); }
};

// Where nmcli is, or nothing.
QString program();

Answer ask(const QStringList &arguments);
// Of terse output: "nmcli -t -f FIELDS ARGUMENTS".
Answer list(const QString &fields, const QStringList &arguments);

// A line of terse output in its columns, which colons separate.
QStringList columns(const QString &line);

} // namespace Nmcli
