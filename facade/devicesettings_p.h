// SPDX-License-Identifier: MIT
#ifndef HOPLANE_DEVICESETTINGS_P_H
#define HOPLANE_DEVICESETTINGS_P_H

#include <QtCore/QString>

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

/** The device's own settings file: what of it replaces values of switch.ini. */
struct DeviceSettings
{
    QString connectionName;
    LocalAddressing master; // the first network
    LocalAddressing slave; // the second network

    /** Where the device keeps it. */
    static QString path();

    /** A missing key is empty; a missing flag is the group's, and that one DHCP. */
    static DeviceSettings read(const QString &path);
};

#endif
