// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "peek.h"
#include "probelines.h"
#include "testmain.h"
#include "vethpair.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTranslator>
#include <QtTest/QtTest>

#include <atomic>

using namespace ProbeLines;

namespace {

const QString failureText = QString::fromUtf16(
        u"\u7F51\u7EDC\u5207\u6362\u8D85\u65F6\uFF0C\u8BF7\u68C0\u67E5\u53CC\u7F51\u914D\u7F6E"
        u"\u4FE1\u606F\u6216\u7F51\u7EDC\u7EBF\u8DEF");

/** One of the two networks, as the file gives it; its server refuses until it listens. */
struct Side
{
    Side(const QString &serverAddress, const QString &address)
        : server(serverAddress)
        , port(server.port())
        , localIp(address)
    {
    }

    QByteArray lines(const QString &prefix) const
    {
        return QStringLiteral("%1ServerIp=%2\n%1ServerPort=%3\n%1IsAutomatically=%4\n"
                              "%1LocalIp=%5\n%1LocalMask=255.255.255.0\n")
                .arg(prefix, server.address(), port, QLatin1String(isStatic ? "true" : "false"),
                     localIp)
                .toUtf8();
    }

    LoopbackServer server;
    QString port;
    QString localIp;
    bool isStatic = false;
};

/** A worker between two networks, in which no time passes but that of a clock of its own. */
class Rig
{
public:
    explicit Rig(const QString &architecture = QStringLiteral("arm64"))
        : m_worker(hooks(QStringLiteral("x86_64")))
    {
        // The watcher chooses its mode by the first answer, the configuration its order by others.
        if (!QTest::qWaitFor([this] { return m_architectureReads > 0; }, 10000))
            qFatal("the watcher does not start");
        m_worker.setHooks(hooks(architecture));
        Peek::currentServerIp(*m_worker) = QStringLiteral("earlier");
        configure();
        noteSignals();
        log.onLine([this](const LogLine &line) {
            if (line.level == QtDebugMsg)
                noteFailure(line.text);
        });
    }

    NetworkSwitchWorker *operator->() { return m_worker.get(); }
    NetworkSwitchWorker &operator*() { return *m_worker; }

    void configure(bool enabled = true)
    {
        SwitchIni::setContent("[General]\nSwitchEnable=" + QByteArray(enabled ? "true" : "false")
                              + "\nconnectionName=lan\n" + first.lines("First")
                              + second.lines("Second"));
    }

    void setStatic(bool firstIsStatic, bool secondIsStatic)
    {
        first.isStatic = firstIsStatic;
        second.isStatic = secondIsStatic;
        configure();
    }

    int state() { return Peek::switchState(*m_worker); }

    /** Everything noted so far, repeated steps counted. */
    QStringList takeSteps()
    {
        QStringList steps;
        for (int i = 0; i < m_steps.size();) {
            int end = i;
            while (end < m_steps.size() && m_steps[end] == m_steps[i])
                ++end;
            steps.append(end - i == 1 ? m_steps[i]
                                      : QStringLiteral("%1 x %2").arg(end - i).arg(m_steps[i]));
            i = end;
        }
        m_steps.clear();
        return steps;
    }

    Side first{ QStringLiteral("127.0.0.2"), QStringLiteral("10.0.0.1") };
    Side second{ QStringLiteral("127.0.0.3"), QStringLiteral("10.0.0.2") };
    LogCapture log;
    bool hasUuid = true;
    bool shellWorks = true;

    /** The clock's first readings, in milliseconds; afterwards it shows @c now. */
    QVector<qint64> readings;
    qint64 now = 0; // goes on with each sleep
    int clockReads = 0;
    int loads = 0;
    QVector<unsigned long> sleeps;
    int failedAttempts = 0;
    std::function<void()> onLoad = [] {};
    std::function<void()> onSleep = [] {};
    std::function<void()> onFailedAttempt = [] {};

private:
    Interpose::Hooks hooks(const QString &architecture)
    {
        Interpose::Hooks hooks;
        hooks.currentCpuArchitecture = [this, architecture] {
            ++m_architectureReads;
            return architecture;
        };
        hooks.currentDateTime = [this] {
            const qint64 elapsed = clockReads < readings.size() ? readings[clockReads] : now;
            if (++clockReads == 1000)
                qFatal("the passes do not end");
            return QDateTime(QDate(2024, 2, 29), QTime(23, 59, 30)).addMSecs(elapsed);
        };
        hooks.msleep = [this](unsigned long milliseconds) {
            if (sleeps.size() == 1000)
                qFatal("the attempts do not end");
            sleeps.append(milliseconds);
            now += qint64(milliseconds);
            onSleep();
        };
        hooks.popen = [this](const char *command, const char *mode) { return run(command, mode); };
        hooks.settingsValue = [this](const QString &key, const QVariant &) {
            if (key == QLatin1String("SwitchEnable")) {
                ++loads;
                onLoad();
            }
        };
        return hooks;
    }

    FILE *run(const QByteArray &command, const char *mode)
    {
        m_steps.append("run " + QString::fromUtf8(command));
        if (!shellWorks)
            return nullptr;
        const bool printsUuid = hasUuid && command.contains("connection.uuid");
        return Interpose::Real::popen(printsUuid ? "echo 5e6c" : ":", mode);
    }

    /** Notes a signal with the state and the server that a directly connected slot sees. */
    void note(const QString &signal)
    {
        m_steps.append(QStringLiteral("%1, state %2, server %3")
                               .arg(signal)
                               .arg(state())
                               .arg(Peek::currentServerIp(*m_worker)));
    }

    void noteSignals()
    {
        using Worker = NetworkSwitchWorker;
        Worker *worker = m_worker.get();
        QObject::connect(worker, &Worker::mySwitchBegin, worker, [this] { note("begin"); });
        QObject::connect(worker, &Worker::mySwitchSuccess, worker,
                         [this](const QString &ip, const QString &port) {
                             note("success " + ip + ' ' + port);
                         });
        QObject::connect(worker, &Worker::mySwitchFailed, worker,
                         [this](const QString &text, int code) {
                             note("failure " + text + ' ' + QString::number(code));
                         });
        QObject::connect(worker, &Worker::finished, worker, [this] { note("finished"); });
        QObject::connect(worker, &Worker::ipChanged, worker, [this] { note("ipChanged"); });
    }

    void noteFailure(const QString &line)
    {
        m_steps.append("attempt at " + line.section('"', 1, 1));
        ++failedAttempts;
        onFailedAttempt();
    }

    std::atomic<int> m_architectureReads{ 0 };
    QStringList m_steps;
    // The last one: its destruction takes the hooks away, which use the others.
    WorkerFixture m_worker;
};

const QString automaticCommand = QStringLiteral(
        "nmcli connection modify uuid 5e6c ipv4.address '' ipv4.gateway '' ipv4.dns ''  "
        "ipv4.method auto ");
const QString activation = QStringLiteral("nmcli connection up uuid 5e6c ");
const QString lookupStep = QStringLiteral("run nmcli -g connection.uuid c s 'lan' ");

QString addressCommand(const Side &side)
{
    return side.isStatic ? QStringLiteral("nmcli connection modify uuid 5e6c ipv4.addresses %1/24 "
                                          "   connection.autoconnect yes ipv4.method manual")
                                   .arg(side.localIp)
                         : automaticCommand;
}

QStringList addressing(const Side &side)
{
    return { lookupStep, "run " + addressCommand(side), "run " + activation };
}

/** The steps of a probe that fails, without a re-activation up to 11 tries. */
QStringList failedProbe(const Side &side, int tries)
{
    const QString attempts = QStringLiteral("%1 x attempt at %2");
    const QString address = side.server.address();
    if (tries <= 11)
        return { attempts.arg(tries).arg(address) };
    return { attempts.arg(11).arg(address), lookupStep, "run " + activation,
             attempts.arg(tries - 11).arg(address) };
}

QString successStep(const Side &side, int state)
{
    return QStringLiteral("success %1 %2, state %3, server earlier")
            .arg(side.server.address(), side.port)
            .arg(state);
}

/** The steps that end a search with @p side. */
QStringList reached(const Side &side)
{
    return { successStep(side, 1),
             QStringLiteral("finished, state 2, server %1").arg(side.server.address()) };
}

/** The steps that end a search in vain. */
QStringList timedOut()
{
    return { "failure " + failureText + " -1, state 1, server earlier",
             "finished, state 1, server earlier" };
}

QVector<Expected> loadLines(const Rig &rig)
{
    const auto line = [](const char *which, const Side &side) {
        return Expected{ QtInfoMsg,
                         QStringLiteral("[ loadConfig ]  switch info:%1 \"%2\" ,serverPort: "
                                        "\"%3\"")
                                 .arg(which, side.server.address(), side.port) };
    };
    return { line("first serverIp:", rig.first), line("second  serverIp:", rig.second) };
}

/** @p which is "First" or "Second". */
QVector<Expected> addressingLines(const QString &which, const Side &side)
{
    const QString applier =
            side.isStatic ? QStringLiteral("setStaticIpAddr") : QStringLiteral("setLocalIpAuto");
    QVector<Expected> lines = lookup("5e6c");
    for (const QString &command : { addressCommand(side), activation })
        lines.append({ QtInfoMsg,
                       QStringLiteral("[ %1 ]  execute the cmd: \"%2\" result ")
                               .arg(applier, command) });
    lines.append({ QtInfoMsg, QStringLiteral("[ set%1StaticIpAddr ] run successful").arg(which) });
    return lines;
}

/** The comparison of the device's address with the one of the network @p which. */
QVector<Expected> comparison(const QString &which, const QString &current, const Side &side)
{
    return { { QtInfoMsg,
               QStringLiteral("[ doConnet%1Server ] the net ip adddr: \"%2\" "
                              ",the switch local ip addr: \"%3\"")
                       .arg(which, current, side.localIp) } };
}

QVector<Expected> sameAddress(const QString &which, const Side &side)
{
    return { { QtInfoMsg,
               QStringLiteral("[ doConnet%1Server ] it is the same net ip adddr  \"%2\"")
                       .arg(which, side.localIp) } };
}

QVector<Expected> infoLine(const QString &text)
{
    return { { QtInfoMsg, text } };
}

const QVector<Expected> finishLine = {
    { QtWarningMsg, QStringLiteral("[ slotFinish ] \"slotFinish 71: addressChanged :0\"") }
};
const QVector<Expected> timeOutLine = infoLine("[ findAvailableIp ]  switch time out");
const QVector<Expected> changeLine =
        infoLine("[ slotAddressChanged ] \"slotAddressChanged 116: ip changed\"");
const QVector<Expected> busyLine = infoLine("[ slotAddressChanged ]  it's doing net switch.");

QStringList times(int count, const QStringList &steps)
{
    QStringList all;
    for (int i = 0; i < count; ++i)
        all += steps;
    return all;
}

/** Turns each text that it is asked for into another one. */
class EagerTranslator : public QTranslator
{
public:
    QString translate(const char *, const char *, const char *, int) const override
    {
        return QStringLiteral("translated");
    }
    bool isEmpty() const override { return false; }
};

constexpr qint64 year = Q_INT64_C(365) * 24 * 3600 * 1000;

using ConnectFunction = bool (NetworkSwitchWorker::*)();

} // namespace

Q_DECLARE_METATYPE(ConnectFunction)

class FailoverTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void firstServerAnswersAtOnce_endsTheSearch();
    void secondServerAnswers_endsTheSearchAfterTheFirstFailed();
    void serverThatComesUpInTheSecondPass_endsTheSearch();
    void neitherServerAnswers_passesRepeatUntilTheLimit();
    void timeLimit_stopsNewPasses_data();
    void timeLimit_stopsNewPasses();
    void clockThatWasSetForward_shortensNoLaterSearch();
    void clockThatJumpsWithinAPass_isNotNoticed_data();
    void clockThatJumpsWithinAPass_isNotNoticed();
    void timeLimitWithinAPass_letsThePassEnd();
    void failureText_isTheSameInEveryLanguage();
    void stateAtTheBeginning_doesNotMatter_data();
    void stateAtTheBeginning_doesNotMatter();
    void alternationCalledByItself_keepsTheStateAndSignalsNoFailure();
    void search_leavesTheRefreshAndTheStaticAddressAlone();
    void serversWithoutAPort_areFailedProbes();
    void secondNetworkAloneStatic_isTriedFirstOnAnotherProcessorThanArm();

    void triesOfAProbe_dependOnBothFlags_data();
    void triesOfAProbe_dependOnBothFlags();
    void answerOfOneServer_isReportedAndTrue_data();
    void answerOfOneServer_isReportedAndTrue();
    void currentAddressInTheConfiguredOne_skipsTheNetwork_data();
    void currentAddressInTheConfiguredOne_skipsTheNetwork();
    void sameAddressWithAnAutomaticNetwork_isNotCompared_data();
    void sameAddressWithAnAutomaticNetwork_isNotCompared();
    void bothStaticOnTheFirstAddress_configuresAndProbesTheSecond();
    void bothStaticWithoutAnAddress_spinsUntilTheLimit();

    void switchingDisabled_signalsNothingAndKeepsTheState();
    void switchingDisabled_logsALinkOnceForEachConnection();
    void switchingDisabledThenEnabled_isIdleAfterTheNextSearch();
    void noFile_isLikeSwitchingDisabled();
    void eachEntry_readsTheFileAfresh();

    void addressChangeWhileIdle_asksForASearch();
    void addressChangeDuringASearch_isOnlyLogged_data();
    void addressChangeDuringASearch_isOnlyLogged();
    void addressChangeTwice_asksOnce();
    void addressChange_endsEveryConnectionAtOnce();

    void netWorkDown_signalsOneBegin_data();
    void netWorkDown_signalsOneBegin();
    void netWorkDownWithSwitchingDisabled_doesNothing();

    void reopenWithADeadServer_triesTwentyTimesAndEndsSilently_data();
    void reopenWithADeadServer_triesTwentyTimesAndEndsSilently();
    void reopenWithALiveServer_signalsSuccessAlone_data();
    void reopenWithALiveServer_signalsSuccessAlone();
    void reopenLogsNothingOfItsOwn();
    void reopen_forgetsTheRefreshAndTheStaticAddressAfterItsBegin();
    void reopenOfAStaticNetwork_remembersTheNewAddress();
    void reopenOnTheSameAddress_isNotCompared();
    void reopenWithSwitchingDisabled_doesNothing();

    void failedAddressChange_doesNotStopTheSearch();
    void failedAddressChange_doesNotStopAReopening();
    void shellThatDoesNotStart_doesNotStopTheSearch();
};

void FailoverTest::firstServerAnswersAtOnce_endsTheSearch()
{
    Rig rig;
    rig.first.server.listen();
    rig.second.server.listen();
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(), addressing(rig.first) + reached(rig.first));
    COMPARE_LOG(rig.log,
                (loadLines(rig) + addressingLines("First", rig.first)
                 + success(rig.first.server, "127.0.0.1") + finishLine));
    QCOMPARE(rig.state(), 0);
    QCOMPARE(Peek::currentServerIp(*rig), QString("127.0.0.2"));
    QCOMPARE(rig.clockReads, 2);
    QVERIFY(rig.second.server.hasNoConnection());
}

void FailoverTest::secondServerAnswers_endsTheSearchAfterTheFirstFailed()
{
    Rig rig;
    rig.second.server.listen();
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(),
             addressing(rig.first) + failedProbe(rig.first, 10) + addressing(rig.second)
                     + reached(rig.second));
    COMPARE_LOG(rig.log,
                (loadLines(rig) + addressingLines("First", rig.first)
                 + failures(rig.first.server, 10) + addressingLines("Second", rig.second)
                 + success(rig.second.server, "127.0.0.1") + finishLine));
    QCOMPARE(rig.state(), 0);
    QCOMPARE(Peek::currentServerIp(*rig), QString("127.0.0.3"));
    QCOMPARE(rig.clockReads, 2);
}

void FailoverTest::serverThatComesUpInTheSecondPass_endsTheSearch()
{
    Rig rig;
    rig.onFailedAttempt = [&] {
        if (rig.failedAttempts == 20)
            rig.first.server.listen();
    };
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(),
             addressing(rig.first) + failedProbe(rig.first, 10) + addressing(rig.second)
                     + failedProbe(rig.second, 10) + addressing(rig.first) + reached(rig.first));
    QCOMPARE(rig.state(), 0);
    QCOMPARE(rig.clockReads, 3);
}

void FailoverTest::neitherServerAnswers_passesRepeatUntilTheLimit()
{
    Rig rig;
    rig->findAvailableIp();
    const QStringList pass = addressing(rig.first) + failedProbe(rig.first, 10)
            + addressing(rig.second) + failedProbe(rig.second, 10);
    // Ten seconds each.
    QCOMPARE(rig.takeSteps(), times(12, pass) + timedOut());
    QCOMPARE(rig.clockReads, 14);
    QCOMPARE(rig.sleeps, QVector<unsigned long>(240, 500));
    QCOMPARE(rig.state(), 0);
    QCOMPARE(Peek::currentServerIp(*rig), QString("earlier"));
    QCOMPARE(rig.loads, 1);
}

void FailoverTest::timeLimit_stopsNewPasses_data()
{
    QTest::addColumn<QVector<qint64>>("readings");
    QTest::addColumn<int>("passes");
    using Readings = QVector<qint64>;
    QTest::newRow("the last millisecond") << Readings{ 0, 119999, 120000 } << 1;
    QTest::newRow("the limit at once") << Readings{ 0, 120000 } << 0;
    QTest::newRow("three passes") << Readings{ 0, 0, 1, 119999, 120001 } << 3;
    QTest::newRow("not from midnight") << Readings{ 50000, 169999, 170000 } << 1;
    QTest::newRow("a clock set back") << Readings{ 0, -3600000, 120000 } << 1;
    // Until it shows what it would have shown, and not before.
    QTest::newRow("a year back") << Readings{ 0,      -year, -year + 120000, -year + 240000,
                                              119999, 120000 }
                                 << 4;
    QTest::newRow("a year forward") << Readings{ 0, 0, year } << 1;
    QTest::newRow("a year back, then forward") << Readings{ 0, 0, -year, year } << 2;
    QTest::newRow("more than 32 bits") << Readings{ 0, Q_INT64_C(0x100000005) } << 0;
}

void FailoverTest::timeLimit_stopsNewPasses()
{
    QFETCH(QVector<qint64>, readings);
    QFETCH(int, passes);
    Rig rig;
    rig.readings = readings;
    // Past the limit, in 32 bits too.
    rig.now = Q_INT64_C(0x1000F4240);
    rig->findAvailableIp();
    QCOMPARE(rig.failedAttempts, 20 * passes);
    QCOMPARE(rig.clockReads, readings.size());
    QVERIFY(rig.log.count(timeOutLine.first().text) == 1);
}

/** A year forward, which ends a search, then back. */
void FailoverTest::clockThatWasSetForward_shortensNoLaterSearch()
{
    Rig rig;
    rig.readings = { 0, 0, year };
    rig->findAvailableIp();
    QCOMPARE(rig.clockReads, 3);
    QCOMPARE(rig.failedAttempts, 20);

    rig.failedAttempts = 0;
    rig.clockReads = 0;
    rig.readings = { 0, 0, 10000, 119999, 120000 };
    rig->findAvailableIp();
    QCOMPARE(rig.clockReads, 5);
    QCOMPARE(rig.failedAttempts, 3 * 20);
    QCOMPARE(rig.log.count(timeOutLine.first().text), 2);
}

void FailoverTest::clockThatJumpsWithinAPass_isNotNoticed_data()
{
    QTest::addColumn<qint64>("jump");
    QTest::newRow("a year forward, then back") << year;
    QTest::newRow("a year back, then forward") << -year;
}

/** It is only looked at before a pass. */
void FailoverTest::clockThatJumpsWithinAPass_isNotNoticed()
{
    QFETCH(qint64, jump);
    Rig rig;
    rig.onSleep = [&] {
        // In each pass, of two probes of ten.
        const int sleep = rig.sleeps.size() % 20;
        if (sleep == 3)
            rig.now += jump;
        else if (sleep == 17)
            rig.now -= jump;
    };
    rig->findAvailableIp();
    // As without a jump.
    QCOMPARE(rig.failedAttempts, 12 * 20);
    QCOMPARE(rig.clockReads, 14);
    QCOMPARE(rig.log.count(timeOutLine.first().text), 1);
}

void FailoverTest::timeLimitWithinAPass_letsThePassEnd()
{
    Rig rig;
    rig.second.server.listen();
    rig.onSleep = [&] { rig.now += 200000; };
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(),
             addressing(rig.first) + failedProbe(rig.first, 10) + addressing(rig.second)
                     + reached(rig.second));
    QCOMPARE(rig.clockReads, 2);
}

void FailoverTest::failureText_isTheSameInEveryLanguage()
{
    QCOMPARE(failureText.size(), 21);
    EagerTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    Rig rig;
    rig.readings = { 0, 120000 };
    rig->findAvailableIp();
    QVERIFY(QCoreApplication::removeTranslator(&translator));
    QCOMPARE(rig.takeSteps(), timedOut());
    COMPARE_LOG(rig.log, (loadLines(rig) + timeOutLine + finishLine));
    QCOMPARE(rig.state(), 0);
}

void FailoverTest::stateAtTheBeginning_doesNotMatter_data()
{
    QTest::addColumn<int>("state");
    QTest::newRow("idle") << 0;
    QTest::newRow("searching") << 1;
    QTest::newRow("server reached") << 2;
}

void FailoverTest::stateAtTheBeginning_doesNotMatter()
{
    QFETCH(int, state);
    Rig rig;
    Peek::switchState(*rig) = state;
    int stateWhileLoading = -1;
    rig.onLoad = [&] { stateWhileLoading = rig.state(); };
    rig.readings = { 0, 120000 };
    rig->findAvailableIp();
    QCOMPARE(stateWhileLoading, 1);
    QCOMPARE(rig.takeSteps(), timedOut());
    QCOMPARE(rig.state(), 0);
}

void FailoverTest::alternationCalledByItself_keepsTheStateAndSignalsNoFailure()
{
    Rig rig;
    rig->loadConfig();
    rig.log.clear();
    Peek::switchState(*rig) = 1;
    rig.readings = { 0, 120000 };
    rig->doConnetServer();
    QCOMPARE(rig.takeSteps(), QStringList());
    COMPARE_LOG(rig.log, {});
    QCOMPARE(rig.state(), 1);

    rig.first.server.listen();
    rig->doConnetServer();
    QCOMPARE(rig.takeSteps(), addressing(rig.first) + reached(rig.first));
    QCOMPARE(rig.state(), 2);
    QCOMPARE(rig.loads, 1);
}

void FailoverTest::search_leavesTheRefreshAndTheStaticAddressAlone()
{
    Rig rig;
    rig.second.server.listen();
    Peek::needRefresh(*rig) = true;
    Peek::staticAddress(*rig) = "192.168.7.7/24 ";
    rig->findAvailableIp();
    QVERIFY(Peek::needRefresh(*rig));
    QCOMPARE(Peek::staticAddress(*rig), QString("192.168.7.7/24 "));
    QVERIFY(!Peek::sendCurrentServerIp(*rig));
}

void FailoverTest::serversWithoutAPort_areFailedProbes()
{
    Rig rig;
    rig.first.port.clear();
    rig.second.port = "abc";
    rig.configure();
    rig.readings = { 0, 0, 120000 };
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(), addressing(rig.first) + addressing(rig.second) + timedOut());
    COMPARE_LOG(rig.log,
                (loadLines(rig) + addressingLines("First", rig.first) + refusedPort("")
                 + addressingLines("Second", rig.second) + refusedPort("abc") + timeOutLine
                 + finishLine));
}

void FailoverTest::secondNetworkAloneStatic_isTriedFirstOnAnotherProcessorThanArm()
{
    Rig rig("x86_64");
    rig.setStatic(false, true);
    rig.first.server.listen();
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(),
             addressing(rig.second) + failedProbe(rig.second, 10) + addressing(rig.first)
                     + reached(rig.first));
}

void FailoverTest::triesOfAProbe_dependOnBothFlags_data()
{
    QTest::addColumn<bool>("firstIsStatic");
    QTest::addColumn<bool>("secondIsStatic");
    QTest::addColumn<int>("tries");
    QTest::newRow("both automatic") << false << false << 10;
    QTest::newRow("first static") << true << false << 10;
    QTest::newRow("second static") << false << true << 10;
    QTest::newRow("both static") << true << true << 20;
}

void FailoverTest::triesOfAProbe_dependOnBothFlags()
{
    QFETCH(bool, firstIsStatic);
    QFETCH(bool, secondIsStatic);
    QFETCH(int, tries);
    VethPair pair;
    pair.addAddress("hop0", "192.168.7.7/24");
    Rig rig;
    rig.setStatic(firstIsStatic, secondIsStatic);
    rig->loadConfig();

    QVERIFY(!rig->doConnetFirstServer());
    QCOMPARE(rig.takeSteps(), addressing(rig.first) + failedProbe(rig.first, tries));
    QCOMPARE(rig.sleeps, QVector<unsigned long>(tries, 500));
    rig.sleeps.clear();
    QVERIFY(!rig->doConnetSecondServer());
    QCOMPARE(rig.takeSteps(), addressing(rig.second) + failedProbe(rig.second, tries));
    QCOMPARE(rig.sleeps, QVector<unsigned long>(tries, 500));
    QCOMPARE(rig.state(), 0);
    QCOMPARE(Peek::currentServerIp(*rig), QString("earlier"));
}

void FailoverTest::answerOfOneServer_isReportedAndTrue_data()
{
    QTest::addColumn<ConnectFunction>("function");
    QTest::addColumn<bool>("isFirst");
    QTest::newRow("first") << &NetworkSwitchWorker::doConnetFirstServer << true;
    QTest::newRow("second") << &NetworkSwitchWorker::doConnetSecondServer << false;
}

void FailoverTest::answerOfOneServer_isReportedAndTrue()
{
    QFETCH(ConnectFunction, function);
    QFETCH(bool, isFirst);
    Rig rig;
    Side &side = isFirst ? rig.first : rig.second;
    side.server.listen();
    rig->loadConfig();
    Peek::switchState(*rig) = 1;
    QVERIFY(((*rig).*function)());
    QCOMPARE(rig.takeSteps(), addressing(side) + reached(side));
    QCOMPARE(rig.state(), 2);
    QCOMPARE(Peek::currentServerIp(*rig), side.server.address());
    QCOMPARE(rig.clockReads, 0);
}

void FailoverTest::currentAddressInTheConfiguredOne_skipsTheNetwork_data()
{
    QTest::addColumn<QString>("current");
    QTest::addColumn<QString>("configured");
    QTest::addColumn<bool>("isSkipped");
    QTest::newRow("the same") << "10.0.0.1"
                              << "10.0.0.1" << true;
    QTest::newRow("no current address") << ""
                                        << "10.0.0.1" << true;
    QTest::newRow("neither address") << ""
                                     << "" << true;
    QTest::newRow("its beginning") << "10.0.0.1"
                                   << "10.0.0.12" << true;
    QTest::newRow("its end") << "1.0.0.1"
                             << "11.0.0.1" << true;
    QTest::newRow("longer than it") << "10.0.0.12"
                                    << "10.0.0.1" << false;
    QTest::newRow("another") << "10.0.0.1"
                             << "10.0.0.2" << false;
    QTest::newRow("no configured address") << "10.0.0.1"
                                           << "" << false;
}

void FailoverTest::currentAddressInTheConfiguredOne_skipsTheNetwork()
{
    QFETCH(QString, current);
    QFETCH(QString, configured);
    QFETCH(bool, isSkipped);
    VethPair pair;
    if (!current.isEmpty())
        pair.addAddress("hop0", current + "/24");
    Rig rig;
    rig.first.localIp = configured;
    rig.second.localIp = configured;
    rig.setStatic(true, true);
    rig->loadConfig();

    const auto check = [&](const QString &which, const Side &side, ConnectFunction function) {
        rig.log.clear();
        QVERIFY(!((*rig).*function)());
        QCOMPARE(rig.takeSteps(),
                 isSkipped ? QStringList() : addressing(side) + failedProbe(side, 20));
        COMPARE_LOG(rig.log,
                    (comparison(which, current, side)
                     + (isSkipped ? sameAddress(which, side)
                                  : addressingLines(which, side) + failures(side.server, 11)
                                        + reactivation("5e6c", "") + failures(side.server, 9))));
    };
    check("First", rig.first, &NetworkSwitchWorker::doConnetFirstServer);
    check("Second", rig.second, &NetworkSwitchWorker::doConnetSecondServer);
}

void FailoverTest::sameAddressWithAnAutomaticNetwork_isNotCompared_data()
{
    QTest::addColumn<bool>("firstIsStatic");
    QTest::addColumn<bool>("secondIsStatic");
    QTest::newRow("both automatic") << false << false;
    QTest::newRow("first static") << true << false;
    QTest::newRow("second static") << false << true;
}

void FailoverTest::sameAddressWithAnAutomaticNetwork_isNotCompared()
{
    QFETCH(bool, firstIsStatic);
    QFETCH(bool, secondIsStatic);
    VethPair pair;
    pair.addAddress("hop0", "10.0.0.1/24");
    Rig rig;
    rig.second.localIp = rig.first.localIp;
    rig.setStatic(firstIsStatic, secondIsStatic);
    rig.readings = { 0, 0, 120000 };
    rig->findAvailableIp();
    COMPARE_LOG(rig.log,
                (loadLines(rig) + addressingLines("First", rig.first)
                 + failures(rig.first.server, 10) + addressingLines("Second", rig.second)
                 + failures(rig.second.server, 10) + timeOutLine + finishLine));
}

void FailoverTest::bothStaticOnTheFirstAddress_configuresAndProbesTheSecond()
{
    VethPair pair;
    pair.addAddress("hop0", "10.0.0.1/24");
    Rig rig;
    rig.setStatic(true, true);
    rig.first.server.listen();
    rig.readings = { 0, 0, 120000 };
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(), addressing(rig.second) + failedProbe(rig.second, 20) + timedOut());
    COMPARE_LOG(rig.log,
                (loadLines(rig) + comparison("First", "10.0.0.1", rig.first)
                 + sameAddress("First", rig.first) + comparison("Second", "10.0.0.1", rig.second)
                 + addressingLines("Second", rig.second) + failures(rig.second.server, 11)
                 + reactivation("5e6c", "") + failures(rig.second.server, 9) + timeOutLine
                 + finishLine));
    QVERIFY(rig.first.server.hasNoConnection());
    QCOMPARE(Peek::staticAddress(*rig), QString("10.0.0.2/24 "));
}

void FailoverTest::bothStaticWithoutAnAddress_spinsUntilTheLimit()
{
    Rig rig;
    rig.setStatic(true, true);
    rig.readings = { 0, 0, 1, 1, 119999, 120000 };
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(), timedOut());
    QCOMPARE(rig.clockReads, 6);
    QVERIFY(rig.sleeps.isEmpty());
    const QVector<Expected> pass = comparison("First", "", rig.first)
            + sameAddress("First", rig.first) + comparison("Second", "", rig.second)
            + sameAddress("Second", rig.second);
    COMPARE_LOG(rig.log, (loadLines(rig) + pass + pass + pass + pass + timeOutLine + finishLine));
    QCOMPARE(rig.state(), 0);
}

void FailoverTest::switchingDisabled_signalsNothingAndKeepsTheState()
{
    Rig rig;
    rig.first.server.listen();
    rig.configure(false);
    rig->findAvailableIp();
    COMPARE_LOG(rig.log, (loadLines(rig)));
    QCOMPARE(rig.state(), 1);
    QCOMPARE(rig.clockReads, 0);

    rig.configure(true);
    Q_EMIT Peek::watcher(*rig)->addressChanged();
    COMPARE_LOG(rig.log, (loadLines(rig) + changeLine + busyLine));
    QCOMPARE(rig.takeSteps(), QStringList());
    QCOMPARE(rig.state(), 1);
    QVERIFY(rig.first.server.hasNoConnection());
}

void FailoverTest::switchingDisabled_logsALinkOnceForEachConnection()
{
    Rig rig;
    rig.configure(false);
    rig->start();
    rig->start();
    rig.log.clear();
    Q_EMIT Peek::watcher(*rig)->addressChanged();
    // The constructor's, and one of each request.
    COMPARE_LOG(rig.log, (changeLine + busyLine + changeLine + busyLine + changeLine + busyLine));
}

void FailoverTest::switchingDisabledThenEnabled_isIdleAfterTheNextSearch()
{
    Rig rig;
    rig.first.server.listen();
    rig.configure(false);
    rig->findAvailableIp();
    rig.configure(true);
    rig->findAvailableIp();
    QCOMPARE(rig.state(), 0);
    QCOMPARE(rig.takeSteps(), addressing(rig.first) + reached(rig.first));
}

void FailoverTest::noFile_isLikeSwitchingDisabled()
{
    Rig rig;
    rig->loadConfig();
    SwitchIni::remove();
    rig.log.clear();
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(), QStringList());
    COMPARE_LOG(rig.log,
                (infoLine("[ loadConfig ]  switch congif file: \"" + SwitchIni::path()
                          + "\" not exist,can not do net switc.")));
    QCOMPARE(rig.state(), 1);
}

void FailoverTest::eachEntry_readsTheFileAfresh()
{
    Rig rig;
    rig.first.server.listen();
    rig->findAvailableIp();
    QCOMPARE(rig.loads, 1);
    rig->slotNetWorkDown();
    QCOMPARE(rig.loads, 2);
    rig->slotReopen_network(0);
    QCOMPARE(rig.loads, 3);
    rig->slotAddressChanged();
    QCOMPARE(rig.loads, 3);
}

void FailoverTest::addressChangeWhileIdle_asksForASearch()
{
    Rig rig;
    CAddressWatcher &watcher = *Peek::watcher(*rig);
    QSignalSpy others(&watcher, &CAddressWatcher::addressChanged);
    int connections = -1;
    connect(&*rig, &NetworkSwitchWorker::ipChanged, this,
            [&] { connections = Peek::receivers(watcher, SIGNAL(addressChanged())); });
    Q_EMIT watcher.addressChanged();
    QCOMPARE(rig.takeSteps(), QStringList{ "ipChanged, state 1, server earlier" });
    COMPARE_LOG(rig.log, (changeLine));
    QCOMPARE(rig.state(), 1);
    // The spy's own connection stays.
    QCOMPARE(connections, 1);
    QCOMPARE(others.size(), 1);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(netWorkdown())), 1);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(reopen_network(int))), 1);
}

void FailoverTest::addressChangeDuringASearch_isOnlyLogged_data()
{
    QTest::addColumn<int>("state");
    QTest::newRow("searching") << 1;
    QTest::newRow("server reached") << 2;
}

void FailoverTest::addressChangeDuringASearch_isOnlyLogged()
{
    QFETCH(int, state);
    Rig rig;
    Peek::switchState(*rig) = state;
    rig->slotAddressChanged();
    QCOMPARE(rig.takeSteps(), QStringList());
    COMPARE_LOG(rig.log, (changeLine + busyLine));
    QCOMPARE(rig.state(), state);
    QCOMPARE(Peek::receivers(*Peek::watcher(*rig), SIGNAL(addressChanged())), 1);
}

void FailoverTest::addressChangeTwice_asksOnce()
{
    Rig rig;
    rig->slotAddressChanged();
    rig->slotAddressChanged();
    QCOMPARE(rig.takeSteps(), QStringList{ "ipChanged, state 1, server earlier" });
    COMPARE_LOG(rig.log, (changeLine + changeLine + busyLine));
    QCOMPARE(rig.state(), 1);
}

void FailoverTest::addressChange_endsEveryConnectionAtOnce()
{
    Rig rig;
    rig.first.server.listen();
    rig->start();
    rig->start();
    CAddressWatcher &watcher = *Peek::watcher(*rig);
    QCOMPARE(Peek::receivers(watcher, SIGNAL(addressChanged())), 3);
    rig.takeSteps();
    rig.log.clear();
    Q_EMIT watcher.addressChanged();
    Q_EMIT watcher.addressChanged();
    QCOMPARE(rig.takeSteps(), QStringList{ "ipChanged, state 1, server 127.0.0.2" });
    COMPARE_LOG(rig.log, (changeLine));
    QCOMPARE(Peek::receivers(watcher, SIGNAL(addressChanged())), 0);
}

void FailoverTest::netWorkDown_signalsOneBegin_data()
{
    stateAtTheBeginning_doesNotMatter_data();
}

void FailoverTest::netWorkDown_signalsOneBegin()
{
    QFETCH(int, state);
    Rig rig;
    Peek::switchState(*rig) = state;
    Peek::needRefresh(*rig) = true;
    Peek::staticAddress(*rig) = "192.168.7.7/24 ";
    rig->slotNetWorkDown();
    QCOMPARE(rig.takeSteps(),
             QStringList{ QStringLiteral("begin, state %1, server earlier").arg(state) });
    COMPARE_LOG(rig.log, (loadLines(rig)));
    QCOMPARE(rig.state(), state);
    QVERIFY(Peek::needRefresh(*rig));
    QCOMPARE(Peek::staticAddress(*rig), QString("192.168.7.7/24 "));
}

void FailoverTest::netWorkDownWithSwitchingDisabled_doesNothing()
{
    Rig rig;
    // The file counts, not what an earlier load left.
    rig->loadConfig();
    rig.log.clear();
    rig.configure(false);
    rig->slotNetWorkDown();
    QCOMPARE(rig.takeSteps(), QStringList());
    COMPARE_LOG(rig.log, (loadLines(rig)));
    QCOMPARE(rig.state(), 0);
}

void FailoverTest::reopenWithADeadServer_triesTwentyTimesAndEndsSilently_data()
{
    QTest::addColumn<int>("argument");
    QTest::addColumn<bool>("isFirst");
    QTest::addColumn<int>("state");
    QTest::newRow("0, idle") << 0 << true << 0;
    QTest::newRow("0, searching") << 0 << true << 1;
    QTest::newRow("1, idle") << 1 << false << 0;
    QTest::newRow("1, server reached") << 1 << false << 2;
    QTest::newRow("-1, idle") << -1 << false << 0;
    QTest::newRow("7, idle") << 7 << false << 0;
}

void FailoverTest::reopenWithADeadServer_triesTwentyTimesAndEndsSilently()
{
    QFETCH(int, argument);
    QFETCH(bool, isFirst);
    QFETCH(int, state);
    Rig rig;
    Peek::switchState(*rig) = state;
    rig->slotReopen_network(argument);
    const Side &side = isFirst ? rig.first : rig.second;
    const QStringList begin = { QStringLiteral("begin, state %1, server earlier").arg(state) };
    QCOMPARE(rig.takeSteps(), begin + addressing(side) + failedProbe(side, 20));
    QCOMPARE(rig.sleeps, QVector<unsigned long>(20, 500));
    QCOMPARE(rig.clockReads, 0);
    QCOMPARE(rig.state(), state);
    QCOMPARE(Peek::currentServerIp(*rig), QString("earlier"));
}

void FailoverTest::reopenWithALiveServer_signalsSuccessAlone_data()
{
    reopenWithADeadServer_triesTwentyTimesAndEndsSilently_data();
}

void FailoverTest::reopenWithALiveServer_signalsSuccessAlone()
{
    QFETCH(int, argument);
    QFETCH(bool, isFirst);
    QFETCH(int, state);
    Rig rig;
    Peek::switchState(*rig) = state;
    const Side &side = isFirst ? rig.first : rig.second;
    rig.first.server.listen();
    rig.second.server.listen();
    rig->slotReopen_network(argument);
    const QStringList begin = { QStringLiteral("begin, state %1, server earlier").arg(state) };
    QCOMPARE(rig.takeSteps(), begin + addressing(side) + QStringList{ successStep(side, state) });
    QCOMPARE(rig.state(), state);
    QCOMPARE(Peek::currentServerIp(*rig), QString("earlier"));
    QVERIFY((isFirst ? rig.second : rig.first).server.hasNoConnection());
}

void FailoverTest::reopenLogsNothingOfItsOwn()
{
    Rig rig;
    rig.second.server.listen();
    rig->slotReopen_network(1);
    COMPARE_LOG(rig.log,
                (loadLines(rig) + addressingLines("Second", rig.second)
                 + success(rig.second.server, "127.0.0.1")));
    rig.log.clear();
    rig->slotReopen_network(0);
    COMPARE_LOG(rig.log,
                (loadLines(rig) + addressingLines("First", rig.first)
                 + failures(rig.first.server, 11) + reactivation("5e6c", "")
                 + failures(rig.first.server, 9)));
}

void FailoverTest::reopen_forgetsTheRefreshAndTheStaticAddressAfterItsBegin()
{
    Rig rig;
    rig.first.server.listen();
    Peek::needRefresh(*rig) = true;
    Peek::staticAddress(*rig) = "192.168.7.7/24 ";
    bool neededRefresh = false;
    QString staticAddress;
    connect(&*rig, &NetworkSwitchWorker::mySwitchBegin, this, [&] {
        neededRefresh = Peek::needRefresh(*rig);
        staticAddress = Peek::staticAddress(*rig);
    });
    rig->slotReopen_network(0);
    QVERIFY(neededRefresh);
    QCOMPARE(staticAddress, QString("192.168.7.7/24 "));
    QVERIFY(!Peek::needRefresh(*rig));
    QVERIFY(Peek::staticAddress(*rig).isEmpty());
}

void FailoverTest::reopenOfAStaticNetwork_remembersTheNewAddress()
{
    Rig rig;
    rig.setStatic(true, true);
    Peek::staticAddress(*rig) = "192.168.7.7/24 ";
    rig->slotReopen_network(1);
    QCOMPARE(Peek::staticAddress(*rig), QString("10.0.0.2/24 "));
}

void FailoverTest::reopenOnTheSameAddress_isNotCompared()
{
    VethPair pair;
    pair.addAddress("hop0", "10.0.0.1/24");
    Rig rig;
    rig.setStatic(true, true);
    rig.first.server.listen();
    rig->slotReopen_network(0);
    COMPARE_LOG(rig.log,
                (loadLines(rig) + addressingLines("First", rig.first)
                 + success(rig.first.server, "127.0.0.1")));
}

void FailoverTest::reopenWithSwitchingDisabled_doesNothing()
{
    Rig rig;
    rig->loadConfig();
    rig.log.clear();
    rig.configure(false);
    Peek::needRefresh(*rig) = true;
    Peek::staticAddress(*rig) = "192.168.7.7/24 ";
    rig->slotReopen_network(1);
    QCOMPARE(rig.takeSteps(), QStringList());
    COMPARE_LOG(rig.log, (loadLines(rig)));
    QVERIFY(Peek::needRefresh(*rig));
    QCOMPARE(Peek::staticAddress(*rig), QString("192.168.7.7/24 "));
}

void FailoverTest::failedAddressChange_doesNotStopTheSearch()
{
    Rig rig;
    rig.hasUuid = false;
    rig.second.server.listen();
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(),
             QStringList{ lookupStep } + failedProbe(rig.first, 10) + QStringList{ lookupStep }
                     + reached(rig.second));
    QCOMPARE(rig.log.count("[ setFirstStaticIpAddr ] run failed"), 1);
    QCOMPARE(rig.log.count("[ setSecondStaticIpAddr ] run failed"), 1);
    QCOMPARE(rig.state(), 0);
}

void FailoverTest::failedAddressChange_doesNotStopAReopening()
{
    Rig rig;
    rig.hasUuid = false;
    rig.second.server.listen();
    rig.setStatic(false, true);
    Peek::staticAddress(*rig) = "192.168.7.7/24 ";
    rig->slotReopen_network(1);
    QCOMPARE(rig.takeSteps(),
             (QStringList{ "begin, state 0, server earlier", lookupStep,
                           successStep(rig.second, 0) }));
    QCOMPARE(rig.log.count("[ setSecondStaticIpAddr ] run failed"), 1);
    QVERIFY(Peek::staticAddress(*rig).isEmpty());
}

void FailoverTest::shellThatDoesNotStart_doesNotStopTheSearch()
{
    Rig rig;
    rig.shellWorks = false;
    rig.first.server.listen();
    rig->findAvailableIp();
    QCOMPARE(rig.takeSteps(), QStringList{ lookupStep } + reached(rig.first));
}

HOPLANE_TEST_MAIN(FailoverTest)
#include "failover.moc"
