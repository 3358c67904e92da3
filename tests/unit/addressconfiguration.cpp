// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"

#include <QtCore/QTemporaryFile>
#include <QtCore/QTextCodec>
#include <QtTest/QtTest>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <sys/wait.h>
#include <thread>

using Operation = std::function<void(NetworkSwitchWorker &)>;
Q_DECLARE_METATYPE(Operation)

namespace {

constexpr char lookupLan[] = "nmcli -g connection.uuid c s 'lan' ";
constexpr char lookupActive[] =
        "nmcli -f uuid connection show -active |awk 'NR ==1 {next} {print $1}'";
constexpr char setAutomatic[] = "nmcli connection modify uuid 5e6c ipv4.address '' ipv4.gateway '' "
                                "ipv4.dns ''  ipv4.method auto ";
constexpr char activate[] = "nmcli connection up uuid 5e6c ";

/** As the log shows a QString that needs no escapes. */
QString quoted(const QString &text)
{
    return '"' + text + '"';
}

Expected executed(const char *function, const QString &command, const QString &output,
                  const char *label = " execute the cmd:")
{
    return { QtInfoMsg,
             QString("[ ") + function + " ] " + label + ' ' + quoted(command) + " result "
                     + output };
}

Expected notStarted(const QString &command)
{
    return { QtWarningMsg, "[ excuCmd ] " + quoted("popen " + command + "  error.") };
}

Expected tooLong()
{
    return { QtWarningMsg, "[ excuCmd ] Get Disk data error bacause data memery is too large." };
}

Expected noUuid(const char *function, const QString &connection)
{
    return { QtCriticalMsg,
             QString("[ ") + function
                     + " ] get uuid is empty,d->strConnectionName= " + quoted(connection) };
}

/** The lines about the lookup of a named connection. */
QVector<Expected> lookupLines(const QString &command, const QString &uuid)
{
    return { { QtInfoMsg, "[ getNetWorkUuid ] " + quoted(command) },
             { QtInfoMsg, "[ getNetWorkUuid ] " + quoted(uuid) } };
}

QVector<Expected> lanLines()
{
    return lookupLines(lookupLan, "5e6c");
}

/** What excuCmd() appends to, amid bytes that it has to leave alone. */
class ResultBuffer
{
public:
    explicit ResultBuffer(const QByteArray &found = QByteArray())
    {
        m_bytes.fill(untouched);
        std::copy(found.begin(), found.end(), data());
        data()[found.size()] = '\0';
    }

    char *data() { return m_bytes.data() + guardSize; }

    QByteArray text() const
    {
        const char *begin = m_bytes.data() + guardSize;
        return QByteArray(begin, int(qstrnlen(begin, size)));
    }

    bool guardsAreUntouched() const
    {
        const auto isUntouched = [](char byte) { return byte == untouched; };
        return std::all_of(m_bytes.begin(), m_bytes.begin() + guardSize, isUntouched)
                && std::all_of(m_bytes.begin() + guardSize + size, m_bytes.end(), isUntouched);
    }

private:
    static constexpr char untouched = 'Z';
    static constexpr int size = 4096;
    static constexpr int guardSize = 8192;

    std::array<char, guardSize + size + guardSize> m_bytes;
};

/** A command that prints exactly the given bytes. */
class Printing
{
public:
    explicit Printing(const QByteArray &bytes)
    {
        if (!m_file.open() || m_file.write(bytes) != bytes.size() || !m_file.flush())
            qFatal("cannot write the output to print");
    }

    QByteArray command() const { return "cat " + m_file.fileName().toLocal8Bit(); }

private:
    QTemporaryFile m_file;
};

/** A worker with its log, the fake nmcli and a record of the commands as the shell gets them. */
class Rig
{
public:
    explicit Rig(const QString &connection = "lan", const QString &scenario = "lan")
        : nmcli(scenario)
        , worker(hooks())
    {
        Peek::record(*worker).strConnectionName = connection;
        log.onLine([this](const LogLine &line) {
            // Qt's own lines may come from any thread.
            if (!line.text.startsWith("[ "))
                return;
            events.append(line.text);
            if (onLine)
                onLine(line.text);
        });
    }

    bool excuCmd(const QByteArray &command, ResultBuffer *result)
    {
        return worker->excuCmd(command.constData(), result->data());
    }

    QString getNetWorkUuid(QString connectionName)
    {
        return worker->getNetWorkUuid(connectionName);
    }

    int count(const char *command) const { return commands.count(command); }

    FakeNmcli nmcli;
    QByteArrayList commands;
    QByteArrayList modes;
    /** Commands, marked by "$ ", and log lines as they came. */
    QStringList events;
    int settingsRead = 0;
    /** Asked before each command; the command is not startable if it says no. */
    std::function<bool(const QByteArray &command)> mayStart;
    std::function<void(const QString &text)> onLine;
    WorkerFixture worker;
    LogCapture log;

private:
    Interpose::Hooks hooks()
    {
        Interpose::Hooks made;
        made.popen = [this](const char *command, const char *mode) {
            commands.append(command);
            modes.append(mode);
            events.append(QString("$ ") + command);
            const bool starts = !mayStart || mayStart(command);
            return starts ? Interpose::Real::popen(command, mode) : nullptr;
        };
        made.settingsValue = [this](const QString &, const QVariant &) { ++settingsRead; };
        return made;
    }
};

/** Distinct values in all ten fields of both networks' addressing. */
void fillAddressing(NetworkSwitchWorker::PrivateData *record)
{
    record->strFirstLocalIp = "10.1.0.5";
    record->strFirstLocalMask = "255.255.0.0";
    record->strFirstLocalGateWay = "10.1.0.1";
    record->strFirstPreferredDNS = "10.1.0.2";
    record->strFirstSpareDNS = "10.1.0.3";
    record->strSecondLocalIp = "10.2.0.5";
    record->strSecondLocalMask = "255.255.255.0";
    record->strSecondLocalGateWay = "10.2.0.1";
    record->strSecondPreferredDNS = "10.2.0.2";
    record->strSecondSpareDNS = "10.2.0.3";
}

/** Everything that address configuration has no business with. */
QVariantList otherState(NetworkSwitchWorker &worker)
{
    const NetworkSwitchWorker::PrivateData &record = Peek::record(worker);
    return { record.bSwitchEnable,          record.strConnectionName,
             record.strFirstServerIp,       record.strFirstServerPort,
             record.bFirstIsAutomatically,  record.strFirstLocalIp,
             record.strFirstLocalMask,      record.strFirstLocalGateWay,
             record.strFirstPreferredDNS,   record.strFirstSpareDNS,
             record.strSecondServerIp,      record.strSecondServerPort,
             record.bSecondIsAutomatically, record.strSecondLocalIp,
             record.strSecondLocalMask,     record.strSecondLocalGateWay,
             record.strSecondPreferredDNS,  record.strSecondSpareDNS,
             Peek::timerId(worker),         Peek::switchState(worker),
             Peek::currentServerIp(worker), Peek::sendCurrentServerIp(worker) };
}

QByteArray linesOfHundred(int bytes)
{
    const QByteArray line = QByteArray(99, 'x') + '\n';
    return line.repeated(bytes / 100 + 1).left(bytes);
}

template<typename... Values>
void row(const char *name, const Values &...values)
{
    (QTest::newRow(name) << ... << values);
}

void addOutputsBelowTheLimit()
{
    const QByteArray none;
    const QByteArray x(5000, 'x');
    row("nothing", none, none, 0, false);
    row("nothing after text", QByteArray("text\n"), none, 5, false);
    row("one line", none, QByteArray("a b \n"), 5, false);
    row("a line without an end", none, QByteArray(" a"), 2, false);
    row("lone line break", none, QByteArray("\n"), 1, false);
    row("after text", QByteArray("old\n"), QByteArray("new\nest\n"), 12, false);
    row("4094 bytes", none, x.left(4093) + '\n', 4094, false);
    row("4095 bytes", none, x.left(4094) + '\n', 4095, false);
    row("4095 bytes, unended", none, x.left(4095), 4095, false);
    row("4095 bytes in many lines", none, linesOfHundred(4095), 4095, false);
    row("to 4095 bytes with the text", x.left(4000), QByteArray(94, 'y') + '\n', 4095, false);
}

void addOutputsAtTheLimit()
{
    const QByteArray none;
    const QByteArray x(5000, 'x');
    row("4096 bytes", none, x.left(4095) + '\n', 4095, false);
    row("4096 bytes, unended", none, x.left(4096), 4095, false);
    row("4096 bytes in many lines", none, linesOfHundred(4096), 4095, false);
    row("4097 bytes", none, x.left(4096) + '\n', 4095, true);
    row("4097 bytes in many lines", none, linesOfHundred(4097), 4095, true);
    row("5000 bytes in one line", none, x + '\n', 4095, true);
    row("5000 bytes in many lines", none, linesOfHundred(5000), 4095, true);
    row("more than a pipe holds", none, linesOfHundred(300000), 4095, true);
    row("to 4096 bytes with the text", x.left(4000), QByteArray(95, 'y') + '\n', 4095, false);
    row("to 4097 bytes with the text", x.left(4000), QByteArray(96, 'y') + '\n', 4095, true);
    row("one byte after a full buffer", x.left(4095), QByteArray("\n"), 4095, false);
    row("two bytes after a full buffer", x.left(4095), QByteArray("y\n"), 4095, true);
    row("long line after a full buffer", x.left(4095), QByteArray(4094, 'y') + '\n', 4095, true);
}

void addMasksOfSmallParts()
{
    row("class C", "255.255.255.0", 24, false);
    row("class B", "255.255.0.0", 16, false);
    row("class A", "255.0.0.0", 6, false);
    row("none", "0.0.0.0", 0, false);
    row("host", "255.255.255.255", 32, false);
    row("25 bits", "255.255.255.128", 25, false);
    row("31 bits", "255.255.255.254", 31, false);
    row("1 bit", "128.0.0.0", 1, false);
    row("7 bits", "254.0.0.0", 7, false);
    row("9 bits", "255.128.0.0", 9, false);
    row("23 bits", "255.255.254.0", 23, false);
    row("third part not contiguous", "255.0.255.0", 8, false);
    row("last bit not contiguous", "255.0.0.1", 8, false);
    row("first bit zero", "127.255.255.255", 0, false);
    row("hole in the last part", "255.255.255.160", 25, false);
    row("part not a number", "255.255.abc.0", 16, false);
    row("empty part", "255..255.0", 8, false);
    row("empty last part", "255.255.255.", 24, false);
    row("empty parts only", "...", 0, false);
    row("negative part", "255.255.-1.0", 16, false);
    row("hexadecimal part", "255.255.0xff.0", 16, false);
    row("octal part is decimal", "255.0377.0.0", 8, false);
}

void addMasksOfLargeParts()
{
    row("part of 256 sets the bit to its left", "255.254.256.0", 16, false);
    row("part of 65280 fills the part to its left", "255.0.65280.0", 16, false);
    row("last part of 33023", "255.255.0.33023", 17, false);
    row("spill out of the first part", "256.0.0.0", 0, false);
    row("spill keeps low bits of the first part", "511.255.0.0", 16, false);
    row("class A by spill", "254.256.0.0", 6, false);
    row("class A in the last part", "0.0.0.4278190080", 6, false);
    row("largest last part", "0.0.0.4294967295", 32, false);
    row("part of more than 32 bits", "255.255.0.4294967296", 16, false);
}

void addMasksNotOfFourParts()
{
    row("three parts", "255.255.255", 0, true);
    row("five parts", "255.255.255.0.0", 0, true);
    row("trailing dot", "255.255.255.0.", 0, true);
    row("empty", "", 0, true);
    row("prefix length for a mask", "24", 0, true);
    row("commas", "255,255,255,0", 0, true);
}

bool hasNoChild()
{
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

} // namespace

/** The commands by which the worker configures addresses, and what it makes of their output. */
class AddressConfigurationTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void output_isAppendedWithinTheBuffer_data();
    void output_isAppendedWithinTheBuffer();
    void outputWithNulBytes_losesTheRestOfEachLine_data();
    void outputWithNulBytes_losesTheRestOfEachLine();
    void textFoundInTheBuffer_isCountedAnewInEachCall();
    void cutOffOutput_stillEndsTheCommand_data();
    void cutOffOutput_stillEndsTheCommand();
    void exitStatus_isNotLookedAt_data();
    void exitStatus_isNotLookedAt();
    void standardError_isNotCaptured();
    void slowCommand_isWaitedFor();
    void commandKilledAfterOutput_keepsTheOutput();
    void commandThatCannotBeStarted_warns_data();
    void commandThatCannotBeStarted_warns();
    void commandOf4095Bytes_runs();
    void commandThatDoesNotFit_isNeverRun_data();
    void commandThatDoesNotFit_isNeverRun();
    void missingNmcli_countsAsNoOutput();
    void nmcliThatIsNotExecutable_countsAsNoOutput();

    void activeConnections_areLookedUpThroughAwk();
    void activeConnections_areJoinedWithoutUuidWord_data();
    void activeConnections_areJoinedWithoutUuidWord();
    void namedConnection_isLookedUpByName();
    void namedConnection_givesSimplifiedOutput_data();
    void namedConnection_givesSimplifiedOutput();
    void connectionName_isPutBetweenQuotesAsItIs_data();
    void connectionName_isPutBetweenQuotesAsItIs();
    void lookupThatPrintsTooMuch_isCutOff();
    void lookupThatCannotBeStarted_givesNoUuid();
    void connectionNameTooLongForACommand_givesNoUuid();
    void lookup_startsWithAnEmptyBuffer();
    void lookup_decodesLocalEncoding();
    void commands_areEncodedInUtf8();

    void automaticAddress_isSetThenActivated();
    void automaticAddress_ofActiveConnections();
    void automaticAddressWithoutUuid_runsNothing_data();
    void automaticAddressWithoutUuid_runsNothing();
    void automaticAddress_ignoresFailingCommands();
    void automaticAddress_ofCommandsThatCannotBeStarted();

    void netmask_givesPrefixLength_data();
    void netmask_givesPrefixLength();
    void gatewayAndDns_makeTheirPieces_data();
    void gatewayAndDns_makeTheirPieces();
    void staticAddress_isSetThenActivated();
    void staticAddressWithoutGatewayAndDns_leavesBlanksToTheShell();
    void percentSequences_areFilledByTheNextValue_data();
    void percentSequences_areFilledByTheNextValue();
    void staticAddress_isRememberedBetweenTheCommands();
    void staticAddress_isRememberedThoughCommandsFail();
    void staticAddressWithoutUuid_isNotRemembered();
    void staticAddressTooLongForACommand_stillActivates();
    void uncheckedTexts_goIntoTheCommand();

    void networkFlag_selectsStaticAddressing_data();
    void networkFlag_selectsStaticAddressing();
    void networkWithoutUuid_logsRunFailed_data();
    void networkWithoutUuid_logsRunFailed();

    void refreshNotDue_onlyLogs();
    void refreshWithoutUuid_staysDue();
    void refresh_stopsAtTheFirstOutput_data();
    void refresh_stopsAtTheFirstOutput();
    void refresh_countsOutputOfTheModification_data();
    void refresh_countsOutputOfTheModification();
    void refreshWithoutAnyOutput_activates21Times();
    void refreshWhoseActivationCannotBeStarted_activates21Times();
    void refreshClearedFromOutside_endsBeforeTheNextRetry_data();
    void refreshClearedFromOutside_endsBeforeTheNextRetry();
    void refreshClearedDuringASuccessfulActivation_endsQuietly();

    void outputs_gatherInOneBuffer_data();
    void outputs_gatherInOneBuffer();
    void gatheredOutputs_areBoundedTogether();
    void logLines_followTheirCommands();
    void operations_leaveOtherStateAlone_data();
    void operations_leaveOtherStateAlone();
};

void AddressConfigurationTest::output_isAppendedWithinTheBuffer_data()
{
    QTest::addColumn<QByteArray>("found");
    QTest::addColumn<QByteArray>("printed");
    QTest::addColumn<int>("kept");
    QTest::addColumn<bool>("warned");

    addOutputsBelowTheLimit();
    addOutputsAtTheLimit();
}

void AddressConfigurationTest::output_isAppendedWithinTheBuffer()
{
    QFETCH(QByteArray, found);
    QFETCH(QByteArray, printed);
    QFETCH(int, kept);
    QFETCH(bool, warned);

    Rig rig;
    const Printing printing(printed);
    ResultBuffer result(found);
    QVERIFY(rig.excuCmd(printing.command(), &result));

    QCOMPARE(result.text(), (found + printed).left(kept));
    QVERIFY(result.guardsAreUntouched());
    QCOMPARE(rig.commands, QByteArrayList{ printing.command() });
    QCOMPARE(rig.modes, QByteArrayList{ "r" });
    COMPARE_LOG(rig.log, (warned ? QVector<Expected>{ tooLong() } : QVector<Expected>()));
}

void AddressConfigurationTest::outputWithNulBytes_losesTheRestOfEachLine_data()
{
    QTest::addColumn<QByteArray>("printed");
    QTest::addColumn<QByteArray>("kept");

    QTest::newRow("within a line") << QByteArray("ab\0cd\nef\n", 9) << QByteArray("abef\n");
    QTest::newRow("first in a line") << QByteArray("\0cd\nef\n", 7) << QByteArray("ef\n");
    QTest::newRow("at the end") << QByteArray("ab\ncd\0", 6) << QByteArray("ab\ncd");
    QTest::newRow("nothing else") << QByteArray(5, '\0') << QByteArray();
    QTest::newRow("not counted towards the limit") << QByteArray(5000, '\0') + "\nab\n"
                                                   << QByteArray("ab\n");
}

void AddressConfigurationTest::outputWithNulBytes_losesTheRestOfEachLine()
{
    QFETCH(QByteArray, printed);
    QFETCH(QByteArray, kept);

    Rig rig;
    const Printing printing(printed);
    ResultBuffer result;
    QVERIFY(rig.excuCmd(printing.command(), &result));
    QCOMPARE(result.text(), kept);
    QVERIFY(result.guardsAreUntouched());
    COMPARE_LOG(rig.log, {});
}

void AddressConfigurationTest::textFoundInTheBuffer_isCountedAnewInEachCall()
{
    Rig rig;
    const Printing full(QByteArray(4096, 'x'));
    const Printing lineBreak("\n");
    ResultBuffer result;
    QVERIFY(rig.excuCmd(full.command(), &result));
    QVERIFY(rig.excuCmd(lineBreak.command(), &result));
    QVERIFY(rig.excuCmd(lineBreak.command(), &result));
    // Each of them had 4095 bytes before it, whatever was dropped earlier.
    COMPARE_LOG(rig.log, {});
    QCOMPARE(result.text(), QByteArray(4095, 'x'));
}

void AddressConfigurationTest::cutOffOutput_stillEndsTheCommand_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<int>("kept");

    QTest::newRow("complete") << QByteArray("echo a") << 2;
    QTest::newRow("cut off") << QByteArray("yes 123 | head -c 300000") << 4095;
}

void AddressConfigurationTest::cutOffOutput_stillEndsTheCommand()
{
    QFETCH(QByteArray, command);
    QFETCH(int, kept);

    Rig rig;
    ResultBuffer result;
    QVERIFY(rig.excuCmd(command, &result));
    QCOMPARE(result.text().size(), kept);
    QVERIFY(hasNoChild());
}

void AddressConfigurationTest::exitStatus_isNotLookedAt_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QByteArray>("kept");

    QTest::newRow("failure") << QByteArray("exit 3") << QByteArray();
    QTest::newRow("failure after output") << QByteArray("printf x; exit 10") << QByteArray("x");
    QTest::newRow("shell killed") << QByteArray("printf x; kill -9 $$") << QByteArray("x");
    QTest::newRow("unknown command") << QByteArray("no-such-command-here") << QByteArray();
    QTest::newRow("syntax error") << QByteArray("printf 'x") << QByteArray();
    QTest::newRow("pipeline") << QByteArray("printf ab | tr b c") << QByteArray("ac");
    QTest::newRow("no command") << QByteArray() << QByteArray();
}

void AddressConfigurationTest::exitStatus_isNotLookedAt()
{
    QFETCH(QByteArray, command);
    QFETCH(QByteArray, kept);

    Rig rig;
    ResultBuffer result("found ");
    QVERIFY(rig.excuCmd(command, &result));
    QCOMPARE(result.text(), "found " + kept);
    COMPARE_LOG(rig.log, {});
}

void AddressConfigurationTest::standardError_isNotCaptured()
{
    Rig rig;
    rig.nmcli.playLines("up error Error: unknown connection.\n"
                        "up print out\n");
    ResultBuffer result;
    QVERIFY(rig.excuCmd("nmcli connection up uuid 5e6c ", &result));
    QCOMPARE(result.text(), QByteArray("out"));
}

void AddressConfigurationTest::slowCommand_isWaitedFor()
{
    Rig rig;
    rig.nmcli.playLines("up print soon \n"
                        "up slow\n"
                        "up print late\n");
    ResultBuffer result;
    std::atomic<bool> returned{ false };
    bool started = false;
    std::thread blocked([&] {
        started = rig.excuCmd(activate, &result);
        returned = true;
    });
    const bool called = QTest::qWaitFor([&] { return !rig.nmcli.calls().isEmpty(); }, 10000);
    const bool returnedEarly = returned;
    rig.nmcli.release();
    blocked.join();
    QVERIFY(called);
    QVERIFY(!returnedEarly);
    QVERIFY(started);
    QCOMPARE(result.text(), QByteArray("soon late"));
}

void AddressConfigurationTest::commandKilledAfterOutput_keepsTheOutput()
{
    Rig rig;
    rig.nmcli.playLines("up print begun\\n\n"
                        "up kill\n"
                        "up print never\n");
    ResultBuffer result("found ");
    QVERIFY(rig.excuCmd(activate, &result));
    QCOMPARE(result.text(), QByteArray("found begun\n"));
    COMPARE_LOG(rig.log, {});
}

void AddressConfigurationTest::commandThatCannotBeStarted_warns_data()
{
    QTest::addColumn<QString>("command");

    QTest::newRow("plain") << "nmcli";
    QTest::newRow("trailing blank") << "nmcli connection up uuid u ";
    QTest::newRow("placeholder") << "nmcli %1 %2";
    QTest::newRow("not ASCII") << QString::fromUtf8("nmcli caf\303\251");
    QTest::newRow("empty") << "";
}

void AddressConfigurationTest::commandThatCannotBeStarted_warns()
{
    QFETCH(QString, command);

    Rig rig;
    rig.mayStart = [](const QByteArray &) { return false; };
    ResultBuffer result("found");
    QVERIFY(!rig.excuCmd(command.toUtf8(), &result));
    QCOMPARE(result.text(), QByteArray("found"));
    QVERIFY(result.guardsAreUntouched());
    COMPARE_LOG(rig.log, { notStarted(command) });
}

void AddressConfigurationTest::commandOf4095Bytes_runs()
{
    Rig rig;
    const QByteArray command = QByteArray("echo ok #").leftJustified(4095, 'x');
    ResultBuffer result;
    QVERIFY(rig.excuCmd(command, &result));
    QCOMPARE(result.text(), QByteArray("ok\n"));
    QCOMPARE(rig.commands, QByteArrayList{ command });
    COMPARE_LOG(rig.log, {});
}

void AddressConfigurationTest::commandThatDoesNotFit_isNeverRun_data()
{
    QTest::addColumn<int>("size");

    QTest::newRow("4096 bytes") << 4096;
    QTest::newRow("5000 bytes") << 5000;
}

void AddressConfigurationTest::commandThatDoesNotFit_isNeverRun()
{
    QFETCH(int, size);

    Rig rig;
    const QByteArray command = QByteArray("echo ok #").leftJustified(size, 'x');
    ResultBuffer result("found");
    QVERIFY(!rig.excuCmd(command, &result));
    QCOMPARE(result.text(), QByteArray("found"));
    QCOMPARE(rig.commands, QByteArrayList());
    // The warning names what the copy of the command has room for.
    COMPARE_LOG(rig.log, { notStarted(command.left(4095)) });
}

void AddressConfigurationTest::missingNmcli_countsAsNoOutput()
{
    Rig rig;
    const PrivatePath path;
    ResultBuffer result;
    QVERIFY(rig.excuCmd(activate, &result));
    QCOMPARE(result.text(), QByteArray());
    COMPARE_LOG(rig.log, {});

    QVERIFY(!rig.worker->setLocalIpAuto());
    COMPARE_LOG(rig.log, (lookupLines(lookupLan, "") << noUuid("setLocalIpAuto", "lan")));
}

void AddressConfigurationTest::nmcliThatIsNotExecutable_countsAsNoOutput()
{
    Rig rig("");
    const PrivatePath path;
    QFile nmcli(path.folder() + "/nmcli");
    QVERIFY(nmcli.open(QIODevice::WriteOnly));
    QVERIFY(nmcli.write("#!/bin/sh\necho UUID\necho 5e6c\n") > 0);
    nmcli.close();
    QVERIFY(nmcli.setPermissions(QFile::ReadOwner | QFile::WriteOwner));

    QVERIFY(!rig.worker->setLocalIpAuto());
    QCOMPARE(rig.commands, QByteArrayList{ lookupActive });
    COMPARE_LOG(rig.log, { { QtInfoMsg, "[ getNetWorkUuid ] " }, noUuid("setLocalIpAuto", "") });
}

void AddressConfigurationTest::activeConnections_areLookedUpThroughAwk()
{
    Rig rig("", "two-active");
    QCOMPARE(rig.getNetWorkUuid(QString()), QString("a-1 b-2"));
    QCOMPARE(rig.commands, QByteArrayList{ lookupActive });
    QCOMPARE(rig.nmcli.calls(),
             (QVector<QStringList>{ { "-f", "uuid", "connection", "show", "-active" } }));
    COMPARE_LOG(rig.log, { { QtInfoMsg, "[ getNetWorkUuid ] a-1\nb-2\n" } });
}

void AddressConfigurationTest::activeConnections_areJoinedWithoutUuidWord_data()
{
    QTest::addColumn<QString>("printed");
    QTest::addColumn<QString>("raw");
    QTest::addColumn<QString>("uuid");

    row("one", "UUID \\n5e6c \\n", "5e6c\n", "5e6c");
    row("three", "UUID \\na-1 \\nb-2 \\nc-3 \\n", "a-1\nb-2\nc-3\n", "a-1 b-2 c-3");
    row("header only", "UUID \\n", "", "");
    row("nothing", "", "", "");
    row("header not called UUID", "a-1 \\nb-2 \\n", "b-2\n", "b-2");
    row("empty lines between", "UUID \\n\\na-1 \\n\\nb-2 \\n", "\na-1\n\nb-2\n", "a-1 b-2");
    row("only the first field counts", "UUID \\na-1 eth0 \\n", "a-1\n", "a-1");
    row("word in a UUID", "UUID \\nUUID-7 \\nxUUIDyUUIDz \\n", "UUID-7\nxUUIDyUUIDz\n", "-7 xyz");
    row("word in lower case", "UUID \\nuuid-7 \\nUuid \\n", "uuid-7\nUuid\n", "uuid-7 Uuid");
    row("word between leaves both blanks", "UUID \\na \\nUUID \\nb \\n", "a\nUUID\nb\n", "a  b");
    row("words only leave a blank", "UUID \\nUUID \\nUUID \\n", "UUID\nUUID\n", " ");
}

void AddressConfigurationTest::activeConnections_areJoinedWithoutUuidWord()
{
    QFETCH(QString, printed);
    QFETCH(QString, raw);
    QFETCH(QString, uuid);

    Rig rig;
    // A lookup by name would tell itself by its output.
    rig.nmcli.playLines("active print " + printed.toUtf8() + "\nlookup print named\n");
    QCOMPARE(rig.getNetWorkUuid(""), uuid);
    COMPARE_LOG(rig.log, { { QtInfoMsg, "[ getNetWorkUuid ] " + raw } });
}

void AddressConfigurationTest::namedConnection_isLookedUpByName()
{
    Rig rig("other");
    QString name = "lan";
    QCOMPARE(rig.worker->getNetWorkUuid(name), QString("5e6c"));
    QCOMPARE(name, QString("lan"));
    QCOMPARE(rig.commands, QByteArrayList{ "nmcli -g connection.uuid c s 'lan' " });
    QCOMPARE(rig.nmcli.calls(),
             (QVector<QStringList>{ { "-g", "connection.uuid", "c", "s", "lan" } }));
    COMPARE_LOG(rig.log,
                { { QtInfoMsg, "[ getNetWorkUuid ] \"nmcli -g connection.uuid c s 'lan' \"" },
                  { QtInfoMsg, "[ getNetWorkUuid ] \"5e6c\"" } });
}

void AddressConfigurationTest::namedConnection_givesSimplifiedOutput_data()
{
    QTest::addColumn<QByteArray>("printed");
    QTest::addColumn<QString>("uuid");

    QTest::newRow("one line") << QByteArray("5e6c\\n") << "5e6c";
    QTest::newRow("without an end") << QByteArray("5e6c") << "5e6c";
    QTest::newRow("two lines") << QByteArray("a-1\\nb-2\\n") << "a-1 b-2";
    QTest::newRow("white space around and within")
            << QByteArray("\\n  5e6c \t\\n\\n x \\n") << "5e6c x";
    QTest::newRow("word UUID stays") << QByteArray("UUID UUID-7\\n") << "UUID UUID-7";
    QTest::newRow("blank only") << QByteArray("\\n \\n") << "";
    QTest::newRow("nothing") << QByteArray() << "";
}

void AddressConfigurationTest::namedConnection_givesSimplifiedOutput()
{
    QFETCH(QByteArray, printed);
    QFETCH(QString, uuid);

    Rig rig;
    rig.nmcli.playLines("lookup print " + printed + "\n");
    QCOMPARE(rig.getNetWorkUuid("lan"), uuid);
    COMPARE_LOG(rig.log, (lookupLines(lookupLan, uuid)));
}

void AddressConfigurationTest::connectionName_isPutBetweenQuotesAsItIs_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QStringList>("names");

    QTest::newRow("blank") << " " << QStringList{ " " };
    QTest::newRow("with blanks") << " Wired  connection 1" << QStringList{ " Wired  connection 1" };
    QTest::newRow("shell characters") << "$HOME `x` ;#" << QStringList{ "$HOME `x` ;#" };
    QTest::newRow("placeholder") << "%1" << QStringList{ "%1" };
    QTest::newRow("quotes within") << "a' 'b" << QStringList{ "a", "b" };
}

void AddressConfigurationTest::connectionName_isPutBetweenQuotesAsItIs()
{
    QFETCH(QString, name);
    QFETCH(QStringList, names);

    Rig rig;
    const QString command = "nmcli -g connection.uuid c s '" + name + "' ";
    QCOMPARE(rig.getNetWorkUuid(name), QString("5e6c"));
    QCOMPARE(rig.commands, QByteArrayList{ command.toUtf8() });
    QCOMPARE(rig.nmcli.calls(),
             (QVector<QStringList>{ QStringList{ "-g", "connection.uuid", "c", "s" } + names }));
    COMPARE_LOG(rig.log, (lookupLines(command, "5e6c")));
}

void AddressConfigurationTest::lookupThatPrintsTooMuch_isCutOff()
{
    Rig rig;
    rig.nmcli.playLines("lookup bytes 5000\n");
    const QString uuid(4095, 'x');
    QVERIFY(rig.worker->setLocalIpAuto());
    // The UUID alone is as long as the longest command.
    QCOMPARE(rig.commands, QByteArrayList{ lookupLan });
    const QString modify = ("nmcli connection modify uuid " + uuid).left(4095);
    const QString up = ("nmcli connection up uuid " + uuid).left(4095);
    COMPARE_LOG(rig.log,
                (QVector<Expected>{ tooLong() } + lookupLines(lookupLan, uuid)
                 << notStarted(modify)
                 << executed("setLocalIpAuto",
                             "nmcli connection modify uuid " + uuid
                                     + " ipv4.address '' ipv4.gateway '' ipv4.dns ''  "
                                       "ipv4.method auto ",
                             "")
                 << notStarted(up)
                 << executed("setLocalIpAuto", "nmcli connection up uuid " + uuid + ' ', "")));
}

void AddressConfigurationTest::lookupThatCannotBeStarted_givesNoUuid()
{
    Rig rig;
    rig.mayStart = [](const QByteArray &) { return false; };
    QCOMPARE(rig.getNetWorkUuid("lan"), QString());
    QCOMPARE(rig.getNetWorkUuid(""), QString());
    COMPARE_LOG(rig.log,
                (QVector<Expected>{ notStarted(lookupLan) } + lookupLines(lookupLan, "")
                 << notStarted(lookupActive) << Expected{ QtInfoMsg, "[ getNetWorkUuid ] " }));
}

void AddressConfigurationTest::connectionNameTooLongForACommand_givesNoUuid()
{
    const QString name(5000, 'n');
    Rig rig(name);
    QVERIFY(!rig.worker->setLocalIpAuto());
    QCOMPARE(rig.commands, QByteArrayList());
    const QString command = "nmcli -g connection.uuid c s '" + name + "' ";
    COMPARE_LOG(rig.log,
                (QVector<Expected>{ notStarted(command.left(4095)) } + lookupLines(command, "")
                 << noUuid("setLocalIpAuto", name)));
}

void AddressConfigurationTest::lookup_startsWithAnEmptyBuffer()
{
    Rig rig("", "two-active");
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(rig.getNetWorkUuid(""), QString("a-1 b-2"));
        QCOMPARE(rig.getNetWorkUuid("lan"), QString("UUID-7"));
    }
}

void AddressConfigurationTest::lookup_decodesLocalEncoding()
{
    Rig rig;
    QTextCodec *const codec = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO 8859-1"));
    rig.nmcli.playLines("lookup print named-\351\\n\n"
                        "active print UUID \\nactive-\351 \\n\n");
    const QString named = rig.getNetWorkUuid("lan");
    const QString active = rig.getNetWorkUuid("");
    QTextCodec::setCodecForLocale(codec);
    QCOMPARE(named, QString::fromUtf8("named-\303\251"));
    QCOMPARE(active, QString::fromUtf8("active-\303\251"));
}

void AddressConfigurationTest::commands_areEncodedInUtf8()
{
    Rig rig(QString::fromUtf8("caf\303\251"));
    QTextCodec *const codec = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO 8859-1"));
    const bool applied = rig.worker->setStaticIpAddr(QString::fromUtf8("\303\274"), "0.0.0.0",
                                                     QString(), QString(), QString());
    QTextCodec::setCodecForLocale(codec);
    QVERIFY(applied);
    QCOMPARE(rig.commands,
             (QByteArrayList{ "nmcli -g connection.uuid c s 'caf\303\251' ",
                              "nmcli connection modify uuid 5e6c ipv4.addresses \303\274/0    "
                              "connection.autoconnect yes ipv4.method manual",
                              activate }));
}

void AddressConfigurationTest::automaticAddress_isSetThenActivated()
{
    Rig rig;
    Peek::staticAddress(*rig.worker) = "10.0.0.9/24 ";
    QVERIFY(rig.worker->setLocalIpAuto());
    QCOMPARE(rig.commands,
             (QByteArrayList{ "nmcli -g connection.uuid c s 'lan' ",
                              "nmcli connection modify uuid 5e6c ipv4.address '' ipv4.gateway '' "
                              "ipv4.dns ''  ipv4.method auto ",
                              "nmcli connection up uuid 5e6c " }));
    QCOMPARE(rig.nmcli.calls(),
             (QVector<QStringList>{ { "-g", "connection.uuid", "c", "s", "lan" },
                                    { "connection", "modify", "uuid", "5e6c", "ipv4.address", "",
                                      "ipv4.gateway", "", "ipv4.dns", "", "ipv4.method", "auto" },
                                    { "connection", "up", "uuid", "5e6c" } }));
    QCOMPARE(Peek::staticAddress(*rig.worker), QString("10.0.0.9/24 "));
    COMPARE_LOG(rig.log,
                (lanLines() << executed("setLocalIpAuto", setAutomatic, "")
                            << executed("setLocalIpAuto", activate,
                                        "Connection successfully activated\n")));
}

void AddressConfigurationTest::automaticAddress_ofActiveConnections()
{
    Rig rig("", "two-active");
    QVERIFY(rig.worker->setLocalIpAuto());
    QCOMPARE(rig.commands,
             (QByteArrayList{ lookupActive,
                              "nmcli connection modify uuid a-1 b-2 ipv4.address '' "
                              "ipv4.gateway '' ipv4.dns ''  ipv4.method auto ",
                              "nmcli connection up uuid a-1 b-2 " }));
    QCOMPARE(rig.nmcli.calls().last(), (QStringList{ "connection", "up", "uuid", "a-1", "b-2" }));
}

void AddressConfigurationTest::automaticAddressWithoutUuid_runsNothing_data()
{
    QTest::addColumn<QString>("connection");
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QString>("raw");

    row("name not known", "lan", "lookup error Error: lan - no such profile.\nlookup exit 10\n",
        "");
    row("white space for the name", "lan", "lookup print  \\n\n", "");
    row("none active", "", "active print UUID \\n\n", "");
    row("only the word UUID", "", "active print UUID \\nUUID \\n\n", "UUID\n");
}

void AddressConfigurationTest::automaticAddressWithoutUuid_runsNothing()
{
    QFETCH(QString, connection);
    QFETCH(QString, scenario);
    QFETCH(QString, raw);

    Rig rig(connection);
    rig.nmcli.playLines(scenario.toUtf8());
    QVERIFY(!rig.worker->setLocalIpAuto());
    QCOMPARE(rig.commands.size(), 1);
    QVector<Expected> expected{ { QtInfoMsg, "[ getNetWorkUuid ] " + raw } };
    if (!connection.isEmpty())
        expected = lookupLines(lookupLan, "");
    COMPARE_LOG(rig.log, (expected << noUuid("setLocalIpAuto", connection)));
}

void AddressConfigurationTest::automaticAddress_ignoresFailingCommands()
{
    Rig rig("lan", "refused");
    QVERIFY(rig.worker->setLocalIpAuto());
    QCOMPARE(rig.commands, (QByteArrayList{ lookupLan, setAutomatic, activate }));
    COMPARE_LOG(rig.log,
                (lanLines() << executed("setLocalIpAuto", setAutomatic, "")
                            << executed("setLocalIpAuto", activate, "")));
}

void AddressConfigurationTest::automaticAddress_ofCommandsThatCannotBeStarted()
{
    Rig rig;
    rig.mayStart = [](const QByteArray &command) { return command == lookupLan; };
    QVERIFY(rig.worker->setLocalIpAuto());
    QCOMPARE(rig.commands, (QByteArrayList{ lookupLan, setAutomatic, activate }));
    COMPARE_LOG(rig.log,
                (lanLines() << notStarted(setAutomatic)
                            << executed("setLocalIpAuto", setAutomatic, "") << notStarted(activate)
                            << executed("setLocalIpAuto", activate, "")));
}

void AddressConfigurationTest::netmask_givesPrefixLength_data()
{
    QTest::addColumn<QString>("mask");
    QTest::addColumn<int>("prefix");
    QTest::addColumn<bool>("logged");

    addMasksOfSmallParts();
    addMasksOfLargeParts();
    addMasksNotOfFourParts();
}

void AddressConfigurationTest::netmask_givesPrefixLength()
{
    QFETCH(QString, mask);
    QFETCH(int, prefix);
    QFETCH(bool, logged);

    Rig rig("lan", "silent");
    QVERIFY(rig.worker->setStaticIpAddr("10.0.0.9", mask, "", "", ""));
    const QString length = QString::number(prefix);
    const QString modify = "nmcli connection modify uuid 5e6c ipv4.addresses 10.0.0.9/" + length
            + "    connection.autoconnect yes ipv4.method manual";
    QCOMPARE(rig.commands, (QByteArrayList{ lookupLan, modify.toUtf8(), activate }));
    QCOMPARE(Peek::staticAddress(*rig.worker), QString("10.0.0.9/" + length + ' '));
    QVector<Expected> expected;
    if (logged)
        expected << Expected{ QtInfoMsg, "[ setStaticIpAddr ] LocalMask error: " + quoted(mask) };
    COMPARE_LOG(rig.log,
                (expected + lanLines() << executed("setStaticIpAddr", modify, "")
                                       << executed("setStaticIpAddr", activate, "")));
}

void AddressConfigurationTest::gatewayAndDns_makeTheirPieces_data()
{
    QTest::addColumn<QString>("gateway");
    QTest::addColumn<QString>("dns1");
    QTest::addColumn<QString>("dns2");
    QTest::addColumn<QString>("pieces");

    row("gateway and both", "10.0.0.1", "8.8.8.8", "8.8.4.4",
        " ipv4.gateway 10.0.0.1  ipv4.dns 8.8.8.8,8.8.4.4 ");
    row("gateway and preferred", "10.0.0.1", "8.8.8.8", "",
        " ipv4.gateway 10.0.0.1  ipv4.dns 8.8.8.8 ");
    row("gateway and spare", "10.0.0.1", "", "8.8.4.4",
        " ipv4.gateway 10.0.0.1  ipv4.dns 8.8.4.4 ");
    row("gateway only", "10.0.0.1", "", "", " ipv4.gateway 10.0.0.1   ");
    row("both only", "", "8.8.8.8", "8.8.4.4", "   ipv4.dns 8.8.8.8,8.8.4.4 ");
    row("preferred only", "", "8.8.8.8", "", "   ipv4.dns 8.8.8.8 ");
    row("spare only", "", "", "8.8.4.4", "   ipv4.dns 8.8.4.4 ");
    row("none", "", "", "", "    ");
    row("blank is not empty", " ", " ", "", " ipv4.gateway    ipv4.dns   ");
}

void AddressConfigurationTest::gatewayAndDns_makeTheirPieces()
{
    QFETCH(QString, gateway);
    QFETCH(QString, dns1);
    QFETCH(QString, dns2);
    QFETCH(QString, pieces);

    Rig rig("lan", "silent");
    QVERIFY(rig.worker->setStaticIpAddr("10.0.0.9", "255.255.255.0", gateway, dns1, dns2));
    const QString modify = "nmcli connection modify uuid 5e6c ipv4.addresses 10.0.0.9/24" + pieces
            + "connection.autoconnect yes ipv4.method manual";
    QCOMPARE(rig.commands.at(1), modify.toUtf8());
    COMPARE_LOG(rig.log,
                (lanLines() << executed("setStaticIpAddr", modify, "")
                            << executed("setStaticIpAddr", activate, "")));
}

void AddressConfigurationTest::staticAddress_isSetThenActivated()
{
    Rig rig;
    rig.nmcli.playLines("lookup print u\\n\n");
    QVERIFY(rig.worker->setStaticIpAddr("192.168.1.10", "255.255.255.0", "192.168.1.1", "8.8.8.8",
                                        ""));
    const char modify[] = "nmcli connection modify uuid u ipv4.addresses 192.168.1.10/24 "
                          "ipv4.gateway 192.168.1.1  ipv4.dns 8.8.8.8 connection.autoconnect yes "
                          "ipv4.method manual";
    const char up[] = "nmcli connection up uuid u ";
    QCOMPARE(rig.commands, (QByteArrayList{ lookupLan, modify, up }));
    QCOMPARE(rig.nmcli.calls().mid(1),
             (QVector<QStringList>{ { "connection", "modify", "uuid", "u", "ipv4.addresses",
                                      "192.168.1.10/24", "ipv4.gateway", "192.168.1.1", "ipv4.dns",
                                      "8.8.8.8", "connection.autoconnect", "yes", "ipv4.method",
                                      "manual" },
                                    { "connection", "up", "uuid", "u" } }));
    QCOMPARE(Peek::staticAddress(*rig.worker), QString("192.168.1.10/24 "));
    COMPARE_LOG(rig.log,
                (lookupLines(lookupLan, "u") << executed("setStaticIpAddr", modify, "")
                                             << executed("setStaticIpAddr", up, "")));
}

void AddressConfigurationTest::staticAddressWithoutGatewayAndDns_leavesBlanksToTheShell()
{
    Rig rig;
    QVERIFY(rig.worker->setStaticIpAddr("10.0.0.9", "255.255.255.0", QString(), QString(),
                                        QString()));
    QCOMPARE(rig.commands.at(1),
             QByteArray("nmcli connection modify uuid 5e6c ipv4.addresses 10.0.0.9/24    "
                        "connection.autoconnect yes ipv4.method manual"));
    QCOMPARE(rig.nmcli.calls().at(1),
             (QStringList{ "connection", "modify", "uuid", "5e6c", "ipv4.addresses", "10.0.0.9/24",
                           "connection.autoconnect", "yes", "ipv4.method", "manual" }));
}

void AddressConfigurationTest::percentSequences_areFilledByTheNextValue_data()
{
    QTest::addColumn<QString>("uuid");
    QTest::addColumn<QString>("ip");
    QTest::addColumn<QString>("gateway");
    QTest::addColumn<QString>("modify");
    QTest::addColumn<QString>("remembered");

    row("prefix length into the address", "u", "%3", "g",
        "uuid u ipv4.addresses 24/24 ipv4.gateway g  ipv4.dns d ", "%3/24 ");
    row("prefix length into the remembered address", "u", "%2", "g",
        "uuid u ipv4.addresses 24/ipv4.gateway g ipv4.dns d  %5 ", "24/24 ");
    row("DNS into the gateway", "u", "10.0.0.9", "%5",
        "uuid u ipv4.addresses 10.0.0.9/24 ipv4.gateway ipv4.dns d  ipv4.dns d ", "10.0.0.9/24 ");
    row("address into the UUID", "%1", "10.0.0.9", "g",
        "uuid 10.0.0.9 ipv4.addresses 24/ipv4.gateway g ipv4.dns d  %5 ", "10.0.0.9/24 ");
    row("no placeholder", "u", "fe80::1%eth0", "100%",
        "uuid u ipv4.addresses fe80::1%eth0/24 ipv4.gateway 100%  ipv4.dns d ", "fe80::1%eth0/24 ");
}

void AddressConfigurationTest::percentSequences_areFilledByTheNextValue()
{
    QFETCH(QString, uuid);
    QFETCH(QString, ip);
    QFETCH(QString, gateway);
    QFETCH(QString, modify);
    QFETCH(QString, remembered);

    Rig rig;
    rig.nmcli.playLines("lookup print " + uuid.toUtf8() + "\\n\n");
    QVERIFY(rig.worker->setStaticIpAddr(ip, "255.255.255.0", gateway, "d", ""));
    QCOMPARE(rig.commands.at(1),
             "nmcli connection modify " + modify.toUtf8()
                     + "connection.autoconnect yes ipv4.method manual");
    QCOMPARE(rig.commands.at(2), "nmcli connection up uuid " + uuid.toUtf8() + ' ');
    QCOMPARE(Peek::staticAddress(*rig.worker), remembered);
}

void AddressConfigurationTest::staticAddress_isRememberedBetweenTheCommands()
{
    Rig rig;
    Peek::staticAddress(*rig.worker) = "old";
    QStringList remembered;
    const auto note = [&] { remembered.append(Peek::staticAddress(*rig.worker)); };
    rig.mayStart = [&](const QByteArray &) {
        note();
        return true;
    };
    rig.onLine = [&](const QString &) { note(); };
    QVERIFY(rig.worker->setStaticIpAddr("10.0.0.9", "255.0.0.0", "", "", ""));
    // Lookup with its two lines, modification with its line, activation with its line.
    QCOMPARE(remembered,
             (QStringList{ "old", "old", "old", "old", "old", "10.0.0.9/6 ", "10.0.0.9/6 " }));
}

void AddressConfigurationTest::staticAddress_isRememberedThoughCommandsFail()
{
    Rig rig("lan", "refused");
    QVERIFY(rig.worker->setStaticIpAddr("999.1.1.1", "255.255.0.0", "", "", ""));
    QCOMPARE(Peek::staticAddress(*rig.worker), QString("999.1.1.1/16 "));
    QCOMPARE(rig.commands.size(), 3);

    rig.mayStart = [](const QByteArray &command) { return command == lookupLan; };
    rig.log.clear();
    QVERIFY(rig.worker->setStaticIpAddr("10.0.0.9", "255.255.0.0", "", "", ""));
    QCOMPARE(Peek::staticAddress(*rig.worker), QString("10.0.0.9/16 "));
    const QString modify = "nmcli connection modify uuid 5e6c ipv4.addresses 10.0.0.9/16    "
                           "connection.autoconnect yes ipv4.method manual";
    COMPARE_LOG(rig.log,
                (lanLines() << notStarted(modify) << executed("setStaticIpAddr", modify, "")
                            << notStarted(activate) << executed("setStaticIpAddr", activate, "")));
}

void AddressConfigurationTest::staticAddressWithoutUuid_isNotRemembered()
{
    Rig rig("lan", "no-connection");
    Peek::staticAddress(*rig.worker) = "10.0.0.8/24 ";
    QVERIFY(!rig.worker->setStaticIpAddr("10.0.0.9", "255.255.255", "10.0.0.1", "8.8.8.8", ""));
    QCOMPARE(Peek::staticAddress(*rig.worker), QString("10.0.0.8/24 "));
    QCOMPARE(rig.commands, QByteArrayList{ lookupLan });
    COMPARE_LOG(rig.log,
                (QVector<Expected>{
                         { QtInfoMsg, "[ setStaticIpAddr ] LocalMask error: \"255.255.255\"" } }
                         + lookupLines(lookupLan, "")
                 << noUuid("setStaticIpAddr", "lan")));
}

void AddressConfigurationTest::staticAddressTooLongForACommand_stillActivates()
{
    Rig rig;
    const QString ip(5000, '1');
    QVERIFY(rig.worker->setStaticIpAddr(ip, "255.255.255.0", "", "", ""));
    QCOMPARE(rig.commands, (QByteArrayList{ lookupLan, activate }));
    QCOMPARE(Peek::staticAddress(*rig.worker), QString(ip + "/24 "));
}

void AddressConfigurationTest::uncheckedTexts_goIntoTheCommand()
{
    Rig rig;
    QVERIFY(rig.worker->setStaticIpAddr("any thing", "255.255.255.0", "'gate way'", "$(printf d)",
                                        "a,b"));
    QCOMPARE(rig.commands.at(1),
             QByteArray("nmcli connection modify uuid 5e6c ipv4.addresses any thing/24 "
                        "ipv4.gateway 'gate way'  ipv4.dns $(printf d),a,b "
                        "connection.autoconnect yes ipv4.method manual"));
    QCOMPARE(rig.nmcli.calls().at(1),
             (QStringList{ "connection", "modify", "uuid", "5e6c", "ipv4.addresses", "any",
                           "thing/24", "ipv4.gateway", "gate way", "ipv4.dns", "d,a,b",
                           "connection.autoconnect", "yes", "ipv4.method", "manual" }));
}

void AddressConfigurationTest::networkFlag_selectsStaticAddressing_data()
{
    QTest::addColumn<bool>("second");
    QTest::addColumn<bool>("flag");
    QTest::addColumn<QString>("modify");
    QTest::addColumn<QString>("remembered");

    QTest::newRow("first, true is static")
            << false << true
            << "nmcli connection modify uuid 5e6c ipv4.addresses 10.1.0.5/16 "
               "ipv4.gateway 10.1.0.1  ipv4.dns 10.1.0.2,10.1.0.3 "
               "connection.autoconnect yes ipv4.method manual"
            << "10.1.0.5/16 ";
    QTest::newRow("first, false is automatic") << false << false << setAutomatic << "before";
    QTest::newRow("second, true is static")
            << true << true
            << "nmcli connection modify uuid 5e6c ipv4.addresses 10.2.0.5/24 "
               "ipv4.gateway 10.2.0.1  ipv4.dns 10.2.0.2,10.2.0.3 "
               "connection.autoconnect yes ipv4.method manual"
            << "10.2.0.5/24 ";
    QTest::newRow("second, false is automatic") << true << false << setAutomatic << "before";
}

void AddressConfigurationTest::networkFlag_selectsStaticAddressing()
{
    QFETCH(bool, second);
    QFETCH(bool, flag);
    QFETCH(QString, modify);
    QFETCH(QString, remembered);

    Rig rig;
    NetworkSwitchWorker::PrivateData &record = Peek::record(*rig.worker);
    fillAddressing(&record);
    record.bFirstIsAutomatically = second ? !flag : flag;
    record.bSecondIsAutomatically = second ? flag : !flag;
    Peek::staticAddress(*rig.worker) = "before";
    second ? rig.worker->setSecondStaticIpAddr() : rig.worker->setFirstStaticIpAddr();

    QCOMPARE(rig.commands, (QByteArrayList{ lookupLan, modify.toUtf8(), activate }));
    QCOMPARE(Peek::staticAddress(*rig.worker), remembered);
    const char *const function = flag ? "setStaticIpAddr" : "setLocalIpAuto";
    const QString own = second ? "setSecondStaticIpAddr" : "setFirstStaticIpAddr";
    COMPARE_LOG(rig.log,
                (lanLines() << executed(function, modify, "")
                            << executed(function, activate, "Connection successfully activated\n")
                            << Expected{ QtInfoMsg, "[ " + own + " ] run successful" }));
}

void AddressConfigurationTest::networkWithoutUuid_logsRunFailed_data()
{
    QTest::addColumn<bool>("second");
    QTest::addColumn<bool>("isStatic");

    QTest::newRow("first, static") << false << true;
    QTest::newRow("first, automatic") << false << false;
    QTest::newRow("second, static") << true << true;
    QTest::newRow("second, automatic") << true << false;
}

void AddressConfigurationTest::networkWithoutUuid_logsRunFailed()
{
    QFETCH(bool, second);
    QFETCH(bool, isStatic);

    Rig rig("lan", "no-connection");
    NetworkSwitchWorker::PrivateData &record = Peek::record(*rig.worker);
    fillAddressing(&record);
    (second ? record.bSecondIsAutomatically : record.bFirstIsAutomatically) = isStatic;
    second ? rig.worker->setSecondStaticIpAddr() : rig.worker->setFirstStaticIpAddr();

    QCOMPARE(rig.commands, QByteArrayList{ lookupLan });
    QCOMPARE(Peek::staticAddress(*rig.worker), QString());
    const QString own = second ? "setSecondStaticIpAddr" : "setFirstStaticIpAddr";
    COMPARE_LOG(rig.log,
                (lookupLines(lookupLan, "")
                 << noUuid(isStatic ? "setStaticIpAddr" : "setLocalIpAuto", "lan")
                 << Expected{ QtInfoMsg, "[ " + own + " ] run failed" }));
}

void AddressConfigurationTest::refreshNotDue_onlyLogs()
{
    Rig rig;
    QVERIFY(QMetaObject::invokeMethod(rig.worker.get(), "slotTryRefreshNetwork"));
    QCOMPARE(rig.commands, QByteArrayList());
    QCOMPARE(Peek::needRefresh(*rig.worker), false);
    COMPARE_LOG(rig.log, { { QtInfoMsg, "[ slotTryRefreshNetwork ] 144  not fresh network" } });
}

void AddressConfigurationTest::refreshWithoutUuid_staysDue()
{
    Rig rig("lan", "no-connection");
    Peek::needRefresh(*rig.worker) = true;
    rig.worker->slotTryRefreshNetwork();
    QCOMPARE(rig.commands, QByteArrayList{ lookupLan });
    QCOMPARE(Peek::needRefresh(*rig.worker), true);
    COMPARE_LOG(rig.log, (lookupLines(lookupLan, "") << noUuid("slotTryRefreshNetwork", "lan")));
}

void AddressConfigurationTest::refresh_stopsAtTheFirstOutput_data()
{
    QTest::addColumn<int>("activations");
    QTest::addColumn<QByteArray>("behaviour");
    QTest::addColumn<QString>("output");

    QTest::newRow("at once") << 1 << QByteArray("print ok\\n") << "ok\n";
    QTest::newRow("at the first retry") << 2 << QByteArray("print ok\\n") << "ok\n";
    QTest::newRow("at the second retry") << 3 << QByteArray("print ok\\n") << "ok\n";
    QTest::newRow("at the 19th retry") << 20 << QByteArray("print ok\\n") << "ok\n";
    QTest::newRow("at the last retry") << 21 << QByteArray("print ok\\n") << "ok\n";
    QTest::newRow("lone line break at once") << 1 << QByteArray("print \\n") << "\n";
    QTest::newRow("lone line break at a retry") << 4 << QByteArray("print \\n") << "\n";
}

void AddressConfigurationTest::refresh_stopsAtTheFirstOutput()
{
    QFETCH(int, activations);
    QFETCH(QByteArray, behaviour);
    QFETCH(QString, output);

    Rig rig("lan", "silent");
    Peek::needRefresh(*rig.worker) = true;
    rig.mayStart = [&](const QByteArray &) {
        if (rig.count(activate) == activations)
            rig.nmcli.playLines("up " + behaviour + '\n');
        return true;
    };
    rig.worker->slotTryRefreshNetwork();

    QCOMPARE(rig.count(activate), activations);
    QCOMPARE(Peek::needRefresh(*rig.worker), false);
    const char function[] = "slotTryRefreshNetwork";
    QVector<Expected> expected = lanLines() << executed(function, setAutomatic, "");
    for (int i = 1; i <= activations; ++i) {
        expected << executed(function, activate, i == activations ? output : QString(),
                             i == 1 ? " execute the cmd:" : " 2 execute the cmd:");
    }
    COMPARE_LOG(rig.log, (expected));
}

void AddressConfigurationTest::refresh_countsOutputOfTheModification_data()
{
    QTest::addColumn<QByteArray>("printed");
    QTest::addColumn<QString>("output");

    QTest::newRow("text") << QByteArray("changed\\n") << "changed\n";
    QTest::newRow("lone line break") << QByteArray("\\n") << "\n";
}

void AddressConfigurationTest::refresh_countsOutputOfTheModification()
{
    QFETCH(QByteArray, printed);
    QFETCH(QString, output);

    Rig rig;
    rig.nmcli.playLines("lookup print 5e6c\\n\nmodify print " + printed + '\n');
    Peek::needRefresh(*rig.worker) = true;
    rig.worker->slotTryRefreshNetwork();
    QCOMPARE(rig.commands, (QByteArrayList{ lookupLan, setAutomatic, activate }));
    QCOMPARE(Peek::needRefresh(*rig.worker), false);
    COMPARE_LOG(rig.log,
                (lanLines() << executed("slotTryRefreshNetwork", setAutomatic, output)
                            << executed("slotTryRefreshNetwork", activate, output)));
}

void AddressConfigurationTest::refreshWithoutAnyOutput_activates21Times()
{
    std::atomic<int> pauses{ 0 };
    Rig rig("lan", "silent");
    Interpose::Hooks hooks;
    hooks.msleep = [&](unsigned long) { ++pauses; };
    hooks.sleep = [&](unsigned long) { ++pauses; };
    rig.worker.setHooks(hooks);
    Peek::needRefresh(*rig.worker) = true;
    rig.worker->slotTryRefreshNetwork();

    const QStringList up = { "connection", "up", "uuid", "5e6c" };
    QCOMPARE(rig.nmcli.calls().mid(2), QVector<QStringList>(21, up));
    QCOMPARE(Peek::needRefresh(*rig.worker), false);
    QCOMPARE(pauses.load(), 0);
    const char function[] = "slotTryRefreshNetwork";
    COMPARE_LOG(
            rig.log,
            (lanLines() << executed(function, setAutomatic, "") << executed(function, activate, "")
                        << QVector<Expected>(
                                   20, executed(function, activate, "", " 2 execute the cmd:"))));
}

void AddressConfigurationTest::refreshWhoseActivationCannotBeStarted_activates21Times()
{
    Rig rig;
    rig.mayStart = [](const QByteArray &command) { return command != activate; };
    Peek::needRefresh(*rig.worker) = true;
    rig.worker->slotTryRefreshNetwork();
    QCOMPARE(rig.count(activate), 21);
    QCOMPARE(rig.log.count(notStarted(activate).text), 21);
    QCOMPARE(Peek::needRefresh(*rig.worker), false);
}

void AddressConfigurationTest::refreshClearedFromOutside_endsBeforeTheNextRetry_data()
{
    QTest::addColumn<int>("ownLine");
    QTest::addColumn<int>("activations");
    QTest::addColumn<bool>("logged");

    QTest::newRow("after the modification") << 1 << 1 << true;
    QTest::newRow("after the activation") << 2 << 1 << true;
    QTest::newRow("after the first retry") << 3 << 2 << true;
    QTest::newRow("after the 19th retry") << 21 << 20 << true;
    QTest::newRow("after the last retry") << 22 << 21 << false;
}

void AddressConfigurationTest::refreshClearedFromOutside_endsBeforeTheNextRetry()
{
    QFETCH(int, ownLine);
    QFETCH(int, activations);
    QFETCH(bool, logged);

    Rig rig("lan", "silent");
    Peek::needRefresh(*rig.worker) = true;
    int seen = 0;
    rig.onLine = [&](const QString &text) {
        if (text.startsWith("[ slotTryRefreshNetwork ]") && ++seen == ownLine)
            Peek::needRefresh(*rig.worker) = false;
    };
    rig.worker->slotTryRefreshNetwork();

    QCOMPARE(rig.count(activate), activations);
    QCOMPARE(Peek::needRefresh(*rig.worker), false);
    const char function[] = "slotTryRefreshNetwork";
    QVector<Expected> expected = lanLines()
            << executed(function, setAutomatic, "") << executed(function, activate, "");
    for (int i = 1; i < activations; ++i)
        expected << executed(function, activate, "", " 2 execute the cmd:");
    if (logged)
        expected << Expected{ QtInfoMsg, "[ slotTryRefreshNetwork ] 170  not fresh network" };
    COMPARE_LOG(rig.log, (expected));
}

void AddressConfigurationTest::refreshClearedDuringASuccessfulActivation_endsQuietly()
{
    Rig rig;
    Peek::needRefresh(*rig.worker) = true;
    rig.mayStart = [&](const QByteArray &command) {
        if (command == activate)
            Peek::needRefresh(*rig.worker) = false;
        return true;
    };
    rig.worker->slotTryRefreshNetwork();
    QCOMPARE(rig.count(activate), 1);
    COMPARE_LOG(rig.log,
                (lanLines() << executed("slotTryRefreshNetwork", setAutomatic, "")
                            << executed("slotTryRefreshNetwork", activate,
                                        "Connection successfully activated\n")));
}

void AddressConfigurationTest::outputs_gatherInOneBuffer_data()
{
    QTest::addColumn<Operation>("operation");
    QTest::addColumn<QByteArray>("function");

    QTest::newRow("automatic") << Operation([](auto &worker) { worker.setLocalIpAuto(); })
                               << QByteArray("setLocalIpAuto");
    QTest::newRow("static") << Operation([](auto &worker) {
        worker.setStaticIpAddr("10.0.0.9", "255.255.255.0", "", "", "");
    }) << QByteArray("setStaticIpAddr");
    QTest::newRow("refresh") << Operation([](auto &worker) {
        Peek::needRefresh(worker) = true;
        worker.slotTryRefreshNetwork();
    }) << QByteArray("slotTryRefreshNetwork");
}

void AddressConfigurationTest::outputs_gatherInOneBuffer()
{
    QFETCH(Operation, operation);
    QFETCH(QByteArray, function);

    Rig rig("lan", "talkative");
    // A second run shows that nothing of the first one is left.
    for (int run = 0; run < 2; ++run) {
        rig.log.clear();
        operation(*rig.worker);
        const QStringList own = rig.log.texts().filter("[ " + function + " ]");
        QCOMPARE(own.size(), 2);
        QVERIFY2(own[0].endsWith(" result changed\n"), qPrintable(own[0]));
        QVERIFY2(own[1].endsWith(" result changed\nactivated\n"), qPrintable(own[1]));
    }
}

void AddressConfigurationTest::gatheredOutputs_areBoundedTogether()
{
    Rig rig("lan", "flood");
    QVERIFY(rig.worker->setLocalIpAuto());
    COMPARE_LOG(rig.log,
                (lanLines() << executed("setLocalIpAuto", setAutomatic, linesOfHundred(3000))
                            << tooLong()
                            << executed("setLocalIpAuto", activate, linesOfHundred(4095))));
}

void AddressConfigurationTest::logLines_followTheirCommands()
{
    Rig rig("lan", "silent");
    fillAddressing(&Peek::record(*rig.worker));
    Peek::record(*rig.worker).bFirstIsAutomatically = true;
    Peek::record(*rig.worker).strFirstLocalMask = "16";
    rig.worker->setFirstStaticIpAddr();
    const QString modify = "nmcli connection modify uuid 5e6c ipv4.addresses 10.1.0.5/0 "
                           "ipv4.gateway 10.1.0.1  ipv4.dns 10.1.0.2,10.1.0.3 "
                           "connection.autoconnect yes ipv4.method manual";
    QCOMPARE(rig.events,
             (QStringList{ "[ setStaticIpAddr ] LocalMask error: \"16\"", // before any command
                           QString("$ ") + lookupLan, lanLines()[0].text, lanLines()[1].text,
                           "$ " + modify, executed("setStaticIpAddr", modify, "").text,
                           QString("$ ") + activate, executed("setStaticIpAddr", activate, "").text,
                           "[ setFirstStaticIpAddr ] run successful" }));

    rig.events.clear();
    rig.getNetWorkUuid("");
    QCOMPARE(rig.events,
             (QStringList{ QString("$ ") + lookupActive, "[ getNetWorkUuid ] 5e6c\n" }));
}

void AddressConfigurationTest::operations_leaveOtherStateAlone_data()
{
    QTest::addColumn<Operation>("operation");
    QTest::addColumn<bool>("staysDue");

    QTest::newRow("lookup") << Operation([](auto &worker) {
        QString name = "lan";
        worker.getNetWorkUuid(name);
    }) << true;
    QTest::newRow("automatic") << Operation([](auto &worker) { worker.setLocalIpAuto(); }) << true;
    QTest::newRow("static") << Operation([](auto &worker) {
        worker.setStaticIpAddr("10.0.0.9", "255.255.255.0", "10.0.0.1", "8.8.8.8", "");
    }) << true;
    QTest::newRow("first") << Operation([](auto &worker) { worker.setFirstStaticIpAddr(); })
                           << true;
    QTest::newRow("second") << Operation([](auto &worker) { worker.setSecondStaticIpAddr(); })
                            << true;
    QTest::newRow("refresh") << Operation([](auto &worker) { worker.slotTryRefreshNetwork(); })
                             << false;
}

void AddressConfigurationTest::operations_leaveOtherStateAlone()
{
    QFETCH(Operation, operation);
    QFETCH(bool, staysDue);

    // Whatever the file says, the record holds what counts.
    SwitchIni::setContent("[General]\nconnectionName=wan\nFirstLocalIp=10.9.9.9\n");
    Rig rig;
    NetworkSwitchWorker &worker = *rig.worker;
    fillAddressing(&Peek::record(worker));
    Peek::record(worker).bFirstIsAutomatically = true;
    Peek::record(worker).strSecondServerIp = "10.2.0.9";
    Peek::switchState(worker) = 1;
    Peek::currentServerIp(worker) = "10.2.0.9";
    Peek::needRefresh(worker) = true;
    const QVariantList before = otherState(worker);
    operation(worker);
    QCOMPARE(otherState(worker), before);
    QCOMPARE(Peek::needRefresh(worker), staysDue);
    QCOMPARE(rig.settingsRead, 0);
    QVERIFY(!rig.commands.isEmpty());
}

HOPLANE_TEST_MAIN(AddressConfigurationTest)
#include "addressconfiguration.moc"
