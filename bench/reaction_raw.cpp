// SPDX-License-Identifier: MIT
//
// The floor of a reaction: reads the kernel's messages without more, and prints when each was
// there.
//
//   reaction_raw links|uevents [--two-threads|--event-loop]
//
// With two threads a second one is told by an eventfd, which it polls, as a Qt event loop does.
// With an event loop the second thread has one of Qt, and is told by an event.

#include "arguments.h"
#include "stamp.h"
#include "uevent.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>

#include <atomic>
#include <cstdlib>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>

namespace {

int told = -1;
std::atomic<const char *> news = nullptr;

int linkSocket()
{
    const int fd = socket(PF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return -1;
    return fd;
}

/** What the first message tells of its link; null if it is of another kind. */
const char *linkState(const char *data)
{
    nlmsghdr header = {};
    std::memcpy(&header, data, sizeof header);
    ifinfomsg link = {};
    std::memcpy(&link, data + NLMSG_HDRLEN, sizeof link);
    if (header.nlmsg_type != RTM_NEWLINK)
        return nullptr;
    return link.ifi_flags & IFF_LOWER_UP ? "up" : "down";
}

/** The LAN switch's state; null in an event of another device. */
const char *switchState(const char *data)
{
    const char *state = ueventValue(data, "SWITCH_STATE=");
    if (!state)
        return nullptr;
    return std::strcmp(state, "1") == 0 ? "1" : "0";
}

void react(const char *state)
{
    writeStamp(STDOUT_FILENO, nowNs(), state);
}

void tellThread(const char *state)
{
    news = state;
    if (eventfd_write(told, 1) != 0)
        std::exit(EXIT_FAILURE);
}

[[noreturn]] void beTold()
{
    for (;;) {
        pollfd waiting = { told, POLLIN, 0 };
        eventfd_t count = 0;
        if (poll(&waiting, 1, -1) != 1 || eventfd_read(told, &count) != 0)
            std::exit(EXIT_FAILURE);
        react(news);
    }
}

void tellEventLoop(const char *state)
{
    static auto *const receiver = [] {
        auto *thread = new QThread; // ends with the process
        auto *object = new QObject;
        object->moveToThread(thread);
        thread->start();
        return object;
    }();
    QMetaObject::invokeMethod(
            receiver, [state] { react(state); }, Qt::QueuedConnection);
}

} // namespace

int main(int argc, char **argv)
{
    static const char usage[] = "reaction_raw links|uevents [--two-threads|--event-loop]";
    const bool isOfLinks = isOfLinksIn(argc, argv, usage);
    const bool hasTwoThreads = argc == 3 && std::strcmp(argv[2], "--two-threads") == 0;
    const bool hasEventLoop = argc == 3 && std::strcmp(argv[2], "--event-loop") == 0;
    if (argc > 2 && !hasTwoThreads && !hasEventLoop)
        endWithUsage(usage);
    const auto tell = hasTwoThreads ? tellThread : hasEventLoop ? tellEventLoop : react;
    const QCoreApplication app(argc, argv);
    const int fd = isOfLinks ? linkSocket() : ueventSocket();
    if (fd < 0) {
        std::perror("reaction_raw");
        return EXIT_FAILURE;
    }
    if (hasTwoThreads) {
        told = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        std::thread(beTold).detach();
    }
    char buffer[20480];
    for (;;) {
        const ssize_t length = recv(fd, buffer, sizeof buffer - 1, 0);
        if (length < ssize_t(NLMSG_LENGTH(sizeof(ifinfomsg))))
            continue;
        buffer[length] = '\0';
        if (const char *state = isOfLinks ? linkState(buffer) : switchState(buffer))
            tell(state);
    }
}
