// SPDX-License-Identifier: MIT
#include "tcpattempt.h"

#include <QElapsedTimer>
#include <QScopeGuard>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

double elapsedMs(const QElapsedTimer &clock)
{
    constexpr double nanoseconds = 1e6;
    return double(clock.nsecsElapsed()) / nanoseconds;
}

// The error of a connection that is being made; 0 when it has been.
int awaitAnswer(int fd, const QElapsedTimer &clock, int interval)
{
    pollfd waited{ fd, POLLOUT, 0 };
    int ready = -1;
    do {
        const qint64 left = std::max<qint64>(interval - clock.elapsed(), 0);
        ready = poll(&waited, 1, int(left));
    } while (ready < 0 && errno == EINTR);
    if (ready < 0)
        return errno;
    if (ready == 0)
        return ETIMEDOUT;
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

QString ownAddress(int fd)
{
    sockaddr_in local{};
    socklen_t length = sizeof local;
    const bool known = getsockname(fd, reinterpret_cast<sockaddr *>(&local), &length) == 0;
    return known ? dottedAddress(local) : QString();
}

} // namespace

TcpAttempt TcpAttempt::make(const sockaddr_in &address, int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0)
        return { NotTried, errno, elapsedMs(clock), QString() };
    const auto closing = qScopeGuard([socket] { close(socket); });
    const auto *const any = reinterpret_cast<const sockaddr *>(&address);
    int error = connect(socket, any, sizeof address) == 0 ? 0 : errno;
    // Other errors than this come before anything was sent.
    const bool sent = error == EINPROGRESS;
    if (sent)
        error = awaitAnswer(socket, clock, milliseconds);
    const double spent = elapsedMs(clock);
    if (error == 0)
        return { Accepted, 0, spent, ownAddress(socket) };
    if (error == ECONNREFUSED)
        return { Refused, error, spent, QString() };
    return { sent ? NoAnswer : NotTried, error, spent, QString() };
}

QString dottedAddress(const sockaddr_in &address)
{
    char text[INET_ADDRSTRLEN];
    return QString::fromLatin1(inet_ntop(AF_INET, &address.sin_addr, text, sizeof text));
}
