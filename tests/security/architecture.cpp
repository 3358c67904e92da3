// SPDX-License-Identifier: MIT
// The program takes its processor for the one that ARCHITECTURE names, so that the library in it
// listens as on that processor. Its definition stands before Qt's own for the dynamic linker.

#include <QtCore/QString>
#include <QtCore/QSysInfo>
#include <QtCore/QtGlobal>

QString QSysInfo::currentCpuArchitecture()
{
    return qEnvironmentVariable("ARCHITECTURE");
}
