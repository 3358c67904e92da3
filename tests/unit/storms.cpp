// SPDX-License-Identifier: MIT
// More events than the library can take at once.

#include "asleep.h"
#include "fixtures.h"
#include "gate.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "peek.h"
#include "testmain.h"
#include "watching.h"

#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QScopeGuard>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <future>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <net/if.h>
#include <sys/ioctl.h>
#include <thread>

namespace {

constexpr int others = 100000;
constexpr int ours = 1000;
constexpr int patienceMs = 60000;

/** Hands events to the kernel as fast as it takes them. */
class Kernel
{
public:
    Kernel()
        : m_fd(Interpose::Real::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT))
    {
    }
    ~Kernel() { close(m_fd); }
    Q_DISABLE_COPY(Kernel)

    static QByteArray message(const QByteArrayList &strings)
    {
        QByteArray payload;
        for (const QByteArray &string : strings)
            payload += string + '\0';
        nlmsghdr header = {};
        header.nlmsg_len = quint32(int(sizeof header) + payload.size());
        header.nlmsg_type = NLMSG_MIN_TYPE;
        header.nlmsg_flags = NLM_F_REQUEST;
        return QByteArray(reinterpret_cast<const char *>(&header), sizeof header) + payload;
    }

    int fd() const { return m_fd; }

    void send(const QByteArray &message) const
    {
        sockaddr_nl kernel = {};
        kernel.nl_family = AF_NETLINK;
        if (sendto(m_fd, message.constData(), std::size_t(message.size()), 0,
                   reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel)
            != message.size())
            qFatal("the kernel takes no uevent: %s", std::strerror(errno));
    }

private:
    int m_fd;
};

QByteArray ourEvent(int state)
{
    return Kernel::message({ "change@" + LanSwitch::path(), "ACTION=change", LanSwitch::devpath(),
                             "SUBSYSTEM=switch", "SWITCH_NAME=lan-switch",
                             "SWITCH_STATE=" + QByteArray::number(state) });
}

QByteArray otherEvent()
{
    const QByteArray path = "/devices/platform/soc/fe300000.mmc/mmc_host/mmc1/mmc1:0001";
    return Kernel::message({ "change@" + path, "ACTION=change", "DEVPATH=" + path, "SUBSYSTEM=mmc",
                             "MMC_TYPE=SD", "MMC_NAME=SC16G", "MODALIAS=mmc:block" });
}

qint64 threadMicroseconds()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return qint64(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

/** The kernel's count of what a socket may hold, twice what was asked for. */
int receiveBufferOf(int fd)
{
    int size = -1;
    socklen_t length = sizeof size;
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length);
    return size;
}

/** What the watcher's receiving comes to; written by its thread, which may outlive the test. */
struct Receiving
{
    std::atomic<int> received{ 0 };
    std::atomic<int> ours{ 0 }; // among them
    std::atomic<int> overruns{ 0 };
    std::atomic<int> receivedBehindOverrun{ 0 }; // the last one
    std::atomic<int> otherFailures{ 0 };
    std::atomic<int> emitted{ 0 };
    std::atomic<int> last{ -1 }; // state that was emitted
    std::atomic<qint64> spentWaiting{ 0 }; // processor time, in the last call
    std::atomic<bool> isRefused{ false }; // the buffer
    std::atomic<int> fd{ -1 };
    std::atomic<pid_t> thread{ 0 };
    Gate gate; // before each call

    int calls() const { return received + overruns + otherFailures; }
    ssize_t receive(int socket, void *buffer, size_t length, int flags);
};

ssize_t Receiving::receive(int socket, void *buffer, size_t length, int flags)
{
    gate.pass();
    thread = Asleep::thisThread();
    fd = socket;
    const qint64 before = threadMicroseconds();
    const ssize_t result = Interpose::Real::recv(socket, buffer, length, flags);
    const int error = errno;
    spentWaiting = threadMicroseconds() - before;
    if (result > 0) {
        const char name[] = "SWITCH_NAME=lan-switch";
        ours += memmem(buffer, std::size_t(result), name, sizeof name) ? 1 : 0;
        ++receivedBehindOverrun;
        ++received;
    } else if (error == ENOBUFS) {
        receivedBehindOverrun = 0;
        ++overruns;
    } else {
        ++otherFailures;
    }
    errno = error;
    return result;
}

/** A watcher of the LAN switch, in its own thread, on the kernel's socket. */
class DeviceWatcher
{
public:
    /**
     * Forcing the size of a buffer takes a right of the machine's own root, which the sandbox's is
     * not. With @p isGranted it is asked for in the ordinary way, which up to the machine's limit
     * has the same effect; otherwise the kernel answers as it does.
     */
    explicit DeviceWatcher(bool isGranted)
    {
        Interpose::Hooks hooks;
        hooks.currentCpuArchitecture = [] { return QStringLiteral("arm64"); };
        hooks.setsockopt = [state = m_state, isGranted](int fd, int level, int name,
                                                        const void *value, socklen_t length) {
            const int given = isGranted && name == SO_RCVBUFFORCE ? SO_RCVBUF : name;
            const int result = Interpose::Real::setsockopt(fd, level, given, value, length);
            state->isRefused = result != 0;
            return result;
        };
        hooks.recv = [state = m_state](int fd, void *buffer, size_t length, int flags) {
            return state->receive(fd, buffer, length, flags);
        };
        Interpose::install(hooks);
        QObject::connect(
                &m_watcher, &CAddressWatcher::reopen_network, &m_watcher,
                [state = m_state](int position) {
                    ++state->emitted;
                    state->last = position;
                },
                Qt::DirectConnection);
        m_watcher.start();
    }
    /** Its thread never ends: it waits at the gate. */
    ~DeviceWatcher()
    {
        m_state->gate.close();
        const Kernel kernel;
        if (!QTest::qWaitFor(
                    [&] {
                        kernel.send(ourEvent(0));
                        return m_state->gate.isWaitedAt();
                    },
                    patienceMs))
            qFatal("the watcher cannot be stopped");
        Interpose::install(Interpose::Hooks());
        const int fd = m_state->fd;
        Interpose::forget(fd);
        close(fd);
    }
    Q_DISABLE_COPY(DeviceWatcher)

    /** Until it has begun to listen. */
    bool waitUntilItListens()
    {
        return QTest::qWaitFor([this] { return m_state->fd != -1; }, patienceMs) && isAtRest();
    }
    bool isAtRest() const
    {
        return Asleep::waitUntilIn(m_state->thread, SYS_recvfrom, m_state->fd);
    }

    Receiving &state() { return *m_state; }

private:
    std::shared_ptr<Receiving> m_state = std::make_shared<Receiving>();
    CAddressWatcher &m_watcher = *new CAddressWatcher(nullptr);
};

/**
 * Sends changes of the LAN switch, each to a state of its own, until the last one has been told:
 * then none is left in the kernel's queue, and none on its way. Returns how many were sent; -1 if
 * the watcher tells of none.
 */
int drain(const Kernel &kernel, const Receiving &state, int patience = 1000)
{
    static int position = 1000;
    for (int sent = 1; sent <= 60; ++sent) {
        kernel.send(ourEvent(++position));
        // It may have found the queue full: then the next is sent.
        if (QTest::qWaitFor([&] { return state.last == position; }, patience))
            return sent;
    }
    return -1;
}

/**
 * However fast the machine reads: more than the buffer has room for, while nobody does. Returns how
 * many events it took; -1 if the watcher meets no overrun.
 */
int overrun(const Kernel &kernel, Receiving *state, int buffer)
{
    const QByteArray event = otherEvent();
    int sent = 0;
    state->gate.close();
    const auto wake = [&] {
        kernel.send(event);
        ++sent;
        return state->gate.isWaitedAt();
    };
    if (!QTest::qWaitFor(wake, patienceMs))
        return -1;
    const int before = state->overruns;
    for (int bytes = 0; bytes <= buffer; bytes += event.size()) {
        kernel.send(event);
        ++sent;
    }
    state->gate.open();
    const auto isMet = [&] { return state->overruns > before; };
    return QTest::qWaitFor(isMet, patienceMs) ? sent : -1;
}

/** The kernel's count of notifications that a netlink socket had no room for. */
int dropsOf(int fd)
{
    sockaddr_nl address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    QFile file(QStringLiteral("/proc/net/netlink"));
    file.open(QIODevice::ReadOnly);
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        // sk Eth Pid Groups Rmem Wmem Dump Locks Drops Inode
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.size() > 8 && words[1].toInt() == NETLINK_ROUTE
            && words[2].toUInt() == address.nl_pid)
            return words[8].toInt();
    }
    return -1;
}

/** The loopback interface of the sandbox; up again in the end. */
class Loopback
{
public:
    Loopback()
        : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
    }
    ~Loopback()
    {
        set(true);
        close(m_fd);
    }
    Q_DISABLE_COPY(Loopback)

    /** Each change is a link notification, or more. */
    void set(bool up) const
    {
        ifreq request = {};
        std::strcpy(request.ifr_name, "lo");
        if (ioctl(m_fd, SIOCGIFFLAGS, &request) != 0)
            qFatal("no loopback interface");
        request.ifr_flags = short(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
        if (ioctl(m_fd, SIOCSIFFLAGS, &request) != 0)
            qFatal("the loopback interface cannot be changed: %s", std::strerror(errno));
    }

private:
    int m_fd;
};

/** What the reading of link notifications comes to. */
struct Reading
{
    std::atomic<int> calls{ 0 };
    std::atomic<int> error{ 0 }; // of a failed one
    std::atomic<int> emitted{ 0 };
    std::atomic<int> fd{ -1 };
    std::atomic<pid_t> thread{ 0 };
    std::atomic<bool> isEnding{ false };
    Gate gate; // before each call

    ssize_t read(int socket, void *buffer, size_t length);
};

ssize_t Reading::read(int socket, void *buffer, size_t length)
{
    gate.pass();
    ++calls;
    thread = Asleep::thisThread();
    fd = socket;
    const ssize_t result = Interpose::Real::read(socket, buffer, length);
    if (isEnding)
        return 0;
    if (result <= 0)
        error = errno;
    return result;
}

qint64 residentKilobytes()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    file.open(QIODevice::ReadOnly);
    return file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE) / 1024;
}

/** A notification that eth0 is up. */
QByteArray linkUp()
{
    nlmsghdr header = {};
    header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
    header.nlmsg_type = RTM_NEWLINK;
    ifinfomsg link = {};
    link.ifi_index = 2;
    link.ifi_flags = 0x10000; // IFF_LOWER_UP
    return QByteArray(reinterpret_cast<const char *>(&header), sizeof header)
            + QByteArray(reinterpret_cast<const char *>(&link), sizeof link);
}

/** A thread with an event loop, of a kind whose end the thread sanitizer sees. */
class LoopThread
{
public:
    LoopThread()
        : m_thread([this] {
            QEventLoop loop;
            m_ready.set_value(&loop);
            loop.exec();
            m_left.load()->moveToThread(QCoreApplication::instance()->thread());
        })
        , m_loop(m_ready.get_future().get())
    {
    }

    QThread *thread() const { return m_loop->thread(); }

    /** Ends it once it has dealt with everything; the object belongs to the main thread then. */
    void end(QObject *object)
    {
        m_left = object;
        QMetaObject::invokeMethod(m_loop, "quit", Qt::QueuedConnection);
        m_thread.join();
        // Its timers come behind it.
        QCoreApplication::sendPostedEvents(object);
    }

private:
    // Not Qt's semaphore, whose order the thread sanitizer does not see.
    std::promise<QEventLoop *> m_ready;
    std::atomic<QObject *> m_left{ nullptr };
    std::thread m_thread;
    QEventLoop *const m_loop;
};

/** A worker in a thread of its own, whose search waits for a command at a gate. */
class SearchingWorker
{
public:
    SearchingWorker()
        : fixture(hooks())
    {
        SwitchIni::setContent("[General]\nSwitchEnable=true\nconnectionName=lan\n"
                              "FirstServerPort=none\nSecondServerPort=none\n");
        log.onLine([this](const LogLine &line) {
            told += line.text.startsWith("[ slotAddressChanged ] \"") ? 1 : 0;
            busy += line.text.contains(" it's doing net switch.") ? 1 : 0;
            searches += line.text == "[ findAvailableIp ]  switch time out" ? 1 : 0;
        });
        CAddressWatcher *const watcher = Peek::watcher(*fixture).data();
        QObject::connect(
                watcher, &CAddressWatcher::addressChanged, watcher, [this] { ++emitted; },
                Qt::DirectConnection);
        fixture->moveToThread(m_thread.thread());
        QMetaObject::invokeMethod(fixture.get(), "start", Qt::QueuedConnection);
    }
    ~SearchingWorker()
    {
        command.open();
        m_thread.end(fixture.get());
    }
    Q_DISABLE_COPY(SearchingWorker)

    bool waitUntilItSearches()
    {
        return QTest::qWaitFor([this] { return command.isWaitedAt(); }, patienceMs);
    }

    Gate command;
    std::atomic<int> emitted{ 0 };
    std::atomic<int> told{ 0 };
    std::atomic<int> busy{ 0 };
    std::atomic<int> searches{ 0 };
    std::atomic<bool> isDone{ false };
    LogCapture log;
    WorkerFixture fixture;

private:
    Interpose::Hooks hooks()
    {
        command.close();
        Interpose::Hooks hooks;
        hooks.popen = [this](const char *, const char *mode) {
            command.pass();
            return Interpose::Real::popen("true", mode);
        };
        // A minute with each look, so that searches are short.
        hooks.currentDateTime = [this] { return QDateTime::fromMSecsSinceEpoch(m_clock += 60000); };
        return hooks;
    }

    std::atomic<qint64> m_clock{ 0 };
    LoopThread m_thread;
};

/** A worker whose watcher reads the kernel's link notifications, through a gate. */
class LinkWatcher
{
public:
    LinkWatcher()
    {
        Interpose::Hooks hooks;
        hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
        hooks.read = [state = m_state](int fd, void *buffer, size_t length) {
            return state->read(fd, buffer, length);
        };
        hooks.popen = [](const char *, const char *mode) {
            return Interpose::Real::popen("echo 5e6c", mode);
        };
        hooks.msleep = [](unsigned long) {};
        Interpose::install(hooks);
        worker = std::make_unique<NetworkSwitchWorker>(nullptr);
        const auto count = [state = m_state] { ++state->emitted; };
        QObject::connect(&thread(), &CAddressWatcher::addressChanged, count);
        QObject::connect(&thread(), &CAddressWatcher::netWorkdown, count);
    }
    ~LinkWatcher()
    {
        m_state->isEnding = true;
        m_state->gate.open();
        loopback.set(false);
        loopback.set(true);
        thread().wait();
        worker.reset();
        Interpose::install(Interpose::Hooks());
        Interpose::forget(m_state->fd);
        close(m_state->fd);
    }
    Q_DISABLE_COPY(LinkWatcher)

    bool waitUntilItListens() const
    {
        return QTest::qWaitFor([this] { return m_state->fd != -1; }, patienceMs)
                && Asleep::waitUntilIn(m_state->thread, SYS_read, m_state->fd);
    }

    /** Until the kernel had no room for one. Returns how many changes that took. */
    int overrun() const
    {
        int changes = 0;
        while (changes < 10000 && dropsOf(m_state->fd) == 0)
            loopback.set(++changes % 2 != 0);
        return changes;
    }

    CAddressWatcher &thread() const { return *Peek::watcher(*worker); }
    Reading &state() { return *m_state; }

    const Loopback loopback;
    std::unique_ptr<NetworkSwitchWorker> worker;

private:
    std::shared_ptr<Reading> m_state = std::make_shared<Reading>();
};

class StormsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void linkNotificationsDuringASearch();
    void linkNotificationsThatOverrunTheirSocket();
    void refusedSocketIsGrantedAfterAMinute();
    void ueventsAtFullSpeed_data();
    void ueventsAtFullSpeed();
};

/** 10,000 of them while a search's command runs: each is delivered behind the search. */
void StormsTest::linkNotificationsDuringASearch()
{
    constexpr int notifications = 10000;
    constexpr qint64 mostKilobytes = 16384; // what guards the memory in a build for that doubles it
    SearchingWorker worker;
    QVERIFY(worker.waitUntilItSearches());
    const qint64 before = residentKilobytes();
    for (int i = 0; i < notifications; ++i)
        worker.fixture.netlink().send(linkUp());
    QVERIFY(QTest::qWaitFor([&] { return worker.emitted == notifications; }, patienceMs));
    const qint64 waiting = residentKilobytes() - before;
    QCOMPARE(worker.told.load(), 0);
    // It comes behind all of them.
    QMetaObject::invokeMethod(
            worker.fixture.get(), [&] { worker.isDone = true; }, Qt::QueuedConnection);

    worker.command.open();
    // The first finds the worker idle and disconnects the slot, those in the queue come all the
    // same.
    QVERIFY(QTest::qWaitFor([&] { return worker.isDone.load(); }, patienceMs));
    QCOMPARE(worker.told.load(), notifications);
    QCOMPARE(worker.busy.load(), notifications - 1);
    QCOMPARE(worker.searches.load(), 1);
    std::printf("%d notifications in the queue: %lld KiB more\n", notifications,
                static_cast<long long>(waiting));
    QVERIFY2(waiting < mostKilobytes, qPrintable(QString::number(waiting)));
}

/** The kernel's own, more than 20480 bytes of them: the watcher ends, all else goes on. */
void StormsTest::linkNotificationsThatOverrunTheirSocket()
{
    LoopbackServer server("127.0.0.2");
    server.listen();
    SwitchIni::setContent(
            "[General]\nSwitchEnable=true\nconnectionName=lan\nFirstServerIp=127.0.0.2"
            "\nFirstServerPort="
            + server.port().toLatin1() + '\n');
    LinkWatcher watcher;
    NetworkSwitchWorker &worker = *watcher.worker;
    Reading &state = watcher.state();
    QSignalSpy begun(&worker, &NetworkSwitchWorker::mySwitchBegin);
    QSignalSpy succeeded(&worker, &NetworkSwitchWorker::mySwitchSuccess);
    LogCapture log;
    QVERIFY(watcher.waitUntilItListens());
    QCOMPARE(receiveBufferOf(state.fd), 2 * 20480);

    // One is told; then the watcher's thread does not run any more, as on a busy machine.
    state.gate.close();
    watcher.loopback.set(false);
    const auto isTold = [&] { return state.gate.isWaitedAt() && begun.size() == 1; };
    QVERIFY(QTest::qWaitFor(isTold, patienceMs));
    log.clear();
    std::printf("%d changes of a link overrun the socket\n", watcher.overrun());
    QVERIFY(dropsOf(state.fd) > 0);

    // The next read fails, and was the last: nothing of what is in the queue is told, no line.
    state.gate.open();
    QVERIFY(QTest::qWaitFor([&] { return watcher.thread().isFinished(); }, patienceMs));
    QCOMPARE(state.error.load(), ENOBUFS);
    COMPARE_LOG(log, {});

    // A search and events go on; nothing starts the watcher again.
    watcher.loopback.set(true);
    worker.start();
    QCOMPARE(succeeded.size(), 1);
    QCOMPARE(log.count("[ slotFinish ] \"slotFinish 71: addressChanged :0\""), 1);
    worker.slotReopen_network(0);
    QCOMPARE(succeeded.size(), 2);
    worker.slotNetWorkDown();
    QCOMPARE(begun.size(), 3);
    QVERIFY(!watcher.thread().isRunning());
    QCOMPARE(state.calls.load(), 2);
    QCOMPARE(state.emitted.load(), 1);
}

/** Twelve times with five seconds between them, which pass at once here. */
void StormsTest::refusedSocketIsGrantedAfterAMinute()
{
    constexpr int refusals = 12;
    // As long as the watcher's thread, which is never let go.
    struct State
    {
        std::atomic<int> sockets{ 0 };
        std::atomic<int> slept{ 0 };
        std::atomic<int> fd{ -1 };
        Gate never;
    };
    const auto state = std::make_shared<State>();
    state->never.close();
    Interpose::Hooks hooks;
    hooks.currentCpuArchitecture = [] { return QStringLiteral("arm64"); };
    hooks.sleep = [state](unsigned long seconds) { state->slept += int(seconds); };
    hooks.socket = [state](int domain, int type, int protocol) {
        if (state->sockets++ < refusals) {
            errno = EPERM;
            return -1;
        }
        return Interpose::Real::socket(domain, type, protocol);
    };
    hooks.recv = [state](int fd, void *, size_t, int) -> ssize_t {
        state->fd = fd;
        state->never.pass();
        return -1;
    };
    Interpose::install(hooks);
    const auto end = qScopeGuard([&] {
        Interpose::install(Interpose::Hooks());
        Interpose::forget(state->fd);
        close(state->fd);
    });
    LogCapture log;
    auto *const watcher = new CAddressWatcher(nullptr); // as long as the process
    watcher->start();
    QVERIFY(QTest::qWaitFor([&] { return state->never.isWaitedAt(); }, patienceMs));
    QCOMPARE(state->sockets.load(), refusals + 1);
    QCOMPARE(state->slept.load(), 60);
    const QString number = QString::number(state->fd);
    COMPARE_LOG(log,
                { { QtInfoMsg, "[ run ] first time to get uevent socket_fd result =  -1" },
                  { QtInfoMsg, "[ run ] get uevent socket_fd success, fd =  " + number } });
}

void StormsTest::ueventsAtFullSpeed_data()
{
    QTest::addColumn<bool>("isGranted");
    QTest::newRow("64 KiB") << true;
    QTest::newRow("what the kernel grants") << false;
}

/** Those of other devices with ours among them, faster than they can be read. */
void StormsTest::ueventsAtFullSpeed()
{
    QFETCH(bool, isGranted);
    LogCapture log;
    DeviceWatcher device(isGranted);
    QVERIFY(device.waitUntilItListens());
    Receiving &state = device.state();
    const Kernel kernel;
    const int buffer = receiveBufferOf(state.fd);
    std::printf("the kernel's buffer: %d bytes\n", buffer);
    QVERIFY(!isGranted || !state.isRefused);
    QCOMPARE(buffer, state.isRefused ? receiveBufferOf(kernel.fd()) : 2 * 65536);

    for (int i = 0; i < others; ++i) {
        kernel.send(otherEvent());
        if (i % (others / ours) == 0)
            kernel.send(ourEvent(1));
    }
    // What is behind the storm arrives, whatever was lost in it. With that the queue is empty: the
    // kernel tells of no second overrun before.
    const int fences = drain(kernel, state);
    QVERIFY(fences > 0);
    const int flood = overrun(kernel, &state, buffer);
    QVERIFY(flood > 0);
    const int behind = drain(kernel, state);
    QVERIFY(behind > 0);
    QVERIFY(state.receivedBehindOverrun > behind);
    QVERIFY(device.isAtRest());
    const int sent = others + ours + fences + flood + behind;
    std::printf("%d events, %d of them ours: %d received, %d of them ours and emitted, %d overruns "
                "of the kernel's buffer\n",
                sent, ours + fences + behind, state.received.load(), state.emitted.load(),
                state.overruns.load());
    // Each that was received and ours was emitted, none twice, and no call failed otherwise.
    QCOMPARE(state.emitted.load(), state.ours.load());
    QVERIFY(state.emitted > 1);
    QCOMPARE(state.otherFailures.load(), 0);
    QVERIFY(state.received < sent);

    // At rest again: asleep in one call, until the next event.
    const int calls = state.calls();
    QCOMPARE(drain(kernel, state, patienceMs), 1);
    QVERIFY(device.isAtRest());
    QCOMPARE(state.calls(), calls + 1);
    QVERIFY2(state.spentWaiting < 10000, qPrintable(QString::number(state.spentWaiting)));
}

} // namespace

HOPLANE_TEST_MAIN(StormsTest)
#include "storms.moc"
