// SPDX-License-Identifier: MIT
//
// Changes something that others react to, and prints when each change began.
//
//   change link INTERFACE COUNT GAP_MS     takes the interface down and up again, in turn
//   change uevent COUNT GAP_MS             lets the kernel tell of the LAN switch
//
// Each change comes GAP_MS after the end of the one before.

#include "arguments.h"
#include "stamp.h"
#include "uevent.h"

#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

void rest(long milliseconds)
{
    const timespec time = { milliseconds / 1000, milliseconds % 1000 * 1000000 };
    nanosleep(&time, nullptr);
}

void changeLink(const char *name, int count, long gapMs)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    if (fd < 0 || ioctl(fd, SIOCGIFFLAGS, &request) != 0)
        fail(name);
    for (int i = 0; i < count; ++i) {
        rest(gapMs);
        request.ifr_flags = short(request.ifr_flags ^ IFF_UP);
        const long long begin = nowNs();
        if (ioctl(fd, SIOCSIFFLAGS, &request) != 0)
            fail(name);
        writeStamp(STDOUT_FILENO, begin, request.ifr_flags & IFF_UP ? "up" : "down");
    }
    close(fd);
}

void changeSwitch(int count, long gapMs)
{
    const UeventSender sender;
    for (int i = 0; i < count; ++i) {
        rest(gapMs);
        const char *state = i % 2 == 0 ? "1" : "0";
        const std::string text = lanSwitchUevent(state);
        const long long begin = nowNs();
        if (!sender.send(text))
            fail("uevent");
        writeStamp(STDOUT_FILENO, begin, state);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const bool isOfLink = argc == 5 && std::strcmp(argv[1], "link") == 0;
    const bool isOfSwitch = argc == 4 && std::strcmp(argv[1], "uevent") == 0;
    const int count = isOfLink || isOfSwitch ? countOf(argv[argc - 2]) : 0;
    const int gapMs = count ? countOf(argv[argc - 1]) : 0;
    if (!gapMs)
        endWithUsage("change link INTERFACE COUNT GAP_MS | change uevent COUNT GAP_MS");
    if (isOfLink)
        changeLink(argv[2], count, gapMs);
    else
        changeSwitch(count, gapMs);
    return EXIT_SUCCESS;
}
