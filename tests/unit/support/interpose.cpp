// SPDX-License-Identifier: MIT
#include "interpose.h"

#include <QtCore/QFile>
#include <QtCore/QMetaMethod>
#include <QtCore/QObject>
#include <QtCore/QSettings>
#include <QtCore/QSysInfo>
#include <QtCore/QThread>
#include <QtNetwork/QAbstractSocket>

#include "caddresswatcher.h"
#include "hoplane.h"
#include "networkswitchworker.h"

#include <dlfcn.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <set>
#include <type_traits>
#include <unistd.h>

namespace {

std::mutex guard;

Interpose::Hooks &installedHooks()
{
    static Interpose::Hooks hooks;
    return hooks;
}

/** The library's netlink descriptors. */
std::set<int> &descriptors()
{
    static std::set<int> set;
    return set;
}

template<typename Hook>
Hook hook(Hook Interpose::Hooks::*member)
{
    const std::lock_guard<std::mutex> lock(guard);
    return installedHooks().*member;
}

bool isLibraryDescriptor(int fd)
{
    const std::lock_guard<std::mutex> lock(guard);
    return descriptors().count(fd) != 0;
}

/** Lets the thread sanitizer see what it cannot see of a descriptor in two threads. */
void comesBeforeForget()
{
    const std::lock_guard<std::mutex> lock(guard);
}

// What this thread connects; Qt tells of it only when that is done.
thread_local int connecting = -1;

bool isIn(int tcpState)
{
    tcp_info info = {};
    socklen_t size = sizeof info;
    return getsockopt(connecting, IPPROTO_TCP, TCP_INFO, &info, &size) == 0
            && info.tcpi_state == tcpState;
}

template<typename Function>
Function real(const char *mangledName)
{
    void *address = dlsym(RTLD_NEXT, mangledName);
    if (!address)
        qFatal("no symbol %s to forward to", mangledName);
    return reinterpret_cast<Function>(address);
}

void step(const QString &text)
{
    if (const auto tell = hook(&Interpose::Hooks::step))
        tell(text);
}

QString className(const QObject *object)
{
    return QString::fromLatin1(object->metaObject()->className());
}

QString signalName(const QMetaObject *sender, void **signal)
{
    for (const QMetaObject *meta = sender; meta; meta = meta->superClass()) {
        int index = -1;
        void *arguments[] = { &index, signal };
        meta->static_metacall(QMetaObject::IndexOfMethod, 0, arguments);
        if (index >= 0)
            return QString::fromLatin1(
                    meta->method(meta->methodOffset() + index).methodSignature());
    }
    return QStringLiteral("?");
}

template<typename Member>
bool isSlot(QtPrivate::QSlotObjectBase *slot, Member member)
{
    // Without a kind of the same signature, compare() reads another type of the same layout.
    return slot->compare(reinterpret_cast<void **>(&member));
}

/** Names the member functions of the library that something is connected to. */
QString slotName(const QObject *receiver, void **slotPointer, QtPrivate::QSlotObjectBase *slot)
{
    int index = -1;
    void *arguments[] = { &index, slotPointer };
    for (const QMetaObject *meta = receiver->metaObject(); slotPointer && meta;
         meta = meta->superClass()) {
        meta->static_metacall(QMetaObject::IndexOfMethod, 0, arguments);
        if (index >= 0)
            return QString::fromLatin1(
                    meta->method(meta->methodOffset() + index).methodSignature());
    }
    if (isSlot(slot, &QObject::deleteLater))
        return QStringLiteral("deleteLater()");
    if (isSlot(slot, &NetworkSwitchWorker::start))
        return QStringLiteral("start()");
    if (isSlot(slot, &NetworkSwitchWorker::onSendCurrentServerip))
        return QStringLiteral("onSendCurrentServerip(QString)");
    if (isSlot(slot, &NetworkSwitchWorker::slotAddressChanged))
        return QStringLiteral("slotAddressChanged()");
    if (isSlot(slot, &NetworkSwitchWorker::slotNetWorkDown))
        return QStringLiteral("slotNetWorkDown()");
    if (isSlot(slot, &NetworkSwitchWorker::slotReopen_network))
        return QStringLiteral("slotReopen_network(int)");
    if (isSlot(slot, &CAddressWatcher::slotFinish))
        return QStringLiteral("slotFinish()");
    if (isSlot(slot, &Hoplane::networkChanged))
        return QStringLiteral("networkChanged(QNetworkConfiguration)");
    if (isSlot(slot, &Hoplane::networkAdd))
        return QStringLiteral("networkAdd(QNetworkConfiguration)");
    if (isSlot(slot, &Hoplane::networkRemove))
        return QStringLiteral("networkRemove(QNetworkConfiguration)");
    if (isSlot(slot, &Hoplane::onIpChanged))
        return QStringLiteral("onIpChanged()");
    return QStringLiteral("?");
}

} // namespace

void Interpose::install(const Hooks &hooks)
{
    const std::lock_guard<std::mutex> lock(guard);
    installedHooks() = hooks;
}

void Interpose::forget(int fd)
{
    const std::lock_guard<std::mutex> lock(guard);
    descriptors().erase(fd);
}

FILE *Interpose::Real::popen(const char *command, const char *mode)
{
    return real<FILE *(*)(const char *, const char *)>("popen")(command, mode);
}

int Interpose::Real::socket(int domain, int type, int protocol)
{
    return real<int (*)(int, int, int)>("socket")(domain, type, protocol);
}

int Interpose::Real::setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    return real<int (*)(int, int, int, const void *, socklen_t)>("setsockopt")(fd, level, name,
                                                                               value, length);
}

int Interpose::Real::bind(int fd, const sockaddr *address, socklen_t length)
{
    return real<int (*)(int, const sockaddr *, socklen_t)>("bind")(fd, address, length);
}

ssize_t Interpose::Real::recv(int fd, void *buffer, size_t length, int flags)
{
    const ssize_t result =
            real<ssize_t (*)(int, void *, size_t, int)>("recv")(fd, buffer, length, flags);
    comesBeforeForget();
    return result;
}

ssize_t Interpose::Real::read(int fd, void *buffer, size_t length)
{
    static const auto function = real<ssize_t (*)(int, void *, size_t)>("read");
    const ssize_t result = function(fd, buffer, length);
    comesBeforeForget();
    return result;
}

QDateTime Interpose::Real::currentDateTime()
{
    return real<QDateTime (*)()>("_ZN9QDateTime15currentDateTimeEv")();
}

// The functions of the C library that the watcher and the shell commands use.

extern "C" FILE *popen(const char *command, const char *mode)
{
    const auto answer = hook(&Interpose::Hooks::popen);
    return answer ? answer(command, mode) : Interpose::Real::popen(command, mode);
}

extern "C" int socket(int domain, int type, int protocol) noexcept
{
    if (domain != PF_NETLINK || (type != SOCK_RAW && type != SOCK_DGRAM))
        return Interpose::Real::socket(domain, type, protocol);
    const auto answer = hook(&Interpose::Hooks::socket);
    const int fd = answer ? answer(domain, type, protocol)
                          : Interpose::Real::socket(domain, type, protocol);
    if (fd >= 0) {
        const std::lock_guard<std::mutex> lock(guard);
        descriptors().insert(fd);
    }
    return fd;
}

extern "C" int setsockopt(int fd, int level, int name, const void *value, socklen_t length) noexcept
{
    const auto answer = hook(&Interpose::Hooks::setsockopt);
    return answer && isLibraryDescriptor(fd)
            ? answer(fd, level, name, value, length)
            : Interpose::Real::setsockopt(fd, level, name, value, length);
}

extern "C" int bind(int fd, const sockaddr *address, socklen_t length) noexcept
{
    const auto answer = hook(&Interpose::Hooks::bind);
    return answer && isLibraryDescriptor(fd) ? answer(fd, address, length)
                                             : Interpose::Real::bind(fd, address, length);
}

extern "C" ssize_t recv(int fd, void *buffer, size_t length, int flags)
{
    const auto answer = hook(&Interpose::Hooks::recv);
    return answer && isLibraryDescriptor(fd) ? answer(fd, buffer, length, flags)
                                             : Interpose::Real::recv(fd, buffer, length, flags);
}

extern "C" ssize_t read(int fd, void *buffer, size_t length)
{
    // A failed descriptor is the library's too: it reads from -1 when it got no socket.
    if (fd != -1 && !isLibraryDescriptor(fd))
        return Interpose::Real::read(fd, buffer, length);
    const auto answer = hook(&Interpose::Hooks::read);
    return answer ? answer(fd, buffer, length) : Interpose::Real::read(fd, buffer, length);
}

extern "C" int connect(int fd, const sockaddr *address, socklen_t length)
{
    connecting = fd;
    return real<int (*)(int, const sockaddr *, socklen_t)>("connect")(fd, address, length);
}

// Qt's functions.

QString QSysInfo::currentCpuArchitecture()
{
    if (const auto answer = hook(&Interpose::Hooks::currentCpuArchitecture))
        return answer();
    return real<QString (*)()>("_ZN8QSysInfo22currentCpuArchitectureEv")();
}

QDateTime QDateTime::currentDateTime()
{
    const auto answer = hook(&Interpose::Hooks::currentDateTime);
    return answer ? answer() : Interpose::Real::currentDateTime();
}

void QThread::msleep(unsigned long milliseconds)
{
    if (const auto answer = hook(&Interpose::Hooks::msleep))
        return answer(milliseconds);
    real<void (*)(unsigned long)>("_ZN7QThread6msleepEm")(milliseconds);
}

void QThread::sleep(unsigned long seconds)
{
    if (const auto answer = hook(&Interpose::Hooks::sleep))
        return answer(seconds);
    real<void (*)(unsigned long)>("_ZN7QThread5sleepEm")(seconds);
}

bool QAbstractSocket::waitForConnected(int milliseconds)
{
    if (const auto answer = hook(&Interpose::Hooks::waitForConnected))
        return answer();
    constexpr int patienceMs = 10000;
    const bool *answers = hook(&Interpose::Hooks::serversAnswer);
    pollfd connection = { connecting, POLLOUT, 0 };
    if (isIn(TCP_SYN_SENT) && (!answers || *answers))
        poll(&connection, 1, patienceMs);
    return real<bool (*)(QAbstractSocket *, int)>("_ZN15QAbstractSocket16waitForConnectedEi")(
            this, isIn(TCP_ESTABLISHED) ? patienceMs : milliseconds);
}

bool QFile::exists(const QString &path)
{
    step(QStringLiteral("exists ") + path);
    return real<bool (*)(const QString &)>("_ZN5QFile6existsERK7QString")(path);
}

QVariant QSettings::value(const QString &key, const QVariant &defaultValue) const
{
    if (const auto tell = hook(&Interpose::Hooks::settingsValue))
        tell(key, defaultValue);
    return real<QVariant (*)(const QSettings *, const QString &, const QVariant &)>(
            "_ZNK9QSettings5valueERK7QStringRK8QVariant")(this, key, defaultValue);
}

void QSettings::setValue(const QString &key, const QVariant &value)
{
    if (const auto tell = hook(&Interpose::Hooks::settingsSetValue))
        tell(key, value);
    real<void (*)(QSettings *, const QString &, const QVariant &)>(
            "_ZN9QSettings8setValueERK7QStringRK8QVariant")(this, key, value);
}

bool QSettings::contains(const QString &key) const
{
    if (const auto tell = hook(&Interpose::Hooks::settingsContains))
        tell(key);
    return real<bool (*)(const QSettings *, const QString &)>("_ZNK9QSettings8containsERK7QString")(
            this, key);
}

QMetaObject::Connection QObject::connectImpl(const QObject *sender, void **signal,
                                             const QObject *receiver, void **slotPointer,
                                             QtPrivate::QSlotObjectBase *slot,
                                             Qt::ConnectionType type, const int *types,
                                             const QMetaObject *senderMetaObject)
{
    if (hook(&Interpose::Hooks::step)) {
        step(QStringLiteral("connect %1::%2 %3::%4 %5")
                     .arg(className(sender), signalName(senderMetaObject, signal),
                          className(receiver), slotName(receiver, slotPointer, slot))
                     .arg(int(type)));
    }
    using Function = QMetaObject::Connection (*)(const QObject *, void **, const QObject *, void **,
                                                 QtPrivate::QSlotObjectBase *, Qt::ConnectionType,
                                                 const int *, const QMetaObject *);
    return real<Function>(
            "_ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14"
            "ConnectionTypeEPKiPK11QMetaObject")(sender, signal, receiver, slotPointer, slot, type,
                                                 types, senderMetaObject);
}

bool QObject::disconnectImpl(const QObject *sender, void **signal, const QObject *receiver,
                             void **slot, const QMetaObject *senderMetaObject)
{
    step(QStringLiteral("disconnect %1::%2 %3")
                 .arg(className(sender), signalName(senderMetaObject, signal),
                      className(receiver)));
    using Function =
            bool (*)(const QObject *, void **, const QObject *, void **, const QMetaObject *);
    return real<Function>("_ZN7QObject14disconnectImplEPKS_PPvS1_S3_PK11QMetaObject")(
            sender, signal, receiver, slot, senderMetaObject);
}

QMetaObject::Connection QObject::connect(const QObject *sender, const char *signal,
                                         const QObject *receiver, const char *member,
                                         Qt::ConnectionType type)
{
    // The first character is the code that the SIGNAL and SLOT macros put there.
    step(QStringLiteral("connect-string %1::%2 %3::%4 %5")
                 .arg(className(sender), QString::fromLatin1(signal + 1).section(QChar(0), 0, 0),
                      className(receiver), QString::fromLatin1(member + 1).section(QChar(0), 0, 0))
                 .arg(int(type)));
    using Function = QMetaObject::Connection (*)(const QObject *, const char *, const QObject *,
                                                 const char *, Qt::ConnectionType);
    return real<Function>("_ZN7QObject7connectEPKS_PKcS1_S3_N2Qt14ConnectionTypeE")(
            sender, signal, receiver, member, type);
}

int QObject::startTimer(int interval, Qt::TimerType type)
{
    if (const auto tell = hook(&Interpose::Hooks::startTimer))
        tell(this);
    step(QStringLiteral("startTimer %1 %2 %3").arg(className(this)).arg(interval).arg(int(type)));
    return real<int (*)(QObject *, int, Qt::TimerType)>("_ZN7QObject10startTimerEiN2Qt9TimerTypeE")(
            this, interval, type);
}

void QObject::killTimer(int id)
{
    step(QStringLiteral("killTimer %1").arg(id));
    real<void (*)(QObject *, int)>("_ZN7QObject9killTimerEi")(this, id);
}

void QObject::moveToThread(QThread *thread)
{
    if (const auto tell = hook(&Interpose::Hooks::moveToThread))
        tell(this);
    step(QStringLiteral("moveToThread ") + className(this));
    real<void (*)(QObject *, QThread *)>("_ZN7QObject12moveToThreadEP7QThread")(this, thread);
}

void QThread::start(Priority priority)
{
    step(QStringLiteral("thread-start %1 %2").arg(className(this)).arg(int(priority)));
    real<void (*)(QThread *, Priority)>("_ZN7QThread5startENS_8PriorityE")(this, priority);
}
