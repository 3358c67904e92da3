// SPDX-License-Identifier: MIT
#include "flood.h"

#include "arguments.h"
#include "uevent.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <linux/sock_diag.h>
#include <sched.h>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

/** How many bytes wait in the socket. */
unsigned waiting(int fd)
{
    unsigned values[SK_MEMINFO_VARS] = {};
    socklen_t size = sizeof values;
    if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, values, &size) != 0)
        fail("SO_MEMINFO");
    if (values[SK_MEMINFO_DROPS] != 0) {
        std::fputs("flood: the kernel has dropped events\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    return values[SK_MEMINFO_RMEM_ALLOC];
}

long long processorNs(pthread_t thread)
{
    clockid_t clock = 0;
    timespec time = {};
    if (pthread_getcpuclockid(thread, &clock) != 0 || clock_gettime(clock, &time) != 0)
        fail("processor time");
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

/** After nothing waits, and the thread has not run for a millisecond. */
long long processorNsAtRest(const Receiver &receiver)
{
    for (;;) {
        const long long before = processorNs(receiver.thread);
        const timespec rest = { 0, 1000000 };
        nanosleep(&rest, nullptr);
        if (waiting(receiver.fd) == 0 && processorNs(receiver.thread) == before)
            return before;
    }
}

} // namespace

double flood(const Receiver &receiver, int count)
{
    constexpr int mostWaiting = 32; // half of what fits
    const UeventSender sender;
    const std::string event = otherUevent();
    const long long before = processorNsAtRest(receiver);
    for (int i = 0; i < count; ++i) {
        if (!sender.send(event))
            fail("uevent");
        if (i % mostWaiting == mostWaiting - 1) {
            while (waiting(receiver.fd) > 0)
                sched_yield();
        }
    }
    return double(processorNsAtRest(receiver) - before) / count;
}

int floodCount(int argc, char **argv)
{
    const int count = argc == 2 ? countOf(argv[1]) : 0;
    if (count < 1)
        endWithUsage("flood_raw|flood_library|flood_libudev COUNT");
    return count;
}
