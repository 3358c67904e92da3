// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"

#include <QtTest/QtTest>

/** The path and the keys of switch.ini, as reader and writers use them. */
class SwitchSettingsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readerLooksInDocumentsUnderTheApplicationsName();
};

void SwitchSettingsTest::readerLooksInDocumentsUnderTheApplicationsName()
{
    SwitchIni::remove();
    WorkerFixture worker;
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log,
                { { QtInfoMsg,
                    "[ loadConfig ]  switch congif file: "
                    "\"/sandbox/home/Documents/unittest/switch.ini\" "
                    "not exist,can not do net switc." } });
    FakeNmcli nmcli;
    QString lan = "lan";
    QCOMPARE(worker->getNetWorkUuid(lan), QString("5e6c"));
    QCOMPARE(nmcli.calls(), (QVector<QStringList>{ { "-g", "connection.uuid", "c", "s", "lan" } }));
    QCOMPARE(Peek::receivers(*Peek::watcher(*worker), SIGNAL(addressChanged())), 1);
}

HOPLANE_TEST_MAIN(SwitchSettingsTest)
#include "switchsettings.moc"
