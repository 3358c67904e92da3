// SPDX-License-Identifier: MIT
#pragma once

#include <QPair>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <optional>

// One network's half of switch.ini, in its own texts.
struct NetworkSettings
{
    QString serverIp;
    QString serverPort;
    bool isStatic = false; // the key's name says the opposite; only configuration.cpp knows
    QString ip;
    QString mask;
    QString gateway;
    QString dns1;
    QString dns2;
};

struct Settings
{
    bool enabled = false;
    QString connection;
    NetworkSettings networks[2];

    // What the library reads from the file. The file has to be there.
    static Settings read(const QString &path);
};

// A value as the file has it, or is to have it.
struct RawValue
{
    QLatin1String key;
    QVariant value; // invalid where the key is missing
};

// The changes that a command makes.
class Changes
{
public:
    void setEnabled(bool enabled) { m_enabled = enabled; }
    void setConnection(const QString &name) { m_connection = name; }
    void setServer(int network, const QString &ip, const QString &port);
    // ip to dns2 of the network, and whether it is static.
    void setAddressing(int network, const NetworkSettings &addressing);

    void applyTo(Settings *settings) const;
    QVector<RawValue> values() const;

private:
    std::optional<bool> m_enabled;
    std::optional<QString> m_connection;
    std::optional<NetworkSettings> m_servers[2];
    std::optional<NetworkSettings> m_addressings[2];
};

namespace Configuration {

// The applications that have a switch.ini.
QStringList applications();

// The folder that has a folder for each application.
QString folder();

// Makes the application the one whose configuration is meant: the named one, or the only one that
// has a file. `mayBeNew`: a name without a file is all right. False, with a message, which is also
// the `reason`, if there is none, or several.
bool choose(const QString &name, bool mayBeNew, QString *reason = nullptr);

// Of the chosen application.
QString path();

// Why nothing of the file can be read; nothing if it can. The library takes all of it as false or
// empty then.
QString unreadable(const QString &path);

// Why not all of a file that can be read can be taken apart; nothing if it can. The library takes
// what it has understood until then.
QString notIni(const QString &path);

// The first of both that is the case.
QString unusable(const QString &path);

// All eighteen keys in the file's order, with what the file has.
QVector<RawValue> rawValues(const QString &path);

// The values that the changes would really make different, the old ones beside the new ones.
struct Difference
{
    QLatin1String key;
    QVariant oldValue;
    QVariant newValue;
};
QVector<Difference> differences(const QString &path, const Changes &changes);

// Replaces the file by one with the changes, whole or not at all; makes it if there is none. The
// other keys keep their values. `before`: what was replaced. Returns what went wrong, or nothing.
QString save(const QString &path, const Changes &changes, Settings *before);

// "true" or "false" for a flag, the text otherwise.
QString rawText(const QVariant &value);

} // namespace Configuration
