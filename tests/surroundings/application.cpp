// SPDX-License-Identifier: MIT
// An application that makes its own surroundings worse, and then searches. Usage:
//
//   surroundings_application REPORT [WORD...]
//
// What happens is written to REPORT, a line each: "log LEVEL TEXT", "signal NAME ARGUMENTS", and at
// the end "children N". Words, in their order:
//
//   ignore-children       SIGCHLD is ignored
//   block-signals         all signals are blocked, in all threads
//   close N               the descriptor is closed before Qt begins
//   descriptors N         at most N descriptors more than there are, from the facade on
//   processes             no process more than there is, from the facade on
//   lost-folder           the current folder is removed
//   wait                  does nothing by itself: standard input says "start", "limit N" or "end"
//
// Without "wait" it searches once, and ends with the search's outcome: 0 for success, 1 for
// failure, 2 when nothing came of it. An unknown word ends it with 64.

#include <hoplane.h>

#include <QCoreApplication>
#include <QDir>
#include <QSocketNotifier>
#include <QStringList>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int report = -1;

void write(const QString &text)
{
    QString line = text;
    line.replace('\n', "\\n");
    const QByteArray bytes = line.toUtf8() + '\n';
    if (::write(report, bytes.constData(), size_t(bytes.size())) != bytes.size())
        _exit(70);
}

void log(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    static const std::map<QtMsgType, const char *> levels = { { QtDebugMsg, "debug" },
                                                              { QtInfoMsg, "info" },
                                                              { QtWarningMsg, "warning" },
                                                              { QtCriticalMsg, "critical" },
                                                              { QtFatalMsg, "fatal" } };
    write(QString("log ") + levels.at(type) + ' ' + text);
}

void limit(__rlimit_resource resource, rlim_t most)
{
    rlimit values = {};
    getrlimit(resource, &values);
    values.rlim_cur = most;
    if (setrlimit(resource, &values) != 0)
        qFatal("a limit cannot be set");
}

/** So many descriptors more than are in use; the numbers between them are in use afterwards. */
void limitDescriptors(int more)
{
    limit(RLIMIT_NOFILE, 1024);
    int highest = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        if (fd != report && fcntl(fd, F_GETFD) != -1)
            highest = fd;
    }
    while (true) {
        const int fd = open("/dev/null", O_RDONLY);
        if (fd > highest) {
            close(fd);
            break;
        }
    }
    limit(RLIMIT_NOFILE, rlim_t(highest) + 1 + rlim_t(more));
}

void blockSignals()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

void loseFolder()
{
    char name[] = "/sandbox/tmp/lostXXXXXX";
    if (!mkdtemp(name) || chdir(name) != 0 || rmdir(name) != 0)
        qFatal("the folder cannot be lost");
}

/** Before Qt begins. */
void worsen(const QStringList &words)
{
    for (int i = 0; i < words.size(); ++i) {
        const QString &word = words[i];
        if (word == "ignore-children")
            std::signal(SIGCHLD, SIG_IGN);
        else if (word == "block-signals")
            blockSignals();
        else if (word == "close")
            close(words.value(++i).toInt());
        else if (word == "lost-folder")
            loseFolder();
        else if (word == "descriptors")
            ++i;
        else if (word != "processes" && word != "wait")
            _exit(64);
    }
}

/** Whether the watcher has its socket. */
bool watcherListens()
{
    for (int fd = 0; fd < 1024; ++fd) {
        int protocol = -1;
        socklen_t size = sizeof protocol;
        sockaddr_nl address = {};
        socklen_t length = sizeof address;
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0
            && address.nl_family == AF_NETLINK && address.nl_groups == RTMGRP_LINK
            && getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0
            && protocol == NETLINK_ROUTE)
            return true;
    }
    return false;
}

/** When the library's threads run. */
void tighten(const QStringList &words)
{
    for (int i = 0; i < words.size(); ++i) {
        if (words[i] == "descriptors")
            limitDescriptors(words.value(++i).toInt());
        else if (words[i] == "processes")
            limit(RLIMIT_NPROC, 0);
    }
}

[[noreturn]] void end(int status)
{
    int children = 0;
    while (waitpid(-1, nullptr, WNOHANG) > 0 || (errno != ECHILD && errno != 0)) {
        ++children;
        errno = 0;
    }
    write("children " + QString::number(children));
    _exit(status);
}

void connectSignals(Hoplane *hoplane, bool waits)
{
    QObject::connect(hoplane, &Hoplane::switchBegin, [] { write("signal switchBegin"); });
    QObject::connect(hoplane, &Hoplane::switchSuccess,
                     [waits](const QString &ip, const QString &port) {
                         write("signal switchSuccess " + ip + ' ' + port);
                         if (!waits)
                             end(0);
                     });
    QObject::connect(hoplane, &Hoplane::switchFailed, [waits](const QString &, int code) {
        write("signal switchFailed " + QString::number(code));
        if (!waits)
            end(1);
    });
}

void obey(Hoplane *hoplane)
{
    char bytes[256];
    const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes - 1);
    if (size <= 0)
        end(2);
    const QStringList lines = QString::fromLatin1(bytes, int(size)).split('\n', Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        if (line == "start")
            emit hoplane->start();
        else if (line.startsWith("limit "))
            limitDescriptors(line.mid(6).toInt());
        else
            end(0);
        write("done " + line);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return 64;
    QStringList words;
    for (int i = 2; i < argc; ++i)
        words.append(QString::fromLocal8Bit(argv[i]));
    // Out of the way of what is closed or limited.
    const int fd = open(argv[1], O_WRONLY | O_CREAT | O_APPEND, 0666);
    report = fcntl(fd, F_DUPFD_CLOEXEC, 1000);
    close(fd);
    worsen(words);
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("surroundings");
    qInstallMessageHandler(log);
    write(QString("locale ") + std::setlocale(LC_ALL, nullptr));

    Hoplane *const hoplane = Hoplane::instance();
    const bool waits = words.contains("wait");
    connectSignals(hoplane, waits);
    QSocketNotifier input(waits ? STDIN_FILENO : report, QSocketNotifier::Read);
    input.setEnabled(waits);
    QObject::connect(&input, &QSocketNotifier::activated, [hoplane] { obey(hoplane); });
    QTimer ready;
    QObject::connect(&ready, &QTimer::timeout, [&] {
        if (!watcherListens())
            return;
        ready.stop();
        tighten(words);
        write("ready");
        if (!waits)
            emit hoplane->start();
    });
    ready.start(5);
    return QCoreApplication::exec();
}
