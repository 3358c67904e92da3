// SPDX-License-Identifier: MIT
#include "devicesettings_p.h"

#include "switchsettings_p.h"

const char deviceSettingsPath[] = "/userdata/netSettings.ini";

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

void readDeviceSettings(const QString &path, const DeviceSettingsReceiver &receiver)
{
    IniFile device(path);
    device.beginGroup(QLatin1String("NetworkConnections"));
    receiver.connectionName(device.text(QLatin1String("conName")));
    const bool dhcpFallback = dhcpEnabled(device, true);

    receiver.firstNetwork(readNetwork(&device, QLatin1String("MasterNet"), dhcpFallback));
    receiver.secondNetwork(readNetwork(&device, QLatin1String("SlaveNet"), dhcpFallback));
    device.endGroup();
}
