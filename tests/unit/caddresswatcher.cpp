// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "interpose.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"
#include "watching.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMetaMethod>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QSemaphore>
#include <QtTest/QtTest>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <linux/rtnetlink.h>
#include <malloc.h>
#include <memory>
#include <net/if.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>

namespace {

constexpr int linkBufferSize = 20480;
constexpr unsigned lowerUp = 0x10000;

const QByteArray ours = LanSwitch::devpath();
const QByteArray change = QByteArrayLiteral("ACTION=change");

// Descriptors are counted from the one that the socket call returned.
const QString ueventSocket = QStringLiteral("socket 16 2 15");
const QString linkSocket = QStringLiteral("socket 16 3 0");

/** What leaves a loop that finds no exit: thrown by a hook, caught by the test. */
struct LoopEnd
{
};

void runUntilLoopEnd(CAddressWatcher *watcher)
{
    try {
        Peek::run(*watcher);
    } catch (const LoopEnd &) {
    }
}

/** One answer of recv() or read(). The result is the number of bytes unless said otherwise. */
struct Received
{
    Received(const QByteArray &content)
        : bytes(content)
        , result(content.size())
    {
    }
    Received(const QByteArray &content, ssize_t returned, int errorNumber = 0)
        : bytes(content)
        , result(returned)
        , error(errorNumber)
    {
    }

    QByteArray bytes;
    ssize_t result;
    int error = 0;
};

/**
 * Hands received bytes out. The rest of the buffer is filled with a pattern that shows in signals
 * or output if anything reads it.
 */
class Feed
{
public:
    Feed(const QByteArray &pattern, std::size_t patternAlignment)
        : m_pattern(pattern)
        , m_alignment(patternAlignment)
    {
    }

    bool isUsedUp() const { return m_next == received.size(); }

    ssize_t next(void *buffer, std::size_t length)
    {
        const Received &answer = received.at(m_next++);
        const auto size = std::size_t(answer.bytes.size());
        if (size > length)
            qFatal("the buffer is too small for the test's message");
        char *bytes = static_cast<char *>(buffer);
        std::memcpy(bytes, answer.bytes.constData(), size);
        const std::size_t start = (size + m_alignment - 1) / m_alignment * m_alignment;
        for (std::size_t i = start; i < length; ++i)
            bytes[i] = m_pattern.at(int((i - start) % std::size_t(m_pattern.size())));
        errno = answer.error;
        return answer.result;
    }

    QVector<Received> received;

private:
    QByteArray m_pattern;
    std::size_t m_alignment;
    int m_next = 0;
};

/** Standard output, kept from the test's own report while this lives. Flushes nothing itself. */
class CapturedStdout
{
public:
    CapturedStdout()
        : m_saved(dup(STDOUT_FILENO))
        , m_file(memfd_create("stdout", MFD_CLOEXEC))
    {
        std::fflush(stdout);
        if (m_saved < 0 || m_file < 0 || dup2(m_file, STDOUT_FILENO) < 0)
            qFatal("cannot redirect standard output");
    }
    ~CapturedStdout()
    {
        std::fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        // The report of a failure went to the file too.
        if (QTest::currentTestFailed())
            std::fputs(content().constData(), stdout);
        close(m_saved);
        close(m_file);
    }
    Q_DISABLE_COPY(CapturedStdout)

    QByteArray content() const
    {
        QByteArray text(int(lseek(m_file, 0, SEEK_END)), '\0');
        if (pread(m_file, text.data(), std::size_t(text.size()), 0) != text.size())
            qFatal("cannot read the redirected output");
        return text;
    }

private:
    int m_saved;
    int m_file;
};

enum class Fault { Closed, ReadOnly, NoReader, Full };

/** Standard output that refuses each line, while this lives. The test's report waits until then. */
class BrokenStdout
{
public:
    explicit BrokenStdout(Fault fault)
        : m_saved(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 500))
        , m_handler(std::signal(SIGPIPE, SIG_IGN))
    {
        std::fflush(stdout);
        int ends[2] = { -1, -1 };
        if (fault == Fault::ReadOnly)
            ends[1] = open("/dev/null", O_RDONLY | O_CLOEXEC);
        else if (fault == Fault::Full)
            ends[1] = open("/dev/full", O_WRONLY | O_CLOEXEC);
        else if (pipe2(ends, O_CLOEXEC) != 0)
            qFatal("no pipe");
        close(ends[0]);
        if (m_saved < 0 || dup2(ends[1], STDOUT_FILENO) < 0)
            qFatal("cannot replace standard output");
        close(ends[1]);
        if (fault == Fault::Closed)
            close(STDOUT_FILENO);
    }
    ~BrokenStdout()
    {
        // What it did not take would come out later.
        __fpurge(stdout);
        std::clearerr(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        std::signal(SIGPIPE, m_handler);
    }
    Q_DISABLE_COPY(BrokenStdout)

    bool hasRefused() const { return std::ferror(stdout) != 0; }

private:
    int m_saved;
    void (*m_handler)(int);
};

/** How often this thread has given the processor up of itself: each sleep does, of any kind. */
long givenUp()
{
    rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

/** What is allocated at the moment. A sanitizer's or valgrind's heap tells nothing: always 0. */
std::size_t allocatedBytes()
{
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

/** Appends each signal of @p watcher to @p events: "up", "down" or the state. */
void collectSignals(CAddressWatcher *watcher, QObject *receiver, QStringList *events)
{
    QObject::connect(watcher, &CAddressWatcher::addressChanged, receiver,
                     [events] { events->append(QStringLiteral("up")); });
    QObject::connect(watcher, &CAddressWatcher::netWorkdown, receiver,
                     [events] { events->append(QStringLiteral("down")); });
    QObject::connect(watcher, &CAddressWatcher::reopen_network, receiver,
                     [events](int state) { events->append(QString::number(state)); });
}

/** Runs the uevent loop in the test's thread. */
class UeventLoop
{
public:
    UeventLoop()
        : watcher(nullptr)
        // Behind a message without its NUL, one NUL too few makes the state 17 or 9.
        , m_feed(QByteArray("7SWITCH_STATE=9\0", 16), 1)
    {
        collectSignals(&watcher, &watcher, &events);
    }
    ~UeventLoop() { Interpose::install(Interpose::Hooks()); }
    Q_DISABLE_COPY(UeventLoop)

    /** Returns when all is received and asked for once more. */
    void play(const QVector<Received> &received);

    /** The lines of a socket opened at once, followed by @p lines. */
    QVector<Expected> opened(const QVector<Expected> &lines = {}) const
    {
        const QString number = QString::number(socket.descriptor);
        return QVector<Expected>{
            { QtInfoMsg, "[ run ] first time to get uevent socket_fd result =  " + number },
            { QtInfoMsg, "[ run ] get uevent socket_fd success, fd =  " + number }
        }
        + lines;
    }

    CAddressWatcher watcher;
    LogCapture log;
    /** The calls that make the socket; in between "sleep SECONDS after LINES lines". */
    SocketCalls socket;
    QStringList events;
    /** Distinct calls of recv(), as "DESCRIPTOR LENGTH FLAGS". */
    QStringList receiveCalls;
    long sleeps = 0;

private:
    Feed m_feed;
};

void UeventLoop::play(const QVector<Received> &received)
{
    m_feed.received = received;
    Interpose::Hooks hooks;
    socket.addTo(&hooks);
    hooks.currentCpuArchitecture = [] { return QStringLiteral("arm64"); };
    const auto slept = [this](unsigned long time) {
        socket.calls.append(
                QStringLiteral("sleep %1 after %2 lines").arg(time).arg(log.lines().size()));
    };
    hooks.sleep = slept;
    hooks.msleep = slept;
    hooks.recv = [this](int fd, void *buffer, size_t length, int flags) {
        const QString call = QStringLiteral("%1 %2 %3").arg(fd).arg(length).arg(flags);
        if (!receiveCalls.contains(call))
            receiveCalls.append(call);
        if (m_feed.isUsedUp())
            throw LoopEnd();
        return m_feed.next(buffer, length);
    };
    Interpose::install(hooks);
    const long before = givenUp();
    runUntilLoopEnd(&watcher);
    sleeps = givenUp() - before;
}

/** A uevent as the kernel sends it: the strings, each with its NUL. */
QByteArray uevent(const QByteArrayList &strings)
{
    return strings.join('\0') + '\0';
}

/** A change to state 1 of exactly @p size bytes, the state in the last of them and no NUL there. */
QByteArray ueventOfSize(int size)
{
    const QByteArray head = uevent({ change, ours });
    const QByteArray tail = "SWITCH_STATE=1";
    const QByteArray filler = "FILLER=";
    return head + filler + QByteArray(size - head.size() - filler.size() - tail.size() - 1, 'x')
            + '\0' + tail;
}

template<typename Header>
QByteArray bytesOf(const Header &header)
{
    return QByteArray(reinterpret_cast<const char *>(&header), int(sizeof header));
}

QByteArray padded(const QByteArray &bytes)
{
    return bytes + QByteArray((4 - bytes.size() % 4) % 4, '\0');
}

/** A netlink message, not padded. @p claimed stands in its header in place of the true length. */
QByteArray message(int type, const QByteArray &payload, qint64 claimed = -1)
{
    nlmsghdr header = {};
    header.nlmsg_len = quint32(claimed >= 0 ? claimed : qint64(sizeof header) + payload.size());
    header.nlmsg_type = quint16(type);
    return bytesOf(header) + payload;
}

QByteArray attribute(int type, const QByteArray &payload, int claimed = -1)
{
    rtattr header = {};
    header.rta_len = quint16(claimed >= 0 ? claimed : int(sizeof header) + payload.size());
    header.rta_type = quint16(type);
    return bytesOf(header) + payload;
}

QByteArray nameAttribute(const QByteArray &name)
{
    return attribute(IFLA_IFNAME, name + '\0');
}

QByteArray linkPayload(int index, unsigned flags, const QByteArray &attributes)
{
    ifinfomsg link = {};
    link.ifi_index = index;
    link.ifi_flags = flags;
    return bytesOf(link) + attributes;
}

QByteArray newLink(int index, unsigned flags, const QByteArray &attributes)
{
    return message(RTM_NEWLINK, linkPayload(index, flags, attributes));
}

/** The notification of a link @p name, padded so that another may follow. */
QByteArray linkUp(int index, const QByteArray &name)
{
    return padded(newLink(index, lowerUp, nameAttribute(name)));
}

QByteArray linkDown(int index, const QByteArray &name)
{
    return padded(newLink(index, 0, nameAttribute(name)));
}

/** The signals that belong to printed lines: one a line, by the line's second word. */
QStringList signalsOf(const QByteArray &output)
{
    QStringList list;
    for (const QByteArray &line : output.split('\n')) {
        if (!line.isEmpty())
            list.append(line.split(' ').value(1));
    }
    return list;
}

/** Runs the link loop in the test's thread, until a read that returns 0 follows the given ones. */
struct LinkLoop
{
    LinkLoop()
        : watcher(nullptr)
    {
        socket.addTo(&hooks);
        hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
        collectSignals(&watcher, &watcher, &events);
    }
    ~LinkLoop() { Interpose::install(Interpose::Hooks()); }
    Q_DISABLE_COPY(LinkLoop)

    void play(const QVector<Received> &received);
    /** The same, with standard output as it is. */
    void run(const QVector<Received> &received);

    CAddressWatcher watcher;
    SocketCalls socket;
    Interpose::Hooks hooks;
    QByteArray output;
    QStringList events;
    /** What was printed when each signal was emitted. */
    QByteArrayList outputAtSignal;
    /** The calls of read(), as "DESCRIPTOR LENGTH". */
    QStringList readCalls;
    /** The buffer as the first read found it. */
    QByteArray firstBuffer;
};

void LinkLoop::run(const QVector<Received> &received)
{
    // A message that would show as "99: up stray".
    Feed feed(linkUp(99, "stray"), 4);
    feed.received = received;
    hooks.read = [&](int fd, void *buffer, size_t length) {
        if (readCalls.isEmpty())
            firstBuffer = QByteArray(static_cast<const char *>(buffer), int(length));
        readCalls.append(QStringLiteral("%1 %2").arg(fd).arg(length));
        if (readCalls.size() > received.size() + 1)
            throw LoopEnd();
        return feed.isUsedUp() ? ssize_t(0) : feed.next(buffer, length);
    };
    Interpose::install(hooks);
    runUntilLoopEnd(&watcher);
    Interpose::install(Interpose::Hooks());
}

void LinkLoop::play(const QVector<Received> &received)
{
    const CapturedStdout captured;
    const auto look = [&] { outputAtSignal.append(captured.content()); };
    QObject context;
    QObject::connect(&watcher, &CAddressWatcher::addressChanged, &context, look);
    QObject::connect(&watcher, &CAddressWatcher::netWorkdown, &context, look);
    run(received);
    output = captured.content();
}

QVector<Received> fromList(const QByteArrayList &reads)
{
    QVector<Received> list;
    for (const QByteArray &bytes : reads)
        list.append(bytes);
    return list;
}

/**
 * A watcher in a thread of its own. Its signals arrive in the test's thread; a uevent loop is
 * parked at the end, its watcher never destroyed.
 */
class LiveWatcher
{
public:
    /** @p wake makes the watcher's blocking call return. */
    LiveWatcher(const QString &architecture, std::function<void()> wake,
                Interpose::Hooks hooks = Interpose::Hooks());
    ~LiveWatcher();
    Q_DISABLE_COPY(LiveWatcher)

    CAddressWatcher *operator->() { return m_watcher; }

    bool isListening() const { return m_state->isListening; }
    /** Signals emitted in the watcher's thread, and elsewhere. */
    int inside() const { return m_state->inside; }
    int outside() const { return m_state->outside; }

    QStringList events;
    bool hasFinished = false;

private:
    struct State
    {
        std::atomic<bool> isListening{ false };
        std::atomic<bool> isEnding{ false };
        std::atomic<int> inside{ 0 };
        std::atomic<int> outside{ 0 };
        QSemaphore parked;
        QSemaphore never;
    };

    void addTo(Interpose::Hooks *hooks) const;
    void countThreads();

    std::shared_ptr<State> m_state = std::make_shared<State>();
    std::function<void()> m_wake;
    CAddressWatcher *m_watcher;
    QObject m_receiver;
};

LiveWatcher::LiveWatcher(const QString &architecture, std::function<void()> wake,
                         Interpose::Hooks hooks)
    : m_wake(std::move(wake))
    , m_watcher(new CAddressWatcher(nullptr))
{
    hooks.currentCpuArchitecture = [architecture] { return architecture; };
    addTo(&hooks);
    Interpose::install(hooks);
    collectSignals(m_watcher, &m_receiver, &events);
    QObject::connect(m_watcher, &QThread::finished, &m_receiver, [this] { hasFinished = true; });
    countThreads();
    m_watcher->start();
}

LiveWatcher::~LiveWatcher()
{
    m_state->isEnding = true;
    if (!m_watcher->isFinished())
        m_wake();
    // Either the thread has ended or it is parked.
    if (!QTest::qWaitFor(
                [this] { return m_watcher->isFinished() || m_state->parked.tryAcquire(); }))
        qFatal("the watcher's thread cannot be woken");
    Interpose::install(Interpose::Hooks());
    if (m_watcher->isFinished() && m_watcher->wait())
        delete m_watcher;
}

void LiveWatcher::addTo(Interpose::Hooks *hooks) const
{
    const auto state = m_state;
    hooks->recv = [state](int fd, void *buffer, size_t length, int flags) {
        state->isListening = true;
        const ssize_t result = Interpose::Real::recv(fd, buffer, length, flags);
        if (state->isEnding) {
            state->parked.release();
            state->never.acquire();
        }
        return result;
    };
    hooks->read = [state](int fd, void *buffer, size_t length) {
        state->isListening = true;
        const ssize_t result = Interpose::Real::read(fd, buffer, length);
        return state->isEnding ? 0 : result;
    };
}

void LiveWatcher::countThreads()
{
    const auto state = m_state;
    const QThread *own = m_watcher;
    const auto count = [state, own] {
        ++(QThread::currentThread() == own ? state->inside : state->outside);
    };
    QObject::connect(m_watcher, &CAddressWatcher::addressChanged, count);
    QObject::connect(m_watcher, &CAddressWatcher::netWorkdown, count);
    QObject::connect(m_watcher, &CAddressWatcher::reopen_network, count);
}

/** Hands strings to the kernel, which broadcasts them as a uevent of this network namespace. */
void sendKernelUevent(const QByteArrayList &strings)
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    const QByteArray payload = uevent(strings);
    nlmsghdr header = {};
    header.nlmsg_len = quint32(int(sizeof header) + payload.size());
    header.nlmsg_type = NLMSG_MIN_TYPE;
    header.nlmsg_flags = NLM_F_REQUEST;
    const QByteArray bytes = bytesOf(header) + payload;
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, bytes.constData(), std::size_t(bytes.size()), 0,
               reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel)
        != bytes.size())
        qFatal("the kernel takes no uevent: %s", std::strerror(errno));
    close(fd);
}

void sendLanSwitchState(int state)
{
    sendKernelUevent({ "change@" + LanSwitch::path(), change, ours, "SUBSYSTEM=switch",
                       "SWITCH_NAME=lan-switch", "SWITCH_STATE=" + QByteArray::number(state) });
}

void ip(const QString &arguments)
{
    if (QProcess::execute(QStringLiteral("ip"), arguments.split(QLatin1Char(' '))) != 0)
        qFatal("ip %s failed", qPrintable(arguments));
}

constexpr char destroyVariable[] = "DESTROY_THE_RUNNING_WATCHER";

} // namespace

Q_DECLARE_METATYPE(Fault)

/** The watcher's class, its two loops and their signals. */
class CAddressWatcherTest : public QObject
{
    Q_OBJECT

public:
    // Printed lines stay in the stream's buffer unless the library flushes them, on a terminal too.
    CAddressWatcherTest() { std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ); }

private Q_SLOTS:
    void init() { Interpose::install(Interpose::Hooks()); }

    void freshWatcher_isNotStartedAndHasItsFirstFlags();
    void flags_followTheThreadInOrder();
    void metaObject_listsItsFourMethodsInOrder();
    void metacast_answersForItsNameAndThoseOfItsBases();
    void virtualFunctionsOtherThanRun_areTheThreads();
    void goToEnd_clearsOnlyItsFlag();
    void slotFinish_logsTheFlagAndClearsThePendingOne_data();
    void slotFinish_logsTheFlagAndClearsThePendingOne();
    void watcherDestroyedAfterItsLoop_leavesTheSocketOpen();
    void watcherDestroyedWhileItRuns_isNotStoppedFirst();

    void architectureName_choosesTheMode_data();
    void architectureName_choosesTheMode();

    void ueventSocketOpensAtOnce_logsItTwice();
    void ueventSocketCannotBeOpened_isTriedEveryFiveSeconds_data();
    void ueventSocketCannotBeOpened_isTriedEveryFiveSeconds();
    void ueventSocketNeverOpens_isTriedWithoutEnd();
    void eachReceive_asksForAtMost2048BytesWithoutFlags();
    void failedOrEmptyReceive_isRepeatedAtOnceInSilence_data();
    void failedOrEmptyReceive_isRepeatedAtOnceInSilence();
    void ueventOf2048Bytes_isDropped();
    void ueventOf2047Bytes_isParsed();
    void receivedBytes_areEndedByTwoNuls_data();
    void receivedBytes_areEndedByTwoNuls();
    void recordOfAnEarlierUevent_isForgotten();
    void identicalUevents_areEachEmitted();
    void goToEnd_doesNotStopTheUeventLoop();

    void linkSocket_isMadeForLinkNotifications();
    void failuresOfTheLinkSocket_areNotExamined_data();
    void failuresOfTheLinkSocket_areNotExamined();
    void linkSocketThatCannotBeMade_endsTheLoopByItsFirstRead();
    void failedOrEmptyRead_endsTheLoop_data();
    void failedOrEmptyRead_endsTheLoop();
    void linkBuffer_isClearedOnceAndReadWhole();
    void messagesOfReads_data();
    void messagesOfReads();
    void messageOfWrongLength_data();
    void messageOfWrongLength();
    void attributesOfANewLink_data();
    void attributesOfANewLink();
    void flagsAndIndexOfANewLink_data();
    void flagsAndIndexOfANewLink();
    void messagesThatFillTheBuffer_areAllHandled();
    void printedLine_isThereBeforeItsSignal();
    void linkNotifications_areNotLogged();
    void outputThatIsRefused_hidesNoSignal_data();
    void outputThatIsRefused_hidesNoSignal();
    void eventsWithoutEnd_takeNoMemory_data();
    void eventsWithoutEnd_takeNoMemory();
    void goToEnd_doesNotStopTheLinkLoop();

    void linkThread_emitsItsSignalsAndEndsOnAnErrorMessage();
    void goToEnd_doesNotStopTheThread();
    void loopbackGoesDownAndUp_isSignalledToo();
    void peerOfAVethGoesDownAndUp_isPrintedAndSignalled();
    void ueventThread_dropsWhatFillsTheBuffer();
    void kernelUevents_areEmittedInTheWatchersThread();
    void thousandUeventsOfOtherDevices_hideNoneOfTheLanSwitch();
};

void CAddressWatcherTest::freshWatcher_isNotStartedAndHasItsFirstFlags()
{
    QObject parent;
    const LogCapture log;
    auto *watcher = new CAddressWatcher(&parent);
    QCOMPARE(watcher->parent(), &parent);
    QVERIFY(!watcher->isRunning());
    QVERIFY(!watcher->isFinished());
    QCOMPARE(Peek::running(*watcher), true);
    QCOMPARE(Peek::addressChanged(*watcher), false);
    QCOMPARE(Peek::finishPending(*watcher), false);
    COMPARE_LOG(log, {});
}

void CAddressWatcherTest::flags_followTheThreadInOrder()
{
    CAddressWatcher watcher(nullptr);
    const auto first = std::ptrdiff_t(sizeof(QThread));
    QCOMPARE(Peek::offset(watcher, Peek::running(watcher)), first);
    QCOMPARE(Peek::offset(watcher, Peek::addressChanged(watcher)), first + 1);
    QCOMPARE(Peek::offset(watcher, Peek::finishPending(watcher)), first + 2);
    // Nothing but padding follows.
    QCOMPARE(sizeof(CAddressWatcher), sizeof(QThread) + alignof(QThread));
}

void CAddressWatcherTest::metaObject_listsItsFourMethodsInOrder()
{
    const QMetaObject &meta = CAddressWatcher::staticMetaObject;
    QCOMPARE(meta.className(), "CAddressWatcher");
    QCOMPARE(meta.superClass(), &QThread::staticMetaObject);
    const QByteArrayList signatures = { "addressChanged()", "netWorkdown()", "reopen_network(int)",
                                        "slotFinish()" };
    QCOMPARE(meta.methodCount() - meta.methodOffset(), signatures.size());
    for (int i = 0; i < signatures.size(); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        QCOMPARE(method.methodSignature(), signatures.at(i));
        QCOMPARE(method.methodType(), i < 3 ? QMetaMethod::Signal : QMetaMethod::Slot);
        QCOMPARE(method.access(), QMetaMethod::Public);
        QCOMPARE(method.returnType(), int(QMetaType::Void));
        QCOMPARE(method.parameterNames(), i == 2 ? QByteArrayList{ "state" } : QByteArrayList());
    }
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

void CAddressWatcherTest::metacast_answersForItsNameAndThoseOfItsBases()
{
    CAddressWatcher watcher(nullptr);
    QCOMPARE(watcher.qt_metacast("CAddressWatcher"), static_cast<void *>(&watcher));
    QCOMPARE(watcher.qt_metacast("QThread"), static_cast<void *>(static_cast<QThread *>(&watcher)));
    QCOMPARE(watcher.qt_metacast("QObject"), static_cast<void *>(static_cast<QObject *>(&watcher)));
    QCOMPARE(watcher.qt_metacast("CAddress"), nullptr);
    QCOMPARE(watcher.qt_metacast("NetworkSwitchWorker"), nullptr);
    QCOMPARE(watcher.qt_metacast(nullptr), nullptr);
}

void CAddressWatcherTest::virtualFunctionsOtherThanRun_areTheThreads()
{
    using Event = bool (QThread::*)(QEvent *);
    using Filter = bool (QObject::*)(QObject *, QEvent *);
    QVERIFY((std::is_same<decltype(&CAddressWatcher::event), Event>::value));
    QVERIFY((std::is_same<decltype(&CAddressWatcher::eventFilter), Filter>::value));
    QVERIFY(std::has_virtual_destructor<CAddressWatcher>::value);
}

void CAddressWatcherTest::goToEnd_clearsOnlyItsFlag()
{
    for (const bool others : { false, true }) {
        const LogCapture log;
        CAddressWatcher watcher(nullptr);
        Peek::addressChanged(watcher) = others;
        Peek::finishPending(watcher) = others;
        watcher.goToEnd();
        QCOMPARE(Peek::running(watcher), false);
        QCOMPARE(Peek::addressChanged(watcher), others);
        QCOMPARE(Peek::finishPending(watcher), others);
        COMPARE_LOG(log, {});
    }
}

void CAddressWatcherTest::slotFinish_logsTheFlagAndClearsThePendingOne_data()
{
    QTest::addColumn<bool>("changed");
    QTest::addColumn<bool>("pending");
    QTest::addColumn<QString>("line");
    const QString line = "[ slotFinish ] \"slotFinish 71: addressChanged :%1\"";
    QTest::newRow("fresh object") << false << false << line.arg(0);
    QTest::newRow("a finish pending") << false << true << line.arg(0);
    QTest::newRow("address changed") << true << true << line.arg(1);
}

void CAddressWatcherTest::slotFinish_logsTheFlagAndClearsThePendingOne()
{
    QFETCH(bool, changed);
    QFETCH(bool, pending);
    QFETCH(QString, line);
    const LogCapture log;
    CAddressWatcher watcher(nullptr);
    QStringList events;
    collectSignals(&watcher, &watcher, &events);
    if (changed)
        Peek::addressChanged(watcher) = true;
    if (pending)
        Peek::finishPending(watcher) = true;
    watcher.slotFinish();
    COMPARE_LOG(log, { { QtWarningMsg, line } });
    QCOMPARE(Peek::finishPending(watcher), false);
    QCOMPARE(Peek::addressChanged(watcher), changed);
    QCOMPARE(Peek::running(watcher), true);
    QCOMPARE(events, QStringList());
}

void CAddressWatcherTest::watcherDestroyedAfterItsLoop_leavesTheSocketOpen()
{
    SocketCalls socket;
    Interpose::Hooks hooks;
    socket.addTo(&hooks);
    hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
    hooks.read = [](int, void *, size_t) { return -1; };
    Interpose::install(hooks);
    auto watcher = std::make_unique<CAddressWatcher>(nullptr);
    watcher->start();
    QVERIFY(watcher->wait());
    Interpose::install(Interpose::Hooks());
    watcher.reset();
    QVERIFY(socket.descriptor >= 0);
    QVERIFY(fcntl(socket.descriptor, F_GETFD) != -1);
}

void CAddressWatcherTest::watcherDestroyedWhileItRuns_isNotStoppedFirst()
{
    // Qt ends a process that destroys a running thread, so another process has to do it.
    if (qEnvironmentVariableIsSet(destroyVariable)) {
        const rlimit noCore = { 0, 0 };
        setrlimit(RLIMIT_CORE, &noCore);
        FakeNetlink netlink;
        Interpose::Hooks hooks;
        netlink.addTo(&hooks);
        hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
        Interpose::install(hooks);
        auto *watcher = new CAddressWatcher(nullptr);
        watcher->start();
        delete watcher;
        return;
    }
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(destroyVariable, QStringLiteral("1"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QCoreApplication::applicationFilePath(),
                  { QString::fromLatin1(QTest::currentTestFunction()) });
    QVERIFY(process.waitForFinished());
    const QByteArray report = process.readAll();
    QVERIFY2(report.contains("QThread: Destroyed while thread is still running"), report);
    QCOMPARE(process.exitStatus(), QProcess::CrashExit);
}

void CAddressWatcherTest::architectureName_choosesTheMode_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("call");
    for (const char *name : { "arm", "arm64", "armv7", "armeb", "charm", "x86_64 arm" })
        QTest::newRow(name) << name << ueventSocket;
    for (const char *name : { "x86_64", "i386", "aarch64", "ARM", "Arm64", "a-rm", "mips", "" })
        QTest::addRow("'%s'", name) << name << linkSocket;
}

void CAddressWatcherTest::architectureName_choosesTheMode()
{
    QFETCH(QString, name);
    QFETCH(QString, call);
    SocketCalls socket;
    socket.socketFailures = 1;
    int questions = 0;
    Interpose::Hooks hooks;
    socket.addTo(&hooks);
    hooks.currentCpuArchitecture = [&] {
        ++questions;
        return name;
    };
    hooks.sleep = [](unsigned long) { throw LoopEnd(); };
    hooks.recv = [](int, void *, size_t, int) -> ssize_t { throw LoopEnd(); };
    hooks.read = [](int, void *, size_t) { return -1; };
    Interpose::install(hooks);
    CAddressWatcher watcher(nullptr);
    const LogCapture log;
    runUntilLoopEnd(&watcher);
    QCOMPARE(socket.calls, QStringList{ call });
    QCOMPARE(questions, 1);
}

void CAddressWatcherTest::ueventSocketOpensAtOnce_logsItTwice()
{
    UeventLoop loop;
    loop.play({});
    COMPARE_LOG(loop.log, (loop.opened()));
    QCOMPARE(loop.socket.calls.size(), 3);
    QCOMPARE(loop.socket.calls.first(), ueventSocket);
    QCOMPARE(loop.events, QStringList());
}

void CAddressWatcherTest::ueventSocketCannotBeOpened_isTriedEveryFiveSeconds_data()
{
    QTest::addColumn<int>("socketFailures");
    QTest::addColumn<int>("bindFailures");
    QTest::newRow("socket refused") << 3 << 0;
    QTest::newRow("bind refused") << 0 << 3;
    QTest::newRow("first the one, then the other") << 2 << 1;
}

void CAddressWatcherTest::ueventSocketCannotBeOpened_isTriedEveryFiveSeconds()
{
    QFETCH(int, socketFailures);
    QFETCH(int, bindFailures);
    UeventLoop loop;
    loop.socket.socketFailures = socketFailures;
    loop.socket.bindFailures = bindFailures;
    loop.play({ uevent({ change, ours }) });
    QStringList steps;
    for (const QString &call : qAsConst(loop.socket.calls)) {
        if (call == ueventSocket || call.startsWith(QLatin1String("sleep")))
            steps.append(call);
    }
    const QString sleep = "sleep 5 after 1 lines";
    QCOMPARE(steps,
             (QStringList{ ueventSocket, sleep, ueventSocket, sleep, ueventSocket, sleep,
                           ueventSocket }));
    QVector<Expected> lines = loop.opened({ LanSwitch::changeLine("", "change", 0) });
    lines.first().text = "[ run ] first time to get uevent socket_fd result =  -1";
    COMPARE_LOG(loop.log, (lines));
    QCOMPARE(loop.receiveCalls,
             QStringList{ QString::number(loop.socket.descriptor) + QStringLiteral(" 2048 0") });
}

void CAddressWatcherTest::ueventSocketNeverOpens_isTriedWithoutEnd()
{
    UeventLoop loop;
    loop.socket.socketFailures = 1000;
    loop.play({});
    QCOMPARE(loop.socket.calls.count("sleep 5 after 1 lines"), 1000);
    QCOMPARE(loop.socket.calls.count(ueventSocket), 1001);
    QCOMPARE(loop.log.lines().size(), 2);
}

void CAddressWatcherTest::eachReceive_asksForAtMost2048BytesWithoutFlags()
{
    UeventLoop loop;
    loop.play({ uevent({ change, ours }), { QByteArray(), -1 }, uevent({ "SUBSYSTEM=net" }) });
    QCOMPARE(loop.receiveCalls,
             QStringList{ QString::number(loop.socket.descriptor) + QStringLiteral(" 2048 0") });
}

void CAddressWatcherTest::failedOrEmptyReceive_isRepeatedAtOnceInSilence_data()
{
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("error");
    QTest::newRow("overrun") << -1 << ENOBUFS;
    QTest::newRow("interrupted") << -1 << EINTR;
    QTest::newRow("out of memory") << -1 << ENOMEM;
    QTest::newRow("nothing there") << -1 << EAGAIN;
    QTest::newRow("no such descriptor") << -1 << EBADF;
    QTest::newRow("any other error") << -1 << EIO;
    QTest::newRow("empty") << 0 << 0;
}

void CAddressWatcherTest::failedOrEmptyReceive_isRepeatedAtOnceInSilence()
{
    QFETCH(int, result);
    QFETCH(int, error);
    constexpr int failures = 200;
    UeventLoop loop;
    // What stands in the buffer without having been received is no event.
    const Received nothing(uevent({ change, ours, "SWITCH_STATE=8" }), result, error);
    const QVector<Received> storm(failures, nothing);
    loop.play(storm + QVector<Received>{ uevent({ change, ours, "SWITCH_STATE=1" }), nothing });
    QCOMPARE(loop.events, QStringList{ "1" });
    COMPARE_LOG(loop.log, (loop.opened({ LanSwitch::changeLine("", "change", 1) })));
    QCOMPARE(loop.socket.calls.filter("sleep"), QStringList());
    // No pause of any kind, however short.
    QVERIFY2(loop.sleeps < failures / 2, qPrintable(QString::number(loop.sleeps)));
    QCOMPARE(loop.socket.calls.count(ueventSocket), 1);
}

void CAddressWatcherTest::ueventOf2048Bytes_isDropped()
{
    UeventLoop loop;
    const QByteArray head = uevent({ change, ours, "SWITCH_STATE=1" });
    loop.play({ head + QByteArray(2048 - head.size(), '\0'), ueventOfSize(2048) });
    QCOMPARE(loop.events, QStringList());
    COMPARE_LOG(loop.log, (loop.opened()));
}

void CAddressWatcherTest::ueventOf2047Bytes_isParsed()
{
    UeventLoop loop;
    loop.play({ ueventOfSize(2047) });
    QCOMPARE(loop.events, QStringList{ "1" });
    COMPARE_LOG(loop.log, (loop.opened({ LanSwitch::changeLine("", "change", 1) })));
}

void CAddressWatcherTest::receivedBytes_areEndedByTwoNuls_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray event = uevent({ change, ours, "SWITCH_STATE=1" });
    QTest::newRow("last string with its NUL") << event;
    QTest::newRow("last string without its NUL") << event.chopped(1);
    QTest::newRow("an empty string at the end") << event + '\0';
}

void CAddressWatcherTest::receivedBytes_areEndedByTwoNuls()
{
    QFETCH(QByteArray, bytes);
    UeventLoop loop;
    loop.play({ bytes });
    QCOMPARE(loop.events, QStringList{ "1" });
    COMPARE_LOG(loop.log, (loop.opened({ LanSwitch::changeLine("", "change", 1) })));
}

void CAddressWatcherTest::recordOfAnEarlierUevent_isForgotten()
{
    UeventLoop loop;
    loop.play({ uevent({ "SWITCH_NAME=lan-switch", "SWITCH_STATE=1", change, ours }),
                uevent({ change, ours }), uevent({ ours }), uevent({ change }) });
    QCOMPARE(loop.events, (QStringList{ "1", "0" }));
    COMPARE_LOG(loop.log,
                (loop.opened({ LanSwitch::changeLine("lan-switch", "change", 1),
                               LanSwitch::changeLine("", "change", 0),
                               { QtCriticalMsg, "[ parse_uevent ] cdev->action is NULL" } })));
}

void CAddressWatcherTest::identicalUevents_areEachEmitted()
{
    UeventLoop loop;
    const QByteArray event = uevent({ change, ours, "SWITCH_STATE=1" });
    loop.play({ event, event });
    QCOMPARE(loop.events, (QStringList{ "1", "1" }));
}

void CAddressWatcherTest::goToEnd_doesNotStopTheUeventLoop()
{
    UeventLoop loop;
    loop.watcher.goToEnd();
    const QByteArray event = uevent({ change, ours, "SWITCH_STATE=1" });
    loop.play({ event, event });
    QCOMPARE(loop.events.size(), 2);
    QCOMPARE(Peek::running(loop.watcher), false);
}

void CAddressWatcherTest::linkSocket_isMadeForLinkNotifications()
{
    LinkLoop loop;
    loop.play({});
    QCOMPARE(loop.socket.calls,
             (QStringList{ linkSocket, "setsockopt 0 1 8 20480 of 4 bytes",
                           "bind 0 family 16 port 0 groups 1 of 12 bytes" }));
    QCOMPARE(loop.readCalls, QStringList{ QString::number(loop.socket.descriptor) + " 20480" });
}

void CAddressWatcherTest::failuresOfTheLinkSocket_areNotExamined_data()
{
    QTest::addColumn<int>("optionFailures");
    QTest::addColumn<int>("bindFailures");
    QTest::newRow("option refused") << 1 << 0;
    QTest::newRow("bind refused") << 0 << 1;
    QTest::newRow("both refused") << 1 << 1;
}

void CAddressWatcherTest::failuresOfTheLinkSocket_areNotExamined()
{
    QFETCH(int, optionFailures);
    QFETCH(int, bindFailures);
    const LogCapture log;
    LinkLoop loop;
    loop.socket.optionFailures = optionFailures;
    loop.socket.bindFailures = bindFailures;
    loop.play({ linkUp(2, "eth0") });
    QCOMPARE(loop.socket.calls.size(), 3);
    QCOMPARE(loop.readCalls.size(), 2);
    QCOMPARE(loop.output, QByteArray("2: up eth0\n"));
    COMPARE_LOG(log, {});
}

void CAddressWatcherTest::linkSocketThatCannotBeMade_endsTheLoopByItsFirstRead()
{
    const LogCapture log;
    Interpose::Hooks hooks;
    int reads = 0;
    hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
    hooks.socket = [](int, int, int) { return -1; };
    hooks.read = [&](int fd, void *buffer, size_t length) {
        ++reads;
        return Interpose::Real::read(fd, buffer, length);
    };
    Interpose::install(hooks);
    CAddressWatcher watcher(nullptr);
    QStringList events;
    collectSignals(&watcher, &watcher, &events);
    Peek::run(watcher);
    QCOMPARE(reads, 1);
    QCOMPARE(events, QStringList());
    COMPARE_LOG(log, {});
}

void CAddressWatcherTest::failedOrEmptyRead_endsTheLoop_data()
{
    failedOrEmptyReceive_isRepeatedAtOnceInSilence_data();
}

void CAddressWatcherTest::failedOrEmptyRead_endsTheLoop()
{
    QFETCH(int, result);
    QFETCH(int, error);
    const LogCapture log;
    LinkLoop loop;
    loop.play({ linkUp(2, "eth0"), { linkUp(3, "eth1"), result, error }, linkUp(4, "eth2") });
    QCOMPARE(loop.readCalls.size(), 2);
    QCOMPARE(loop.output, QByteArray("2: up eth0\n"));
    QCOMPARE(loop.events, QStringList{ "up" });
    COMPARE_LOG(log, {});
}

void CAddressWatcherTest::linkBuffer_isClearedOnceAndReadWhole()
{
    LinkLoop loop;
    loop.play({ linkUp(2, "eth0"), linkDown(2, "eth0") });
    QCOMPARE(loop.firstBuffer, QByteArray(linkBufferSize, '\0'));
    const QString call = QString::number(loop.socket.descriptor) + " 20480";
    QCOMPARE(loop.readCalls, (QStringList{ call, call, call }));
}

void CAddressWatcherTest::messagesOfReads_data()
{
    QTest::addColumn<QByteArrayList>("reads");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<bool>("endsTheLoop");
    const auto row = [](const char *title, const QByteArrayList &reads, const char *output,
                        bool endsTheLoop = false) {
        QTest::newRow(title) << reads << QByteArray(output) << endsTheLoop;
    };
    const QByteArray eth0 = linkUp(2, "eth0");
    const QByteArray eth1 = linkDown(3, "eth1");
    const QByteArray code(20, '\0');
    row("one a read", { eth0, eth1 }, "2: up eth0\n3: down eth1\n");
    row("several in a read", { eth0 + eth1 + eth0 }, "2: up eth0\n3: down eth1\n2: up eth0\n");
    row("the loopback interface", { linkUp(1, "lo") }, "1: up lo\n");
    row("less than a header", { eth0.left(1), eth0.left(15), eth1 }, "3: down eth1\n");
    row("a header alone", { message(NLMSG_NOOP, "") + eth1 }, "3: down eth1\n");
    const QByteArray deleted = padded(message(RTM_DELLINK, linkPayload(2, 0, nameAttribute("x"))));
    row("RTM_DELLINK is skipped", { deleted, deleted + eth1 }, "3: down eth1\n");
    for (const int type : { 0, NLMSG_NOOP, NLMSG_OVERRUN, 15, 18, 19, 20, 0x110, 0xffff }) {
        const QByteArray other = message(type, linkPayload(7, lowerUp, ""));
        QTest::addRow("type %d is skipped", type)
                << QByteArrayList{ other + eth1 } << QByteArray("3: down eth1\n") << false;
    }
    const QByteArray done = message(NLMSG_DONE, code.left(4));
    row("NLMSG_DONE stops the walk", { eth0 + done + eth1 }, "2: up eth0\n");
    row("a read behind NLMSG_DONE", { done + eth0, eth1 }, "3: down eth1\n");
    const QByteArray error = message(NLMSG_ERROR, code);
    row("NLMSG_ERROR ends the loop", { error, eth1 }, "", true);
    row("messages before NLMSG_ERROR", { eth0 + eth1 + error + eth0, eth1 },
        "2: up eth0\n3: down eth1\n", true);
    row("NLMSG_ERROR behind NLMSG_DONE", { done + error, eth1 }, "3: down eth1\n");
    row("header of NLMSG_ERROR alone", { message(NLMSG_ERROR, ""), eth1 }, "", true);
}

void CAddressWatcherTest::messagesOfReads()
{
    QFETCH(QByteArrayList, reads);
    QFETCH(QByteArray, output);
    QFETCH(bool, endsTheLoop);
    LinkLoop loop;
    loop.play(fromList(reads));
    QCOMPARE(loop.output, output);
    QCOMPARE(loop.events, signalsOf(output));
    QCOMPARE(loop.readCalls.size(), endsTheLoop ? 1 : reads.size() + 1);
}

void CAddressWatcherTest::messageOfWrongLength_data()
{
    QTest::addColumn<QByteArrayList>("reads");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<bool>("endsTheLoop");
    const auto row = [](const char *title, const QByteArrayList &reads, const char *output) {
        QTest::newRow(title) << reads << QByteArray(output) << false;
    };
    const QByteArray eth1 = linkDown(3, "eth1");
    const QByteArray payload = linkPayload(2, lowerUp, nameAttribute("eth0"));
    const int whole = 16 + payload.size();
    for (const int length : { 0, 1, 4, 15 }) {
        QTest::addRow("length %d stops the walk", length)
                << QByteArrayList{ message(RTM_NEWLINK, payload, length) + eth1, eth1 }
                << QByteArray("3: down eth1\n") << false;
    }
    row("one byte longer than received", { message(RTM_NEWLINK, payload, whole + 1), eth1 },
        "3: down eth1\n");
    row("much longer than received",
        { eth1 + message(RTM_NEWLINK, payload, linkBufferSize) + eth1, eth1 },
        "3: down eth1\n3: down eth1\n");
    for (const qint64 length : { 0x7fffffffLL, 0x80000000LL, 0x80000020LL, 0xffffffffLL }) {
        QTest::addRow("length %lld stops the walk", length)
                << QByteArrayList{ message(RTM_NEWLINK, payload, length) + eth1, eth1 }
                << QByteArray("3: down eth1\n") << false;
    }
    row("NLMSG_ERROR shorter than a header", { message(NLMSG_ERROR, "", 15) + eth1, eth1 },
        "3: down eth1\n");
    row("NLMSG_ERROR longer than received", { message(NLMSG_ERROR, "", 17), eth1 },
        "3: down eth1\n");
    const QByteArray link = linkPayload(2, lowerUp, "");
    for (const int length : { 16, 17, 24, 31 }) {
        QTest::addRow("new link of %d bytes is skipped", length)
                << QByteArrayList{ padded(message(RTM_NEWLINK, link.left(length - 16))) + eth1 }
                << QByteArray("3: down eth1\n") << false;
    }
    row("new link of 32 bytes", { message(RTM_NEWLINK, link) + eth1 }, "2: up\n3: down eth1\n");
    row("next message at a multiple of four",
        { padded(newLink(2, 0, nameAttribute("wan0") + "x")) + eth1 },
        "2: down wan0\n3: down eth1\n");
    row("last message ends unaligned", { eth1 + newLink(2, 0, nameAttribute("eth0")), eth1 },
        "3: down eth1\n2: down eth0\n3: down eth1\n");
    row("less than a header remains", { eth1 + linkUp(2, "eth0").left(15), eth1 },
        "3: down eth1\n3: down eth1\n");
}

void CAddressWatcherTest::messageOfWrongLength()
{
    messagesOfReads();
}

void CAddressWatcherTest::attributesOfANewLink_data()
{
    QTest::addColumn<QByteArray>("attributes");
    QTest::addColumn<QByteArray>("output");
    const auto row = [](const char *title, const QByteArray &attributes, const char *output) {
        QTest::newRow(title) << attributes << QByteArray(output);
    };
    const QByteArray name = nameAttribute("eth0");
    const QByteArray mtu = attribute(IFLA_MTU, QByteArray(4, '\1'));
    const QByteArray address = padded(attribute(IFLA_ADDRESS, QByteArray(6, '\2')));
    row("no attribute", "", "2: up\n");
    row("name first", padded(name) + mtu, "2: up eth0\n");
    row("name later", address + mtu + name, "2: up eth0\n");
    row("no name", address + mtu, "2: up\n");
    row("second name", padded(name) + nameAttribute("other"), "2: up eth0\n");
    row("name of one letter", nameAttribute("e"), "2: up e\n");
    row("name with a blank and a percent sign", nameAttribute("a %s"), "2: up a %s\n");
    row("name without NUL", attribute(IFLA_IFNAME, "eth0"), "2: up eth0\n");
    row("name without NUL before another attribute", attribute(IFLA_IFNAME, "eth0") + mtu,
        "2: up eth0\n");
    row("name with a NUL within", attribute(IFLA_IFNAME, QByteArray("a\0b\0", 4)), "2: up a\n");
    row("name of zero length", attribute(IFLA_IFNAME, "") + mtu, "2: up \n");
    row("name of zero length at the end", attribute(IFLA_IFNAME, ""), "2: up \n");
    row("empty name", nameAttribute(""), "2: up \n");
    row("attribute without payload before the name", attribute(IFLA_MTU, "") + name,
        "2: up eth0\n");
    for (const int length : { 0, 1, 3 }) {
        QTest::addRow("attribute of length %d before the name", length)
                << attribute(IFLA_MTU, "", length) + name << QByteArray("2: up\n");
        QTest::addRow("name of length %d", length)
                << attribute(IFLA_IFNAME, "eth0", length) << QByteArray("2: up\n");
    }
    row("name one byte longer than the message",
        attribute(IFLA_IFNAME, QByteArray("eth0\0", 5), 10), "2: up\n");
    row("attribute longer than the message before the name",
        attribute(IFLA_MTU, QByteArray(4, '\1'), 200) + name, "2: up\n");
    row("less than an attribute's header", mtu + attribute(IFLA_IFNAME, "", 9).left(3), "2: up\n");
    row("unaligned attribute before the name", padded(attribute(IFLA_MTU, "x")) + name,
        "2: up eth0\n");
    row("unaligned attribute at the end", attribute(IFLA_MTU, "x"), "2: up\n");
    row("name of another type's number", attribute(IFLA_IFALIAS, QByteArray("eth0\0", 5)),
        "2: up\n");
}

void CAddressWatcherTest::attributesOfANewLink()
{
    QFETCH(QByteArray, attributes);
    QFETCH(QByteArray, output);
    LinkLoop loop;
    const QByteArray link = newLink(2, lowerUp, attributes);
    // What stands behind the message belongs to none of its attributes.
    loop.play({ link, padded(link) + linkDown(3, "eth1") });
    QCOMPARE(loop.output, output + output + "3: down eth1\n");
    QCOMPARE(loop.events, (QStringList{ "up", "up", "down" }));
}

void CAddressWatcherTest::flagsAndIndexOfANewLink_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<unsigned>("flags");
    QTest::addColumn<QByteArray>("output");
    QTest::newRow("lower up alone") << 2 << lowerUp << QByteArray("2: up\n");
    QTest::newRow("all flags") << 2 << ~0U << QByteArray("2: up\n");
    QTest::newRow("no flag") << 2 << 0U << QByteArray("2: down\n");
    QTest::newRow("all flags but lower up") << 2 << ~lowerUp << QByteArray("2: down\n");
    QTest::newRow("up and running without a cable")
            << 2 << unsigned(IFF_UP | IFF_RUNNING) << QByteArray("2: down\n");
    QTest::newRow("neighbour of lower up below") << 2 << 0x8000U << QByteArray("2: down\n");
    QTest::newRow("neighbour of lower up above") << 2 << 0x20000U << QByteArray("2: down\n");
    QTest::newRow("index 0") << 0 << lowerUp << QByteArray("0: up\n");
    QTest::newRow("index of many digits") << 123456 << lowerUp << QByteArray("123456: up\n");
    QTest::newRow("index is unsigned") << -1 << 0U << QByteArray("4294967295: down\n");
}

void CAddressWatcherTest::flagsAndIndexOfANewLink()
{
    QFETCH(int, index);
    QFETCH(unsigned, flags);
    QFETCH(QByteArray, output);
    ifinfomsg link = {};
    link.ifi_index = index;
    link.ifi_flags = flags;
    // The fields beside them say the opposite.
    link.ifi_family = AF_BRIDGE;
    link.ifi_type = 0xffff;
    link.ifi_change = ~flags;
    LinkLoop loop;
    loop.play({ message(RTM_NEWLINK, bytesOf(link)) });
    QCOMPARE(loop.output, output);
    QCOMPARE(loop.events, signalsOf(output));
}

void CAddressWatcherTest::messagesThatFillTheBuffer_areAllHandled()
{
    QByteArray bytes;
    QByteArray output;
    for (int i = 1; bytes.size() < linkBufferSize; ++i) {
        bytes += newLink(i, i % 2 ? lowerUp : 0, "");
        output += QByteArray::number(i) + (i % 2 ? ": up\n" : ": down\n");
    }
    QCOMPARE(bytes.size(), linkBufferSize);
    LinkLoop loop;
    loop.play({ bytes });
    QCOMPARE(loop.output, output);
    QCOMPARE(loop.events, signalsOf(output));
    QCOMPARE(loop.readCalls.size(), 2);
}

void CAddressWatcherTest::printedLine_isThereBeforeItsSignal()
{
    LinkLoop loop;
    loop.play({ linkUp(2, "eth0") + linkDown(3, "eth1") });
    QCOMPARE(loop.outputAtSignal, (QByteArrayList{ "2: up eth0\n", "2: up eth0\n3: down eth1\n" }));
}

void CAddressWatcherTest::linkNotifications_areNotLogged()
{
    const LogCapture log;
    LinkLoop loop;
    loop.play({ linkUp(2, "eth0") + linkDown(3, "eth1"), message(NLMSG_ERROR, "") });
    QCOMPARE(loop.events.size(), 2);
    COMPARE_LOG(log, {});
}

void CAddressWatcherTest::outputThatIsRefused_hidesNoSignal_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::newRow("closed") << Fault::Closed;
    QTest::newRow("for reading only") << Fault::ReadOnly;
    QTest::newRow("without a reader, SIGPIPE ignored") << Fault::NoReader;
    QTest::newRow("full") << Fault::Full;
}

void CAddressWatcherTest::outputThatIsRefused_hidesNoSignal()
{
    QFETCH(Fault, fault);
    const LogCapture log;
    LinkLoop loop;
    bool wasRefused = false;
    {
        const BrokenStdout broken(fault);
        loop.run({ linkUp(2, "eth0") + linkDown(3, "eth1"), linkUp(2, "eth0") });
        wasRefused = broken.hasRefused();
    }
    QVERIFY(wasRefused);
    QCOMPARE(loop.events, (QStringList{ "up", "down", "up" }));
    QCOMPARE(loop.readCalls.size(), 3);
    COMPARE_LOG(log, {});
}

void CAddressWatcherTest::eventsWithoutEnd_takeNoMemory_data()
{
    QTest::addColumn<QString>("architecture");
    QTest::addColumn<QByteArrayList>("messages");
    QByteArrayList uevents;
    QByteArrayList links;
    for (int i = 0; i < 16; ++i) {
        const QByteArray number = QByteArray::number(i);
        uevents.append(
                uevent({ change, ours, "SWITCH_NAME=switch" + number, "SWITCH_STATE=" + number }));
        links.append(linkUp(i, "wired-net" + number) + linkDown(i, "wired-net" + number));
    }
    QTest::newRow("uevents") << "arm64" << uevents;
    QTest::newRow("link notifications") << "x86_64" << links;
}

void CAddressWatcherTest::eventsWithoutEnd_takeNoMemory()
{
    QFETCH(QString, architecture);
    QFETCH(QByteArrayList, messages);
    constexpr int first = 1000; // by then all that is made once is there
    constexpr int last = first + 100000;
    int received = 0;
    std::size_t atFirst = 0;
    std::size_t atLast = 0;
    const auto next = [&](void *buffer) {
        if (received == first)
            atFirst = allocatedBytes();
        if (received == last) {
            atLast = allocatedBytes();
            throw LoopEnd();
        }
        const QByteArray &message = messages.at(received++ % messages.size());
        std::memcpy(buffer, message.constData(), std::size_t(message.size()));
        return ssize_t(message.size());
    };
    CAddressWatcher watcher(nullptr);
    int emitted = 0;
    const auto count = [&] { ++emitted; };
    QObject::connect(&watcher, &CAddressWatcher::reopen_network, count);
    QObject::connect(&watcher, &CAddressWatcher::addressChanged, count);
    QObject::connect(&watcher, &CAddressWatcher::netWorkdown, count);
    SocketCalls socket;
    Interpose::Hooks hooks;
    socket.addTo(&hooks);
    hooks.currentCpuArchitecture = [&] { return architecture; };
    hooks.recv = [&](int, void *buffer, size_t, int) { return next(buffer); };
    hooks.read = [&](int, void *buffer, size_t) { return next(buffer); };
    const QtMessageHandler kept =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    {
        const CapturedStdout captured;
        Interpose::install(hooks);
        runUntilLoopEnd(&watcher);
        Interpose::install(Interpose::Hooks());
    }
    qInstallMessageHandler(kept);
    QCOMPARE(received, last);
    QCOMPARE(emitted, architecture == "arm64" ? last : 2 * last);
    QCOMPARE(atLast, atFirst);
}

void CAddressWatcherTest::goToEnd_doesNotStopTheLinkLoop()
{
    LinkLoop loop;
    loop.watcher.goToEnd();
    loop.play({ linkUp(2, "eth0"), linkDown(2, "eth0") });
    QCOMPARE(loop.events, (QStringList{ "up", "down" }));
    QCOMPARE(loop.readCalls.size(), 3);
}

void CAddressWatcherTest::linkThread_emitsItsSignalsAndEndsOnAnErrorMessage()
{
    FakeNetlink netlink;
    Interpose::Hooks hooks;
    netlink.addTo(&hooks);
    QByteArray output;
    {
        const CapturedStdout captured;
        LiveWatcher watcher(
                "x86_64", [&] { netlink.end(); }, hooks);
        netlink.send(linkUp(2, "eth0") + linkDown(3, "eth1"));
        QTRY_COMPARE(watcher.events, (QStringList{ "up", "down" }));
        QVERIFY(!watcher.hasFinished);
        QVERIFY(watcher->isRunning());
        netlink.send(linkUp(2, "eth0") + message(NLMSG_ERROR, ""));
        QTRY_VERIFY(watcher.hasFinished);
        QVERIFY(watcher->isFinished());
        QCOMPARE(watcher.events, (QStringList{ "up", "down", "up" }));
        QCOMPARE(watcher.inside(), 3);
        QCOMPARE(watcher.outside(), 0);
        output = captured.content();
    }
    QCOMPARE(output, QByteArray("2: up eth0\n3: down eth1\n2: up eth0\n"));
}

void CAddressWatcherTest::goToEnd_doesNotStopTheThread()
{
    FakeNetlink netlink;
    Interpose::Hooks hooks;
    netlink.addTo(&hooks);
    const CapturedStdout captured;
    LiveWatcher watcher(
            "x86_64", [&] { netlink.end(); }, hooks);
    QTRY_VERIFY(watcher.isListening());
    watcher->goToEnd();
    netlink.send(linkUp(2, "eth0"));
    QTRY_COMPARE(watcher.events, QStringList{ "up" });
    netlink.send(linkDown(2, "eth0"));
    QTRY_COMPARE(watcher.events, (QStringList{ "up", "down" }));
    QVERIFY(watcher->isRunning());
}

void CAddressWatcherTest::loopbackGoesDownAndUp_isSignalledToo()
{
    QByteArray output;
    QStringList events;
    {
        const CapturedStdout captured;
        LiveWatcher watcher("x86_64", [] { ip("link set lo mtu 16384"); });
        QTRY_VERIFY(watcher.isListening());
        ip("link set lo down");
        QTRY_VERIFY(captured.content().contains("1: down lo\n"));
        ip("link set lo up");
        QTRY_VERIFY(captured.content().contains("1: up lo\n"));
        QTRY_COMPARE(watcher.events, signalsOf(captured.content()));
        output = captured.content();
        events = watcher.events;
    }
    QCOMPARE(events.first(), QString("down"));
    QCOMPARE(events.last(), QString("up"));
}

void CAddressWatcherTest::peerOfAVethGoesDownAndUp_isPrintedAndSignalled()
{
    ip("link add wire0 type veth peer name wire1");
    ip("link set wire0 up");
    ip("link set wire1 up");
    const QByteArray index = QByteArray::number(if_nametoindex("wire0"));
    QByteArray output;
    {
        const CapturedStdout captured;
        LiveWatcher watcher("x86_64", [] { ip("link del wire0"); });
        QTRY_VERIFY(watcher.isListening());
        ip("link set wire1 down");
        QTRY_VERIFY(captured.content().contains(index + ": down wire0\n"));
        const int before = captured.content().size();
        ip("link set wire1 up");
        QTRY_VERIFY(captured.content().mid(before).contains(index + ": up wire0\n"));
        QTRY_COMPARE(watcher.events, signalsOf(captured.content()));
        QVERIFY(watcher.inside() >= 2);
        QCOMPARE(watcher.outside(), 0);
        output = captured.content();
    }
    const QRegularExpression lines("^(\\d+: (up|down) wire[01]\n)+$");
    QVERIFY2(lines.match(QString::fromUtf8(output)).hasMatch(), output);
}

void CAddressWatcherTest::ueventThread_dropsWhatFillsTheBuffer()
{
    FakeNetlink netlink;
    Interpose::Hooks hooks;
    netlink.addTo(&hooks);
    LogCapture log;
    LiveWatcher watcher(
            "arm64", [&] { netlink.end(); }, hooks);
    netlink.send(ueventOfSize(2048));
    netlink.send(ueventOfSize(2049));
    netlink.send(ueventOfSize(4096));
    netlink.send(ueventOfSize(2047));
    netlink.send(uevent({ change, ours, "SWITCH_STATE=2" }));
    QTRY_COMPARE(watcher.events, (QStringList{ "1", "2" }));
    QCOMPARE(log.lines().size(), 4);
    QCOMPARE(log.lines().last().text, LanSwitch::changeLine("", "change", 2).text);
}

void CAddressWatcherTest::kernelUevents_areEmittedInTheWatchersThread()
{
    LogCapture log;
    LiveWatcher watcher("arm64", [] { sendLanSwitchState(0); });
    QTRY_VERIFY(watcher.isListening());
    for (const int state : { 1, 1, 0, 7 })
        sendLanSwitchState(state);
    QTRY_COMPARE(watcher.events, (QStringList{ "1", "1", "0", "7" }));
    QCOMPARE(watcher.inside(), 4);
    QCOMPARE(watcher.outside(), 0);
    QVERIFY(watcher->isRunning());
    const QVector<LogLine> lines = log.lines();
    QCOMPARE(lines.size(), 6);
    for (const LogLine &line : lines)
        QVERIFY(line.thread != QThread::currentThreadId());
    QCOMPARE(lines.last().text, LanSwitch::changeLine("lan-switch", "change", 7).text);
}

void CAddressWatcherTest::thousandUeventsOfOtherDevices_hideNoneOfTheLanSwitch()
{
    LogCapture log;
    LiveWatcher watcher("arm64", [] { sendLanSwitchState(0); });
    QTRY_VERIFY(watcher.isListening());
    const QByteArray other = "/devices/virtual/switch/lan-switch2";
    QStringList expected;
    // In portions that the kernel's buffer holds.
    for (int portion = 1; portion <= 50; ++portion) {
        for (int i = 0; i < 20; ++i) {
            sendKernelUevent({ "change@" + other, change, "DEVPATH=" + other,
                               "SWITCH_NAME=lan-switch", "SWITCH_STATE=99" });
        }
        sendLanSwitchState(portion);
        expected.append(QString::number(portion));
        QTRY_COMPARE(watcher.events, expected);
    }
    QCOMPARE(log.lines().size(), 2 + 50);
}

HOPLANE_TEST_MAIN(CAddressWatcherTest)
#include "caddresswatcher.moc"
