// SPDX-License-Identifier: MIT
//
// An idle application that uses Qt Network and its configuration manager, with the library or
// without it (WITH_LIBRARY), which prints when its event loop runs, and how long instance() took.

#include "stamp.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <QtNetwork/QNetworkConfigurationManager>
#include <QtNetwork/QTcpSocket>

#ifdef WITH_LIBRARY
#include <hoplane.h>
#endif

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const long long begin = nowNs();
#ifdef WITH_LIBRARY
    Hoplane::instance();
#else
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    const QNetworkConfigurationManager manager;
    QT_WARNING_POP
#endif
    const long long took = nowNs() - begin;
    const QTcpSocket socket;
    QTimer::singleShot(0, [&] {
        writeStamp(STDOUT_FILENO, nowNs(), "loop");
        writeStamp(STDOUT_FILENO, took, "instance");
    });
    return QCoreApplication::exec();
}
