// SPDX-License-Identifier: MIT
#include "devicesettings.h"

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
