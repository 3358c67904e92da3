// SPDX-License-Identifier: MIT
//
// The same flood for the library's watcher, whose thread's allocations are counted as well.

#include "flood.h"

#include <caddresswatcher.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QSysInfo>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <linux/netlink.h>
#include <malloc.h>
#include <semaphore.h>
#include <sys/socket.h>

extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *memory, size_t size);

namespace {

Receiver receiver = { -1, pthread_t() };
sem_t bound;
std::atomic<bool> isCounting = false;
std::atomic<int> allocations = 0;

void count()
{
    if (isCounting && pthread_equal(pthread_self(), receiver.thread))
        ++allocations;
}

} // namespace

// In front of the functions that the library calls: what it allocates, and which socket is its own.

extern "C" void *malloc(size_t size)
{
    count();
    return __libc_malloc(size);
}

extern "C" void *calloc(size_t number, size_t size)
{
    count();
    return __libc_calloc(number, size);
}

extern "C" void *realloc(void *memory, size_t size)
{
    count();
    return __libc_realloc(memory, size);
}

extern "C" int bind(int fd, const sockaddr *address, socklen_t length) noexcept
{
    using Bind = int (*)(int, const sockaddr *, socklen_t);
    const int result = reinterpret_cast<Bind>(dlsym(RTLD_NEXT, "bind"))(fd, address, length);
    receiver = { fd, pthread_self() };
    sem_post(&bound);
    return result;
}

QString QSysInfo::currentCpuArchitecture()
{
    return QStringLiteral("arm64");
}

int main(int argc, char **argv)
{
    const int events = floodCount(argc, argv);
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    sem_init(&bound, 0, 0);
    CAddressWatcher watcher(nullptr);
    watcher.start();
    sem_wait(&bound);
    // The first event that the watcher meets may find what is prepared once.
    flood(receiver, 1);
    const size_t before = mallinfo2().uordblks;
    isCounting = true;
    const double each = flood(receiver, events);
    isCounting = false;
    std::printf("%.1f ns\n%d allocations\n%zd bytes\n", each, allocations.load(),
                ssize_t(mallinfo2().uordblks - before));
    std::fflush(stdout);
    // Nothing ends the watcher's thread but the process.
    std::_Exit(EXIT_SUCCESS);
}
