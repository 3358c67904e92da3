// SPDX-License-Identifier: MIT
#pragma once

#include "../../facade/devicesettings_p.h"
#include "configuration.h"

// What the device's own settings file says, read by the library's own reader.
struct DeviceSettings
{
    QString connectionName;
    LocalAddressing master; // the first network
    LocalAddressing slave; // the second network

    // Where the device keeps it.
    static QString path();
    static DeviceSettings read(const QString &path);

    // What an import of them changes.
    Changes changes() const;
};
