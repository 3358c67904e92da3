// SPDX-License-Identifier: MIT
#include "devicesettings.h"

#include "../../worker/switchsettings_p.h"

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

Changes DeviceSettings::changes() const
{
    Changes changes;
    changes.setConnection(connectionName);
    changes.setAddressing(0, addressingOf(master));
    changes.setAddressing(1, addressingOf(slave));
    return changes;
}
