// SPDX-License-Identifier: MIT
#include "rehearsal.h"

#include <QCoreApplication>
#include <QHash>
#include <QLoggingCategory>
#include <QMutex>
#include <QNetworkInterface>
#include <QThread>

#include <caddresswatcher.h>
#include <networkswitchworker.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <optional>

namespace {

// Set once and for all: what another thread still has to do of a rehearsal may come after it.
std::atomic<bool> rehearsing{ false };
// Between them the tool itself may sleep.
std::atomic<bool> playing{ false };

struct State
{
    QMutex mutex;
    Rehearsal::Account account;
    QHash<QString, QByteArray> answers;
    std::optional<QString> deviceAddress;
    std::optional<QList<QNetworkInterface>> interfaces;
};

State &state()
{
    static State theState;
    return theState;
}

// What the dynamic linker would have found without this program.
template<typename Function>
Function real(const char *mangledName)
{
    void *const address = dlsym(RTLD_NEXT, mangledName);
    if (!address)
        qFatal("there is no %s", mangledName);
    return reinterpret_cast<Function>(address);
}

void noteStep(const Rehearsal::Step &step)
{
    const QMutexLocker locker(&state().mutex);
    state().account.steps.append(step);
}

void noteOnce(QStringList Rehearsal::Account::*list, const QString &text)
{
    const QMutexLocker locker(&state().mutex);
    QStringList &texts = state().account.*list;
    if (!texts.contains(text))
        texts.append(text);
}

void noteLine(QtMsgType, const QMessageLogContext &, const QString &text)
{
    const QMutexLocker locker(&state().mutex);
    state().account.log.append(text);
}

// The library's lines come whatever the rules of the user's environment leave out.
void enableInfo(QLoggingCategory *category)
{
    category->setEnabled(QtInfoMsg, true);
}

// What the command prints, as a stream; the buffer is kept until the next setAnswer().
FILE *answerTo(const QString &command)
{
    const QMutexLocker locker(&state().mutex);
    const auto answer = state().answers.find(command);
    if (answer == state().answers.end() || answer->isEmpty())
        return std::fopen("/dev/null", "re");
    return fmemopen(answer->data(), std::size_t(answer->size()), "r");
}

} // namespace

void Rehearsal::setAnswer(const QString &command, const QByteArray &output)
{
    const QMutexLocker locker(&state().mutex);
    state().answers.insert(command, output);
}

void Rehearsal::setDeviceAddress(const QString &address)
{
    const QMutexLocker locker(&state().mutex);
    state().deviceAddress = address;
}

void Rehearsal::setInterfaces(const QList<QNetworkInterface> &interfaces)
{
    const QMutexLocker locker(&state().mutex);
    state().interfaces = interfaces;
}

Rehearsal::Account Rehearsal::play(const std::function<void(NetworkSwitchWorker &)> &part)
{
    rehearsing = true;
    playing = true;
    {
        const QMutexLocker locker(&state().mutex);
        state().account = Account();
    }
    const QtMessageHandler handler = qInstallMessageHandler(noteLine);
    const QLoggingCategory::CategoryFilter filter = QLoggingCategory::installFilter(enableInfo);
    {
        // Its watcher does not run, so it may be destroyed.
        NetworkSwitchWorker worker(nullptr);
        worker.loadConfig();
        part(worker);
    }
    playing = false;
    QLoggingCategory::installFilter(filter);
    qInstallMessageHandler(handler);
    const QMutexLocker locker(&state().mutex);
    return state().account;
}

// The functions that the library, and Qt for it, call through the dynamic linker. Outside a
// rehearsal they are the real ones.

extern "C" FILE *popen(const char *command, const char *mode)
{
    if (!rehearsing)
        return real<FILE *(*)(const char *, const char *)>("popen")(command, mode);
    const QString text = QString::fromUtf8(command);
    noteStep({ Rehearsal::Step::Command, text, 0 });
    return answerTo(text);
}

extern "C" int pclose(FILE *stream)
{
    return rehearsing ? std::fclose(stream) : real<int (*)(FILE *)>("pclose")(stream);
}

extern "C" int connect(int fd, const sockaddr *address, socklen_t length)
{
    const bool isInternet = address->sa_family == AF_INET || address->sa_family == AF_INET6;
    if (!rehearsing || !isInternet)
        return real<int (*)(int, const sockaddr *, socklen_t)>("connect")(fd, address, length);
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    if (getnameinfo(address, length, host, sizeof host, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV)
        == 0)
        noteOnce(&Rehearsal::Account::targets,
                 QStringLiteral("%1:%2").arg(QLatin1String(host), QLatin1String(port)));
    errno = ECONNREFUSED;
    return -1;
}

extern "C" int getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                           addrinfo **result)
{
    if (!rehearsing)
        return real<int (*)(const char *, const char *, const addrinfo *, addrinfo **)>(
                "getaddrinfo")(name, service, hints, result);
    // Qt also asks in a thread of its own, which may be late: in another account.
    if (QThread::currentThread() == QCoreApplication::instance()->thread())
        noteOnce(&Rehearsal::Account::names, QString::fromUtf8(name));
    return EAI_NONAME;
}

void QThread::msleep(unsigned long milliseconds)
{
    if (playing)
        return noteStep({ Rehearsal::Step::Attempt, QString(), int(milliseconds) });
    real<void (*)(unsigned long)>("_ZN7QThread6msleepEm")(milliseconds);
}

void QThread::start(Priority priority)
{
    if (!rehearsing || !qobject_cast<CAddressWatcher *>(this))
        real<void (*)(QThread *, Priority)>("_ZN7QThread5startENS_8PriorityE")(this, priority);
}

QList<QNetworkInterface> QNetworkInterface::allInterfaces()
{
    {
        const QMutexLocker locker(&state().mutex);
        if (rehearsing && state().interfaces)
            return *state().interfaces;
    }
    return real<QList<QNetworkInterface> (*)()>("_ZN17QNetworkInterface13allInterfacesEv")();
}

// The library's own, and the one question of it that a rehearsal answers: where the device is.
QString NetworkSwitchWorker::getIPAddress()
{
    {
        const QMutexLocker locker(&state().mutex);
        if (rehearsing && state().deviceAddress)
            return *state().deviceAddress;
    }
    return real<QString (*)(NetworkSwitchWorker *)>("_ZN19NetworkSwitchWorker12getIPAddressEv")(
            this);
}
