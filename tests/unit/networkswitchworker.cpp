// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "peek.h"
#include "recorder.h"
#include "structure.h"
#include "testmain.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QPointer>
#include <QtCore/QTimerEvent>
#include <QtNetwork/QHostAddress>
#include <QtTest/QtTest>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <thread>

namespace {

using Record = NetworkSwitchWorker::PrivateData;
using TimerInfo = QAbstractEventDispatcher::TimerInfo;

const QString armStep = QStringLiteral(
        "connect CAddressWatcher::addressChanged() NetworkSwitchWorker::slotAddressChanged() 0");
const QString startTimerStep = QStringLiteral("startTimer NetworkSwitchWorker 3000 1");
const QString changeLine =
        QStringLiteral("[ slotAddressChanged ] \"slotAddressChanged 116: ip changed\"");
const QString finishLine = QStringLiteral("[ slotFinish ] \"slotFinish 71: addressChanged :0\"");

/** A worker whose end the test chooses; its watcher has to be ended before it is deleted. */
class LooseWorker
{
public:
    explicit LooseWorker(QObject *parent = nullptr, Interpose::Hooks hooks = Interpose::Hooks())
    {
        m_netlink.addTo(&hooks);
        hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
        Interpose::install(hooks);
        m_worker = new NetworkSwitchWorker(parent);
    }
    ~LooseWorker() { Interpose::install(Interpose::Hooks()); }
    Q_DISABLE_COPY(LooseWorker)

    NetworkSwitchWorker *get() const { return m_worker; }

    void endWatcher()
    {
        m_netlink.end();
        Peek::watcher(*m_worker)->wait();
    }

private:
    FakeNetlink m_netlink;
    NetworkSwitchWorker *m_worker = nullptr;
};

/** Everything that the worker holds, its watcher aside. */
QStringList values(NetworkSwitchWorker &worker)
{
    static QString Record::*const texts[] = {
        &Record::strConnectionName,     &Record::strFirstServerIp,
        &Record::strFirstServerPort,    &Record::strFirstLocalIp,
        &Record::strFirstLocalMask,     &Record::strFirstLocalGateWay,
        &Record::strFirstPreferredDNS,  &Record::strFirstSpareDNS,
        &Record::strSecondServerIp,     &Record::strSecondServerPort,
        &Record::strSecondLocalIp,      &Record::strSecondLocalMask,
        &Record::strSecondLocalGateWay, &Record::strSecondPreferredDNS,
        &Record::strSecondSpareDNS,
    };
    const Record &record = Peek::record(worker);
    QStringList list = { QString::number(Peek::timerId(worker)),
                         QString::number(Peek::switchState(worker)),
                         Peek::staticAddress(worker),
                         Peek::currentServerIp(worker),
                         QString::number(Peek::sendCurrentServerIp(worker)),
                         QString::number(Peek::needRefresh(worker)),
                         QString::number(record.bSwitchEnable),
                         QString::number(record.bFirstIsAutomatically),
                         QString::number(record.bSecondIsAutomatically) };
    for (QString Record::*text : texts)
        list.append(record.*text);
    return list;
}

/** values() of a worker with no timer, in which nothing has happened. */
QStringList initialValues()
{
    QStringList list = {
        QStringLiteral("-1"), QStringLiteral("0"), QString(),           QString(),
        QStringLiteral("0"),  QStringLiteral("0"), QStringLiteral("0"), QStringLiteral("0"),
        QStringLiteral("0")
    };
    while (list.size() < 9 + 15)
        list.append(QString());
    return list;
}

/** Gives the worker values of its own everywhere but in the timer. */
void fill(NetworkSwitchWorker &worker)
{
    Peek::switchState(worker) = 2;
    Peek::staticAddress(worker) = QStringLiteral("10.0.0.5/24 ");
    Peek::currentServerIp(worker) = QStringLiteral("10.0.0.1");
    Peek::needRefresh(worker) = true;
    Record &record = Peek::record(worker);
    record.bSwitchEnable = true;
    record.bSecondIsAutomatically = true;
    record.strConnectionName = QStringLiteral("lan");
    record.strSecondSpareDNS = QStringLiteral("10.0.0.3");
}

QList<TimerInfo> timers(QObject *object)
{
    return QAbstractEventDispatcher::instance()->registeredTimers(object);
}

int arms(NetworkSwitchWorker &worker)
{
    return Peek::receivers(*Peek::watcher(worker), SIGNAL(addressChanged()));
}

/** The kinds of search that start() can run. */
enum Search { NoFile, Disabled, Reached, TimedOut };

/** Prepares switch.ini for a kind of search; the switch is never set for real. */
class Scene
{
public:
    explicit Scene(Search search)
    {
        m_server.listen();
        if (search == NoFile)
            SwitchIni::remove();
        else
            SwitchIni::setContent(
                    "[General]\nSwitchEnable=" + QByteArray(search == Disabled ? "false" : "true")
                    + "\nconnectionName=lan\nFirstServerIp=127.0.0.1\nFirstServerPort="
                    + m_server.port().toLatin1() + '\n');
        m_jump = search == TimedOut ? 120000 : 0;
    }

    Interpose::Hooks hooks() const
    {
        Interpose::Hooks hooks;
        hooks.msleep = [](unsigned long) {};
        const auto now = std::make_shared<std::atomic<qint64>>(1700000000000);
        hooks.currentDateTime = [now, jump = m_jump] {
            return QDateTime::fromMSecsSinceEpoch(now->fetch_add(jump));
        };
        return hooks;
    }

private:
    FakeNmcli m_nmcli;
    LoopbackServer m_server;
    qint64 m_jump = 0;
};

} // namespace

/** The worker object: its make-up, its construction and end, start() and the small functions. */
class NetworkSwitchWorkerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void metaObject_methodsInTheirOrder();
    void metaObject_isOneOfAPlainObject();
    void members_inTheirOrderAndNoOthers();
    void virtualFunctions_onlyTheTimersIsReplaced();

    void construction_stepsInTheirOrder();
    void construction_membersAreThereBeforeTheTimerStarts();
    void construction_valuesAfterwards();
    void construction_oneConnectionForEachSignal();
    void construction_watcherIsItsRunningChild();
    void construction_withAParent();
    void construction_logsAndSignalsNothing();

    void watcherSignal_fromItsThreadIsQueued();

    void start_connectsAfterTheSearch_data();
    void start_connectsAfterTheSearch();
    void start_addsOneConnectionEachTime_data();
    void start_addsOneConnectionEachTime();
    void threeStarts_linkChangeIsDeliveredFourTimes();
    void threeStarts_firstChangeThatBeginsASwitchRemovesAllFour();
    void startAfterAChange_connectsAgain();

    void slotOfTheRunningTimer_leavesItAlone_data();
    void slotOfTheRunningTimer_leavesItAlone();
    void stopTwice_killsTheTimerOnceAndResumeStartsANewOne();
    void startStatisticsTimer_whileItRunsDoesNothing();
    void stopStatisticsTimer_changesNothingButTheTimer();
    void tick_doesNothing();

    void isSameAsCurConfig_isTrueInEveryState_data();
    void isSameAsCurConfig_isTrueInEveryState();
    void filterInvalidIP_data();
    void filterInvalidIP();
    void onSendCurrentServerip_calledTwiceOnlySetsTheFlag();

    void destructor_stopsTheTimerThenReleasesTheMembers();
    void destructor_withoutATimerKillsNone();
    void destructor_doesNotAskTheWatcherToEnd();
};

void NetworkSwitchWorkerTest::init()
{
    SwitchIni::remove();
}

void NetworkSwitchWorkerTest::metaObject_methodsInTheirOrder()
{
    QCOMPARE(Structure::methods(NetworkSwitchWorker::staticMetaObject),
             (QStringList{
                     "signal public void mySwitchBegin()",
                     "signal public void mySwitchSuccess(QString serverIP, QString serverPort)",
                     "signal public void mySwitchFailed(QString errorStr, int errorCode)",
                     "signal public void finished()",
                     "signal public void ipChanged()",
                     "slot public void start()",
                     "slot public void resume()",
                     "slot public void pause()",
                     "slot public void onSendCurrentServerip(QString serverIP)",
                     "slot public void slotAddressChanged()",
                     "slot public void slotNetWorkDown()",
                     "slot public void slotReopen_network(int state)",
                     "slot public void slotTryRefreshNetwork()",
             }));
}

void NetworkSwitchWorkerTest::metaObject_isOneOfAPlainObject()
{
    const QMetaObject &meta = NetworkSwitchWorker::staticMetaObject;
    QCOMPARE(meta.className(), "NetworkSwitchWorker");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(Structure::otherMembers(meta), 0);
}

void NetworkSwitchWorkerTest::members_inTheirOrderAndNoOthers()
{
    struct Layout
    {
        void *base[2];
        QSharedPointer<CAddressWatcher> watcher;
        int timerId;
        int switchState;
        QScopedPointer<Record> record;
        QString staticAddress;
        QString currentServerIp;
        bool sendCurrentServerIp;
        bool needRefresh;
    };
    WorkerFixture worker;
    const NetworkSwitchWorker &object = *worker;
    const auto at = [](std::size_t offset) { return std::ptrdiff_t(offset); };
    QCOMPARE(sizeof(NetworkSwitchWorker), sizeof(Layout));
    QCOMPARE(Peek::offset(object, Peek::watcher(*worker)), at(offsetof(Layout, watcher)));
    QCOMPARE(Peek::offset(object, Peek::timerId(*worker)), at(offsetof(Layout, timerId)));
    QCOMPARE(Peek::offset(object, Peek::switchState(*worker)), at(offsetof(Layout, switchState)));
    QCOMPARE(Peek::offset(object, Peek::recordPointer(*worker)), at(offsetof(Layout, record)));
    QCOMPARE(Peek::offset(object, Peek::staticAddress(*worker)),
             at(offsetof(Layout, staticAddress)));
    QCOMPARE(Peek::offset(object, Peek::currentServerIp(*worker)),
             at(offsetof(Layout, currentServerIp)));
    QCOMPARE(Peek::offset(object, Peek::sendCurrentServerIp(*worker)),
             at(offsetof(Layout, sendCurrentServerIp)));
    QCOMPARE(Peek::offset(object, Peek::needRefresh(*worker)), at(offsetof(Layout, needRefresh)));
}

void NetworkSwitchWorkerTest::virtualFunctions_onlyTheTimersIsReplaced()
{
    WorkerFixture worker;
    QCOMPARE(Structure::overridden(*worker), QStringList{ "timerEvent" });
}

void NetworkSwitchWorkerTest::construction_stepsInTheirOrder()
{
    const Recorder recorder;
    Interpose::Hooks hooks;
    recorder.addStepsTo(&hooks);
    WorkerFixture worker(hooks);
    const QString watcher = QStringLiteral("connect CAddressWatcher::");
    const QStringList expected = {
        startTimerStep,
        armStep,
        watcher + "netWorkdown() NetworkSwitchWorker::slotNetWorkDown() 0",
        watcher + "reopen_network(int) NetworkSwitchWorker::slotReopen_network(int) 0",
        "connect NetworkSwitchWorker::finished() CAddressWatcher::slotFinish() 0",
        "thread-start CAddressWatcher 7",
    };
    QCOMPARE(recorder.take(), expected);
}

void NetworkSwitchWorkerTest::construction_membersAreThereBeforeTheTimerStarts()
{
    QStringList before;
    QObject *watchersParent = nullptr;
    Interpose::Hooks hooks;
    hooks.startTimer = [&](QObject *object) {
        // Others than the worker start timers, too.
        if (auto *made = qobject_cast<NetworkSwitchWorker *>(object)) {
            before = values(*made);
            watchersParent = Peek::watcher(*made)->parent();
        }
    };
    WorkerFixture worker(hooks);
    worker.setHooks(Interpose::Hooks());
    QCOMPARE(before, initialValues());
    QCOMPARE(watchersParent, worker.get());
}

void NetworkSwitchWorkerTest::construction_valuesAfterwards()
{
    WorkerFixture worker;
    const QList<TimerInfo> registered = timers(worker.get());
    QCOMPARE(registered.size(), 1);
    QCOMPARE(registered.first().interval, 3000);
    QCOMPARE(registered.first().timerType, Qt::CoarseTimer);
    QStringList expected = initialValues();
    expected[0] = QString::number(registered.first().timerId);
    QCOMPARE(values(*worker), expected);
}

void NetworkSwitchWorkerTest::construction_oneConnectionForEachSignal()
{
    WorkerFixture worker;
    const CAddressWatcher &watcher = *Peek::watcher(*worker);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(addressChanged())), 1);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(netWorkdown())), 1);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(reopen_network(int))), 1);
    QCOMPARE(Peek::receivers(*worker, SIGNAL(finished())), 1);
    QCOMPARE(Peek::receivers(*worker, SIGNAL(mySwitchBegin())), 0);
    QCOMPARE(Peek::receivers(*worker, SIGNAL(mySwitchSuccess(QString, QString))), 0);
    QCOMPARE(Peek::receivers(*worker, SIGNAL(mySwitchFailed(QString, int))), 0);
    QCOMPARE(Peek::receivers(*worker, SIGNAL(ipChanged())), 0);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(finished())), 0);
}

void NetworkSwitchWorkerTest::construction_watcherIsItsRunningChild()
{
    WorkerFixture worker;
    const CAddressWatcher &watcher = *Peek::watcher(*worker);
    QCOMPARE(worker->parent(), nullptr);
    QCOMPARE(worker->children(), QObjectList{ Peek::watcher(*worker).data() });
    QCOMPARE(watcher.thread(), QThread::currentThread());
    QVERIFY(watcher.isRunning());
    QCOMPARE(watcher.priority(), QThread::InheritPriority);
}

void NetworkSwitchWorkerTest::construction_withAParent()
{
    QObject parent;
    LooseWorker loose(&parent);
    loose.endWatcher();
    QCOMPARE(loose.get()->parent(), &parent);
}

void NetworkSwitchWorkerTest::construction_logsAndSignalsNothing()
{
    SwitchIni::setContent("[General]\nSwitchEnable=true\nFirstServerIp=10.9.8.7\n");
    std::atomic<int> commands{ 0 };
    Interpose::Hooks hooks;
    hooks.popen = [&](const char *, const char *) -> FILE * {
        ++commands;
        return nullptr;
    };
    LogCapture log;
    WorkerFixture worker(hooks);
    QCoreApplication::processEvents();
    COMPARE_LOG(log, {});
    QCOMPARE(commands.load(), 0);
    QCOMPARE(Peek::switchState(*worker), 0);
}

void NetworkSwitchWorkerTest::watcherSignal_fromItsThreadIsQueued()
{
    WorkerFixture worker;
    LogCapture log;
    std::thread([&] { Q_EMIT Peek::watcher(*worker)->addressChanged(); }).join();
    COMPARE_LOG(log, {});
    QVERIFY(log.waitFor(changeLine));
    COMPARE_LOG(log, { { QtInfoMsg, changeLine } });
    QCOMPARE(log.lines().first().thread, QThread::currentThreadId());
}

void NetworkSwitchWorkerTest::start_connectsAfterTheSearch_data()
{
    const QString noFile =
            QStringLiteral("[ loadConfig ]  switch congif file: \"%1\" not exist,can not do net "
                           "switc.")
                    .arg(SwitchIni::path());
    QTest::addColumn<int>("search");
    QTest::addColumn<QString>("lastLine");
    QTest::newRow("no configuration file") << int(NoFile) << noFile;
    QTest::newRow("switching disabled")
            << int(Disabled)
            << "[ loadConfig ]  switch info:second  serverIp: \"\" ,serverPort: \"\"";
    QTest::newRow("server reached") << int(Reached) << finishLine;
    QTest::newRow("no server reached") << int(TimedOut) << finishLine;
}

void NetworkSwitchWorkerTest::start_connectsAfterTheSearch()
{
    QFETCH(int, search);
    QFETCH(QString, lastLine);
    const Scene scene{ Search(search) };
    WorkerFixture worker;
    const QSignalSpy succeeded(worker.get(), &NetworkSwitchWorker::mySwitchSuccess);
    const QSignalSpy failed(worker.get(), &NetworkSwitchWorker::mySwitchFailed);
    const QSignalSpy changed(worker.get(), &NetworkSwitchWorker::ipChanged);
    const Recorder recorder;
    Interpose::Hooks hooks = scene.hooks();
    recorder.addStepsTo(&hooks);
    worker.setHooks(hooks);
    LogCapture log;
    recorder.addLinesOf(&log);

    worker->start();
    const QStringList happened = recorder.take();
    QVERIFY(happened.size() >= 2);
    QCOMPARE(happened.last(), armStep);
    QCOMPARE(happened.at(happened.size() - 2), lastLine);
    QCOMPARE(happened.count(armStep), 1);
    // One search, whose first line is that of loading the configuration.
    QVERIFY(happened.first().startsWith("[ loadConfig ]"));
    QCOMPARE(happened.filter("[ loadConfig ]").size(), search == NoFile ? 1 : 2);
    QCOMPARE(succeeded.size(), search == Reached ? 1 : 0);
    QCOMPARE(failed.size(), search == TimedOut ? 1 : 0);
    QCOMPARE(changed.size(), 0);
}

void NetworkSwitchWorkerTest::start_addsOneConnectionEachTime_data()
{
    QTest::addColumn<int>("search");
    QTest::addColumn<int>("starts");
    QTest::addColumn<int>("connections");
    QTest::newRow("no start") << int(NoFile) << 0 << 1;
    QTest::newRow("one start without a file") << int(NoFile) << 1 << 2;
    QTest::newRow("three starts with switching disabled") << int(Disabled) << 3 << 4;
    QTest::newRow("one start that reaches the server") << int(Reached) << 1 << 2;
    QTest::newRow("three starts that reach the server") << int(Reached) << 3 << 4;
    QTest::newRow("three starts that time out") << int(TimedOut) << 3 << 4;
}

void NetworkSwitchWorkerTest::start_addsOneConnectionEachTime()
{
    QFETCH(int, search);
    QFETCH(int, starts);
    QFETCH(int, connections);
    const Scene scene{ Search(search) };
    WorkerFixture worker(scene.hooks());
    LogCapture log;
    for (int i = 0; i < starts; ++i)
        QVERIFY(QMetaObject::invokeMethod(worker.get(), "start"));
    const CAddressWatcher &watcher = *Peek::watcher(*worker);
    QCOMPARE(arms(*worker), connections);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(netWorkdown())), 1);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(reopen_network(int))), 1);
    QCOMPARE(Peek::receivers(*worker, SIGNAL(finished())), 1);
    QCOMPARE(log.count(finishLine), search == Reached || search == TimedOut ? starts : 0);
}

void NetworkSwitchWorkerTest::threeStarts_linkChangeIsDeliveredFourTimes()
{
    WorkerFixture worker;
    LogCapture log;
    for (int i = 0; i < 3; ++i)
        worker->start();
    log.clear();
    // A search that was refused leaves the state at "running", so no change begins a switch.
    QCOMPARE(Peek::switchState(*worker), 1);
    Q_EMIT Peek::watcher(*worker)->addressChanged();
    QCOMPARE(log.count(changeLine), 4);
    QCOMPARE(arms(*worker), 4);
}

void NetworkSwitchWorkerTest::threeStarts_firstChangeThatBeginsASwitchRemovesAllFour()
{
    const Scene scene{ Reached };
    WorkerFixture worker(scene.hooks());
    const QSignalSpy changed(worker.get(), &NetworkSwitchWorker::ipChanged);
    LogCapture log;
    for (int i = 0; i < 3; ++i)
        worker->start();
    QCOMPARE(arms(*worker), 4);
    log.clear();
    Q_EMIT Peek::watcher(*worker)->addressChanged();
    QCOMPARE(arms(*worker), 0);
    Q_EMIT Peek::watcher(*worker)->addressChanged();
    COMPARE_LOG(log, { { QtInfoMsg, changeLine } });
    QCOMPARE(changed.size(), 1);
}

void NetworkSwitchWorkerTest::startAfterAChange_connectsAgain()
{
    WorkerFixture worker;
    LogCapture log;
    Q_EMIT Peek::watcher(*worker)->addressChanged();
    QCOMPARE(arms(*worker), 0);
    worker->start();
    QCOMPARE(arms(*worker), 1);
    log.clear();
    Q_EMIT Peek::watcher(*worker)->addressChanged();
    QCOMPARE(log.count(changeLine), 1);
}

void NetworkSwitchWorkerTest::slotOfTheRunningTimer_leavesItAlone_data()
{
    QTest::addColumn<QByteArray>("slot");
    QTest::newRow("resume right after construction") << QByteArray("resume");
    QTest::newRow("pause") << QByteArray("pause");
}

void NetworkSwitchWorkerTest::slotOfTheRunningTimer_leavesItAlone()
{
    QFETCH(QByteArray, slot);
    WorkerFixture worker;
    const QStringList before = values(*worker);
    const Recorder recorder;
    Interpose::Hooks hooks;
    recorder.addStepsTo(&hooks);
    worker.setHooks(hooks);
    QVERIFY(QMetaObject::invokeMethod(worker.get(), slot.constData()));
    QCOMPARE(recorder.take(), QStringList());
    QCOMPARE(values(*worker), before);
    QCOMPARE(timers(worker.get()).size(), 1);
}

void NetworkSwitchWorkerTest::stopTwice_killsTheTimerOnceAndResumeStartsANewOne()
{
    WorkerFixture worker;
    const QString kill = QStringLiteral("killTimer %1").arg(Peek::timerId(*worker));
    const Recorder recorder;
    Interpose::Hooks hooks;
    recorder.addStepsTo(&hooks);
    worker.setHooks(hooks);
    worker->stopStatisticsTimer();
    QCOMPARE(Peek::timerId(*worker), -1);
    QVERIFY(timers(worker.get()).isEmpty());
    worker->stopStatisticsTimer();
    QCOMPARE(recorder.take(), QStringList{ kill });
    QCOMPARE(Peek::timerId(*worker), -1);

    QVERIFY(QMetaObject::invokeMethod(worker.get(), "resume"));
    QCOMPARE(recorder.take(), QStringList{ startTimerStep });
    const QList<TimerInfo> registered = timers(worker.get());
    QCOMPARE(registered.size(), 1);
    QCOMPARE(registered.first().timerId, Peek::timerId(*worker));
    QCOMPARE(registered.first().interval, 3000);
    QCOMPARE(registered.first().timerType, Qt::CoarseTimer);
}

void NetworkSwitchWorkerTest::startStatisticsTimer_whileItRunsDoesNothing()
{
    WorkerFixture worker;
    worker->stopStatisticsTimer();
    const Recorder recorder;
    Interpose::Hooks hooks;
    recorder.addStepsTo(&hooks);
    worker.setHooks(hooks);
    worker->startStatisticsTimer();
    const int id = Peek::timerId(*worker);
    worker->startStatisticsTimer();
    QCOMPARE(recorder.take(), QStringList{ startTimerStep });
    QCOMPARE(Peek::timerId(*worker), id);
    QCOMPARE(timers(worker.get()).size(), 1);
}

void NetworkSwitchWorkerTest::stopStatisticsTimer_changesNothingButTheTimer()
{
    WorkerFixture worker;
    fill(*worker);
    QStringList expected = values(*worker);
    expected[0] = QStringLiteral("-1");
    LogCapture log;
    worker->stopStatisticsTimer();
    QCOMPARE(values(*worker), expected);
    QVERIFY(Peek::watcher(*worker)->isRunning());
    COMPARE_LOG(log, {});
}

void NetworkSwitchWorkerTest::tick_doesNothing()
{
    const Scene scene{ Reached };
    WorkerFixture worker(scene.hooks());
    fill(*worker);
    Peek::switchState(*worker) = 0;
    const QStringList before = values(*worker);
    const Recorder recorder;
    Interpose::Hooks hooks = scene.hooks();
    recorder.addStepsTo(&hooks);
    worker.setHooks(hooks);
    LogCapture log;
    QTimerEvent event(Peek::timerId(*worker));
    QCoreApplication::sendEvent(worker.get(), &event);
    COMPARE_LOG(log, {});
    QCOMPARE(recorder.take(), QStringList());
    QCOMPARE(values(*worker), before);
    QCOMPARE(timers(worker.get()).size(), 1);
}

void NetworkSwitchWorkerTest::isSameAsCurConfig_isTrueInEveryState_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<bool>("filled");
    QTest::newRow("idle, nothing loaded") << 0 << false;
    QTest::newRow("idle, configuration loaded") << 0 << true;
    QTest::newRow("search running") << 1 << true;
    QTest::newRow("server reached") << 2 << true;
}

void NetworkSwitchWorkerTest::isSameAsCurConfig_isTrueInEveryState()
{
    QFETCH(int, state);
    QFETCH(bool, filled);
    WorkerFixture worker;
    if (filled)
        fill(*worker);
    Peek::switchState(*worker) = state;
    const QStringList before = values(*worker);
    LogCapture log;
    QVERIFY(worker->IsSameAsCurConfig());
    QCOMPARE(values(*worker), before);
    COMPARE_LOG(log, {});
}

void NetworkSwitchWorkerTest::filterInvalidIP_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("usable");
    QTest::newRow("localhost") << "127.0.0.1" << false;
    QTest::newRow("other loopback address") << "127.0.0.5" << false;
    QTest::newRow("IPv6 localhost") << "::1" << false;
    QTest::newRow("link-local") << "169.254.10.1" << false;
    QTest::newRow("IPv6 link-local") << "fe80::1" << false;
    QTest::newRow("IPv6 link-local with a scope") << "fe80::1%eth0" << false;
    QTest::newRow("private") << "192.168.1.10" << true;
    QTest::newRow("private class A") << "10.0.0.1" << true;
    QTest::newRow("beside link-local") << "169.253.10.1" << true;
    QTest::newRow("IPv6 unique local") << "fd00::1" << true;
    QTest::newRow("any address") << "0.0.0.0" << true;
    QTest::newRow("IPv6 any address") << "::" << true;
    QTest::newRow("broadcast") << "255.255.255.255" << true;
    QTest::newRow("null") << QString() << true;
}

void NetworkSwitchWorkerTest::filterInvalidIP()
{
    QFETCH(QString, address);
    QFETCH(bool, usable);
    WorkerFixture worker;
    LogCapture log;
    QCOMPARE(worker->filterInvalidIP(QHostAddress(address)), usable);
    COMPARE_LOG(log, {});
}

void NetworkSwitchWorkerTest::onSendCurrentServerip_calledTwiceOnlySetsTheFlag()
{
    WorkerFixture worker;
    fill(*worker);
    QStringList expected = values(*worker);
    expected[4] = QStringLiteral("1");
    const Recorder recorder;
    Interpose::Hooks hooks;
    recorder.addStepsTo(&hooks);
    worker.setHooks(hooks);
    LogCapture log;
    QVERIFY(QMetaObject::invokeMethod(worker.get(), "onSendCurrentServerip",
                                      Q_ARG(QString, QStringLiteral("10.7.7.7"))));
    QCOMPARE(values(*worker), expected);
    worker->onSendCurrentServerip(QString());
    QCOMPARE(values(*worker), expected);
    COMPARE_LOG(log, {});
    QCOMPARE(recorder.take(), QStringList());
}

void NetworkSwitchWorkerTest::destructor_stopsTheTimerThenReleasesTheMembers()
{
    LooseWorker loose;
    loose.endWatcher();
    NetworkSwitchWorker *worker = loose.get();
    // A text is this test's alone again when the worker's copy of it is gone.
    const QString held[] = { QString::number(101), QString::number(102), QString::number(103) };
    Peek::record(*worker).strSecondSpareDNS = held[0];
    Peek::staticAddress(*worker) = held[1];
    Peek::currentServerIp(*worker) = held[2];
    QStringList happened;
    const auto note = [&](const QString &what) {
        const auto gone = std::count_if(std::begin(held), std::end(held),
                                        [](const QString &text) { return text.isDetached(); });
        happened.append(QStringLiteral("%1, %2 texts gone").arg(what).arg(gone));
    };
    const QPointer<CAddressWatcher> watcher = Peek::watcher(*worker).data();
    QObject::connect(watcher, &QObject::destroyed, [&] { note("watcher"); });
    QObject::connect(worker, &QObject::destroyed, [&] { note("base"); });
    const QString kill = QStringLiteral("killTimer %1").arg(Peek::timerId(*worker));
    Interpose::Hooks hooks;
    hooks.step = [&](const QString &step) {
        if (step == kill)
            note(step);
    };
    Interpose::install(hooks);
    delete worker;
    QCOMPARE(happened,
             (QStringList{ kill + ", 0 texts gone", "watcher, 3 texts gone",
                           "base, 3 texts gone" }));
    QVERIFY(!watcher);
}

void NetworkSwitchWorkerTest::destructor_withoutATimerKillsNone()
{
    LooseWorker loose;
    loose.endWatcher();
    loose.get()->stopStatisticsTimer();
    const Recorder recorder;
    Interpose::Hooks hooks;
    recorder.addStepsTo(&hooks);
    Interpose::install(hooks);
    LogCapture log;
    delete loose.get();
    QCOMPARE(recorder.take(), QStringList());
    COMPARE_LOG(log, {});
}

void NetworkSwitchWorkerTest::destructor_doesNotAskTheWatcherToEnd()
{
    LooseWorker loose;
    loose.endWatcher();
    NetworkSwitchWorker *worker = loose.get();
    // A second owner keeps the watcher past the destructor's own steps, up to the base's.
    QSharedPointer<CAddressWatcher> shared = Peek::watcher(*worker);
    const QPointer<CAddressWatcher> watcher = shared.data();
    bool stillRunning = false;
    QObject::connect(worker, &QObject::destroyed, [&] { stillRunning = Peek::running(*watcher); });
    watcher->setParent(nullptr);
    delete worker;
    QVERIFY(stillRunning);
    QVERIFY(watcher);
    shared.clear();
    QVERIFY(!watcher);
}

HOPLANE_TEST_MAIN(NetworkSwitchWorkerTest)
#include "networkswitchworker.moc"
