// SPDX-License-Identifier: MIT
//
// Runs one function of the library some times under valgrind's callgrind, which counts between two
// calls of its own only. script/instructions divides by the number that this prints.
//
//   instructions FUNCTION       "instructions" alone lists them

#include "arguments.h"
#include "uevent.h"

#include <caddresswatcher.h>
#include <hoplane.h>
#include <networkswitchworker.h>

#include <QtCore/QCoreApplication>
#include <QtNetwork/QTcpServer>

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <functional>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <map>
#include <valgrind/callgrind.h>

namespace {

constexpr int times = 10;

// What the link loop reads, and how often, before it is told that there is no more.
std::string linkMessage;
int linkMessages = 0;

void countEach(const std::function<void()> &function)
{
    function(); // what is prepared once, and loaded
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < times; ++i)
        function();
    CALLGRIND_TOGGLE_COLLECT;
}

void countUevents(const std::string &text)
{
    CAddressWatcher watcher(nullptr);
    const std::string message = text + '\0';
    countEach([&] {
        lan_switch record = {};
        watcher.parse_uevent(message.c_str(), &record);
    });
}

std::string newLink(const std::string &name)
{
    struct
    {
        nlmsghdr header;
        ifinfomsg link;
        rtattr attribute;
        char name[IFNAMSIZ];
    } message = {};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = RTM_NEWLINK;
    message.link.ifi_index = 2;
    message.link.ifi_flags = IFF_UP | IFF_LOWER_UP;
    message.attribute.rta_len = RTA_LENGTH(IFNAMSIZ);
    message.attribute.rta_type = IFLA_IFNAME;
    name.copy(message.name, IFNAMSIZ - 1);
    return std::string(reinterpret_cast<const char *>(&message), sizeof message);
}

void countLinks()
{
    CAddressWatcher watcher(nullptr);
    linkMessage = newLink("eth0") + newLink("lo") + newLink("bench0");
    countEach([&] {
        linkMessages = 10;
        watcher.run();
    });
}

void saveBoth(const QString &port)
{
    Hoplane::saveSwitchInfoToFile(true, "127.0.0.1", port, "127.0.0.1", port);
    Hoplane::instance()->saveFirstLocalInoToFile(true, "192.0.2.2", "255.255.255.0", "192.0.2.1",
                                                 "192.0.2.53", "192.0.2.54");
}

void countLoading()
{
    saveBoth("9000");
    auto *worker = new NetworkSwitchWorker(nullptr); // ends with the process, as its thread does
    countEach([&] { worker->loadConfig(); });
}

void countProbe()
{
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost))
        qFatal("no server");
    const QString port = QString::number(server.serverPort());
    auto *worker = new NetworkSwitchWorker(nullptr); // ends with the process, as its thread does
    countEach([&] {
        if (!worker->tryConnectRemote("127.0.0.1", port, 0, 1))
            qFatal("the server does not answer");
    });
}

void countServerWriter()
{
    countEach([] {
        Hoplane::saveSwitchInfoToFile(true, "192.0.2.1", "9000", "198.51.100.1", "9000");
    });
}

void countNetworkWriter()
{
    Hoplane *hoplane = Hoplane::instance();
    countEach([&] {
        hoplane->saveFirstLocalInoToFile(true, "192.0.2.2", "255.255.255.0", "192.0.2.1",
                                         "192.0.2.53", "192.0.2.54");
    });
}

const std::map<std::string, std::function<void()>> functions = {
    { "parse_uevent-of-others", [] { countUevents(otherUevent()); } },
    { "parse_uevent-of-ours", [] { countUevents(lanSwitchUevent("1")); } },
    { "link-walk", countLinks },
    { "loadConfig", countLoading },
    { "tryConnectRemote", countProbe },
    { "saveSwitchInfoToFile", countServerWriter },
    { "saveFirstLocalInoToFile", countNetworkWriter },
};

} // namespace

// In place of the kernel's link messages, as often as one is wanted; else the real one.
extern "C" ssize_t read(int fd, void *buffer, size_t size)
{
    static const auto real =
            reinterpret_cast<ssize_t (*)(int, void *, size_t)>(dlsym(RTLD_NEXT, "read"));
    if (linkMessage.empty())
        return real(fd, buffer, size);
    if (linkMessages == 0) {
        close(fd);
        return 0;
    }
    --linkMessages;
    return ssize_t(linkMessage.copy(static_cast<char *>(buffer), size));
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("instructions");
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (type == QtFatalMsg)
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });
    if (argc == 1) {
        for (const auto &function : functions)
            std::printf("%s\n", function.first.c_str());
        return EXIT_SUCCESS;
    }
    const auto found = argc == 2 ? functions.find(argv[1]) : functions.end();
    if (found == functions.end())
        endWithUsage("instructions [FUNCTION]");
    found->second();
    std::fprintf(stderr, "times: %d\n", times);
    // The watcher's thread runs until the process ends.
    std::_Exit(EXIT_SUCCESS);
}
