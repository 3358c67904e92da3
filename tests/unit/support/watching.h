// SPDX-License-Identifier: MIT
#ifndef WATCHING_H
#define WATCHING_H

#include "interpose.h"
#include "logcapture.h"

#include <QtCore/QByteArray>
#include <QtCore/QStringList>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

/** The strings of a change of the LAN switch, and the line that it is logged with. */
namespace LanSwitch {

inline QByteArray path()
{
    return QByteArrayLiteral("/devices/virtual/switch/lan-switch");
}

inline QByteArray devpath()
{
    return QByteArrayLiteral("DEVPATH=") + path();
}

inline Expected changeLine(const QString &name, const QString &action, int state)
{
    return { QtWarningMsg,
             QStringLiteral("[ parse_uevent ] \"parse_uevent event { name=%1, action=%2, "
                            "path=/devices/virtual/switch/lan-switch, state=%3}\"")
                     .arg(name, action)
                     .arg(state) };
}

} // namespace LanSwitch

/**
 * Answers the calls that make a netlink socket, the first of each kind with as many failures as
 * asked for, and keeps them as text. Descriptors stand in the text counted from the one that
 * socket() returned last.
 */
class SocketCalls
{
public:
    SocketCalls() = default;
    ~SocketCalls() { close(descriptor); }
    Q_DISABLE_COPY(SocketCalls)

    /** Sets the hooks socket, setsockopt and bind. */
    void addTo(Interpose::Hooks *hooks);

    QStringList calls;
    int socketFailures = 0;
    int optionFailures = 0;
    int bindFailures = 0;
    int descriptor = -1;

private:
    int onSocket(int domain, int type, int protocol);
    int onOption(int fd, int level, int name, const void *value, socklen_t length);
    int onBind(int fd, const sockaddr *address, socklen_t length);

    static bool fails(int *failures)
    {
        errno = EPERM;
        return *failures > 0 && (*failures)-- > 0;
    }
};

inline void SocketCalls::addTo(Interpose::Hooks *hooks)
{
    hooks->socket = [this](int domain, int type, int protocol) {
        return onSocket(domain, type, protocol);
    };
    hooks->setsockopt = [this](int fd, int level, int name, const void *value, socklen_t length) {
        return onOption(fd, level, name, value, length);
    };
    hooks->bind = [this](int fd, const sockaddr *address, socklen_t length) {
        return onBind(fd, address, length);
    };
}

inline int SocketCalls::onSocket(int domain, int type, int protocol)
{
    calls.append(QStringLiteral("socket %1 %2 %3").arg(domain).arg(type).arg(protocol));
    if (fails(&socketFailures))
        return -1;
    const int any = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // High up, so that nothing opened later takes the place of a closed one.
    descriptor = fcntl(any, F_DUPFD_CLOEXEC, 500);
    close(any);
    return descriptor;
}

inline int SocketCalls::onOption(int fd, int level, int name, const void *value, socklen_t length)
{
    int number = 0;
    std::memcpy(&number, value, qMin(sizeof number, std::size_t(length)));
    calls.append(QStringLiteral("setsockopt %1 %2 %3 %4 of %5 bytes")
                         .arg(fd - descriptor)
                         .arg(level)
                         .arg(name)
                         .arg(number)
                         .arg(length));
    return fails(&optionFailures) ? -1 : 0;
}

inline int SocketCalls::onBind(int fd, const sockaddr *address, socklen_t length)
{
    sockaddr_nl netlink = {};
    std::memcpy(&netlink, address, qMin(sizeof netlink, std::size_t(length)));
    calls.append(QStringLiteral("bind %1 family %2 port %3 groups %4 of %5 bytes")
                         .arg(fd - descriptor)
                         .arg(netlink.nl_family)
                         .arg(netlink.nl_pid)
                         .arg(netlink.nl_groups, 0, 16)
                         .arg(length));
    return fails(&bindFailures) ? -1 : 0;
}

#endif
