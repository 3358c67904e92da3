// SPDX-License-Identifier: MIT
#ifndef VETHPAIR_H
#define VETHPAIR_H

#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtNetwork/QNetworkInterface>
#include <QtTest/QtTest>

/** Two joined interfaces, "hop0" and "hop1": up, running, without any address of their own. */
class VethPair
{
public:
    VethPair()
    {
        ip("link add hop0 type veth peer name hop1");
        if (hasIPv6()) {
            ip("link set hop0 addrgenmode none");
            ip("link set hop1 addrgenmode none");
        }
        ip("link set hop0 up");
        ip("link set hop1 up");
        waitForRunning("hop0", true);
        waitForRunning("hop1", true);
    }
    ~VethPair() { ip("link del hop0"); }
    Q_DISABLE_COPY(VethPair)

    static bool hasIPv6() { return QFileInfo::exists(QStringLiteral("/proc/net/if_inet6")); }

    /** Runs ip(8). */
    static void ip(const QString &arguments)
    {
        if (QProcess::execute(QStringLiteral("ip"), arguments.split(QLatin1Char(' '))) != 0)
            qFatal("failed: ip %s", qPrintable(arguments));
    }

    static void addAddress(const QString &interface, const QString &address)
    {
        // An address that is being checked for duplicates would not be usable yet.
        const bool isIPv6 = address.contains(QLatin1Char(':'));
        ip(QStringLiteral("addr add %1 dev %2%3")
                   .arg(address, interface, isIPv6 ? QStringLiteral(" nodad") : QString()));
    }

    /** The kernel tells of a carrier some time after the change. */
    static void waitForRunning(const QString &interface, bool running)
    {
        const auto isRunning = [&] {
            return QNetworkInterface::interfaceFromName(interface).flags().testFlag(
                    QNetworkInterface::IsRunning);
        };
        if (!QTest::qWaitFor([&] { return isRunning() == running; }, 10000))
            qFatal("%s does not change its carrier", qPrintable(interface));
    }
};

#endif
