// SPDX-License-Identifier: MIT
//
// The floor of a flood: receives the events, and looks in each for its device.

#include "flood.h"
#include "uevent.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

[[noreturn]] void receive(int fd)
{
    static const char wanted[] = "/devices/virtual/switch/lan-switch";
    char buffer[2048];
    for (;;) {
        const ssize_t length = recv(fd, buffer, sizeof buffer - 2, 0);
        if (length <= 0)
            continue;
        buffer[length] = '\0';
        buffer[length + 1] = '\0';
        const char *path = ueventValue(buffer, "DEVPATH=");
        if (path && std::strcmp(path, wanted) == 0)
            std::exit(EXIT_FAILURE); // nobody has sent it
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int count = floodCount(argc, argv);
    const int fd = ueventSocket();
    if (fd < 0) {
        std::perror("flood_raw");
        return EXIT_FAILURE;
    }
    std::thread receiver(receive, fd);
    const Receiver of = { fd, receiver.native_handle() };
    flood(of, 1); // what is prepared once
    std::printf("%.1f ns\n", flood(of, count));
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
