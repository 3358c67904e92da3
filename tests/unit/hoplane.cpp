// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "peek.h"
#include "recorder.h"
#include "structure.h"
#include "testmain.h"
#include "vethpair.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QPointer>
#include <QtCore/QProcess>
#include <QtNetwork/QNetworkConfigurationManager>
#include <QtTest/QtTest>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sys/resource.h>

namespace {

const QString deviceFile = QStringLiteral("/userdata/netSettings.ini");
const QString importWarning = QStringLiteral("[ loadSwitchLocalConfig ] NetSetting.ini not exist.");
const QString finishLine = QStringLiteral("[ slotFinish ] \"slotFinish 71: addressChanged :0\"");
const QString armStep = QStringLiteral(
        "connect CAddressWatcher::addressChanged() NetworkSwitchWorker::slotAddressChanged() 0");
const char destroyArgument[] = "--destroy-running-facade";

/** A function on its way into the worker's thread, so that its data is handed over by a mutex. */
struct Handover
{
    std::mutex guard;
    std::condition_variable done;
    const std::function<void()> *function = nullptr;
};
Handover handover;

/** Makes the call in the thread that it was posted to, where it is deleted after its delivery. */
class Call : public QEvent
{
public:
    Call()
        : QEvent(QEvent::User)
    {
        // The order that Qt's queue makes is not seen by the thread sanitizer.
        const std::lock_guard<std::mutex> lock(handover.guard);
    }
    ~Call() override
    {
        const std::lock_guard<std::mutex> lock(handover.guard);
        (*handover.function)();
        handover.function = nullptr;
        handover.done.notify_one();
    }
    Q_DISABLE_COPY(Call)
};

/** A facade with all its threads, which it ends before it deletes the facade. */
class RunningFacade
{
public:
    using Maker = std::function<Hoplane *()>;

    explicit RunningFacade(
            Interpose::Hooks hooks = Interpose::Hooks(),
            const Maker &make = [] { return new Hoplane(nullptr); })
    {
        hooks.moveToThread = [this](QObject *object) {
            if (auto *made = qobject_cast<NetworkSwitchWorker *>(object))
                m_worker = made;
        };
        setHooks(hooks);
        m_facade = make();
        if (!m_worker || m_worker->thread() != &thread())
            qFatal("the worker was not moved into its thread");
        m_watcher = Peek::watcher(*m_worker).data();
        hooks.moveToThread = nullptr;
        setHooks(hooks);
    }
    ~RunningFacade()
    {
        endThreads();
        delete m_facade;
        Interpose::install(Interpose::Hooks());
    }
    Q_DISABLE_COPY(RunningFacade)

    void setHooks(Interpose::Hooks hooks)
    {
        m_netlink.addTo(&hooks);
        hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
        Interpose::install(hooks);
    }

    Hoplane *operator->() { return m_facade; }
    Hoplane &operator*() { return *m_facade; }
    Hoplane *get() { return m_facade; }
    NetworkSwitchWorker *worker() { return m_worker; }
    CAddressWatcher *watcher() { return m_watcher; }
    QThread &thread() { return Peek::workerThread(*m_facade); }
    QNetworkConfigurationManager *manager() { return Peek::configManager(*m_facade); }

    /** Calls @p function in the worker's thread, after what is queued there, and waits for it. */
    void inWorkerThread(const std::function<void()> &function)
    {
        {
            const std::lock_guard<std::mutex> lock(handover.guard);
            handover.function = &function;
        }
        QCoreApplication::postEvent(m_worker, new Call);
        std::unique_lock<std::mutex> lock(handover.guard);
        if (!handover.done.wait_for(lock, std::chrono::seconds(20),
                                    [] { return !handover.function; }))
            qFatal("the worker's thread does not answer");
    }

    /** Waits until the worker has done all that was asked of it, and delivers what it said. */
    void settle()
    {
        inWorkerThread([] {});
        QCoreApplication::processEvents();
    }

    /** The worker is deleted with its thread's end. */
    void endThreads()
    {
        if (thread().isFinished())
            return;
        m_netlink.end();
        m_watcher->wait();
        // A thread that ends before its loop began leaks the timers that moved with the worker.
        inWorkerThread([] {});
        thread().quit();
        thread().wait();
    }

private:
    FakeNetlink m_netlink;
    NetworkSwitchWorker *m_worker = nullptr;
    CAddressWatcher *m_watcher = nullptr;
    Hoplane *m_facade = nullptr;
};

using Emission = std::function<void(NetworkSwitchWorker *)>;
using Report = std::function<void(RunningFacade &, const QNetworkConfiguration &)>;

/** Records each signal of the facade with its arguments, and whether it came in another thread. */
Recorder signalsOf(Hoplane &facade)
{
    Recorder recorder;
    const auto note = [recorder, home = QThread::currentThread()](const QString &what) {
        recorder.add(QThread::currentThread() == home ? what : what + " in another thread");
    };
    QObject::connect(&facade, &Hoplane::start, [note] { note("start"); });
    QObject::connect(&facade, &Hoplane::sendCurrentServerip,
                     [note](const QString &ip) { note("sendCurrentServerip " + ip); });
    QObject::connect(&facade, &Hoplane::switchBegin, [note] { note("switchBegin"); });
    QObject::connect(&facade, &Hoplane::switchSuccess,
                     [note](const QString &ip, const QString &port) {
                         note("switchSuccess " + ip + '|' + port);
                     });
    QObject::connect(&facade, &Hoplane::switchFailed, [note](const QString &text, int code) {
        note("switchFailed " + text + '|' + QString::number(code));
    });
    return recorder;
}

/** Records the steps of a facade's construction. */
void recordConstruction(const Recorder &recorder, Interpose::Hooks *hooks)
{
    recorder.addStepsTo(hooks);
    hooks->step = [recorder, others = hooks->step](const QString &step) {
        // The manager connects itself to what Qt shares among all managers when it is made.
        if (step.startsWith("connect-string QNetworkConfigurationManagerPrivate::online"))
            recorder.add("manager made");
        else if (step.startsWith("thread-start QThread") || step == "exists " + deviceFile)
            recorder.add(step);
        else
            others(step);
    };
}

/** A configuration with switching enabled whose first server is this one. */
QByteArray enabledFor(const LoopbackServer &server)
{
    return "[General]\nSwitchEnable=true\nconnectionName=lan\nFirstServerIp="
            + server.address().toLatin1() + "\nFirstServerPort=" + server.port().toLatin1() + '\n';
}

Interpose::Hooks withoutSleeps()
{
    Interpose::Hooks hooks;
    hooks.msleep = [](unsigned long) {};
    return hooks;
}

QNetworkConfiguration configurationNamed(const QString &name)
{
    const QList<QNetworkConfiguration> all = QNetworkConfigurationManager().allConfigurations();
    for (const QNetworkConfiguration &configuration : all) {
        if (configuration.name() == name)
            return configuration;
    }
    qFatal("the platform does not report %s", qPrintable(name));
}

// What the other process tells, before its end, of the facade that it deletes.

Hoplane *doomed = nullptr;

void say(const char *text)
{
    std::puts(text);
    std::fflush(stdout);
}

void tellFatal(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type != QtFatalMsg)
        return;
    say(qPrintable(text));
    if (QThread::currentThread() == qApp->thread())
        say("in the application thread");
    if (!Peek::configManager(*doomed))
        say("the manager's pointer is null");
}

int destroyRunningFacade(int argc, char **argv)
{
    // The end by a signal is expected and needs no picture of the memory.
    const rlimit none = { 0, 0 };
    setrlimit(RLIMIT_CORE, &none);
    const QCoreApplication application(argc, argv);
    const FakeNetlink netlink;
    Interpose::Hooks hooks;
    netlink.addTo(&hooks);
    hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
    Interpose::install(hooks);
    qInstallMessageHandler(tellFatal);
    doomed = new Hoplane(nullptr);
    QObject::connect(Peek::configManager(*doomed), &QObject::destroyed,
                     [] { say("the manager is deleted"); });
    QObject::connect(
            &Peek::workerThread(*doomed), &QThread::finished, qApp,
            [] { say("the worker thread has ended"); }, Qt::DirectConnection);
    delete doomed;
    say("survived");
    return 0;
}

} // namespace

Q_DECLARE_METATYPE(Emission)
Q_DECLARE_METATYPE(Report)

/** The facade: its make-up, its construction and end, and what it relays and logs. */
class HoplaneTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<VethPair> m_interfaces;

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void metaObject_methodsInTheirOrder();
    void metaObject_isOneOfAPlainObject();
    void metaObject_registersTheConfigurationOfItsSlots_data();
    void metaObject_registersTheConfigurationOfItsSlots();
    void members_inTheirOrderAndNoOthers();
    void virtualFunctions_noneIsReplaced();

    void instance_secondCallGivesTheSameAndLogsNothing();

    void construction_stepsInTheirOrder();
    void construction_importsBeforeTheManagerIsMade();
    void construction_threadAndParentOfEachObject();
    void construction_oneConnectionForEachSignal();
    void construction_timerGoesOnInTheWorkerThread();
    void construction_startsNoSearch();
    void construction_withAParent();

    void workerSignal_isRelayedUnchanged_data();
    void workerSignal_isRelayedUnchanged();
    void start_beforeTheEventLoopReachesTheWorker();
    void startTwice_runsTwoSearchesOneAfterTheOther();
    void start_withoutAServerIsToldOnce();
    void start_withSwitchingDisabledSignalsNothing();
    void sendCurrentServerip_onlySetsTheWorkersFlag_data();
    void sendCurrentServerip_onlySetsTheWorkersFlag();
    void onIpChanged_emitsStartOnce();
    void linkChange_goesToTheFacadeAndBackAsASearch();

    void networkOnline_logsOnly_data();
    void networkOnline_logsOnly();
    void networkConfiguration_logsItsNameOnly_data();
    void networkConfiguration_logsItsNameOnly();
    void networkSlots_takeQueuedConfigurations();
    void platformsConfigurations_areLoggedByTheirNames();

    void workerThreadsEnd_deletesTheWorker();
    void destructor_deletesTheManager();
    void destructor_withoutAManager();
    void destructor_withRunningThreadsEndsTheProcess();
};

void HoplaneTest::initTestCase()
{
    m_interfaces = std::make_unique<VethPair>();
    // What all managers share is made with the first one.
    QNetworkConfigurationManager manager;
    QSignalSpy updated(&manager, &QNetworkConfigurationManager::updateCompleted);
    manager.updateConfigurations();
    QVERIFY(updated.wait());
    QCOMPARE(configurationNamed("hop0").name(), QString("hop0"));
}

void HoplaneTest::cleanupTestCase()
{
    m_interfaces.reset();
}

void HoplaneTest::init()
{
    SwitchIni::remove();
    QFile::remove(deviceFile);
}

void HoplaneTest::metaObject_methodsInTheirOrder()
{
    QCOMPARE(Structure::methods(Hoplane::staticMetaObject),
             (QStringList{
                     "signal public void switchBegin()",
                     "signal public void switchSuccess(QString serverIP, QString serverPort)",
                     "signal public void switchFailed(QString errorStr, int errorCode)",
                     "signal public void sendCurrentServerip(QString serverIP)",
                     "signal public void start()",
                     "slot public void networkOnline(bool online)",
                     "slot public void networkChanged(QNetworkConfiguration config)",
                     "slot public void networkAdd(QNetworkConfiguration config)",
                     "slot public void networkRemove(QNetworkConfiguration config)",
                     "slot public void onIpChanged()",
             }));
}

void HoplaneTest::metaObject_isOneOfAPlainObject()
{
    const QMetaObject &meta = Hoplane::staticMetaObject;
    QCOMPARE(meta.className(), "Hoplane");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(Structure::otherMembers(meta), 0);
}

void HoplaneTest::metaObject_registersTheConfigurationOfItsSlots_data()
{
    QTest::addColumn<QByteArray>("signature");
    for (const char *signature :
         { "networkChanged(QNetworkConfiguration)", "networkAdd(QNetworkConfiguration)",
           "networkRemove(QNetworkConfiguration)" })
        QTest::newRow(signature) << QByteArray(signature);
}

void HoplaneTest::metaObject_registersTheConfigurationOfItsSlots()
{
    QFETCH(QByteArray, signature);
    const QMetaObject &meta = Hoplane::staticMetaObject;
    const int method = meta.indexOfSlot(signature);
    int argument = 0;
    int type = -1;
    void *arguments[] = { &type, &argument };
    meta.static_metacall(QMetaObject::RegisterMethodArgumentMetaType, method - meta.methodOffset(),
                         arguments);
    QCOMPARE(type, qMetaTypeId<QNetworkConfiguration>());
    QCOMPARE(meta.method(method).parameterType(0), qMetaTypeId<QNetworkConfiguration>());
}

void HoplaneTest::members_inTheirOrderAndNoOthers()
{
    struct Layout
    {
        void *base[2];
        QNetworkConfigurationManager *manager;
        void *thread[2];
    };
    static_assert(sizeof(QThread) == sizeof(Layout::thread), "a thread is a plain object");
    RunningFacade facade;
    QCOMPARE(sizeof(Hoplane), sizeof(Layout));
    QCOMPARE(Peek::offset(*facade, Peek::configManager(*facade)),
             std::ptrdiff_t(offsetof(Layout, manager)));
    QCOMPARE(Peek::offset(*facade, Peek::workerThread(*facade)),
             std::ptrdiff_t(offsetof(Layout, thread)));
}

void HoplaneTest::virtualFunctions_noneIsReplaced()
{
    RunningFacade facade;
    QCOMPARE(Structure::overridden(*facade), QStringList());
}

void HoplaneTest::instance_secondCallGivesTheSameAndLogsNothing()
{
    LogCapture log;
    quintptr first = 0;
    {
        RunningFacade facade(Interpose::Hooks(), [] { return Hoplane::instance(); });
        COMPARE_LOG(
                log,
                { { QtInfoMsg, "[ instance ] new Hoplane " }, { QtWarningMsg, importWarning } });
        QCOMPARE(facade->parent(), nullptr);
        log.clear();
        QCOMPARE(Hoplane::instance(), facade.get());
        COMPARE_LOG(log, {});
        first = quintptr(facade.get());
    }
    // Nothing takes back what the first call kept, not even the object's end.
    QCOMPARE(quintptr(Hoplane::instance()), first);
    COMPARE_LOG(log, {});
}

void HoplaneTest::construction_stepsInTheirOrder()
{
    const Recorder recorder;
    Interpose::Hooks hooks;
    recordConstruction(recorder, &hooks);
    RunningFacade facade(hooks);
    const QString manager = QStringLiteral("QNetworkConfigurationManager::");
    const QString watcher = QStringLiteral("connect CAddressWatcher::");
    const QString facades = QStringLiteral("connect Hoplane::");
    const QString worker = QStringLiteral("connect NetworkSwitchWorker::");
    const QStringList expected = {
        "exists " + deviceFile,
        "manager made",
        "connect-string " + manager + "onlineStateChanged(bool) Hoplane::networkOnline(bool) 0",
        "connect " + manager
                + "configurationChanged(QNetworkConfiguration) "
                  "Hoplane::networkChanged(QNetworkConfiguration) 0",
        "connect " + manager
                + "configurationAdded(QNetworkConfiguration) "
                  "Hoplane::networkAdd(QNetworkConfiguration) 0",
        "connect " + manager
                + "configurationRemoved(QNetworkConfiguration) "
                  "Hoplane::networkRemove(QNetworkConfiguration) 0",
        "startTimer NetworkSwitchWorker 3000 1",
        armStep,
        watcher + "netWorkdown() NetworkSwitchWorker::slotNetWorkDown() 0",
        watcher + "reopen_network(int) NetworkSwitchWorker::slotReopen_network(int) 0",
        worker + "finished() CAddressWatcher::slotFinish() 0",
        "thread-start CAddressWatcher 7",
        "moveToThread NetworkSwitchWorker",
        "connect QThread::finished() NetworkSwitchWorker::deleteLater() 0",
        facades + "start() NetworkSwitchWorker::start() 0",
        facades
                + "sendCurrentServerip(QString) "
                  "NetworkSwitchWorker::onSendCurrentServerip(QString) 0",
        worker + "mySwitchBegin() Hoplane::switchBegin() 0",
        worker + "mySwitchSuccess(QString,QString) Hoplane::switchSuccess(QString,QString) 0",
        worker + "mySwitchFailed(QString,int) Hoplane::switchFailed(QString,int) 0",
        worker + "ipChanged() Hoplane::onIpChanged() 0",
        "thread-start QThread 7",
    };
    QCOMPARE(recorder.take(), expected);
}

void HoplaneTest::construction_importsBeforeTheManagerIsMade()
{
    writeSettingsFile(deviceFile, "[NetworkConnections]\nconName=wired\n");
    const Recorder recorder;
    Interpose::Hooks hooks;
    recordConstruction(recorder, &hooks);
    hooks.settingsSetValue = [recorder](const QString &key, const QVariant &) {
        recorder.add("set " + key);
    };
    RunningFacade facade(hooks);
    const QStringList happened = recorder.take();
    const QStringList stored = happened.filter(QRegularExpression("^set "));
    QVERIFY(stored.contains("set connectionName"));
    QCOMPARE(happened.mid(1, stored.size()), stored);
    QCOMPARE(happened.value(1 + stored.size()), QString("manager made"));

    QString connectionName;
    Q_EMIT facade->start();
    facade.inWorkerThread(
            [&] { connectionName = Peek::record(*facade.worker()).strConnectionName; });
    QCOMPARE(connectionName, QString("wired"));
}

void HoplaneTest::construction_threadAndParentOfEachObject()
{
    RunningFacade facade;
    QThread *application = QThread::currentThread();
    QCOMPARE(facade->thread(), application);
    QCOMPARE(facade->parent(), nullptr);
    QCOMPARE(facade.manager()->thread(), application);
    QCOMPARE(facade.manager()->parent(), nullptr);
    QCOMPARE(facade.thread().thread(), application);
    QCOMPARE(facade.thread().parent(), nullptr);
    QCOMPARE(facade.worker()->thread(), &facade.thread());
    QCOMPARE(facade.worker()->parent(), nullptr);
    QCOMPARE(facade.watcher()->thread(), &facade.thread());
    QCOMPARE(facade.watcher()->parent(), facade.worker());
    QVERIFY(facade.thread().isRunning());
    QVERIFY(facade.watcher()->isRunning());
    QCOMPARE(facade.thread().priority(), QThread::InheritPriority);
    QVERIFY(facade->children().isEmpty());
    int loops = 0;
    facade.inWorkerThread([&] { loops = QThread::currentThread()->loopLevel(); });
    QCOMPARE(loops, 1);
}

void HoplaneTest::construction_oneConnectionForEachSignal()
{
    RunningFacade facade;
    const QObject &manager = *facade.manager();
    const QObject &worker = *facade.worker();
    QCOMPARE(Peek::receivers(manager, SIGNAL(onlineStateChanged(bool))), 1);
    QCOMPARE(Peek::receivers(manager, SIGNAL(configurationChanged(QNetworkConfiguration))), 1);
    QCOMPARE(Peek::receivers(manager, SIGNAL(configurationAdded(QNetworkConfiguration))), 1);
    QCOMPARE(Peek::receivers(manager, SIGNAL(configurationRemoved(QNetworkConfiguration))), 1);
    QCOMPARE(Peek::receivers(manager, SIGNAL(updateCompleted())), 0);
    QCOMPARE(Peek::receivers(facade.thread(), SIGNAL(finished())), 1);
    QCOMPARE(Peek::receivers(facade.thread(), SIGNAL(started())), 0);
    QCOMPARE(Peek::receivers(*facade, SIGNAL(start())), 1);
    QCOMPARE(Peek::receivers(*facade, SIGNAL(sendCurrentServerip(QString))), 1);
    QCOMPARE(Peek::receivers(worker, SIGNAL(mySwitchBegin())), 1);
    QCOMPARE(Peek::receivers(worker, SIGNAL(mySwitchSuccess(QString, QString))), 1);
    QCOMPARE(Peek::receivers(worker, SIGNAL(mySwitchFailed(QString, int))), 1);
    QCOMPARE(Peek::receivers(worker, SIGNAL(ipChanged())), 1);
    QCOMPARE(Peek::receivers(worker, SIGNAL(finished())), 1);
    QCOMPARE(Peek::receivers(*facade.watcher(), SIGNAL(addressChanged())), 1);
}

void HoplaneTest::construction_timerGoesOnInTheWorkerThread()
{
    RunningFacade facade;
    int id = -1;
    QList<QAbstractEventDispatcher::TimerInfo> timers;
    facade.inWorkerThread([&] {
        id = Peek::timerId(*facade.worker());
        timers = QAbstractEventDispatcher::instance()->registeredTimers(facade.worker());
    });
    QCOMPARE(timers.size(), 1);
    QCOMPARE(timers.first().timerId, id);
    QCOMPARE(timers.first().interval, 3000);
    QCOMPARE(timers.first().timerType, Qt::CoarseTimer);
}

void HoplaneTest::construction_startsNoSearch()
{
    LoopbackServer server;
    server.listen();
    SwitchIni::setContent(enabledFor(server));
    LogCapture log;
    RunningFacade facade;
    const Recorder emitted = signalsOf(*facade);
    facade.settle();
    COMPARE_LOG(log, { { QtWarningMsg, importWarning } });
    QCOMPARE(emitted.take(), QStringList());
    QVERIFY(server.hasNoConnection());
}

void HoplaneTest::construction_withAParent()
{
    QObject parent;
    RunningFacade facade(Interpose::Hooks(), [&] { return new Hoplane(&parent); });
    QCOMPARE(facade->parent(), &parent);
    QCOMPARE(facade.worker()->parent(), nullptr);
    QCOMPARE(facade.manager()->parent(), nullptr);
}

void HoplaneTest::workerSignal_isRelayedUnchanged_data()
{
    QTest::addColumn<Emission>("emission");
    QTest::addColumn<QString>("relayed");
    QTest::newRow("begin") << Emission([](auto *worker) { Q_EMIT worker->mySwitchBegin(); })
                           << "switchBegin";
    QTest::newRow("success") << Emission([](auto *worker) {
        Q_EMIT worker->mySwitchSuccess("10.0.0.1", "9001");
    }) << "switchSuccess 10.0.0.1|9001";
    QTest::newRow("success with blanks and no port")
            << Emission([](auto *worker) { Q_EMIT worker->mySwitchSuccess(" 10.0.0.1 ", ""); })
            << "switchSuccess  10.0.0.1 |";
    QTest::newRow("failure") << Emission([](auto *worker) {
        Q_EMIT worker->mySwitchFailed(u8"\u7f51 gone", -1);
    }) << QString(u8"switchFailed \u7f51 gone|-1");
    QTest::newRow("failure with another code")
            << Emission([](auto *worker) { Q_EMIT worker->mySwitchFailed("", 2147483647); })
            << "switchFailed |2147483647";
    QTest::newRow("changed address")
            << Emission([](auto *worker) { Q_EMIT worker->ipChanged(); }) << "start";
    QTest::newRow("end of a search")
            << Emission([](auto *worker) { Q_EMIT worker->finished(); }) << QString();
}

void HoplaneTest::workerSignal_isRelayedUnchanged()
{
    QFETCH(Emission, emission);
    QFETCH(QString, relayed);
    RunningFacade facade;
    const LogCapture log;
    const Recorder emitted = signalsOf(*facade);
    facade.inWorkerThread([&] { emission(facade.worker()); });
    // Without the application's event loop nothing arrives.
    QCOMPARE(emitted.take(), QStringList());
    QCoreApplication::processEvents();
    QCOMPARE(emitted.take(), relayed.isEmpty() ? QStringList() : QStringList{ relayed });
}

void HoplaneTest::start_beforeTheEventLoopReachesTheWorker()
{
    const FakeNmcli nmcli;
    LoopbackServer server;
    server.listen();
    SwitchIni::setContent(enabledFor(server));
    LogCapture log;
    RunningFacade facade(withoutSleeps());
    const Recorder emitted = signalsOf(*facade);
    std::promise<Qt::HANDLE> searched;
    log.onLine([&](const LogLine &line) {
        if (line.text == finishLine)
            searched.set_value(line.thread);
    });

    Q_EMIT facade->start();
    QCOMPARE(emitted.take(), QStringList{ "start" });
    auto end = searched.get_future();
    QVERIFY(end.wait_for(std::chrono::seconds(20)) == std::future_status::ready);
    QCOMPARE(emitted.take(), QStringList());
    Qt::HANDLE workerThread = nullptr;
    facade.inWorkerThread([&] { workerThread = QThread::currentThreadId(); });
    QVERIFY(end.get() == workerThread);
    QVERIFY(workerThread != QThread::currentThreadId());
    QCoreApplication::processEvents();
    QCOMPARE(emitted.take(),
             QStringList{ "switchSuccess " + server.address() + '|' + server.port() });
}

void HoplaneTest::startTwice_runsTwoSearchesOneAfterTheOther()
{
    const FakeNmcli nmcli;
    LoopbackServer server;
    server.listen();
    SwitchIni::setContent(enabledFor(server));
    RunningFacade facade(withoutSleeps());
    const Recorder emitted = signalsOf(*facade);
    const Recorder recorder;
    Interpose::Hooks hooks = withoutSleeps();
    recorder.addStepsTo(&hooks);
    facade.setHooks(hooks);
    LogCapture log;
    recorder.addLinesOf(&log);

    Q_EMIT facade->start();
    Q_EMIT facade->start();
    facade.settle();
    const QString begin = QStringLiteral("[ loadConfig ]  switch info:first serverIp: \"%1\" "
                                         ",serverPort: \"%2\"")
                                  .arg(server.address(), server.port());
    QStringList happened = recorder.take();
    for (int i = happened.size() - 1; i >= 0; --i) {
        if (happened[i] != begin && happened[i] != finishLine && happened[i] != armStep)
            happened.removeAt(i);
    }
    QCOMPARE(happened, (QStringList{ begin, finishLine, armStep, begin, finishLine, armStep }));
    const QString success = "switchSuccess " + server.address() + '|' + server.port();
    QCOMPARE(emitted.take(), (QStringList{ "start", "start", success, success }));
    QCOMPARE(Peek::receivers(*facade.watcher(), SIGNAL(addressChanged())), 3);
    const QVector<LogLine> lines = log.lines();
    for (const LogLine &line : lines)
        QVERIFY2(line.thread != QThread::currentThreadId(), qPrintable(line.text));
}

void HoplaneTest::start_withoutAServerIsToldOnce()
{
    SwitchIni::setContent("[General]\nSwitchEnable=true\n");
    Interpose::Hooks hooks = withoutSleeps();
    const auto now = std::make_shared<std::atomic<qint64>>(1700000000000);
    hooks.currentDateTime = [now] {
        return QDateTime::fromMSecsSinceEpoch(now->fetch_add(120000));
    };
    const LogCapture log;
    RunningFacade facade(hooks);
    const Recorder emitted = signalsOf(*facade);
    const Recorder told;
    QObject::connect(facade.worker(), &NetworkSwitchWorker::mySwitchFailed,
                     [told](const QString &text, int code) {
                         told.add("switchFailed " + text + '|' + QString::number(code));
                     });
    Q_EMIT facade->start();
    facade.settle();
    const QStringList failure = told.take();
    QCOMPARE(failure.size(), 1);
    QVERIFY(failure.first().endsWith("|-1"));
    QCOMPARE(emitted.take(), QStringList{ "start" } + failure);
}

void HoplaneTest::start_withSwitchingDisabledSignalsNothing()
{
    SwitchIni::setContent("[General]\nSwitchEnable=false\n");
    const LogCapture log;
    RunningFacade facade;
    const Recorder emitted = signalsOf(*facade);
    Q_EMIT facade->start();
    facade.settle();
    QVERIFY(log.texts().last().startsWith("[ loadConfig ]"));
    QCOMPARE(emitted.take(), QStringList{ "start" });
}

void HoplaneTest::sendCurrentServerip_onlySetsTheWorkersFlag_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("an address") << "10.0.0.1";
    QTest::newRow("no address") << "anything";
    QTest::newRow("empty") << "";
}

void HoplaneTest::sendCurrentServerip_onlySetsTheWorkersFlag()
{
    QFETCH(QString, text);
    RunningFacade facade;
    LogCapture log;
    const Recorder emitted = signalsOf(*facade);
    bool flag = true;
    QString current;
    int state = -1;
    const auto look = [&] {
        flag = Peek::sendCurrentServerIp(*facade.worker());
        current = Peek::currentServerIp(*facade.worker());
        state = Peek::switchState(*facade.worker());
    };
    facade.inWorkerThread(look);
    QVERIFY(!flag);
    Q_EMIT facade->sendCurrentServerip(text);
    facade.inWorkerThread(look);
    QCoreApplication::processEvents();
    QVERIFY(flag);
    QCOMPARE(current, QString());
    QCOMPARE(state, 0);
    QCOMPARE(emitted.take(), QStringList{ "sendCurrentServerip " + text });
    COMPARE_LOG(log, {});
}

void HoplaneTest::onIpChanged_emitsStartOnce()
{
    RunningFacade facade;
    LogCapture log;
    const Recorder emitted = signalsOf(*facade);
    facade->onIpChanged();
    QCOMPARE(emitted.take(), QStringList{ "start" });
    facade.settle();
    QCOMPARE(emitted.take(), QStringList());
    QCOMPARE(log.lines().size(), 1);
    QVERIFY(log.texts().first().startsWith("[ loadConfig ]"));
}

void HoplaneTest::linkChange_goesToTheFacadeAndBackAsASearch()
{
    RunningFacade facade;
    LogCapture log;
    const Recorder emitted = signalsOf(*facade);
    Q_EMIT facade.watcher()->addressChanged();
    facade.inWorkerThread([] {});
    const QString changed = "[ slotAddressChanged ] \"slotAddressChanged 116: ip changed\"";
    COMPARE_LOG(log, { { QtInfoMsg, changed } });
    QCOMPARE(emitted.take(), QStringList());
    facade.settle();
    QCOMPARE(emitted.take(), QStringList{ "start" });
    facade.settle();
    COMPARE_LOG(log,
                { { QtInfoMsg, changed },
                  { QtInfoMsg,
                    "[ loadConfig ]  switch congif file: \"" + SwitchIni::path()
                            + "\" not exist,can not do net switc." } });
    QCOMPARE(emitted.take(), QStringList());
}

void HoplaneTest::networkOnline_logsOnly_data()
{
    QTest::addColumn<bool>("online");
    QTest::addColumn<bool>("byTheManager");
    QTest::newRow("online") << true << false;
    QTest::newRow("offline") << false << false;
    QTest::newRow("online, told by the manager") << true << true;
    QTest::newRow("offline, told by the manager") << false << true;
}

void HoplaneTest::networkOnline_logsOnly()
{
    QFETCH(bool, online);
    QFETCH(bool, byTheManager);
    LoopbackServer server;
    server.listen();
    SwitchIni::setContent(enabledFor(server));
    RunningFacade facade;
    const Recorder emitted = signalsOf(*facade);
    LogCapture log;
    if (byTheManager)
        Q_EMIT facade.manager()->onlineStateChanged(online);
    else
        facade->networkOnline(online);
    facade.settle();
    if (online)
        COMPARE_LOG(log,
                    { { QtInfoMsg,
                        "[ networkOnline ] online is true,begin try find available server ip" },
                      { QtInfoMsg, "[ networkOnline ] ,finish try find available server ip" } });
    else
        COMPARE_LOG(log, { { QtInfoMsg, "[ networkOnline ] online false 949" } });
    QCOMPARE(emitted.take(), QStringList());
    QVERIFY(server.hasNoConnection());
}

void HoplaneTest::networkConfiguration_logsItsNameOnly_data()
{
    QTest::addColumn<Report>("report");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("line");
    const auto row = [](const char *situation, const char *name, const char *line,
                        const Report &report) {
        QTest::newRow(situation) << report << QString(name) << QString(line);
    };
    row("added", "hop0", "[ networkAdd ] name \"hop0\"",
        [](RunningFacade &facade, const auto &config) { facade->networkAdd(config); });
    row("removed", "hop1", "[ networkRemove ] name \"hop1\"",
        [](RunningFacade &facade, const auto &config) { facade->networkRemove(config); });
    row("changed", "hop0", "[ networkChanged ] name \"hop0\"",
        [](RunningFacade &facade, const auto &config) { facade->networkChanged(config); });
    row("without a name", "", "[ networkAdd ] name \"\"",
        [](RunningFacade &facade, const auto &config) { facade->networkAdd(config); });
    row("added, told by the manager", "hop1", "[ networkAdd ] name \"hop1\"",
        [](auto &facade, const auto &config) {
            Q_EMIT facade.manager()->configurationAdded(config);
        });
    row("removed, told by the manager", "hop0", "[ networkRemove ] name \"hop0\"",
        [](auto &facade, const auto &config) {
            Q_EMIT facade.manager()->configurationRemoved(config);
        });
    row("changed, told by the manager", "hop0", "[ networkChanged ] name \"hop0\"",
        [](auto &facade, const auto &config) {
            Q_EMIT facade.manager()->configurationChanged(config);
        });
}

void HoplaneTest::networkConfiguration_logsItsNameOnly()
{
    QFETCH(Report, report);
    QFETCH(QString, name);
    QFETCH(QString, line);
    const QNetworkConfiguration config =
            name.isEmpty() ? QNetworkConfiguration() : configurationNamed(name);
    RunningFacade facade;
    const Recorder emitted = signalsOf(*facade);
    LogCapture log;
    report(facade, config);
    facade.settle();
    COMPARE_LOG(log, { { QtInfoMsg, line } });
    QCOMPARE(emitted.take(), QStringList());
}

void HoplaneTest::networkSlots_takeQueuedConfigurations()
{
    const QNetworkConfiguration config = configurationNamed("hop0");
    RunningFacade facade;
    LogCapture log;
    for (const char *slot : { "networkAdd", "networkRemove", "networkChanged" })
        QVERIFY(QMetaObject::invokeMethod(facade.get(), slot, Qt::QueuedConnection,
                                          Q_ARG(QNetworkConfiguration, config)));
    COMPARE_LOG(log, {});
    QCoreApplication::processEvents();
    COMPARE_LOG(log,
                { { QtInfoMsg, "[ networkAdd ] name \"hop0\"" },
                  { QtInfoMsg, "[ networkRemove ] name \"hop0\"" },
                  { QtInfoMsg, "[ networkChanged ] name \"hop0\"" } });
}

void HoplaneTest::platformsConfigurations_areLoggedByTheirNames()
{
    RunningFacade facade;
    LogCapture log;
    VethPair::ip("link add hop2 type veth peer name hop3");
    VethPair::ip("link set hop2 up");
    facade.manager()->updateConfigurations();
    QVERIFY(log.waitFor("[ networkAdd ] name \"hop2\""));
    VethPair::ip("link del hop2");
    facade.manager()->updateConfigurations();
    QVERIFY(log.waitFor("[ networkRemove ] name \"hop2\""));
    QCOMPARE(log.count("[ networkAdd ] name \"hop2\""), 1);
    QCOMPARE(log.count("[ networkRemove ] name \"hop2\""), 1);
}

void HoplaneTest::workerThreadsEnd_deletesTheWorker()
{
    RunningFacade facade;
    const QPointer<NetworkSwitchWorker> worker = facade.worker();
    const QPointer<CAddressWatcher> watcher = facade.watcher();
    QVERIFY(worker && watcher);
    facade.endThreads();
    QVERIFY(!worker);
    QVERIFY(!watcher);
}

void HoplaneTest::destructor_deletesTheManager()
{
    LogCapture log;
    QPointer<QNetworkConfigurationManager> manager;
    {
        RunningFacade facade;
        manager = facade.manager();
        QVERIFY(manager);
        log.clear();
    }
    QVERIFY(!manager);
    COMPARE_LOG(log, {});
}

void HoplaneTest::destructor_withoutAManager()
{
    QPointer<Hoplane> gone;
    {
        RunningFacade facade;
        gone = facade.get();
        delete facade.manager();
        Peek::configManager(*facade) = nullptr;
    }
    QVERIFY(!gone);
}

void HoplaneTest::destructor_withRunningThreadsEndsTheProcess()
{
    QProcess other;
    other.start(QCoreApplication::applicationFilePath(), { destroyArgument });
    QVERIFY(other.waitForFinished(20000));
    QCOMPARE(QString::fromUtf8(other.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts),
             (QStringList{ "the manager is deleted",
                           "QThread: Destroyed while thread is still running",
                           "in the application thread", "the manager's pointer is null" }));
    QCOMPARE(other.exitStatus(), QProcess::CrashExit);
}

int main(int argc, char **argv)
{
    if (argc > 1 && qstrcmp(argv[1], destroyArgument) == 0)
        return destroyRunningFacade(argc, argv);
    HoplaneTest test;
    return runTest(argc, argv, &test);
}

#include "hoplane.moc"
