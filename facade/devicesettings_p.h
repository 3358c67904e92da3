// SPDX-License-Identifier: MIT
#ifndef HOPLANE_DEVICESETTINGS_P_H
#define HOPLANE_DEVICESETTINGS_P_H

#include <QtCore/QString>

#include <functional>

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

/** Who takes what the device's settings file has; each is called before the next is read. */
struct DeviceSettingsReceiver
{
    std::function<void(const QString &)> connectionName;
    std::function<void(const LocalAddressing &)> firstNetwork;
    std::function<void(const LocalAddressing &)> secondNetwork;
};

/** Where the device keeps its settings. */
extern const char deviceSettingsPath[];

/** A missing key is empty; a missing flag is the group's, and that one's default is DHCP. */
void readDeviceSettings(const QString &path, const DeviceSettingsReceiver &receiver);

#endif
