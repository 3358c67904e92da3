// SPDX-License-Identifier: MIT
#pragma once

#include <QPair>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

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

// The changes that a command makes, in terms of keys.
class Changes
{
public:
    void setEnabled(bool enabled);
    void setConnection(const QString &name);
    void setServer(int network, const QString &ip, const QString &port);
    // ip to dns2 of the network, and whether it is static.
    void setAddressing(int network, const NetworkSettings &addressing);

    const QVector<RawValue> &values() const { return m_values; }

private:
    QVector<RawValue> m_values;
};

namespace Configuration {

// The applications that have a switch.ini.
QStringList applications();

// The folder that has a folder for each application.
QString folder();

// Makes the application the one whose configuration is meant: the named one, or the only one that
// has a file. `mayBeNew`: a name without a file is all right. False, with a message, if there is
// none, or several.
bool choose(const QString &name, bool mayBeNew);

// Of the chosen application.
QString path();

// All eighteen keys in the file's order, with what the file has.
QVector<RawValue> rawValues(const QString &path);

// Those of the changes that are none yet are left out: what would really be different.
QVector<RawValue> differences(const QString &path, const Changes &changes);

// Replaces the file by one with the changes, whole or not at all; makes it if there is none. The
// other keys keep their values. Returns what went wrong, or nothing.
QString save(const QString &path, const Changes &changes);

// "true" or "false" for a flag, the text otherwise.
QString rawText(const QVariant &value);

} // namespace Configuration
