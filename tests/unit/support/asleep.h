// SPDX-License-Identifier: MIT
#ifndef ASLEEP_H
#define ASLEEP_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include <chrono>
#include <cstdio>
#include <sys/syscall.h>
#include <sys/types.h>
#include <thread>
#include <unistd.h>

/** What the kernel tells of a thread of this process. Usable from any thread. */
namespace Asleep {

inline pid_t thisThread()
{
    return pid_t(syscall(SYS_gettid));
}

/** The lines of a file below the thread's folder of /proc. */
inline QByteArray tell(pid_t thread, const char *file)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/%s", int(thread), file);
    QByteArray text;
    if (FILE *stream = std::fopen(path, "re")) {
        char line[512];
        while (std::fgets(line, sizeof line, stream))
            text += line;
        std::fclose(stream);
    }
    return text;
}

/** Whether the thread sleeps within this call of the kernel, on this descriptor. */
inline bool isIn(pid_t thread, long call, int fd)
{
    // "running", or the call's number and its arguments.
    const QList<QByteArray> words = tell(thread, "syscall").simplified().split(' ');
    return words.size() > 1 && words[0].toLong() == call && words[1].toInt(nullptr, 16) == fd;
}

/** Waits until it does so, without handling events; false after a minute. */
inline bool waitUntilIn(pid_t thread, long call, int fd)
{
    for (int i = 0; i < 60000; ++i) {
        if (isIn(thread, call, fd))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

} // namespace Asleep

#endif
