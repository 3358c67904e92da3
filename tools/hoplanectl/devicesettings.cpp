// SPDX-License-Identifier: MIT
#include "devicesettings.h"

#include "../../worker/switchsettings_p.h"
#include "describe.h"

#include <QFile>
#include <QFileInfo>

namespace {

NetworkSettings addressingOf(const LocalAddressing &device)
{
    NetworkSettings network;
    network.isStatic = device.isAutomatically; // meant: the key's name says the opposite
    network.ip = device.ip;
    network.mask = device.mask;
    network.gateway = device.gateway;
    network.dns1 = device.dns1;
    network.dns2 = device.dns2;
    return network;
}

} // namespace

QString DeviceSettings::path()
{
    return QLatin1String(deviceSettingsPath);
}

QString DeviceSettings::load(const QString &path, bool *isIni)
{
    QFile file(path);
    if (!QFileInfo(path).isFile())
        return QStringLiteral("it is no regular file");
    if (!file.open(QIODevice::ReadOnly))
        return file.errorString();
    readDeviceSettings(path,
                       { [&](const QString &name) { connectionName = name; },
                         [&](const LocalAddressing &addressing) { master = addressing; },
                         [&](const LocalAddressing &addressing) { slave = addressing; } });
    // By another name: what one reader has parsed of a file, the next one takes over, and the
    // library's parses some sections only.
    const IniFile whole(QStringLiteral("/proc/self/fd/%1").arg(file.handle()));
    if (!whole.childGroups().contains(QStringLiteral("NetworkConnections")))
        return QStringLiteral("it has no group NetworkConnections");
    if (isIni)
        *isIni = whole.status() == QSettings::NoError;
    return QString();
}

QString DeviceSettings::announcement(const QString &path, const Settings &now)
{
    const QString from = DeviceSettings::path();
    if (!QFile::exists(from))
        return QString();
    DeviceSettings settings;
    const QString reason = settings.load(from);
    return reason.isEmpty() ? announcement(path, settings, now) : emptying(reason);
}

QString DeviceSettings::emptying(const QString &reason)
{
    return QStringLiteral("%1: %2. The next start of the application empties the connection's name "
                          "and the addressing of both networks")
            .arg(DeviceSettings::path(), reason);
}

QString DeviceSettings::announcement(const QString &path, const DeviceSettings &settings,
                                     const Settings &now)
{
    const Changes changes = settings.changes();
    Settings after = now;
    changes.applyTo(&after);
    const QStringList different = Describe::changes(now, after);
    if (different.isEmpty() || Configuration::differences(path, changes).isEmpty())
        return QString();
    return QStringLiteral("the next start of the application takes over %1: %2")
            .arg(DeviceSettings::path(), different.join(QStringLiteral("; ")));
}

Changes DeviceSettings::changes() const
{
    Changes changes;
    changes.setConnection(connectionName);
    changes.setAddressing(0, addressingOf(master));
    changes.setAddressing(1, addressingOf(slave));
    return changes;
}
