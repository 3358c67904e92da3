// SPDX-License-Identifier: MIT
// Commands that hang as long as nmcli does when NetworkManager does not answer.

#include "fixtures.h"
#include "leftovers.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "peek.h"
#include "probelines.h"
#include "testmain.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtTest/QtTest>

namespace {

constexpr int hangMs = 25000;
constexpr int attemptMs = 500;
constexpr int lookMs = 1; // for an attempt's outcome
constexpr int machineMs = 10000; // what a busy one may take for the commands themselves

enum Command { LookUp, Modify, Activate };

QVector<Expected> info(const QString &text)
{
    return { { QtInfoMsg, text } };
}

/** The lines of automatic addressing; "late" is what the hanging command says in the end. */
QVector<Expected> addressing(const QString &network, int hanging)
{
    const QString uuid = hanging == LookUp ? "5e6c late" : "5e6c";
    const QString modified = hanging == Modify ? "soon\nlate\n" : "";
    const QString activated = modified + (hanging == Activate ? "soon\nlate\n" : "");
    const QString line = "[ setLocalIpAuto ]  execute the cmd: \"%1\" result %2";
    return ProbeLines::lookup(uuid)
            + info(line.arg("nmcli connection modify uuid " + uuid
                                    + " ipv4.address '' ipv4.gateway '' ipv4.dns ''  ipv4.method "
                                      "auto ",
                            modified))
            + info(line.arg("nmcli connection up uuid " + uuid + ' ', activated))
            + info("[ set" + network + "StaticIpAddr ] run successful");
}

QByteArray configurationOf(const LoopbackServer &first, const LoopbackServer &second)
{
    return QString("[General]\nSwitchEnable=true\nconnectionName=lan\n"
                   "FirstServerIp=%1\nFirstServerPort=%2\n"
                   "SecondServerIp=%3\nSecondServerPort=%4\n")
            .arg(first.address(), first.port(), second.address(), second.port())
            .toUtf8();
}

QVector<Expected> loadLines(const LoopbackServer &first, const LoopbackServer &second)
{
    const QString line = "[ loadConfig ]  switch info:%1 \"%2\" ,serverPort: \"%3\"";
    return info(line.arg("first serverIp:", first.address(), first.port()))
            + info(line.arg("second  serverIp:", second.address(), second.port()));
}

class HangingCommandsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void search_data();
    void search();
};

void HangingCommandsTest::search_data()
{
    QTest::addColumn<int>("hanging");
    QTest::addColumn<QByteArray>("test");
    QTest::newRow("look-up") << int(LookUp) << QByteArray("\"$1\" = -g");
    QTest::newRow("modify") << int(Modify) << QByteArray("\"$2\" = modify");
    QTest::newRow("activate") << int(Activate) << QByteArray("\"$2\" = up");
}

/** The first of a search: the search waits for its end and takes its last word, and goes on. */
void HangingCommandsTest::search()
{
    QFETCH(int, hanging);
    QFETCH(QByteArray, test);
    const PrivatePath path;
    const QString nmcli = path.folder() + "/nmcli";
    const QByteArray word = hanging == LookUp ? "5e6c" : "soon";
    writeSettingsFile(
            nmcli,
            "#!/bin/sh\nif [ " + test + " ] && [ ! -e \"$0.hung\" ]; then\n>\"$0.hung\"\necho "
                    + word
                    + "\n/bin/sleep 25\necho late\nexit\nfi\n[ \"$1\" != -g ] || echo 5e6c\n");
    QVERIFY(QFile::setPermissions(nmcli, QFile::ReadOwner | QFile::ExeOwner));
    const LoopbackServer first("127.0.0.2");
    LoopbackServer second("127.0.0.3");
    second.listen();
    SwitchIni::setContent(configurationOf(first, second));
    WorkerFixture worker;
    worker.waitUntilItListens();
    QSignalSpy succeeded(worker.get(), &NetworkSwitchWorker::mySwitchSuccess);
    QSignalSpy failed(worker.get(), &NetworkSwitchWorker::mySwitchFailed);
    QSignalSpy finished(worker.get(), &NetworkSwitchWorker::finished);
    LogCapture log;
    const QStringList descriptors = Leftovers::descriptors();
    QElapsedTimer timer;
    timer.start();
    worker->start();
    const qint64 whole = timer.elapsed();

    QCOMPARE(Leftovers::descriptors(), descriptors);
    QVERIFY(Leftovers::isChildless());
    COMPARE_LOG(log,
                (loadLines(first, second) + addressing("First", hanging)
                 + ProbeLines::failures(first, 10) + addressing("Second", -1)
                 + ProbeLines::success(second, "127.0.0.1")
                 + QVector<Expected>{ { QtWarningMsg,
                                        "[ slotFinish ] \"slotFinish 71: addressChanged :0\"" } }));
    QCOMPARE(succeeded.size(), 1);
    QCOMPARE(succeeded.first(), (QVariantList{ second.address(), second.port() }));
    QCOMPARE(failed.size(), 0);
    QCOMPARE(finished.size(), 1);
    // The hang, ten failed attempts at the one server, one at the other.
    const int promised = hangMs + 11 * attemptMs;
    QVERIFY2(whole >= promised, qPrintable(QString::number(whole)));
    QVERIFY2(whole <= promised + 11 * lookMs + machineMs, qPrintable(QString::number(whole)));
}

} // namespace

HOPLANE_TEST_MAIN(HangingCommandsTest)
#include "hangingcommands.moc"
