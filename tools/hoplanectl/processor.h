// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QSysInfo>

// The processor that the library is compiled for, as it tells it.
namespace Processor {

inline QString name()
{
    return QSysInfo::currentCpuArchitecture();
}

// Of the device. There the LAN switch is listened to, and the file's order of the networks holds.
inline bool isDevices()
{
    return name().contains(QLatin1String("arm"));
}

} // namespace Processor
