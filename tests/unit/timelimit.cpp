// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "loopbackserver.h"
#include "testmain.h"

#include <QtTest/QtTest>

/** The search's limit of 120 seconds once in real time, with nothing but the shell replaced. */
class TimeLimitTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void neitherServerAnswers_failsAfterTwoMinutesAndAtMostOnePass();
};

void TimeLimitTest::neitherServerAnswers_failsAfterTwoMinutesAndAtMostOnePass()
{
    LoopbackServer first("127.0.0.2");
    LoopbackServer second("127.0.0.3");
    SwitchIni::setContent(
            QStringLiteral("[General]\nSwitchEnable=true\nconnectionName=lan\n"
                           "FirstServerIp=%1\nFirstServerPort=%2\n"
                           "SecondServerIp=%3\nSecondServerPort=%4\n")
                    .arg(first.address(), first.port(), second.address(), second.port())
                    .toUtf8());
    Interpose::Hooks hooks;
    hooks.popen = [](const char *, const char *mode) {
        return Interpose::Real::popen("echo 5e6c", mode);
    };
    WorkerFixture worker(hooks);
    QSignalSpy failed(worker.get(), &NetworkSwitchWorker::mySwitchFailed);
    QSignalSpy succeeded(worker.get(), &NetworkSwitchWorker::mySwitchSuccess);

    LogCapture log;
    const QDateTime begin = Interpose::Real::currentDateTime();
    const auto elapsed = [&] { return begin.msecsTo(Interpose::Real::currentDateTime()); };
    QVector<qint64> passBegins;
    int attempts = 0;
    log.onLine([&](const LogLine &line) {
        if (line.text == QLatin1String("[ setFirstStaticIpAddr ] run successful"))
            passBegins.append(elapsed());
        attempts += line.level == QtDebugMsg ? 1 : 0;
    });
    worker->findAvailableIp();
    const qint64 whole = elapsed();

    QCOMPARE(failed.size(), 1);
    QCOMPARE(succeeded.size(), 0);
    QVERIFY2(whole >= 120000, qPrintable(QString::number(whole)));
    // The last pass began in time, but for what its address command took, and was the only one to
    // end late.
    QVERIFY2(passBegins.last() < 120000 + 2000, qPrintable(QString::number(passBegins.last())));
    QCOMPARE(attempts, 20 * passBegins.size());
    // Twenty attempts of half a second make a pass, so that no more than twelve fit in.
    QVERIFY2(passBegins.size() <= 12, qPrintable(QString::number(passBegins.size())));
    QVERIFY2(whole - passBegins.last() >= 10000 - 1, "an attempt was cut short");
}

HOPLANE_TEST_MAIN(TimeLimitTest)
#include "timelimit.moc"
