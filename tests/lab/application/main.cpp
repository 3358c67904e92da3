// SPDX-License-Identifier: MIT
// The application of the laboratory: takes the facade, does what it is told on standard input, a
// command a line, and writes everything that happens to standard output (see line.h):
//
//   ready                  the facade is made and the event loop runs
//   signal NAME ARGUMENTS  a signal of the facade
//   stray NAME ARGUMENTS   the same, in another thread than the main one
//   log LEVEL TEXT         a line of the library's log
//   stall MILLISECONDS     the event loop was kept from running
//   done COMMAND           the command has been carried out
//   unknown COMMAND        there is no such command
//   fence NAME             the worker has handled everything before the command "fence NAME"
//   lines N                so many log lines have come so far, also those that --once leaves out
//   leaked WHAT            see "leak"
//
// Lines without a leading @ are the library's own and those of the commands that it runs.

#include "line.h"
#include "stallmeter.h"
#include "workerfence.h"

#include <hoplane.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QMutex>
#include <QSet>
#include <QSocketNotifier>
#include <QStringList>
#include <QThread>
#include <QTimer>

#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <map>
#include <thread>

void writeLine(const char *kind, const QString &text)
{
    const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
    QString line = text;
    line.replace(QLatin1Char('\n'), QLatin1String("\\n"));
    const QByteArray bytes = QStringLiteral("@%1 %2 %3\n")
                                     .arg(now.count(), 0, 'f', 4)
                                     .arg(QLatin1String(kind), line)
                                     .toUtf8();
    // One write, so that lines of several threads do not mix.
    if (write(STDOUT_FILENO, bytes.constData(), static_cast<size_t>(bytes.size()))
        != bytes.size()) {
        std::perror("lab_application: standard output");
        _exit(1);
    }
}

namespace {
std::atomic<int> logLines{ 0 };
bool eachTextOnce = false;

// Whether the text has not been logged before.
bool isNew(const QString &text)
{
    static QMutex mutex;
    static QSet<QString> texts;
    const QMutexLocker locker(&mutex);
    const int before = texts.size();
    texts.insert(text);
    return texts.size() > before;
}

void logHandler(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    static const std::map<QtMsgType, const char *> levels = { { QtDebugMsg, "debug" },
                                                              { QtInfoMsg, "info" },
                                                              { QtWarningMsg, "warning" },
                                                              { QtCriticalMsg, "critical" },
                                                              { QtFatalMsg, "fatal" } };
    ++logLines;
    if (!eachTextOnce || isNew(text)) {
        writeLine("log", QLatin1String(levels.at(type)) + QLatin1Char(' ') + text);
    }
}

void reportSignals(Hoplane *hoplane)
{
    const auto report = [](const QString &text) {
        const bool ownThread = QThread::currentThread() == QCoreApplication::instance()->thread();
        writeLine(ownThread ? "signal" : "stray", text);
    };
    QObject::connect(hoplane, &Hoplane::start, [=] { report("start"); });
    QObject::connect(hoplane, &Hoplane::switchBegin, [=] { report("switchBegin"); });
    QObject::connect(hoplane, &Hoplane::switchSuccess, [=](const QString &ip, const QString &port) {
        report(QStringLiteral("switchSuccess %1 %2").arg(ip, port));
    });
    QObject::connect(hoplane, &Hoplane::switchFailed, [=](const QString &text, int code) {
        report(QStringLiteral("switchFailed %1 %2").arg(code).arg(text));
    });
}

// Holds one thing more of a kind, for good.
void leak(const QString &kind)
{
    if (kind == QLatin1String("descriptor")) {
        writeLine("leaked", QString::number(dup(STDIN_FILENO)));
    } else if (kind == QLatin1String("thread")) {
        // Not one of Qt's, which would come with a descriptor.
        std::thread([] { ::pause(); }).detach();
    } else if (kind == QLatin1String("child") && fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::pause();
        _exit(0);
    }
}

// Keeps the thread busy.
void spin(int ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < end) { }
}

// What may come on standard input: a word and its arguments, separated by tabulators.
void obey(Hoplane *hoplane, const QStringList &words)
{
    const auto word = [&words](int index) { return words.value(index); };
    const auto flag = [&words](int index) { return words.value(index) == QLatin1String("true"); };
    const std::map<QString, std::function<void()>> commands = {
        { "start", [&] { emit hoplane->start(); } },
        { "current", [&] { emit hoplane->sendCurrentServerip(word(1)); } },
        { "servers",
          [&] { Hoplane::saveSwitchInfoToFile(flag(1), word(2), word(3), word(4), word(5)); } },
        { "connection", [&] { hoplane->saveConnectionName(word(1)); } },
        { "first",
          [&] {
              hoplane->saveFirstLocalInoToFile(flag(1), word(2), word(3), word(4), word(5),
                                               word(6));
          } },
        { "second",
          [&] {
              hoplane->saveSecondLocalInfoToFile(flag(1), word(2), word(3), word(4), word(5),
                                                 word(6));
          } },
        { "fence", [&] { passWorkerFence(hoplane, word(1)); } },
        { "lines", [] { writeLine("lines", QString::number(logLines)); } },
        // For the laboratory's tests of itself.
        { "stall", [&] { QThread::msleep(word(1).toULong()); } },
        { "leak", [&] { leak(word(1)); } },
        { "spin", [&] { spin(word(1).toInt()); } },
        { "stray", [&] { std::thread([=] { emit hoplane->switchBegin(); }).join(); } },
        { "murmur", [&] { std::fputs(qPrintable(word(1)), stderr); } },
    };
    const auto command = commands.find(word(0));
    if (command == commands.end()) {
        writeLine("unknown", word(0));
        return;
    }
    command->second();
    writeLine("done", word(0));
}

// Reads what is there; calls back with each whole line.
class CommandReader
{
public:
    // False at the end of the input.
    bool read(const std::function<void(const QStringList &)> &callback)
    {
        char bytes[4096];
        const ssize_t size = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (size <= 0) {
            return false;
        }
        m_rest.append(bytes, static_cast<int>(size));
        for (int end = m_rest.indexOf('\n'); end >= 0; end = m_rest.indexOf('\n')) {
            const QString line = QString::fromUtf8(m_rest.left(end));
            m_rest.remove(0, end + 1);
            callback(line.split(QLatin1Char('\t')));
        }
        return true;
    }

private:
    QByteArray m_rest;
};
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("laboratory");
    QCommandLineParser parser;
    const QCommandLineOption once("once", "Write each text of the log once only.");
    const QCommandLineOption emulated("emulated", "An emulator runs this; see stallmeter.h.");
    const QCommandLineOption serial("serial",
                                    "What runs this lets one thread run at a time, so that "
                                    "a stall means nothing; it is not looked for.");
    parser.addOptions({ once, emulated, serial });
    parser.process(application);
    eachTextOnce = parser.isSet(once);
    qInstallMessageHandler(logHandler);

    Hoplane *hoplane = Hoplane::instance();
    reportSignals(hoplane);

    CommandReader reader;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        if (!reader.read([&](const QStringList &words) { obey(hoplane, words); })) {
            // The library's threads never end, so nothing is torn down.
            _exit(0);
        }
    });
    QTimer ready;
    ready.setSingleShot(true);
    QObject::connect(&ready, &QTimer::timeout, [&] {
        if (!parser.isSet(serial))
            new StallMeter(parser.isSet(emulated), &application);
        writeLine("ready", QSysInfo::currentCpuArchitecture());
    });
    ready.start(0);
    return QCoreApplication::exec();
}
