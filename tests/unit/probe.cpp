// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "peek.h"
#include "probelines.h"
#include "testmain.h"
#include "vethpair.h"

#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <algorithm>
#include <dlfcn.h>

Q_DECLARE_METATYPE(QNetworkInterface::InterfaceFlags)

namespace {

/** What the interposed functions below do and tell. */
struct QtNetworkHooks
{
    QHash<QString, QNetworkInterface::InterfaceFlags> toggledFlags; // by interface
    QString humanPrefix;
    std::function<void(QAbstractSocket *)> disconnectAll;
    std::function<void(const QAbstractSocket *)> localAddress;
};
QtNetworkHooks qtNetwork;

} // namespace

// No interface can be given any flag at will, Linux has no human readable names of its own, and the
// sockets of a probe are seen from outside through the functions that it calls on them.

QNetworkInterface::InterfaceFlags QNetworkInterface::flags() const
{
    using Function = InterfaceFlags (*)(const QNetworkInterface *);
    static const auto real =
            reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZNK17QNetworkInterface5flagsEv"));
    return real(this) ^ qtNetwork.toggledFlags.value(name());
}

QString QNetworkInterface::humanReadableName() const
{
    return qtNetwork.humanPrefix + name();
}

QHostAddress QAbstractSocket::localAddress() const
{
    if (qtNetwork.localAddress)
        qtNetwork.localAddress(this);
    using Function = QHostAddress (*)(const QAbstractSocket *);
    static const auto real =
            reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZNK15QAbstractSocket12localAddressEv"));
    return real(this);
}

bool QObject::disconnect(const QObject *sender, const char *signal, const QObject *receiver,
                         const char *member)
{
    auto *socket = qobject_cast<QAbstractSocket *>(const_cast<QObject *>(sender));
    if (socket && !signal && !receiver && !member && qtNetwork.disconnectAll)
        qtNetwork.disconnectAll(socket);
    using Function = bool (*)(const QObject *, const char *, const QObject *, const char *);
    static const auto real =
            reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZN7QObject10disconnectEPKS_PKcS1_S3_"));
    return real(sender, signal, receiver, member);
}

using namespace ProbeLines;

namespace {

/** A worker whose attempts take no time, and what its probes did. */
class Probe
{
public:
    explicit Probe(const QString &connectionName = QStringLiteral("lan"))
        : m_worker(hooks())
    {
        Peek::record(*m_worker).strConnectionName = connectionName;
    }

    NetworkSwitchWorker *operator->() { return m_worker.get(); }
    NetworkSwitchWorker &operator*() { return *m_worker; }

    bool run(const LoopbackServer &server, int maxTries)
    {
        return m_worker->tryConnectRemote(server.address(), server.port(), 500, maxTries);
    }

    /** Between two attempts, since a refused socket of Qt tries again when it is waited for. */
    void openAfterFailures(LoopbackServer &server, int count)
    {
        log.onLine([this, &server, count](const LogLine &) {
            if (log.lines().size() == count)
                server.listen();
        });
    }

    LogCapture log;
    QVector<unsigned long> sleeps;
    QStringList commands;
    bool shellWorks = true;
    bool serversAnswer = true;
    std::function<void()> duringSleep = [] {};

private:
    Interpose::Hooks hooks()
    {
        Interpose::Hooks hooks;
        hooks.serversAnswer = &serversAnswer;
        hooks.msleep = [this](unsigned long milliseconds) {
            if (sleeps.size() == 100)
                qFatal("the attempts do not end");
            sleeps.append(milliseconds);
            duringSleep();
        };
        hooks.popen = [this](const char *command, const char *mode) {
            commands.append(QString::fromUtf8(command));
            return shellWorks ? Interpose::Real::popen(command, mode) : nullptr;
        };
        return hooks;
    }

    // The last one: its destruction takes the hooks away, which use the others.
    WorkerFixture m_worker;
};

const QString activated = QStringLiteral("Connection successfully activated\n");

const QStringList reactivationCommands = { QStringLiteral("nmcli -g connection.uuid c s 'lan' "),
                                           QStringLiteral("nmcli connection up uuid 5e6c ") };

/** The device's connections to @p server of 127.0.0.1 whose handshake is not complete. */
int pendingConnections(const LoopbackServer &server)
{
    QFile table(QStringLiteral("/proc/net/tcp"));
    if (!table.open(QIODevice::ReadOnly))
        qFatal("cannot read the connections");
    const QByteArray wanted = " 0100007F:"
            + QByteArray::number(server.port().toUInt(), 16).rightJustified(4, '0').toUpper()
            + " 02 ";
    return table.readAll().count(wanted);
}

/** Of hop0 and hop1, the earlier and the later one in the system's order. */
QStringList systemOrder()
{
    QStringList names;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        if (interface.name().startsWith(QLatin1String("hop")))
            names.append(interface.name());
    }
    return names;
}

/** A call of getCurrentAdapterName() with parameters that show whether it touched them. */
struct Lookup
{
    Lookup(Probe &probe, const QString &ip)
        : name(probe->getCurrentAdapterName(ip, humanName, adapter))
    {
    }

    bool foundNothing() const
    {
        return name.isEmpty() && humanName == QLatin1String("before")
                && adapter.name() == QLatin1String("lo");
    }
    QStringList found() const { return { name, humanName, adapter.name() }; }

    QString humanName = QStringLiteral("before");
    QNetworkInterface adapter = QNetworkInterface::interfaceFromName(QStringLiteral("lo"));
    QString name;
};

/** After it the server's queue has no place left, so that a further connection gets no answer. */
bool fillBacklog(LoopbackServer *server, QTcpSocket *filler)
{
    server->listen(0);
    filler->connectToHost(server->address(), server->port().toUShort());
    return filler->waitForConnected();
}

} // namespace

class ProbeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();

    void portTextThatIsNoNumber_isLoggedAndNothingIsTried_data();
    void portTextThatIsNoNumber_isLoggedAndNothingIsTried();
    void unusablePort_isLoggedWhateverTheNumberOfTries();
    void portZero_isTried();
    void largestPort_isTried();
    void portTextInAnotherSpelling_isTried_data();
    void portTextInAnotherSpelling_isTried();
    void noTries_giveUpAtOnceWithoutALine_data();
    void noTries_giveUpAtOnceWithoutALine();

    void serverThatAcceptsAtOnce_isReported_data();
    void serverThatAcceptsAtOnce_isReported();
    void serverThatAcceptsAtTheThirdAttempt_isReportedWithoutAReactivation();
    void serverThatAcceptsAtTheLastAttempt_isReported();
    void attempt_connectsBeforeItSleeps();
    void handshakeCompletedDuringTheSleep_isCollected();
    void peerOfASuccess_getsNoDataAndSeesTheEnd();
    void socketOfASuccess_isCutOffBeforeItIsClosed();

    void eachAttempt_hasASocketThatEndsWithIt();
    void attemptsOnADeadServer_areCountedAndLogged_data();
    void attemptsOnADeadServer_areCountedAndLogged();
    void eachAttempt_sleepsOnceInFull_data();
    void eachAttempt_sleepsOnceInFull();
    void serverThatDoesNotAnswer_isNotWaitedForAfterTheSleep();
    void attemptsOnAServerThatDoesNotAnswer_leaveNoConnectionBehind();

    void elevenTries_runNoCommand();
    void moreThanElevenTries_reactivateOnceAfterTheEleventh_data();
    void moreThanElevenTries_reactivateOnceAfterTheEleventh();
    void serverThatComesUpWithTheReactivation_isReported();
    void reactivationWithoutAUuid_isRunAllTheSame();
    void reactivationWithoutAConnectionName_takesTheActiveOnes();
    void reactivationThatCannotBeStarted_doesNotStopTheAttempts();
    void eachCall_countsItsAttemptsAfresh();
    void probe_leavesTheWorkerAsItWas();

    void addressOfTheOnlyUsableInterface_isTaken();
    void noUsableInterface_givesANullAddress();
    void secondUsableInterface_wins();
    void firstUsableAddressOfAnInterface_isTaken_data();
    void firstUsableAddressOfAnInterface_isTaken();
    void interfaceWithoutUsableAddress_contributesNothing_data();
    void interfaceWithoutUsableAddress_contributesNothing();
    void interfaceOfOtherFlags_isNotChosen_data();
    void interfaceOfOtherFlags_isNotChosen();
    void interfaceWithAnotherSetting_data();
    void interfaceWithAnotherSetting();
    void interfaceWithoutACarrier_isNotChosen();

    void adapterOfAnAddress_isNamed();
    void adapterOfALaterAddress_isNamed();
    void adapterOfTheLoopback_isNamed();
    void lastAdapterOfASharedAddress_isNamed();
    void adapterOfAnyFlagsWhileRunning_isNamed_data();
    void adapterOfAnyFlagsWhileRunning_isNamed();
    void adapterThatDoesNotRun_isNotFound();
    void adapterOfAnotherText_isNotFound_data();
    void adapterOfAnotherText_isNotFound();
};

void ProbeTest::cleanup()
{
    qtNetwork = QtNetworkHooks();
}

void ProbeTest::portTextThatIsNoNumber_isLoggedAndNothingIsTried_data()
{
    QTest::addColumn<QString>("port");
    QTest::newRow("letters") << "abc";
    QTest::newRow("empty") << "";
    QTest::newRow("blank") << " ";
    QTest::newRow("one too large") << "65536";
    QTest::newRow("larger than 32 bits") << "4294967376";
    QTest::newRow("negative") << "-1";
    QTest::newRow("hexadecimal") << "0x50";
    QTest::newRow("letter behind digits") << "80a";
    QTest::newRow("fraction") << "80.0";
}

void ProbeTest::portTextThatIsNoNumber_isLoggedAndNothingIsTried()
{
    QFETCH(QString, port);
    Probe probe;
    QVERIFY(!probe->tryConnectRemote("127.0.0.1", port, 500, 20));
    COMPARE_LOG(probe.log, (refusedPort(port)));
    QVERIFY(probe.sleeps.isEmpty());
    QVERIFY(probe.commands.isEmpty());
}

void ProbeTest::unusablePort_isLoggedWhateverTheNumberOfTries()
{
    Probe probe;
    QVERIFY(!probe->tryConnectRemote("127.0.0.1", "abc", 500, 0));
    QVERIFY(!probe->tryConnectRemote("127.0.0.1", "abc", 500, -3));
    COMPARE_LOG(probe.log, (refusedPort("abc") + refusedPort("abc")));
}

void ProbeTest::portZero_isTried()
{
    Probe probe;
    QVERIFY(!probe->tryConnectRemote("127.0.0.1", "0", 500, 2));
    COMPARE_LOG(probe.log, (failures("127.0.0.1", "0", 2)));
}

void ProbeTest::largestPort_isTried()
{
    Probe probe;
    QVERIFY(!probe->tryConnectRemote("127.0.0.1", "65535", 500, 2));
    COMPARE_LOG(probe.log, (failures("127.0.0.1", "65535", 2)));
}

void ProbeTest::portTextInAnotherSpelling_isTried_data()
{
    QTest::addColumn<QString>("spelling");
    QTest::newRow("blank in front") << " %1";
    QTest::newRow("blank behind") << "%1 ";
    QTest::newRow("plus sign") << "+%1";
    QTest::newRow("leading zero") << "0%1";
}

void ProbeTest::portTextInAnotherSpelling_isTried()
{
    QFETCH(QString, spelling);
    LoopbackServer server;
    server.listen();
    Probe probe;
    QVERIFY(probe->tryConnectRemote(server.address(), spelling.arg(server.port()), 500, 1));
    COMPARE_LOG(probe.log, (success(server, "127.0.0.1")));
}

void ProbeTest::noTries_giveUpAtOnceWithoutALine_data()
{
    QTest::addColumn<int>("maxTries");
    QTest::newRow("none") << 0;
    QTest::newRow("negative") << -3;
}

void ProbeTest::noTries_giveUpAtOnceWithoutALine()
{
    QFETCH(int, maxTries);
    LoopbackServer server;
    server.listen();
    Probe probe;
    QVERIFY(!probe.run(server, maxTries));
    COMPARE_LOG(probe.log, {});
    QVERIFY(probe.sleeps.isEmpty());
    QVERIFY(server.hasNoConnection());
}

void ProbeTest::serverThatAcceptsAtOnce_isReported_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("localAddress");
    QTest::newRow("IPv4") << "127.0.0.2"
                          << "127.0.0.1";
    if (VethPair::hasIPv6())
        QTest::newRow("IPv6") << "::1"
                              << "::1";
}

void ProbeTest::serverThatAcceptsAtOnce_isReported()
{
    QFETCH(QString, address);
    QFETCH(QString, localAddress);
    LoopbackServer server(address);
    server.listen();
    Probe probe;
    QVERIFY(probe.run(server, 10));
    COMPARE_LOG(probe.log, (success(server, localAddress)));
    QCOMPARE(probe.sleeps.size(), 1);
    QVERIFY(server.accept() >= 0);
    QVERIFY(server.hasNoConnection());
}

void ProbeTest::serverThatAcceptsAtTheThirdAttempt_isReportedWithoutAReactivation()
{
    LoopbackServer server("127.0.0.2");
    Probe probe;
    probe.openAfterFailures(server, 2);
    QVERIFY(probe.run(server, 20));
    COMPARE_LOG(probe.log, (failures(server, 2) + success(server, "127.0.0.1")));
    QCOMPARE(probe.sleeps.size(), 3);
    QVERIFY(probe.commands.isEmpty());
}

void ProbeTest::serverThatAcceptsAtTheLastAttempt_isReported()
{
    LoopbackServer server;
    Probe probe;
    probe.openAfterFailures(server, 10);
    QVERIFY(probe.run(server, 11));
    COMPARE_LOG(probe.log, (failures(server, 10) + success(server, "127.0.0.1")));
}

void ProbeTest::attempt_connectsBeforeItSleeps()
{
    LoopbackServer server;
    server.listen();
    Probe probe;
    bool connected = false;
    probe.duringSleep = [&] { connected = !server.hasNoConnection(); };
    QVERIFY(probe.run(server, 1));
    QVERIFY(connected);
}

void ProbeTest::handshakeCompletedDuringTheSleep_isCollected()
{
    LoopbackServer server;
    QTcpSocket filler;
    QVERIFY(fillBacklog(&server, &filler));
    Probe probe;
    bool pending = false;
    bool completed = false;
    probe.duringSleep = [&] {
        pending = pendingConnections(server) == 1;
        // With the filler out of the queue, the kernel's next try gets through.
        completed = server.accept() >= 0 && server.accept() >= 0;
    };
    QVERIFY(probe.run(server, 1));
    QVERIFY(pending);
    QVERIFY(completed);
    COMPARE_LOG(probe.log, (success(server, "127.0.0.1")));
}

void ProbeTest::peerOfASuccess_getsNoDataAndSeesTheEnd()
{
    LoopbackServer server;
    server.listen();
    Probe probe;
    QVERIFY(probe.run(server, 1));
    QVERIFY(server.acceptsSilentPeer());
}

void ProbeTest::socketOfASuccess_isCutOffBeforeItIsClosed()
{
    LoopbackServer server;
    Probe probe;
    probe.openAfterFailures(server, 2);
    QStringList cuts;
    qtNetwork.disconnectAll = [&](QAbstractSocket *socket) {
        cuts.append(QStringLiteral("state %1, parent %2, lines %3")
                            .arg(socket->state())
                            .arg(socket->parent() != nullptr)
                            .arg(probe.log.lines().size()));
    };
    QVERIFY(probe.run(server, 5));
    const QString connected = QString::number(QAbstractSocket::ConnectedState);
    QCOMPARE(cuts, QStringList{ "state " + connected + ", parent 0, lines 4" });
}

void ProbeTest::eachAttempt_hasASocketThatEndsWithIt()
{
    LoopbackServer server;
    Probe probe;
    probe.openAfterFailures(server, 2);
    QVector<QPointer<QAbstractSocket>> sockets;
    QVector<int> alive;
    const auto countAlive = [&] {
        return int(std::count_if(sockets.cbegin(), sockets.cend(),
                                 [](const auto &socket) { return !socket.isNull(); }));
    };
    probe.duringSleep = [&] { alive.append(countAlive()); };
    qtNetwork.localAddress = [&](const QAbstractSocket *socket) {
        sockets.append(const_cast<QAbstractSocket *>(socket));
    };
    QVERIFY(probe.run(server, 5));
    QCOMPARE(sockets.size(), 3);
    QCOMPARE(alive, (QVector<int>{ 0, 0, 0 }));
    QCOMPARE(countAlive(), 0);
}

void ProbeTest::attemptsOnADeadServer_areCountedAndLogged_data()
{
    QTest::addColumn<int>("maxTries");
    QTest::newRow("one") << 1;
    QTest::newRow("two") << 2;
    QTest::newRow("ten") << 10;
}

void ProbeTest::attemptsOnADeadServer_areCountedAndLogged()
{
    QFETCH(int, maxTries);
    LoopbackServer dead("127.0.0.2");
    Probe probe;
    QVERIFY(!probe.run(dead, maxTries));
    COMPARE_LOG(probe.log, (failures(dead, maxTries)));
    QVERIFY(probe.commands.isEmpty());
}

void ProbeTest::eachAttempt_sleepsOnceInFull_data()
{
    QTest::addColumn<int>("sleepMs");
    QTest::newRow("half a second") << 500;
    QTest::newRow("nothing") << 0;
    QTest::newRow("longer than a second") << 1234;
}

void ProbeTest::eachAttempt_sleepsOnceInFull()
{
    QFETCH(int, sleepMs);
    LoopbackServer server;
    Probe probe;
    probe.openAfterFailures(server, 2);
    QVERIFY(probe->tryConnectRemote(server.address(), server.port(), sleepMs, 5));
    const auto length = static_cast<unsigned long>(sleepMs);
    QCOMPARE(probe.sleeps, (QVector<unsigned long>{ length, length, length }));
}

void ProbeTest::serverThatDoesNotAnswer_isNotWaitedForAfterTheSleep()
{
    LoopbackServer server;
    QTcpSocket filler;
    QVERIFY(fillBacklog(&server, &filler));
    Probe probe;
    probe.serversAnswer = false;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!probe.run(server, 2));
    const qint64 elapsed = timer.elapsed();
    // Two milliseconds and what a busy machine adds.
    QVERIFY2(elapsed < 900, qPrintable(QString::number(elapsed)));
    COMPARE_LOG(probe.log, (failures(server, 2)));
}

void ProbeTest::attemptsOnAServerThatDoesNotAnswer_leaveNoConnectionBehind()
{
    LoopbackServer server;
    QTcpSocket filler;
    QVERIFY(fillBacklog(&server, &filler));
    Probe probe;
    probe.serversAnswer = false;
    QVector<int> pending;
    probe.duringSleep = [&] { pending.append(pendingConnections(server)); };
    QVERIFY(!probe.run(server, 3));
    QCOMPARE(pending, (QVector<int>{ 1, 1, 1 }));
    QCOMPARE(pendingConnections(server), 0);
}

void ProbeTest::elevenTries_runNoCommand()
{
    LoopbackServer dead;
    FakeNmcli nmcli;
    Probe probe;
    QVERIFY(!probe.run(dead, 11));
    COMPARE_LOG(probe.log, (failures(dead, 11)));
    QVERIFY(probe.commands.isEmpty());
    QVERIFY(nmcli.calls().isEmpty());
}

void ProbeTest::moreThanElevenTries_reactivateOnceAfterTheEleventh_data()
{
    QTest::addColumn<int>("maxTries");
    QTest::newRow("twelve") << 12;
    QTest::newRow("twenty") << 20;
    QTest::newRow("past the double") << 24;
}

void ProbeTest::moreThanElevenTries_reactivateOnceAfterTheEleventh()
{
    QFETCH(int, maxTries);
    LoopbackServer dead;
    FakeNmcli nmcli;
    Probe probe;
    QVERIFY(!probe.run(dead, maxTries));
    COMPARE_LOG(
            probe.log,
            (failures(dead, 11) + reactivation("5e6c", activated) + failures(dead, maxTries - 11)));
    QCOMPARE(probe.commands, reactivationCommands);
    QCOMPARE(nmcli.calls(),
             (QVector<QStringList>{ { "-g", "connection.uuid", "c", "s", "lan" },
                                    { "connection", "up", "uuid", "5e6c" } }));
    QCOMPARE(probe.sleeps.size(), maxTries);
}

void ProbeTest::serverThatComesUpWithTheReactivation_isReported()
{
    LoopbackServer server;
    FakeNmcli nmcli;
    Probe probe;
    probe.log.onLine([&](const LogLine &line) {
        if (line.text.contains(QLatin1String("cmd: ")))
            server.listen();
    });
    QVERIFY(probe.run(server, 20));
    COMPARE_LOG(probe.log,
                (failures(server, 11) + reactivation("5e6c", activated)
                 + success(server, "127.0.0.1")));
}

void ProbeTest::reactivationWithoutAUuid_isRunAllTheSame()
{
    LoopbackServer dead;
    FakeNmcli nmcli("no-connection");
    Probe probe;
    QVERIFY(!probe.run(dead, 12));
    COMPARE_LOG(probe.log, (failures(dead, 11) + reactivation("", "") + failures(dead, 1)));
    QCOMPARE(probe.commands,
             (QStringList{ "nmcli -g connection.uuid c s 'lan' ", "nmcli connection up uuid  " }));
    QCOMPARE(nmcli.calls().last(), (QStringList{ "connection", "up", "uuid" }));
}

void ProbeTest::reactivationWithoutAConnectionName_takesTheActiveOnes()
{
    LoopbackServer dead;
    FakeNmcli nmcli("two-active");
    Probe probe("");
    QVERIFY(!probe.run(dead, 12));
    const QVector<Expected> lines = {
        { QtInfoMsg, "[ getNetWorkUuid ] a-1\nb-2\n" },
        { QtInfoMsg,
          "[ tryConnectRemote ]  cmd:  \"nmcli connection up uuid a-1 b-2 \" bb  result:    " }
    };
    COMPARE_LOG(probe.log, (failures(dead, 11) + lines + failures(dead, 1)));
    QCOMPARE(probe.commands.last(), QString("nmcli connection up uuid a-1 b-2 "));
}

void ProbeTest::reactivationThatCannotBeStarted_doesNotStopTheAttempts()
{
    LoopbackServer dead;
    Probe probe;
    probe.shellWorks = false;
    QVERIFY(!probe.run(dead, 13));
    QVector<Expected> lines = reactivation("", "");
    lines.insert(
            0,
            { QtWarningMsg, "[ excuCmd ] \"popen nmcli -g connection.uuid c s 'lan'   error.\"" });
    lines.insert(3, { QtWarningMsg, "[ excuCmd ] \"popen nmcli connection up uuid    error.\"" });
    COMPARE_LOG(probe.log, (failures(dead, 11) + lines + failures(dead, 2)));
}

void ProbeTest::eachCall_countsItsAttemptsAfresh()
{
    LoopbackServer dead;
    FakeNmcli nmcli;
    Probe probe;
    QVERIFY(!probe.run(dead, 7));
    QVERIFY(!probe.run(dead, 10));
    QVERIFY(probe.commands.isEmpty());
    QVERIFY(!probe.run(dead, 12));
    QVERIFY(!probe.run(dead, 12));
    QCOMPARE(probe.commands, reactivationCommands + reactivationCommands);
}

void ProbeTest::probe_leavesTheWorkerAsItWas()
{
    LoopbackServer server;
    FakeNmcli nmcli;
    Probe probe;
    Peek::switchState(*probe) = 2;
    Peek::staticAddress(*probe) = "10.0.0.1/24 ";
    Peek::currentServerIp(*probe) = "10.0.0.9";
    Peek::needRefresh(*probe) = true;
    QSignalSpy begin(&*probe, &NetworkSwitchWorker::mySwitchBegin);
    QSignalSpy succeeded(&*probe, &NetworkSwitchWorker::mySwitchSuccess);
    QSignalSpy failed(&*probe, &NetworkSwitchWorker::mySwitchFailed);
    QSignalSpy finished(&*probe, &NetworkSwitchWorker::finished);
    QVERIFY(!probe.run(server, 12));
    server.listen();
    QVERIFY(probe.run(server, 12));
    QCOMPARE(begin.size() + succeeded.size() + failed.size() + finished.size(), 0);
    QCOMPARE(Peek::switchState(*probe), 2);
    QCOMPARE(Peek::staticAddress(*probe), QString("10.0.0.1/24 "));
    QCOMPARE(Peek::currentServerIp(*probe), QString("10.0.0.9"));
    QVERIFY(Peek::needRefresh(*probe));
    QCOMPARE(Peek::record(*probe).strConnectionName, QString("lan"));
}

void ProbeTest::addressOfTheOnlyUsableInterface_isTaken()
{
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    Probe probe;
    QCOMPARE(probe->getIPAddress(), QString("10.1.0.1"));
    COMPARE_LOG(probe.log, {});
}

void ProbeTest::noUsableInterface_givesANullAddress()
{
    Probe probe;
    QVERIFY(probe->getIPAddress().isNull());
    COMPARE_LOG(probe.log, {});
}

void ProbeTest::secondUsableInterface_wins()
{
    VethPair pair;
    const QStringList order = systemOrder();
    QCOMPARE(order.size(), 2);
    pair.addAddress(order.last(), "10.1.0.1/24");
    pair.addAddress(order.first(), "10.2.0.1/24");
    Probe probe;
    QCOMPARE(probe->getIPAddress(), QString("10.1.0.1"));
}

void ProbeTest::firstUsableAddressOfAnInterface_isTaken_data()
{
    QTest::addColumn<QStringList>("addresses");
    QTest::addColumn<QString>("chosen");
    QTest::newRow("two usable") << QStringList{ "10.1.0.1/24", "10.2.0.1/24" } << "10.1.0.1";
    QTest::newRow("link-local before")
            << QStringList{ "169.254.10.1/16", "10.2.0.1/24" } << "10.2.0.1";
    QTest::newRow("loopback before") << QStringList{ "127.0.0.5/32", "10.2.0.1/24" } << "10.2.0.1";
    if (VethPair::hasIPv6())
        QTest::newRow("IPv6 only") << QStringList{ "fd00::1/64" } << "fd00::1";
}

void ProbeTest::firstUsableAddressOfAnInterface_isTaken()
{
    QFETCH(QStringList, addresses);
    QFETCH(QString, chosen);
    VethPair pair;
    for (const QString &address : qAsConst(addresses))
        pair.addAddress("hop0", address);
    Probe probe;
    QCOMPARE(probe->getIPAddress(), chosen);
}

void ProbeTest::interfaceWithoutUsableAddress_contributesNothing_data()
{
    QTest::addColumn<QString>("address");
    QTest::newRow("link-local") << "169.254.10.1/16";
    QTest::newRow("loopback") << "127.0.0.5/32";
    if (VethPair::hasIPv6())
        QTest::newRow("link-local IPv6") << "fe80::1/64";
}

void ProbeTest::interfaceWithoutUsableAddress_contributesNothing()
{
    QFETCH(QString, address);
    VethPair pair;
    const QStringList order = systemOrder();
    pair.addAddress(order.last(), address);
    Probe probe;
    QVERIFY(probe->getIPAddress().isNull());
    // Nor does it take back what an earlier interface gave.
    pair.addAddress(order.first(), "10.1.0.1/24");
    QCOMPARE(probe->getIPAddress(), QString("10.1.0.1"));
}

void ProbeTest::interfaceOfOtherFlags_isNotChosen_data()
{
    QTest::addColumn<QNetworkInterface::InterfaceFlags>("toggled");
    using Flags = QNetworkInterface::InterfaceFlags;
    QTest::newRow("not up") << Flags(QNetworkInterface::IsUp);
    QTest::newRow("not running") << Flags(QNetworkInterface::IsRunning);
    QTest::newRow("no broadcast") << Flags(QNetworkInterface::CanBroadcast);
    QTest::newRow("no multicast") << Flags(QNetworkInterface::CanMulticast);
    QTest::newRow("loopback too") << Flags(QNetworkInterface::IsLoopBack);
    QTest::newRow("point-to-point too (a tunnel)") << Flags(QNetworkInterface::IsPointToPoint);
    QTest::newRow("point-to-point instead of broadcast")
            << (QNetworkInterface::IsPointToPoint | QNetworkInterface::CanBroadcast);
}

void ProbeTest::interfaceOfOtherFlags_isNotChosen()
{
    QFETCH(QNetworkInterface::InterfaceFlags, toggled);
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    Probe probe;
    QCOMPARE(probe->getIPAddress(), QString("10.1.0.1"));
    qtNetwork.toggledFlags["hop0"] = toggled;
    QVERIFY(probe->getIPAddress().isNull());
}

void ProbeTest::interfaceWithAnotherSetting_data()
{
    QTest::addColumn<QString>("setting");
    QTest::addColumn<QString>("chosen");
    QTest::newRow("down, not chosen") << "down" << QString();
    QTest::newRow("without multicast, not chosen") << "multicast off" << QString();
    QTest::newRow("without ARP, chosen") << "arp off"
                                         << "10.1.0.1";
}

void ProbeTest::interfaceWithAnotherSetting()
{
    QFETCH(QString, setting);
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    pair.ip("link set hop0 " + setting);
    Probe probe;
    QTEST(probe->getIPAddress(), "chosen");
}

void ProbeTest::interfaceWithoutACarrier_isNotChosen()
{
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    pair.ip("link set hop1 down");
    pair.waitForRunning("hop0", false);
    Probe probe;
    QVERIFY(probe->getIPAddress().isNull());
}

void ProbeTest::adapterOfAnAddress_isNamed()
{
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    pair.addAddress("hop1", "10.2.0.1/24");
    qtNetwork.humanPrefix = "the interface ";
    Probe probe;
    const Lookup first(probe, "10.1.0.1");
    QCOMPARE(first.found(), (QStringList{ "hop0", "the interface hop0", "hop0" }));
    QCOMPARE(first.adapter.addressEntries().first().ip().toString(), QString("10.1.0.1"));
    const Lookup second(probe, "10.2.0.1");
    QCOMPARE(second.found(), (QStringList{ "hop1", "the interface hop1", "hop1" }));
    COMPARE_LOG(probe.log, {});
}

void ProbeTest::adapterOfALaterAddress_isNamed()
{
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    pair.addAddress("hop0", "10.2.0.1/24");
    Probe probe;
    QCOMPARE(Lookup(probe, "10.2.0.1").found(), (QStringList{ "hop0", "hop0", "hop0" }));
}

void ProbeTest::adapterOfTheLoopback_isNamed()
{
    Probe probe;
    const Lookup lookup(probe, "127.0.0.1");
    QCOMPARE(lookup.found(), (QStringList{ "lo", "lo", "lo" }));
}

void ProbeTest::lastAdapterOfASharedAddress_isNamed()
{
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    pair.addAddress("hop1", "10.1.0.1/24");
    const QString later = systemOrder().last();
    Probe probe;
    QCOMPARE(Lookup(probe, "10.1.0.1").found(), (QStringList{ later, later, later }));
}

void ProbeTest::adapterOfAnyFlagsWhileRunning_isNamed_data()
{
    QTest::addColumn<QNetworkInterface::InterfaceFlags>("toggled");
    using Flags = QNetworkInterface::InterfaceFlags;
    QTest::newRow("not up") << Flags(QNetworkInterface::IsUp);
    QTest::newRow("no broadcast") << Flags(QNetworkInterface::CanBroadcast);
    QTest::newRow("no multicast") << Flags(QNetworkInterface::CanMulticast);
    QTest::newRow("loopback") << Flags(QNetworkInterface::IsLoopBack);
    QTest::newRow("point-to-point") << Flags(QNetworkInterface::IsPointToPoint);
}

void ProbeTest::adapterOfAnyFlagsWhileRunning_isNamed()
{
    QFETCH(QNetworkInterface::InterfaceFlags, toggled);
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    qtNetwork.toggledFlags["hop0"] = toggled;
    Probe probe;
    QCOMPARE(Lookup(probe, "10.1.0.1").found(), (QStringList{ "hop0", "hop0", "hop0" }));
}

void ProbeTest::adapterThatDoesNotRun_isNotFound()
{
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.1/24");
    pair.ip("link set hop0 down");
    Probe probe;
    QVERIFY(Lookup(probe, "10.1.0.1").foundNothing());
}

void ProbeTest::adapterOfAnotherText_isNotFound_data()
{
    QTest::addColumn<QString>("ip");
    QTest::newRow("another address") << "10.1.0.2";
    QTest::newRow("empty") << "";
    QTest::newRow("beginning of the address") << "10.1.0.1";
    QTest::newRow("blank behind") << "10.1.0.12 ";
    QTest::newRow("another spelling") << "10.1.12";
    QTest::newRow("with its prefix length") << "10.1.0.12/24";
    if (VethPair::hasIPv6())
        QTest::newRow("its IPv6 address") << "fd00::1";
}

void ProbeTest::adapterOfAnotherText_isNotFound()
{
    QFETCH(QString, ip);
    VethPair pair;
    pair.addAddress("hop0", "10.1.0.12/24");
    if (pair.hasIPv6())
        pair.addAddress("hop0", "fd00::1/64");
    Probe probe;
    QVERIFY(Lookup(probe, ip).foundNothing());
}

HOPLANE_TEST_MAIN(ProbeTest)
#include "probe.moc"
