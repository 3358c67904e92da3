// SPDX-License-Identifier: MIT
#ifndef INTERPOSE_H
#define INTERPOSE_H

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/QVariant>

#include <cstdio>
#include <functional>
#include <sys/socket.h>
#include <sys/types.h>

class QAbstractSocket;

/**
 * Stands between the library and the functions that it calls through the dynamic linker, so that a
 * test can answer in their place. What no hook is set for reaches the real function.
 *
 * The socket functions are intercepted for the library's own netlink descriptors only: those
 * returned by socket() for PF_NETLINK with a bare type (Qt and glibc add SOCK_CLOEXEC).
 *
 * waitForConnected() is told how the connection went, however long the kernel takes to know: on a
 * busy machine the library's millisecond may be over before that. Its sleep, which is for that, is
 * left out in most tests.
 */
namespace Interpose {

struct Hooks
{
    std::function<QString()> currentCpuArchitecture;
    std::function<QDateTime()> currentDateTime;
    std::function<void(unsigned long)> msleep; // QThread::msleep
    std::function<void(unsigned long)> sleep; // QThread::sleep
    std::function<bool()> waitForConnected; // QAbstractSocket::waitForConnected
    /** Null, or false where a server gives no answer: then only the library's own time is waited.
     */
    const bool *serversAnswer = nullptr;
    std::function<FILE *(const char *command, const char *mode)> popen;
    std::function<int(int domain, int type, int protocol)> socket;
    std::function<int(int fd, int level, int name, const void *value, socklen_t length)> setsockopt;
    std::function<int(int fd, const sockaddr *address, socklen_t length)> bind;
    std::function<ssize_t(int fd, void *buffer, size_t length, int flags)> recv;
    std::function<ssize_t(int fd, void *buffer, size_t length)> read;

    // Observers; the real function runs afterwards.
    std::function<void(const QString &key, const QVariant &defaultValue)> settingsValue;
    std::function<void(const QString &key, const QVariant &value)> settingsSetValue;
    std::function<void(const QString &key)> settingsContains;
    /**
     * Told of construction steps, each as one line:
     *   "exists PATH"                                          QFile::exists
     *   "connect SENDER::SIGNAL() RECEIVER::SLOT() TYPE"       member-pointer connect, the type as
     *                                                          the number of Qt::ConnectionType
     *   "connect-string SENDER::SIGNAL RECEIVER::SLOT TYPE"    string-based connect
     *   "disconnect SENDER::SIGNAL() RECEIVER"                 member-pointer disconnect
     *   "startTimer CLASS INTERVAL TIMERTYPE", "killTimer ID"
     *   "moveToThread CLASS"
     *   "thread-start CLASS PRIORITY"
     * The class is that of the object's meta-object at that moment.
     */
    std::function<void(const QString &step)> step;
    /** Told of the object of a startTimer and of a moveToThread step, before the step itself. */
    std::function<void(QObject *object)> startTimer;
    std::function<void(QObject *object)> moveToThread;
};

/** Replaces all hooks; Hooks() removes them. */
void install(const Hooks &hooks);

/** Ends the interception of a descriptor that is about to be closed, and orders the close after it.
 */
void forget(int fd);

/** The real functions, for hooks that only count or change an argument. */
namespace Real {
FILE *popen(const char *command, const char *mode);
int socket(int domain, int type, int protocol);
int setsockopt(int fd, int level, int name, const void *value, socklen_t length);
int bind(int fd, const sockaddr *address, socklen_t length);
ssize_t recv(int fd, void *buffer, size_t length, int flags);
ssize_t read(int fd, void *buffer, size_t length);
QDateTime currentDateTime();
} // namespace Real

} // namespace Interpose

#endif
