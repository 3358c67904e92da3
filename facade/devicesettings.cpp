// SPDX-License-Identifier: MIT
#include "devicesettings_p.h"

#include "switchsettings_p.h"

namespace {

bool dhcpEnabled(const IniFile &device, bool fallback)
{
    const QLatin1String key("bDhcpEnabled");
    return device.contains(key) ? device.flag(key) : fallback;
}

LocalAddressing readNetwork(IniFile *device, QLatin1String group, bool dhcpFallback)
{
    device->beginGroup(group);
    // Meant: switch.ini's flag is true for static addressing, the negation of the device's.
    LocalAddressing addressing = {
        !dhcpEnabled(*device, dhcpFallback), device->text(QLatin1String("ip")),
        device->text(QLatin1String("mask")), device->text(QLatin1String("gateway")),
        device->text(QLatin1String("dns1")), device->text(QLatin1String("dns2"))
    };
    device->endGroup();
    return addressing;
}

} // namespace

QString DeviceSettings::path()
{
    return QStringLiteral("/userdata/netSettings.ini");
}

DeviceSettings DeviceSettings::read(const QString &path)
{
    IniFile device(path);
    device.beginGroup(QLatin1String("NetworkConnections"));
    const bool dhcpFallback = dhcpEnabled(device, true);
    return { device.text(QLatin1String("conName")),
             readNetwork(&device, QLatin1String("MasterNet"), dhcpFallback),
             readNetwork(&device, QLatin1String("SlaveNet"), dhcpFallback) };
}
