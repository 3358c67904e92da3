// SPDX-License-Identifier: MIT
//
// Prints when the library's worker enters the slot that a link's change, or a uevent of the LAN
// switch, leads to. The slots do nothing else here, so that each event meets an idle worker.
//
//   reaction_library links|uevents

#include "arguments.h"
#include "stamp.h"

#include <hoplane.h>
#include <networkswitchworker.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QSysInfo>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace {

bool isOfLinks = true;
int stamps = -1;

} // namespace

// In place of the library's own slots, and of the architecture's name that decides what it hears.

void NetworkSwitchWorker::slotAddressChanged()
{
    writeStamp(stamps, nowNs(), "up");
}

void NetworkSwitchWorker::slotNetWorkDown()
{
    writeStamp(stamps, nowNs(), "down");
}

void NetworkSwitchWorker::slotReopen_network(int state)
{
    writeStamp(stamps, nowNs(), state ? "1" : "0");
}

QString QSysInfo::currentCpuArchitecture()
{
    return QString::fromLatin1(isOfLinks ? "x86_64" : "arm64");
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    static const char usage[] = "reaction_library links|uevents";
    isOfLinks = isOfLinksIn(argc, argv, usage);
    if (argc > 2)
        endWithUsage(usage);
    // The library prints and logs as always, but where nobody reads it.
    stamps = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (stamps < 0 || dup2(nothing, STDOUT_FILENO) < 0 || dup2(nothing, STDERR_FILENO) < 0)
        return EXIT_FAILURE;
    Hoplane::instance();
    return QCoreApplication::exec();
}
