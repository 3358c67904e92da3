// SPDX-License-Identifier: MIT
#include "hoplane.h"

#include "devicesettings_p.h"
#include "logline_p.h"

#include <QtCore/QFile>

void Hoplane::loadSwitchLocalConfig()
{
    const QString path = QLatin1String(deviceSettingsPath);
    if (!QFile::exists(path)) {
        qWarning() << LogPrefix(__func__) << "NetSetting.ini not exist.";
        return;
    }

    readDeviceSettings(path,
                       { [this](const QString &name) { saveConnectionName(name); },
                         [this](const LocalAddressing &master) {
                             saveFirstLocalInoToFile(master.isAutomatically, master.ip, master.mask,
                                                     master.gateway, master.dns1, master.dns2);
                         },
                         [this](const LocalAddressing &slave) {
                             saveSecondLocalInfoToFile(slave.isAutomatically, slave.ip, slave.mask,
                                                       slave.gateway, slave.dns1, slave.dns2);
                         } });
}
