// SPDX-License-Identifier: MIT
#ifndef STAMP_H
#define STAMP_H

#include <cstdio>
#include <ctime>
#include <unistd.h>

/** What all measuring programs tell the time by: nanoseconds of CLOCK_MONOTONIC. */
inline long long nowNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

/** Writes the line "NANOSECONDS WHAT" at once, in one piece. */
inline void writeStamp(int fd, long long when, const char *what)
{
    char line[128];
    const int length = std::snprintf(line, sizeof line, "%lld %s\n", when, what);
    if (length <= 0 || length >= int(sizeof line) || write(fd, line, size_t(length)) != length)
        _exit(1);
}

#endif
