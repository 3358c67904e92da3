// SPDX-License-Identifier: MIT
#ifndef LOOPBACKSERVER_H
#define LOOPBACKSERVER_H

#include <QtCore/QString>
#include <QtCore/QVector>
#include <QtNetwork/QHostAddress>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

/** Holds a TCP port of a loopback address; connections are refused until listen(). */
class LoopbackServer
{
public:
    explicit LoopbackServer(const QString &address = QStringLiteral("127.0.0.1"))
        : m_address(address)
    {
        const bool isIPv6 = QHostAddress(address).protocol() == QAbstractSocket::IPv6Protocol;
        // Closed on exec, so that no shell command keeps the port.
        m_fd = ::socket(isIPv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (!(isIPv6 ? bindIPv6() : bindIPv4()))
            qFatal("no port on %s", qPrintable(address));
    }
    ~LoopbackServer()
    {
        for (const int peer : qAsConst(m_peers))
            close(peer);
        close(m_fd);
    }
    Q_DISABLE_COPY(LoopbackServer)

    QString address() const { return m_address; }
    QString port() const { return QString::number(m_port); }

    /** The kernel completes one handshake more than @p backlog without an accept(). */
    void listen(int backlog = 64)
    {
        if (::listen(m_fd, backlog) != 0)
            qFatal("cannot listen on %s", qPrintable(m_address));
    }

    /** The next connection's descriptor, which stays open; -1 if none comes within 10 s. */
    int accept()
    {
        const int peer = isReadable(m_fd) ? ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (peer >= 0)
            m_peers.append(peer);
        return peer;
    }

    /** True if the next connection ends without having sent anything. */
    bool acceptsSilentPeer()
    {
        const int peer = accept();
        char byte = 0;
        return peer >= 0 && isReadable(peer) && ::recv(peer, &byte, 1, 0) == 0;
    }

    /** True if no further connection has been made. */
    bool hasNoConnection()
    {
        pollfd waiting = { m_fd, POLLIN, 0 };
        return poll(&waiting, 1, 0) == 0;
    }

private:
    static bool isReadable(int fd)
    {
        pollfd waiting = { fd, POLLIN, 0 };
        return poll(&waiting, 1, 10000) == 1;
    }

    bool bindIPv4()
    {
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        inet_pton(AF_INET, qPrintable(m_address), &name.sin_addr);
        return bindTo(&name, &name.sin_port);
    }

    bool bindIPv6()
    {
        sockaddr_in6 name = {};
        name.sin6_family = AF_INET6;
        inet_pton(AF_INET6, qPrintable(m_address), &name.sin6_addr);
        return bindTo(&name, &name.sin6_port);
    }

    template<typename Name>
    bool bindTo(Name *name, const in_port_t *port)
    {
        auto *generic = reinterpret_cast<sockaddr *>(name);
        socklen_t length = sizeof *name;
        const bool bound =
                ::bind(m_fd, generic, length) == 0 && getsockname(m_fd, generic, &length) == 0;
        m_port = ntohs(*port);
        return bound;
    }

    QString m_address;
    int m_fd = -1;
    QVector<int> m_peers;
    quint16 m_port = 0;
};

#endif
