// SPDX-License-Identifier: MIT
// Every way in which a command can go wrong, at each of the places where one is run: what the
// worker makes of it, and that neither a descriptor nor a child is left over.

#include "asleep.h"
#include "fixtures.h"
#include "leftovers.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "peek.h"
#include "probelines.h"
#include "testmain.h"

#include <QtCore/QDebug>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QScopeGuard>
#include <QtTest/QtTest>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int bufferSize = 4096;
constexpr int mebibyte = 1024 * 1024;

/** The functions that run commands, and which ones they run, in their order. */
enum Road {
    Automatic, // the first network's addressing
    Static, // the second one's
    Active, // the first one's, of the active connection
    Reactivation // the probe's, after the eleventh failure
};

enum Command { LookUp, Modify, Activate };

QVector<Command> commandsOf(Road road)
{
    return road == Reactivation ? QVector<Command>{ LookUp, Activate }
                                : QVector<Command>{ LookUp, Modify, Activate };
}

struct Place
{
    const char *name;
    Road road;
    int command; // its place on the road
    bool meetsAll; // of the behaviours, or those alone that matter everywhere
};

const Place places[] = {
    { "look-up", Automatic, 0, true },
    { "modify", Automatic, 1, true },
    { "activate", Automatic, 2, true },
    { "second network's look-up", Static, 0, false },
    { "static modify", Static, 1, false },
    { "second network's activation", Static, 2, false },
    { "look-up of the active", Active, 0, false },
    { "look-up after eleven failures", Reactivation, 0, false },
    { "re-activation", Reactivation, 1, false },
};

/** What a broken command does, as a script of the shell; and what it prints. */
struct Behaviour
{
    const char *name;
    QByteArray script;
    QByteArray output;
    bool matters = false; // everywhere
    int milliseconds = 0; // it takes at least
};

QVector<Behaviour> behaviours()
{
    QVector<Behaviour> all = {
        { "no output", "exit 0", "", true },
        { "only a line break", "echo", "\n" },
        { "only blanks", "printf ' \\t\\r\\n'", " \t\r\n" },
        { "no line break at the end", "printf half", "half", true },
        { "several lines", "printf 'one\\ntwo\\n'", "one\ntwo\n" },
        { "a message on standard error", "echo 'Error: no' >&2; exit 10", "" },
        { "output and a message", "echo out; echo 'Error: no' >&2; exit 4", "out\n" },
        { "output and a failure", "echo out; exit 1", "out\n", true },
        { "SIGKILL", "kill -KILL $$", "", true },
        { "SIGTERM", "kill -TERM $$", "" },
        { "SIGSEGV", "kill -SEGV $$", "" },
        { "SIGPIPE", "kill -PIPE $$", "" },
        { "output and SIGKILL", "printf out; kill -KILL $$", "out", true },
        { "lines of 1 MiB", "yes aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa | head -c 1048576",
          QByteArray("aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\n").repeated(mebibyte / 32), true },
        { "one line of 1 MiB", "head -c 1048576 /dev/zero | tr '\\0' b", QByteArray(mebibyte, 'b'),
          true },
        { "a zero in a line", "printf 'seen\\0unseen\\nnext\\n'",
          QByteArray("seen\0unseen\nnext\n", 17), true },
        { "nothing but zeros", "head -c 5000 /dev/zero", QByteArray(5000, '\0'), true },
        { "Polish", "printf 'Po\\305\\202\\304\\205czenie\\n'", "Po\305\202\304\205czenie\n" },
        { "Chinese", "printf '\\350\\277\\236\\346\\216\\245\\n'", "\350\277\236\346\216\245\n" },
        { "no UTF-8", "printf 'B\\374ro\\n'", "B\374ro\n" },
        { "a placeholder", "printf '%%1 %%2\\n'", "%1 %2\n" },
        { "output and a hang", "echo out; exec sleep 0.1", "out\n", false, 100 },
        { "a hang and no output", "exec sleep 0.1", "", false, 100 },
        { "standard output is closed early", "exec >&-; sleep 0.1; exit 1", "", false, 100 },
        { "standard output is closed after output", "echo out; exec >&-; sleep 0.1", "out\n", false,
          100 },
    };
    for (const int status : { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 65, 126, 127, 255 }) {
        static QVector<QByteArray> names;
        names.append("exit " + QByteArray::number(status));
        all.append({ names.last().constData(), names.last(), "", status == 1 });
    }
    return all;
}

QString quoted(const QString &text)
{
    QString shown;
    QDebug(&shown).nospace() << text;
    return shown;
}

/** What a buffer has after a command, and the line about too much of it. */
QByteArray appended(const QByteArray &buffer, const QByteArray &output, QVector<Expected> *lines)
{
    QByteArray text = buffer;
    int length = buffer.size();
    for (int at = 0; at < output.size() && length <= bufferSize;) {
        const int lineBreak = output.indexOf('\n', at);
        const int end = qMin(lineBreak < 0 ? output.size() : lineBreak + 1, at + bufferSize - 1);
        // A zero hides what stands behind it.
        const QByteArray seen(output.mid(at, end - at).constData());
        length += seen.size();
        text = (text + seen).left(bufferSize - 1);
        at = end;
    }
    if (length > bufferSize)
        lines->append({ QtWarningMsg,
                        "[ excuCmd ] Get Disk data error bacause data memery is too large." });
    return text;
}

/** How a command ends up. */
struct Outcome
{
    QByteArray output;
    int error = 0; // it could not be started
};

/** A command runs, or is too long for that, or cannot be started. */
QByteArray run(const QString &command, const QByteArray &buffer, const Outcome &outcome,
               QVector<Expected> *lines, int *tried = nullptr)
{
    const QByteArray bytes = command.toUtf8();
    const bool fits = bytes.size() < bufferSize;
    if (tried && fits)
        ++*tried;
    if (fits && outcome.error == 0)
        return appended(buffer, outcome.output, lines);
    const QString cut = QString::fromUtf8(bytes.left(bufferSize - 1));
    lines->append({ QtWarningMsg, "[ excuCmd ] " + quoted("popen " + cut + "  error.") });
    return buffer;
}

/** What awk makes of it, as the shell calls it. */
QByteArray throughAwk(const QByteArray &output, const QString &folder)
{
    const QString path = folder + "/awks-input";
    writeSettingsFile(path, "UUID\n" + output);
    const QByteArray command = "awk 'NR ==1 {next} {print $1}' " + path.toLocal8Bit();
    FILE *stream = Interpose::Real::popen(command.constData(), "r");
    QByteArray result;
    char bytes[bufferSize];
    while (const std::size_t count = fread(bytes, 1, sizeof bytes, stream))
        result.append(bytes, int(count));
    pclose(stream);
    return result;
}

const char namedLookUp[] = "nmcli -g connection.uuid c s 'lan' ";
const char activeLookUp[] = "nmcli -f uuid connection show -active |awk 'NR ==1 {next} {print $1}'";

/** What the worker logs and returns when a command ends up so at the place, and others are well. */
class Expectation
{
public:
    Expectation(const Place &place, const Outcome &outcome)
        : m_place(place)
        , m_outcome(outcome)
    {
        if (place.road == Reactivation)
            reactivate();
        else
            apply();
    }

    QVector<Expected> lines;
    QString uuid;
    int commands = 0; // that the shell is asked for

private:
    void lookUp()
    {
        const bool isActive = m_place.road == Active;
        const QString command = isActive ? activeLookUp : namedLookUp;
        const QByteArray found = run(command, "", outcomeOf(LookUp), &lines, &commands);
        uuid = QString::fromLocal8Bit(found).simplified();
        if (isActive) {
            lines.append({ QtInfoMsg, "[ getNetWorkUuid ] " + QString::fromUtf8(found) });
            uuid.remove("UUID");
            return;
        }
        lines.append({ QtInfoMsg, "[ getNetWorkUuid ] " + quoted(command) });
        lines.append({ QtInfoMsg, "[ getNetWorkUuid ] " + quoted(uuid) });
    }

    QString modifyCommand() const
    {
        return m_place.road == Static
                ? QString("nmcli connection modify uuid %1 ipv4.addresses 10.2.0.2/24 ipv4.gateway "
                          "10.2.0.1  ipv4.dns 9.9.9.9 connection.autoconnect yes ipv4.method "
                          "manual")
                          .arg(uuid)
                : QString("nmcli connection modify uuid %1 ipv4.address '' ipv4.gateway '' "
                          "ipv4.dns ''  ipv4.method auto ")
                          .arg(uuid);
    }

    void apply()
    {
        const QString function =
                m_place.road == Static ? "[ setStaticIpAddr ] " : "[ setLocalIpAuto ] ";
        lookUp();
        if (uuid.isEmpty()) {
            lines.append({ QtCriticalMsg,
                           function + "get uuid is empty,d->strConnectionName= "
                                   + (m_place.road == Active ? "\"\"" : "\"lan\"") });
            return;
        }
        const QString activate = QString("nmcli connection up uuid %1 ").arg(uuid);
        QByteArray buffer = run(modifyCommand(), "", outcomeOf(Modify), &lines, &commands);
        const auto executed = [&](const QString &command) {
            lines.append({ QtInfoMsg,
                           function + " execute the cmd: " + quoted(command) + " result "
                                   + QString::fromUtf8(buffer) });
        };
        executed(modifyCommand());
        buffer = run(activate, buffer, outcomeOf(Activate), &lines, &commands);
        executed(activate);
    }

    void reactivate()
    {
        lines += ProbeLines::failures("127.0.0.1", "1", 11);
        lookUp();
        const QString command = QString("nmcli connection up uuid %1 ").arg(uuid);
        const QByteArray buffer = run(command, "", outcomeOf(Activate), &lines, &commands);
        lines.append({ QtInfoMsg,
                       "[ tryConnectRemote ]  cmd:  " + quoted(command)
                               + " bb  result:    " + QString::fromUtf8(buffer) });
        lines += ProbeLines::failures("127.0.0.1", "1", 1);
    }

    Outcome outcomeOf(Command command) const
    {
        const QByteArray well[] = { "5e6c\n", "", "done\n" };
        return commandsOf(m_place.road)[m_place.command] == command ? m_outcome
                                                                    : Outcome{ well[command] };
    }

    const Place &m_place;
    const Outcome m_outcome;
};

/**
 * The nmcli of a test: a script of the shell with a branch for each command. It stands first on
 * PATH, in a folder that has awk too.
 */
class Scripts
{
public:
    Scripts(const Place &place, const QByteArray &broken)
        : m_path(qgetenv("PATH"))
    {
        QDir().mkpath(m_folder);
        QFile::link("/usr/bin/awk", m_folder + "/awk");
        write(place, broken);
        qputenv("PATH", folder() + ":" + m_path);
    }
    ~Scripts()
    {
        qputenv("PATH", m_path);
        QDir(m_folder).removeRecursively();
    }
    Q_DISABLE_COPY(Scripts)

    /** Nothing else is on PATH any more. */
    void standAlone() const { qputenv("PATH", folder()); }

    QString path() const { return m_folder + "/nmcli"; }
    QByteArray folder() const { return m_folder.toLocal8Bit(); }

private:
    void write(const Place &place, const QByteArray &script)
    {
        const QByteArray well[] = { "echo 5e6c", "exit 0", "echo done" };
        const QByteArray tests[] = { "[ \"$1\" = -g ] || [ \"$1\" = -f ]", "[ \"$2\" = modify ]",
                                     "[ \"$2\" = up ]" };
        const Command broken = commandsOf(place.road)[place.command];
        QByteArray text = "#!/bin/sh\nif [ \"$1\" = -f ]; then\necho UUID\nfi\n";
        for (const Command command : { LookUp, Modify, Activate })
            text += "if " + tests[command] + "; then\n"
                    + (command == broken ? script : well[command]) + "\nexit\nfi\n";
        writeSettingsFile(path(), text);
        QFile::setPermissions(path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    const QByteArray m_path;
    const QString m_folder = QDir::tempPath() + "/scripts";
};

/** What is done around a command, by the thread that runs it. */
struct Steps
{
    std::function<void()> before;
    std::function<void(FILE *)> begun;
    std::function<void()> after;
};

/** Calls the functions of a road; the commands on it end as they do, or cannot be started. */
class Traveller
{
public:
    Traveller(const Place &place, const Outcome &outcome, Steps steps)
        : m_place(place)
        , m_outcome(outcome)
        , m_steps(std::move(steps))
        , m_worker(hooks())
    {
        NetworkSwitchWorker::PrivateData &record = Peek::record(*m_worker);
        record.strConnectionName = place.road == Active ? "" : "lan";
        record.bSecondIsAutomatically = true; // which makes it static
        record.strSecondLocalIp = "10.2.0.2";
        record.strSecondLocalMask = "255.255.255.0";
        record.strSecondLocalGateWay = "10.2.0.1";
        record.strSecondPreferredDNS = "9.9.9.9";
        m_worker.waitUntilItListens();
    }

    /** By the function that tells of it in the log alone. */
    void apply()
    {
        begin();
        if (m_place.road == Static)
            m_worker->setSecondStaticIpAddr();
        else
            m_worker->setFirstStaticIpAddr();
        end();
    }

    /** By the function that returns whether it was applied. */
    bool applyDirectly()
    {
        begin();
        bool result = false;
        if (m_place.road == Reactivation)
            result = m_worker->tryConnectRemote("127.0.0.1", "1", 500, 12);
        else if (m_place.road == Static)
            result = m_worker->setStaticIpAddr("10.2.0.2", "255.255.255.0", "10.2.0.1", "9.9.9.9",
                                               "");
        else
            result = m_worker->setLocalIpAuto();
        end();
        return result;
    }

    int commands() const { return m_commands; }
    QString staticAddress() { return Peek::staticAddress(*m_worker); }

private:
    void begin() { m_commands = 0; }

    void end()
    {
        if (m_commands == m_place.command + 1 && m_steps.after)
            m_steps.after();
    }

    Interpose::Hooks hooks()
    {
        Interpose::Hooks hooks;
        hooks.msleep = [](unsigned long) {};
        hooks.popen = [this](const char *command, const char *mode) {
            return begin(command, mode);
        };
        return hooks;
    }

    FILE *begin(const char *command, const char *mode)
    {
        const int index = m_commands++;
        const bool isBroken = index == m_place.command;
        if (isBroken && m_steps.before)
            m_steps.before();
        if (index == m_place.command + 1 && m_steps.after)
            m_steps.after();
        if (isBroken && m_outcome.error != 0) {
            errno = m_outcome.error;
            return nullptr;
        }
        FILE *stream = Interpose::Real::popen(command, mode);
        if (isBroken && m_steps.begun)
            m_steps.begun(stream);
        return stream;
    }

    const Place &m_place;
    const Outcome m_outcome;
    const Steps m_steps;
    int m_commands = 0;
    WorkerFixture m_worker;
};

/**
 * A thread that waits until this one sleeps in the reading of a command's output, does something,
 * and lets the command go on, which waits for a line from a pipe of that name.
 */
class Observer
{
public:
    explicit Observer(const QString &pipe)
    {
        const QByteArray name = pipe.toLocal8Bit();
        if (mkfifo(name.constData(), 0600) != 0)
            qFatal("no pipe of a name");
        // Both ends, so that neither opening nor writing waits.
        m_pipe = open(name.constData(), O_RDWR | O_CLOEXEC);
    }
    ~Observer() { close(m_pipe); }
    Q_DISABLE_COPY(Observer)

    /** It is the reading thread that calls this, and end() when it has read. */
    void begin(FILE *stream, const std::function<bool()> &isDue, std::function<void()> action = {})
    {
        m_isOver = false;
        m_thread = std::thread([this, isDue, action = std::move(action), fd = fileno(stream),
                                reader = Asleep::thisThread()] {
            const auto holds = [&] { return isDue() && Asleep::isIn(reader, SYS_read, fd); };
            while (!holds() && !m_isOver)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (!m_isOver) {
                ++m_seen;
                if (action)
                    action();
            }
            const char line[] = "go on\n";
            if (write(m_pipe, line, sizeof line - 1) < 0)
                qFatal("the command cannot be let go");
        });
    }
    void end()
    {
        m_isOver = true;
        m_thread.join();
    }

    int seen() const { return m_seen; }

private:
    int m_pipe = -1;
    std::atomic<bool> m_isOver{ false };
    std::atomic<int> m_seen{ 0 };
    std::thread m_thread;
};

/** A child has ended, and nobody has looked at its end. */
bool hasEndedChild()
{
    siginfo_t child = {};
    return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0 && child.si_pid != 0;
}

/** What the kernel tells of the surroundings that a process hands on to its children. */
QByteArrayList surroundings(const QByteArray &status, const QByteArrayList &keys)
{
    QByteArrayList found;
    const QList<QByteArray> lines = status.split('\n');
    for (const QByteArray &line : lines) {
        if (keys.contains(line.split(':').first()))
            found.append(line.simplified());
    }
    return found;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void onSignal(int)
{
}

/** A process of other ways than usual: signals, folder, permissions of new files. */
class UnusualProcess
{
public:
    UnusualProcess()
        : m_folder(QDir::currentPath())
        , m_mask(umask(027))
    {
        struct sigaction action = {};
        action.sa_handler = onSignal;
        action.sa_flags = SA_RESTART;
        sigaction(SIGCHLD, &action, &m_child);
        action.sa_handler = SIG_IGN;
        sigaction(SIGUSR2, &action, &m_user);
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &blocked, &m_blocked);
        QDir::setCurrent(QDir::tempPath());
    }
    ~UnusualProcess()
    {
        QDir::setCurrent(m_folder);
        pthread_sigmask(SIG_SETMASK, &m_blocked, nullptr);
        sigaction(SIGUSR2, &m_user, nullptr);
        sigaction(SIGCHLD, &m_child, nullptr);
        umask(m_mask);
    }
    Q_DISABLE_COPY(UnusualProcess)

    /** As it is seen from any thread, of this one. */
    static QByteArrayList look(pid_t thread)
    {
        QByteArrayList seen = surroundings(Asleep::tell(thread, "status"),
                                           { "Umask", "SigBlk", "SigIgn", "SigCgt" });
        seen.append(QDir::currentPath().toLocal8Bit());
        struct sigaction action = {};
        sigaction(SIGCHLD, nullptr, &action);
        seen.append(action.sa_handler == onSignal ? "handled" : "not handled");
        return seen;
    }

private:
    const QString m_folder;
    const mode_t m_mask;
    struct sigaction m_child = {};
    struct sigaction m_user = {};
    sigset_t m_blocked = {};
};

void everywhere()
{
    QTest::addColumn<int>("place");
    for (int i = 0; i < int(std::size(places)); ++i)
        QTest::newRow(places[i].name) << i;
}

/** Both ways to apply it; the steps are done around the place's command. */
void apply(const Place &place, const Outcome &outcome, const Steps &steps = {})
{
    const Expectation expected(place, outcome);
    const bool isApplied = place.road != Reactivation && !expected.uuid.isEmpty();
    const bool isStatic = place.road == Static && isApplied;
    Traveller traveller(place, outcome, steps);
    LogCapture log;
    const QStringList descriptors = Leftovers::descriptors();
    QVERIFY(Leftovers::isChildless());
    const auto check = [&](const QVector<Expected> &lines) {
        QCOMPARE(Leftovers::descriptors(), descriptors);
        QVERIFY(Leftovers::isChildless());
        COMPARE_LOG(log, (lines));
        QCOMPARE(traveller.commands(), expected.commands);
        QCOMPARE(traveller.staticAddress(), QString(isStatic ? "10.2.0.2/24 " : ""));
    };
    QCOMPARE(traveller.applyDirectly(), isApplied);
    check(expected.lines);
    if (place.road == Reactivation || QTest::currentTestFailed())
        return;
    log.clear();
    traveller.apply();
    const QString function = place.road == Static ? "Second" : "First";
    check(expected.lines
          + QVector<Expected>{ { QtInfoMsg,
                                 QString("[ set%1StaticIpAddr ] run %2")
                                         .arg(function, isApplied ? "successful" : "failed") } });
}

class BrokenCommandsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void behaves_data();
    void behaves();
    void alone_data();
    void alone();
    void isGone_data() { everywhere(); }
    void isGone();
    void isNotExecutable_data() { everywhere(); }
    void isNotExecutable();
    void isNoProgram_data() { everywhere(); }
    void isNoProgram();
    void awkIsGone();
    void cannotBeStarted_data();
    void cannotBeStarted();
    void childHoldsThePipe_data();
    void childHoldsThePipe();
    void leavesTheProcessAsItIs_data() { everywhere(); }
    void leavesTheProcessAsItIs();
};

void BrokenCommandsTest::behaves_data()
{
    QTest::addColumn<int>("place");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("milliseconds");
    const QVector<Behaviour> all = behaviours();
    for (const Behaviour &behaviour : all) {
        for (int i = 0; i < int(std::size(places)); ++i) {
            if (behaviour.matters || places[i].meetsAll)
                QTest::addRow("%s: %s", places[i].name, behaviour.name)
                        << i << behaviour.script << behaviour.output << behaviour.milliseconds;
        }
    }
}

void BrokenCommandsTest::behaves()
{
    QFETCH(int, place);
    QFETCH(QByteArray, script);
    QFETCH(QByteArray, output);
    QFETCH(int, milliseconds);
    Scripts scripts(places[place], script);
    if (places[place].road == Active)
        output = throughAwk(output, scripts.folder());
    QElapsedTimer timer;
    timer.start();
    apply(places[place], { output });
    QVERIFY(timer.elapsed() >= milliseconds);
}

void BrokenCommandsTest::alone_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("error");
    const QVector<Behaviour> all = behaviours();
    for (const Behaviour &behaviour : all)
        QTest::newRow(behaviour.name) << behaviour.script << behaviour.output << 0;
    QTest::newRow("cannot be started")
            << QByteArray("echo this is not run") << QByteArray() << ENOMEM;
}

/** The function that runs a command: it returns whether there was one, and adds what it prints. */
void BrokenCommandsTest::alone()
{
    QFETCH(QByteArray, script);
    QFETCH(QByteArray, output);
    QFETCH(int, error);
    Scripts scripts(places[2], script);
    bool isFirst = true;
    Interpose::Hooks hooks;
    hooks.popen = [&](const char *command, const char *mode) -> FILE * {
        const bool isRefused = error != 0 && isFirst;
        isFirst = false;
        errno = error;
        return isRefused ? nullptr : Interpose::Real::popen(command, mode);
    };
    WorkerFixture worker(hooks);
    worker.waitUntilItListens();
    const char command[] = "nmcli connection up uuid 5e6c ";
    for (const QByteArray &found : QByteArrayList{ "", "found\n" }) {
        isFirst = true;
        LogCapture log;
        const QStringList descriptors = Leftovers::descriptors();
        char result[bufferSize] = {};
        std::memcpy(result, found.constData(), std::size_t(found.size()));
        QCOMPARE(worker->excuCmd(command, result), error == 0);
        QCOMPARE(Leftovers::descriptors(), descriptors);
        QVERIFY(Leftovers::isChildless());
        QVector<Expected> lines;
        QCOMPARE(QByteArray(result), run(command, found, { output, error }, &lines));
        COMPARE_LOG(log, (lines));
    }
}

void BrokenCommandsTest::isGone()
{
    QFETCH(int, place);
    Scripts scripts(places[place], "echo this is not run");
    scripts.standAlone();
    const QString away = QDir::tempPath() + "/away";
    Steps steps;
    steps.before = [&] { QVERIFY(QFile::rename(scripts.path(), away)); };
    steps.after = [&] { QVERIFY(QFile::rename(away, scripts.path())); };
    apply(places[place], {}, steps);
}

void BrokenCommandsTest::isNotExecutable()
{
    QFETCH(int, place);
    Scripts scripts(places[place], "echo this is not run");
    scripts.standAlone();
    const auto permit = [&](QFile::Permissions permissions) {
        QVERIFY(QFile::setPermissions(scripts.path(), permissions));
    };
    Steps steps;
    steps.before = [&] { permit(QFile::ReadOwner); };
    steps.after = [&] { permit(QFile::ReadOwner | QFile::ExeOwner); };
    apply(places[place], {}, steps);
}

void BrokenCommandsTest::isNoProgram()
{
    QFETCH(int, place);
    Scripts scripts(places[place], "echo this is not run");
    scripts.standAlone();
    const QByteArray script = contentOf(scripts.path());
    const QByteArray cut = QByteArray("\x7f"
                                      "ELF\x02\x01\x01")
            + QByteArray(100, '\0');
    Steps steps;
    steps.before = [&] { writeSettingsFile(scripts.path(), cut); };
    steps.after = [&] { writeSettingsFile(scripts.path(), script); };
    apply(places[place], {}, steps);
}

/** Which takes part in the look-up of the active connections alone. */
void BrokenCommandsTest::awkIsGone()
{
    const Place &place = places[6];
    QCOMPARE(int(place.road), int(Active));
    Scripts scripts(place, "echo 5e6c");
    QVERIFY(QFile::remove(scripts.folder() + "/awk"));
    scripts.standAlone();
    apply(place, {});
}

void BrokenCommandsTest::cannotBeStarted_data()
{
    QTest::addColumn<int>("place");
    QTest::addColumn<int>("error");
    for (const int error : { ENOMEM, EAGAIN, EMFILE, EINTR }) {
        for (int i = 0; i < int(std::size(places)); ++i)
            QTest::addRow("%s: %s", places[i].name, std::strerror(error)) << i << error;
    }
}

/** No process can be made: it is tried once. */
void BrokenCommandsTest::cannotBeStarted()
{
    QFETCH(int, place);
    QFETCH(int, error);
    Scripts scripts(places[place], "echo this is not run");
    apply(places[place], { {}, error });
}

void BrokenCommandsTest::childHoldsThePipe_data()
{
    QTest::addColumn<int>("place");
    for (int i = 0; i < int(std::size(places)); ++i) {
        // The shell itself waits for the end of a pipe that it has made.
        if (places[i].road != Active)
            QTest::newRow(places[i].name) << i;
    }
}

/**
 * The command has ended, but something that it has started has its standard output: that is waited
 * for in the reading, without a limit, and what it says counts.
 */
void BrokenCommandsTest::childHoldsThePipe()
{
    QFETCH(int, place);
    Scripts scripts(places[place],
                    "( read line <\"$0.pipe\"; echo late ) &\n"
                    "echo out\nexit 0");
    Observer observer(scripts.path() + ".pipe");
    Steps steps;
    steps.begun = [&](FILE *stream) { observer.begin(stream, hasEndedChild); };
    steps.after = [&] { observer.end(); };
    apply(places[place], { "out\nlate\n" }, steps);
    QCOMPARE(observer.seen(), places[place].road == Reactivation ? 1 : 2);
}

/** Before, while and after a command runs; and the command has it from the process. */
void BrokenCommandsTest::leavesTheProcessAsItIs()
{
    QFETCH(int, place);
    Scripts scripts(places[place],
                    "cat /proc/self/status >\"$0.status\"\npwd >\"$0.folder\"\n"
                    "read line <\"$0.pipe\"\necho 5e6c");
    Observer observer(scripts.path() + ".pipe");
    const UnusualProcess process;
    const pid_t thread = Asleep::thisThread();
    const QByteArrayList before = UnusualProcess::look(thread);
    QByteArrayList atStart;
    QByteArrayList meanwhile;
    Steps steps;
    steps.before = [&] { atStart = UnusualProcess::look(thread); };
    steps.begun = [&](FILE *stream) {
        observer.begin(
                stream, [] { return true; }, [&] { meanwhile = UnusualProcess::look(thread); });
    };
    steps.after = [&] { observer.end(); };
    apply(places[place], { "5e6c\n" }, steps);
    QVERIFY(observer.seen() > 0);
    QCOMPARE(atStart, before);
    QCOMPARE(meanwhile, before);
    QCOMPARE(UnusualProcess::look(thread), before);

    // The shell lets all signals through, whatever it was given.
    const QByteArray status = contentOf(scripts.path() + ".status");
    QCOMPARE(surroundings(status, { "Umask" }), QByteArrayList{ "Umask: 0027" });
    QVERIFY(surroundings(status, { "SigIgn" }).value(0).endsWith("800")); // SIGUSR2
    QCOMPARE(contentOf(scripts.path() + ".folder"), QDir::currentPath().toLocal8Bit() + '\n');
}

} // namespace

HOPLANE_TEST_MAIN(BrokenCommandsTest)
#include "brokencommands.moc"
