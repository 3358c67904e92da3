// SPDX-License-Identifier: MIT
//
// Searches by the library, with the configuration that is there, one after the other. Prints of
// each when it began, when the last attempt failed if one did, when it succeeded, and how long its
// commands took; at the end, how much more memory is in use than after the tenth search.
//
//   search_library SEARCHES [--no-sleep] [--by-link INTERFACE] [--dead ADDRESS]
//
// --no-sleep leaves the probe's sleep out. --by-link lets the kernel tell that the interface has
// gone down and up again, for each search in place of start(). --dead tells of failures to connect
// to that server only.

#include "arguments.h"
#include "stamp.h"

#include <hoplane.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

bool sleeps = true;
QString dead;
int stamps = -1;
// Written by the worker's thread, read by the main one after the worker's queued signal.
long long lastFailure = 0;
long long commandsNs = 0;
long long commandBegan = 0;

template<typename Function>
Function real(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void noteFailure(QtMsgType, const QMessageLogContext &, const QString &text)
{
    if (text.contains(QLatin1String("connect to host fail")) && text.contains(dead))
        lastFailure = nowNs();
}

void goDownAndUp(const QByteArray &interface)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    qstrncpy(request.ifr_name, interface.constData(), IFNAMSIZ);
    bool done = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    for (int i = 0; i < 2; ++i) {
        request.ifr_flags = short(request.ifr_flags ^ IFF_UP);
        done = done && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    close(fd);
    if (!done)
        qFatal("%s cannot go down and up", interface.constData());
}

class Searches : public QObject
{
public:
    Searches(int count, const QByteArray &interface)
        : m_left(count)
        , m_interface(interface)
    {
        connect(m_hoplane, &Hoplane::switchSuccess, this, &Searches::note);
        connect(m_hoplane, &Hoplane::switchFailed, this, [] { qFatal("the search failed"); });
        // A change that comes before the worker has ended its search leads to no other.
        m_again.setSingleShot(true);
        connect(&m_again, &QTimer::timeout, this, [this] {
            goDownAndUp(m_interface);
            m_again.start(100);
        });
        if (!interface.isEmpty()) {
            connect(m_hoplane, &Hoplane::start, this, [this] {
                m_again.stop();
                m_began = nowNs();
            });
        }
    }

    void next()
    {
        lastFailure = 0;
        commandsNs = 0;
        if (!m_interface.isEmpty()) {
            m_again.start(2);
            return;
        }
        m_began = nowNs();
        Q_EMIT m_hoplane->start();
    }

private:
    void note()
    {
        const long long now = nowNs();
        writeStamp(stamps, m_began, "begin");
        if (lastFailure)
            writeStamp(stamps, lastFailure, "dead");
        writeStamp(stamps, now, "success");
        writeStamp(stamps, commandsNs, "commands");
        const size_t inUse = mallinfo2().uordblks;
        // The first ones meet what is prepared once.
        if (++m_done <= 10)
            m_atFirst = inUse;
        if (--m_left == 0) {
            writeStamp(stamps, ssize_t(inUse - m_atFirst), "bytes");
            std::_Exit(EXIT_SUCCESS); // the library's threads run until then
        }
        next();
    }

    Hoplane *const m_hoplane = Hoplane::instance();
    QTimer m_again;
    int m_left;
    int m_done = 0;
    const QByteArray m_interface;
    long long m_began = 0;
    size_t m_atFirst = 0;
};

} // namespace

void QThread::msleep(unsigned long milliseconds)
{
    if (sleeps)
        real<void (*)(unsigned long)>("_ZN7QThread6msleepEm")(milliseconds);
}

extern "C" FILE *popen(const char *command, const char *mode)
{
    commandBegan = nowNs();
    return real<FILE *(*)(const char *, const char *)>("popen")(command, mode);
}

extern "C" int pclose(FILE *stream)
{
    const int status = real<int (*)(FILE *)>("pclose")(stream);
    commandsNs += nowNs() - commandBegan;
    return status;
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("bench");
    QCommandLineParser parser;
    const QCommandLineOption noSleep("no-sleep");
    const QCommandLineOption byLink("by-link", QString(), "interface");
    const QCommandLineOption deadServer("dead", QString(), "address");
    parser.addOptions({ noSleep, byLink, deadServer });
    const bool isParsed = parser.parse(QCoreApplication::arguments());
    sleeps = !parser.isSet(noSleep);
    dead = parser.value(deadServer);
    const QStringList words = parser.positionalArguments();
    const int count = isParsed && words.size() == 1 ? countOf(words[0].toLatin1()) : 0;
    if (count < 1)
        endWithUsage("search_library SEARCHES [--no-sleep] [--by-link INTERFACE] [--dead ADDRESS]");
    // What the library prints of links is no part of what is told here.
    stamps = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (stamps < 0 || dup2(nothing, STDOUT_FILENO) < 0) {
        std::perror("search_library");
        return EXIT_FAILURE;
    }
    qInstallMessageHandler(noteFailure);
    Searches searches(count, parser.value(byLink).toLocal8Bit());
    searches.next();
    return QCoreApplication::exec();
}
