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

bool dhcpEnabled(const QSettings &device, bool fallback)
{
    const QLatin1String key("bDhcpEnabled");
    return device.contains(key) ? device.value(key).toBool() : fallback;
}

QString text(const QSettings &device, const char *key)
{
    return device.value(QLatin1String(key), QVariant()).toString();
}

LocalAddressing readNetwork(QSettings &device, const char *group, bool dhcpFallback)
{
    device.beginGroup(QLatin1String(group));
    // Meant: switch.ini's flag is true for static addressing, the negation of the device's.
    LocalAddressing addressing = { !dhcpEnabled(device, dhcpFallback),
                                   text(device, "ip"),
                                   text(device, "mask"),
                                   text(device, "gateway"),
                                   text(device, "dns1"),
                                   text(device, "dns2") };
    device.endGroup();
    return addressing;
}

} // namespace

void Hoplane::loadSwitchLocalConfig()
{
    const QString path = QStringLiteral("/userdata/netSettings.ini");
    if (!QFile::exists(path)) {
        qWarning() << From(__func__) << "NetSetting.ini not exist.";
        return;
    }

    IniFile device(path);
    device.beginGroup(QLatin1String("NetworkConnections"));
    saveConnectionName(text(device, "conName"));
    const bool dhcpFallback = dhcpEnabled(device, true);

    const LocalAddressing master = readNetwork(device, "MasterNet", dhcpFallback);
    saveFirstLocalInoToFile(master.isAutomatically, master.ip, master.mask, master.gateway,
                            master.dns1, master.dns2);
    const LocalAddressing slave = readNetwork(device, "SlaveNet", dhcpFallback);
    saveSecondLocalInfoToFile(slave.isAutomatically, slave.ip, slave.mask, slave.gateway,
                              slave.dns1, slave.dns2);
    device.endGroup();
}
