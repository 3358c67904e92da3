// SPDX-License-Identifier: MIT
//
// Measures what the library itself adds to a search whose first server answers at once: the time
// from the application's start() to its switchSuccess(), less the probe's sleep and less the
// commands, both as they really took. Fails if the median is over 5 ms.
//
//   script/sandbox build/release/bench/search_overhead [SEARCHES]

#include <hoplane.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>
#include <QtCore/QVector>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace {

constexpr double limitMs = 5.0;

// Written by the worker's thread, read by the main one after the worker's queued signal.
qint64 waitedNs = 0;
int commands = 0;
QElapsedTimer commandTimer;

template<typename Function>
Function real(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void play(const QTemporaryDir &folder)
{
    FILE *scenario = std::fopen(qPrintable(folder.filePath("scenario")), "w");
    if (!scenario || std::fputs("lookup print 5e6c\\n\nup print activated\\n\n", scenario) < 0
        || std::fclose(scenario) != 0) {
        std::perror("search_overhead: cannot write the scenario");
        std::exit(EXIT_FAILURE);
    }
    qputenv("FAKE_NMCLI", folder.path().toLocal8Bit());
    qputenv("PATH", FAKES_FOLDER ":/usr/bin:/bin");
}

double measureSearch(Hoplane *hoplane)
{
    QEventLoop loop;
    QObject::connect(hoplane, &Hoplane::switchSuccess, &loop, &QEventLoop::quit);
    QObject::connect(hoplane, &Hoplane::switchFailed, &loop, [] {
        std::fputs("search_overhead: the search failed\n", stderr);
        std::exit(EXIT_FAILURE);
    });
    waitedNs = 0;
    commands = 0;
    QElapsedTimer timer;
    timer.start();
    Q_EMIT hoplane->start();
    loop.exec();
    return double(timer.nsecsElapsed() - waitedNs) / 1e6;
}

} // namespace

void QThread::msleep(unsigned long milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    real<void (*)(unsigned long)>("_ZN7QThread6msleepEm")(milliseconds);
    waitedNs += timer.nsecsElapsed();
}

extern "C" FILE *popen(const char *command, const char *mode)
{
    ++commands;
    commandTimer.start();
    return real<FILE *(*)(const char *, const char *)>("popen")(command, mode);
}

extern "C" int pclose(FILE *stream)
{
    const int status = real<int (*)(FILE *)>("pclose")(stream);
    waitedNs += commandTimer.nsecsElapsed();
    return status;
}

int main(int argc, char **argv)
{
    if (qgetenv("HOME") != "/sandbox/home") {
        std::fputs("search_overhead: run this through script/sandbox\n", stderr);
        return EXIT_FAILURE;
    }
    QCoreApplication app(argc, argv);
    const int searches = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    const QTemporaryDir folder;
    play(folder);
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost)) {
        std::fprintf(stderr, "search_overhead: %s\n", qPrintable(server.errorString()));
        return EXIT_FAILURE;
    }

    QCoreApplication::setApplicationName("search_overhead");
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const QString port = QString::number(server.serverPort());
    Hoplane::saveSwitchInfoToFile(true, "127.0.0.1", port, "127.0.0.1", port);
    Hoplane *hoplane = Hoplane::instance();
    hoplane->saveConnectionName("lan");

    QVector<double> overheads;
    for (int i = 0; i < searches; ++i)
        overheads.append(measureSearch(hoplane));
    std::sort(overheads.begin(), overheads.end());
    std::printf("%d searches of %d commands: beyond the sleep and the commands\n"
                "median %.2f ms, least %.2f ms, most %.2f ms\n",
                searches, commands, overheads[searches / 2], overheads.first(), overheads.last());
    std::fflush(stdout);
    // The library's threads run until the process ends.
    std::_Exit(overheads[searches / 2] <= limitMs ? EXIT_SUCCESS : EXIT_FAILURE);
}
