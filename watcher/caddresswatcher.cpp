// SPDX-License-Identifier: MIT
#include "caddresswatcher.h"

#include "logline_p.h"

#include <QtCore/QSysInfo>

#include <cstdio>
#include <cstring>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

constexpr int bufferSize = 20480;
constexpr int ueventSize = 2048;
constexpr unsigned long openRetrySeconds = 5;
constexpr char runName[] = "run";

constexpr int headerSize = NLMSG_HDRLEN;
constexpr int newLinkSize = NLMSG_LENGTH(sizeof(ifinfomsg));
constexpr int attributeHeaderSize = RTA_LENGTH(0);

/** Rounded up to a multiple of 4. The length is at most that received, so nothing overflows. */
int aligned(int length)
{
    constexpr int alignment = NLMSG_ALIGNTO;
    return (length + alignment - 1) / alignment * alignment;
}

template<typename Header>
Header headerAt(const char *data)
{
    // A copy, since the buffer is not aligned for a header.
    Header header;
    std::memcpy(&header, data, sizeof header);
    return header;
}

/** The name among the attributes; null when there is none. */
QByteArray interfaceName(const char *data, int remaining)
{
    while (remaining >= attributeHeaderSize) {
        const auto attribute = headerAt<rtattr>(data);
        const int length = attribute.rta_len;
        if (length < attributeHeaderSize || length > remaining)
            break;
        if (attribute.rta_type == IFLA_IFNAME) {
            // The kernel ends the name with a NUL; a message without one is not read past its end.
            const int most = length - attributeHeaderSize;
            const char *name = data + attributeHeaderSize;
            return QByteArray(name, int(strnlen(name, std::size_t(most))));
        }
        const int step = aligned(length);
        if (step >= remaining)
            break;
        data += step;
        remaining -= step;
    }
    return QByteArray();
}

} // namespace

CAddressWatcher::CAddressWatcher(QObject *parent)
    : QThread(parent)
{
}

CAddressWatcher::~CAddressWatcher() = default;

void CAddressWatcher::goToEnd()
{
    // Meant: the loops do not test it.
    bRunning = false;
}

void CAddressWatcher::run()
{
    char buffer[bufferSize];
    lan_switch cdev;
    if (QSysInfo::currentCpuArchitecture().contains(QLatin1String("arm")))
        listenToUevents(buffer, &cdev);
    else
        listenToLinks(buffer);
}

void CAddressWatcher::listenToUevents(char *buffer, lan_switch *cdev)
{
    int fd = open_uevent_socket();
    qInfo() << LogPrefix(runName) << "first time to get uevent socket_fd result = " << fd;
    while (fd == -1) {
        QThread::sleep(openRetrySeconds);
        fd = open_uevent_socket();
    }
    qInfo() << LogPrefix(runName) << "get uevent socket_fd success, fd = " << fd;

    for (;;) {
        const ssize_t received = recv(fd, buffer, ueventSize, 0);
        // Meant: a failure is tried again at once.
        if (received <= 0)
            continue;
        *cdev = {};
        // A full buffer may hold an event that was cut short.
        if (received == ueventSize)
            continue;
        buffer[received] = '\0';
        buffer[received + 1] = '\0';
        parse_uevent(buffer, cdev);
    }
}

void CAddressWatcher::listenToLinks(char *buffer)
{
    std::memset(buffer, 0, bufferSize);
    const int fd = socket(PF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    const int receiveBuffer = bufferSize;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    // Meant: nothing of this is examined; without a socket the first read ends the thread.
    (void)bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);

    for (;;) {
        const ssize_t received = read(fd, buffer, bufferSize);
        if (received <= 0)
            return;
        if (!handleLinkMessages(buffer, int(received)))
            return;
    }
}

/** Returns false when the kernel reported an error and the listening is to end. */
bool CAddressWatcher::handleLinkMessages(const char *data, int length)
{
    int remaining = length;
    while (remaining >= headerSize) {
        const auto header = headerAt<nlmsghdr>(data);
        if (header.nlmsg_len < quint32(headerSize) || header.nlmsg_len > quint32(remaining))
            return true;
        if (header.nlmsg_type == NLMSG_DONE)
            return true;
        if (header.nlmsg_type == NLMSG_ERROR)
            return false;
        const int messageLength = int(header.nlmsg_len);
        if (header.nlmsg_type == RTM_NEWLINK && messageLength >= newLinkSize)
            handleNewLink(data, messageLength);
        const int step = aligned(messageLength);
        if (step >= remaining)
            return true;
        data += step;
        remaining -= step;
    }
    return true;
}

void CAddressWatcher::handleNewLink(const char *message, int length)
{
    const auto link = headerAt<ifinfomsg>(message + headerSize);
    const bool up = link.ifi_flags & IFF_LOWER_UP;
    std::printf("%u: %s", unsigned(link.ifi_index), up ? "up" : "down");
    const QByteArray name = interfaceName(message + newLinkSize, length - newLinkSize);
    if (!name.isNull())
        std::printf(" %s", name.constData());
    std::printf("\n");
    std::fflush(stdout);

    if (up)
        Q_EMIT addressChanged();
    else
        Q_EMIT netWorkdown();
}

void CAddressWatcher::slotFinish()
{
    // The number is a fixed piece of the line.
    const QString text = QString("%1 %2: addressChanged :%3");
    qWarning() << LogPrefix(__func__) << text.arg(__func__).arg(71).arg(int(bAddressChanged));
    bFinishPending = false;
}
