// SPDX-License-Identifier: MIT
// Surroundings that a test cannot bring about: preloaded into hoplanectl, these functions tell of a
// device as the environment describes it. What it does not mention is as it really is.
//
//   SURROUNDINGS_CLOCK         "ERROR SECONDS": the clock's greatest error in microseconds and its
//                              time, 0 for the real one; "refused": the kernel does not tell
//   SURROUNDINGS_REFUSED       "socket PROTOCOL" or "bind PROTOCOL": of AF_NETLINK, not allowed
//   SURROUNDINGS_INTERRUPTED   "pipe": every other time that a pipe is read, a signal comes first
//   SURROUNDINGS_ARCHITECTURE  the processor's, in Qt's words
//   SURROUNDINGS_CODEC         that of the locale
//   SURROUNDINGS_OWNER         "NUMBER PATH": the user who owns the file
//   SURROUNDINGS_ROOM          "FREE AVAILABLE FILES AVAILABLE": of each file system, the blocks
//                              that are free and that anybody may have, and the files that it can
//                              have and that anybody may make
//   SURROUNDINGS_TOLD          a text: once it is told, SURROUNDINGS_NEW takes the place of the
//                              file SURROUNDINGS_OLD

#include <QSysInfo>
#include <QTextCodec>

#include <dlfcn.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

template<typename Function>
Function real(const char *mangledName)
{
    void *address = dlsym(RTLD_NEXT, mangledName);
    if (!address)
        std::abort();
    return reinterpret_cast<Function>(address);
}

// Whether this call on a socket of AF_NETLINK is refused.
bool isRefused(const char *call, int protocol)
{
    const char *const refused = getenv("SURROUNDINGS_REFUSED");
    char text[32];
    std::snprintf(text, sizeof text, "%s %d", call, protocol);
    return refused && std::strcmp(refused, text) == 0;
}

// The programs that hoplanectl starts are not concerned.
__attribute__((constructor)) void stayAlone()
{
    unsetenv("LD_PRELOAD");
}

} // namespace

extern "C" int adjtimex(timex *state) noexcept
{
    const char *const clock = getenv("SURROUNDINGS_CLOCK");
    if (clock && std::strcmp(clock, "refused") == 0) {
        errno = EPERM;
        return -1;
    }
    const int result = real<int (*)(timex *)>("adjtimex")(state);
    long error = 0;
    long seconds = 0;
    if (clock && std::sscanf(clock, "%ld %ld", &error, &seconds) == 2) {
        state->maxerror = error;
        if (seconds != 0)
            state->time.tv_sec = seconds;
    }
    return result;
}

extern "C" int socket(int domain, int type, int protocol) noexcept
{
    if (domain == AF_NETLINK && isRefused("socket", protocol)) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    return real<int (*)(int, int, int)>("socket")(domain, type, protocol);
}

extern "C" ssize_t read(int fd, void *bytes, size_t most)
{
    static bool interrupts = false;
    struct stat state = {};
    if (getenv("SURROUNDINGS_INTERRUPTED") && fstat(fd, &state) == 0 && S_ISFIFO(state.st_mode)) {
        interrupts = !interrupts;
        if (interrupts) {
            errno = EINTR;
            return -1;
        }
    }
    return real<ssize_t (*)(int, void *, size_t)>("read")(fd, bytes, most);
}

extern "C" size_t fwrite(const void *bytes, size_t size, size_t count, FILE *stream)
{
    const char *const text = getenv("SURROUNDINGS_TOLD");
    if (text && memmem(bytes, size * count, text, std::strlen(text)))
        std::rename(getenv("SURROUNDINGS_NEW"), getenv("SURROUNDINGS_OLD"));
    return real<size_t (*)(const void *, size_t, size_t, FILE *)>("fwrite")(bytes, size, count,
                                                                            stream);
}

extern "C" int bind(int fd, const sockaddr *address, socklen_t length) noexcept
{
    int protocol = 0;
    socklen_t size = sizeof protocol;
    if (address->sa_family == AF_NETLINK
        && getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0
        && isRefused("bind", protocol)) {
        errno = EPERM;
        return -1;
    }
    return real<int (*)(int, const sockaddr *, socklen_t)>("bind")(fd, address, length);
}

extern "C" int stat(const char *path, struct stat *state) noexcept
{
    const int result = real<int (*)(const char *, struct stat *)>("stat")(path, state);
    const char *const owner = getenv("SURROUNDINGS_OWNER");
    char *ofPath = nullptr;
    const unsigned long user = owner ? std::strtoul(owner, &ofPath, 10) : 0;
    if (owner && std::strcmp(ofPath + 1, path) == 0)
        state->st_uid = uid_t(user);
    return result;
}

extern "C" int statvfs(const char *path, struct statvfs *state) noexcept
{
    const int result = real<int (*)(const char *, struct statvfs *)>("statvfs")(path, state);
    const char *const room = getenv("SURROUNDINGS_ROOM");
    unsigned long values[4] = {};
    if (room
        && std::sscanf(room, "%lu %lu %lu %lu", &values[0], &values[1], &values[2], &values[3])
                == 4) {
        state->f_bfree = values[0];
        state->f_bavail = values[1];
        state->f_files = values[2];
        state->f_favail = values[3];
    }
    return result;
}

QString QSysInfo::currentCpuArchitecture()
{
    const QByteArray architecture = qgetenv("SURROUNDINGS_ARCHITECTURE");
    return architecture.isEmpty() ? real<QString (*)()>("_ZN8QSysInfo22currentCpuArchitectureEv")()
                                  : QString::fromLatin1(architecture);
}

QTextCodec *QTextCodec::codecForLocale()
{
    const QByteArray codec = qgetenv("SURROUNDINGS_CODEC");
    return codec.isEmpty() ? real<QTextCodec *(*)()>("_ZN10QTextCodec14codecForLocaleEv")()
                           : QTextCodec::codecForName(codec);
}
