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

QString DeviceSettings::unfitness(const QString &path, bool *isIni)
{
    QFile file(path);
    if (!QFileInfo(path).isFile())
        return QStringLiteral("it is no regular file");
    if (!file.open(QIODevice::ReadOnly))
        return file.errorString();
    // In the library's encoding: what one QSettings has read of a file, the next one takes over.
    const IniFile settings(path);
    if (!settings.childGroups().contains(QStringLiteral("NetworkConnections")))
        return QStringLiteral("it has no group NetworkConnections");
    if (isIni)
        *isIni = settings.status() == QSettings::NoError;
    return QString();
}

DeviceSettings DeviceSettings::read(const QString &path)
{
    DeviceSettings settings;
    readDeviceSettings(path,
                       { [&](const QString &name) { settings.connectionName = name; },
                         [&](const LocalAddressing &addressing) { settings.master = addressing; },
                         [&](const LocalAddressing &addressing) { settings.slave = addressing; } });
    return settings;
}

Changes DeviceSettings::changes() const
{
    Changes changes;
    changes.setConnection(connectionName);
    changes.setAddressing(0, addressingOf(master));
    changes.setAddressing(1, addressingOf(slave));
    return changes;
}
