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
    // Reads the file. Returns why an import of it would find nothing; nothing if it would find
    // something. Then `isIni` tells whether it is an INI file throughout, which the library does
    // not ask.
    QString load(const QString &path, bool *isIni = nullptr);

    // What the next start of the application makes of the configuration at `path`, which has these
    // settings now, in one sentence; nothing if it changes nothing.
    static QString announcement(const QString &path, const Settings &now);
    // The same of a file that is loaded already: one process reads it rightly only once.
    static QString announcement(const QString &path, const DeviceSettings &settings,
                                const Settings &now);
    // The same of a file that load() has this reason to refuse.
    static QString emptying(const QString &reason);

    // What an import of them changes.
    Changes changes() const;
};
