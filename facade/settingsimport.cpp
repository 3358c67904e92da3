// SPDX-License-Identifier: MIT
#include "hoplane.h"

#include "logline_p.h"
#include "switchsettings_p.h"

#include <QtCore/QFile>

namespace {

/** One network of the device's settings file, in the terms of switch.ini. */
struct LocalAddressing
{
    bool isAutomatically;
    QString ip;
    QString mask;
    QString gateway;
    QString dns1;
    QString dns2;
};

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

void Hoplane::loadSwitchLocalConfig()
{
    const QString path = QStringLiteral("/userdata/netSettings.ini");
    if (!QFile::exists(path)) {
        qWarning() << LogPrefix(__func__) << "NetSetting.ini not exist.";
        return;
    }

    IniFile device(path);
    device.beginGroup(QLatin1String("NetworkConnections"));
    saveConnectionName(device.text(QLatin1String("conName")));
    const bool dhcpFallback = dhcpEnabled(device, true);

    const LocalAddressing master = readNetwork(&device, QLatin1String("MasterNet"), dhcpFallback);
    saveFirstLocalInoToFile(master.isAutomatically, master.ip, master.mask, master.gateway,
                            master.dns1, master.dns2);
    const LocalAddressing slave = readNetwork(&device, QLatin1String("SlaveNet"), dhcpFallback);
    saveSecondLocalInfoToFile(slave.isAutomatically, slave.ip, slave.mask, slave.gateway,
                              slave.dns1, slave.dns2);
    device.endGroup();
}
