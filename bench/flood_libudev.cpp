// SPDX-License-Identifier: MIT
//
// The same flood for libudev's monitor of the kernel's events, asked for the device's path of each.

#include "flood.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libudev.h>
#include <poll.h>
#include <thread>

namespace {

[[noreturn]] void receive(udev_monitor *monitor)
{
    for (;;) {
        pollfd waiting = { udev_monitor_get_fd(monitor), POLLIN, 0 };
        if (poll(&waiting, 1, -1) != 1)
            continue;
        udev_device *device = udev_monitor_receive_device(monitor);
        if (!device)
            continue;
        const char *path = udev_device_get_devpath(device);
        if (path && std::strcmp(path, "/devices/virtual/switch/lan-switch") == 0)
            std::exit(EXIT_FAILURE); // nobody has sent it
        udev_device_unref(device);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int count = floodCount(argc, argv);
    udev_monitor *monitor = udev_monitor_new_from_netlink(udev_new(), "kernel");
    if (!monitor || udev_monitor_set_receive_buffer_size(monitor, 64 * 1024) < 0
        || udev_monitor_enable_receiving(monitor) < 0) {
        std::fputs("flood_libudev: there is no monitor\n", stderr);
        return EXIT_FAILURE;
    }
    std::thread receiver(receive, monitor);
    const Receiver of = { udev_monitor_get_fd(monitor), receiver.native_handle() };
    flood(of, 1); // what is prepared once
    std::printf("%.1f ns\n", flood(of, count));
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
