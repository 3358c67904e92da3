// SPDX-License-Identifier: MIT
#include "hoplane.h"

#include "devicesettings_p.h"
#include "logline_p.h"

#include <QtCore/QFile>

void Hoplane::loadSwitchLocalConfig()
{
    const QString path = DeviceSettings::path();
    if (!QFile::exists(path)) {
        qWarning() << LogPrefix(__func__) << "NetSetting.ini not exist.";
        return;
    }

    const DeviceSettings device = DeviceSettings::read(path);
    saveConnectionName(device.connectionName);
    const LocalAddressing &master = device.master;
    saveFirstLocalInoToFile(master.isAutomatically, master.ip, master.mask, master.gateway,
                            master.dns1, master.dns2);
    const LocalAddressing &slave = device.slave;
    saveSecondLocalInfoToFile(slave.isAutomatically, slave.ip, slave.mask, slave.gateway,
                              slave.dns1, slave.dns2);
}
