// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "hoplane.h"
#include "logcapture.h"
#include "testmain.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QMetaMethod>
#include <QtTest/QtTest>

#include <memory>

namespace {

const QString devicePath = QStringLiteral("/userdata/netSettings.ini");

/** A complete device file's lines below the section. */
QStringList deviceLines()
{
    return {
        "conName=Wired 1",           "bDhcpEnabled=false",         "MasterNet\\bDhcpEnabled=true",
        "MasterNet\\ip=10.1.0.9",    "MasterNet\\mask=255.0.0.0",  "MasterNet\\gateway=10.1.0.1",
        "MasterNet\\dns1=10.1.0.2",  "MasterNet\\dns2=10.1.0.3",   "SlaveNet\\bDhcpEnabled=false",
        "SlaveNet\\ip=172.16.0.9",   "SlaveNet\\mask=255.255.0.0", "SlaveNet\\gateway=172.16.0.1",
        "SlaveNet\\dns1=172.16.0.2", "SlaveNet\\dns2=172.16.0.3",
    };
}

/** What the import makes of deviceLines(), in the order of its calls. */
QStringList importedLines()
{
    return {
        "connectionName=Wired 1",        "FirstIsAutomatically=false",
        "FirstLocalIp=10.1.0.9",         "FirstLocalMask=255.0.0.0",
        "FirstLocalGateWay=10.1.0.1",    "FirstPreferredDNS=10.1.0.2",
        "FirstSpareDNS=10.1.0.3",        "SecondIsAutomatically=true",
        "SecondLocalIp=172.16.0.9",      "SecondLocalMask=255.255.0.0",
        "SecondLocalGateWay=172.16.0.1", "SecondPreferredDNS=172.16.0.2",
        "SecondSpareDNS=172.16.0.3",
    };
}

/** What the import stores when it finds nothing in an existing device file. */
QStringList nothingImportedLines()
{
    QStringList lines;
    for (const QString &line : importedLines()) {
        const QString key = line.section('=', 0, 0);
        lines.append(key + (key.endsWith("IsAutomatically") ? "=false" : "="));
    }
    return lines;
}

QStringList serverLines()
{
    return { "SwitchEnable=true", "FirstServerIp=10.7.0.1", "FirstServerPort=9001",
             "SecondServerIp=10.8.0.1", "SecondServerPort=9002" };
}

QByteArray iniOf(const QStringList &lines, const QByteArray &section = "[General]\n")
{
    return section + lines.join('\n').toUtf8() + '\n';
}

void setDevice(const QStringList &lines, const QByteArray &section = "[NetworkConnections]\n")
{
    writeSettingsFile(devicePath, iniOf(lines, section));
}

QByteArray deviceContent()
{
    QFile file(devicePath);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/** Takes away the line that gives @p key its value. */
QStringList without(QStringList lines, const QString &key)
{
    return lines.filter(QRegularExpression("^(?!" + QRegularExpression::escape(key) + "=)"));
}

QStringList sorted(QStringList lines)
{
    lines.sort();
    return lines;
}

/** The lines of a written switch.ini that has no section but General, which is left out. */
QStringList linesOf(const QByteArray &content)
{
    QStringList lines = QString::fromUtf8(content).split('\n', Qt::SkipEmptyParts);
    lines.removeAll("[General]");
    return sorted(lines);
}

QStringList storedLines()
{
    return linesOf(SwitchIni::content());
}

QString stored(const QString &key)
{
    return storedLines().filter(QRegularExpression('^' + key + '=')).join('\n').section('=', 1);
}

/** Every imported key with the value "old", beside the servers. */
void setOldSwitchIni()
{
    QStringList lines = serverLines();
    for (const QString &line : importedLines())
        lines.append(line.section('=', 0, 0) + "=old");
    SwitchIni::setContent(iniOf(lines));
}

/** Runs the import and returns what it did with settings. */
QStringList tracedImport()
{
    Hoplane *facade = lastingFacade();
    SettingsTrace trace;
    Interpose::Hooks hooks;
    trace.addTo(&hooks);
    Interpose::install(hooks);
    facade->loadSwitchLocalConfig();
    Interpose::install(Interpose::Hooks());
    return trace.lines();
}

QStringList expectedTrace(bool withFlags)
{
    const QString flag = "contains bDhcpEnabled";
    const QStringList flagReads =
            withFlags ? QStringList{ flag, "value bDhcpEnabled" } : QStringList{ flag };
    const QStringList textReads = { "value ip", "value mask", "value gateway", "value dns1",
                                    "value dns2" };
    QStringList sets;
    for (const QString &line : importedLines()) {
        const QString key = line.section('=', 0, 0);
        const bool isFlag = key.endsWith("IsAutomatically");
        // Without any flag both networks use DHCP.
        const QString value = isFlag && !withFlags ? "false" : line.section('=', 1);
        sets.append("set " + key + (isFlag ? " bool " : " QString ") + value);
    }
    return QStringList{ "exists " + devicePath, "value conName" } + sets.mid(0, 1) + flagReads
            + flagReads + textReads + sets.mid(1, 6) + flagReads + textReads + sets.mid(7, 6);
}

const QString warning = QStringLiteral("[ loadSwitchLocalConfig ] NetSetting.ini not exist.");

} // namespace

/** The import of the device's network settings into switch.ini. */
class SettingsImportTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void noDeviceFile_warnsAndKeepsSwitchIni();
    void noDeviceFile_leavesSwitchIniAbsent();
    void noDeviceFile_readsAndStoresNothing();

    void completeDeviceFile_fillsBothNetworks();
    void completeDeviceFile_logsNothing();
    void missingSwitchIni_isMadeWithTheImportedKeysOnly();
    void serversAndEnableSwitch_stayTheSame();
    void steps_withAllFlags();
    void steps_withoutAnyFlag();
    void eachWriter_hasWrittenTheFileBeforeTheNextRead();

    void flags_data();
    void flags();
    void flagText_data();
    void flagText();

    void missingConnectionName_isStoredAsEmpty();
    void missingText_isStoredAsEmpty_data();
    void missingText_isStoredAsEmpty();
    void missingNetwork_clearsItsHalf_data();
    void missingNetwork_clearsItsHalf();
    void keysInOtherPlaces_areNotFound_data();
    void keysInOtherPlaces_areNotFound();
    void deviceFileThatCannotBeUsed_clearsEverything_data();
    void deviceFileThatCannotBeUsed_clearsEverything();
    void text_isTakenOverUnchanged_data();
    void text_isTakenOverUnchanged();
    void nonAsciiConnectionName_isReadAsUtf8();

    void deviceFile_isNeverWritten_data();
    void deviceFile_isNeverWritten();
    void switchIniThatCannotBeWritten_isNoFailure();
    void laterImport_takesUpAChangedDeviceFile();
    void construction_importsOnceBeforeAnythingElse();
    void import_isNoMetaMethod();
};

void SettingsImportTest::initTestCase()
{
    // Made without a device file: each test runs the import itself.
    QVERIFY(!QFileInfo::exists(devicePath));
    lastingFacade();
}

void SettingsImportTest::init()
{
    QDir("/userdata").removeRecursively();
    QDir().mkpath("/userdata");
    SwitchIni::remove();
}

void SettingsImportTest::cleanup()
{
    Interpose::install(Interpose::Hooks());
}

void SettingsImportTest::noDeviceFile_warnsAndKeepsSwitchIni()
{
    setOldSwitchIni();
    const QByteArray before = SwitchIni::content();
    const QDateTime written = QFileInfo(SwitchIni::path()).lastModified();
    LogCapture log;
    lastingFacade()->loadSwitchLocalConfig();
    COMPARE_LOG(log, { { QtWarningMsg, warning } });
    QCOMPARE(SwitchIni::content(), before);
    QCOMPARE(QFileInfo(SwitchIni::path()).lastModified(), written);
}

void SettingsImportTest::noDeviceFile_leavesSwitchIniAbsent()
{
    LogCapture log;
    lastingFacade()->loadSwitchLocalConfig();
    COMPARE_LOG(log, { { QtWarningMsg, warning } });
    QVERIFY(!QFileInfo::exists(QFileInfo(SwitchIni::path()).path()));
    QVERIFY(!QFileInfo::exists(devicePath));
}

void SettingsImportTest::noDeviceFile_readsAndStoresNothing()
{
    QCOMPARE(tracedImport(), QStringList("exists /userdata/netSettings.ini"));
}

void SettingsImportTest::completeDeviceFile_fillsBothNetworks()
{
    setOldSwitchIni();
    setDevice(deviceLines());
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(storedLines(), sorted(serverLines() + importedLines()));
}

void SettingsImportTest::completeDeviceFile_logsNothing()
{
    setDevice(deviceLines());
    LogCapture log;
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(log.lines().size(), 0);
}

void SettingsImportTest::missingSwitchIni_isMadeWithTheImportedKeysOnly()
{
    setDevice(deviceLines());
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(storedLines(), sorted(importedLines()));
}

void SettingsImportTest::serversAndEnableSwitch_stayTheSame()
{
    const QStringList foreign = { "SwitchEnable=maybe", "FirstServerIp=", "SecondServerPort=x" };
    SwitchIni::setContent(iniOf(foreign));
    // The device's file has no say in them, whatever it holds.
    setDevice(deviceLines()
              + QStringList{ "SwitchEnable=1", "FirstServerIp=1.1.1.1",
                             "MasterNet\\FirstServerIp=2.2.2.2", "MasterNet\\port=1" });
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(storedLines(), sorted(foreign + importedLines()));
}

void SettingsImportTest::steps_withAllFlags()
{
    setDevice(deviceLines());
    QCOMPARE(tracedImport(), expectedTrace(true));
}

void SettingsImportTest::steps_withoutAnyFlag()
{
    QStringList lines = deviceLines();
    for (const char *key : { "bDhcpEnabled", "MasterNet\\bDhcpEnabled", "SlaveNet\\bDhcpEnabled" })
        lines = without(lines, key);
    setDevice(lines);
    QCOMPARE(tracedImport(), expectedTrace(false));
}

void SettingsImportTest::eachWriter_hasWrittenTheFileBeforeTheNextRead()
{
    setDevice(deviceLines());
    QVector<QByteArray> atReading;
    Interpose::Hooks hooks;
    hooks.settingsContains = [&atReading](const QString &) {
        atReading.append(SwitchIni::content());
    };
    Interpose::install(hooks);
    lastingFacade()->loadSwitchLocalConfig();
    Interpose::install(Interpose::Hooks());

    QCOMPARE(atReading.size(), 3);
    QCOMPARE(linesOf(atReading[0]), sorted(importedLines().mid(0, 1)));
    QCOMPARE(linesOf(atReading[1]), sorted(importedLines().mid(0, 1)));
    QCOMPARE(linesOf(atReading[2]), sorted(importedLines().mid(0, 7)));
}

void SettingsImportTest::flags_data()
{
    QTest::addColumn<QString>("group");
    QTest::addColumn<QString>("master");
    QTest::addColumn<QString>("slave");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second");

    // The device's flags, an empty one being absent, and what is stored of them.
    const QVector<QStringList> rows = {
        { "master uses DHCP, slave does not", "", "true", "false", "false", "true" },
        { "master does not, slave uses DHCP", "", "false", "true", "true", "false" },
        { "no key at any level", "", "", "", "false", "false" },
        { "group false, master without, slave true", "false", "", "true", "true", "false" },
        { "group absent, master false, slave without", "", "false", "", "true", "false" },
        { "group absent, master true, slave without", "", "true", "", "false", "false" },
        { "group absent, master without, slave false", "", "", "false", "false", "true" },
        { "group false for both", "false", "", "", "true", "true" },
        { "group true for both", "true", "", "", "false", "false" },
        { "group false, overridden twice", "false", "true", "true", "false", "false" },
        { "group true, overridden twice", "true", "false", "false", "true", "true" },
        { "group false, master true, slave without", "false", "true", "", "false", "true" },
        { "group true, master false, slave without", "true", "false", "", "true", "false" },
        { "group true, master without, slave false", "true", "", "false", "false", "true" },
    };
    for (const QStringList &row : rows)
        QTest::newRow(qPrintable(row[0])) << row[1] << row[2] << row[3] << row[4] << row[5];
}

void SettingsImportTest::flags()
{
    QFETCH(QString, group);
    QFETCH(QString, master);
    QFETCH(QString, slave);
    QFETCH(QString, first);
    QFETCH(QString, second);
    QStringList lines = { "conName=lan" };
    if (!group.isEmpty())
        lines.append("bDhcpEnabled=" + group);
    if (!master.isEmpty())
        lines.append("MasterNet\\bDhcpEnabled=" + master);
    if (!slave.isEmpty())
        lines.append("SlaveNet\\bDhcpEnabled=" + slave);
    setDevice(lines);
    setOldSwitchIni();
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(stored("FirstIsAutomatically"), first);
    QCOMPARE(stored("SecondIsAutomatically"), second);
}

void SettingsImportTest::flagText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("flag");
    for (const char *text : { "1", "true", "TRUE", "yes", "on", "no", "2" })
        QTest::newRow(text) << QString(text) << "false";
    for (const char *text : { "0", "false", "FALSE", "False" })
        QTest::newRow(text) << QString(text) << "true";
    QTest::newRow("empty value") << ""
                                 << "true";
}

void SettingsImportTest::flagText()
{
    QFETCH(QString, text);
    QFETCH(QString, flag);
    const QString opposite = flag == "true" ? "true" : "false";
    setDevice({ "bDhcpEnabled=" + text, "SlaveNet\\bDhcpEnabled=" + opposite });
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(stored("FirstIsAutomatically"), flag);

    setDevice({ "bDhcpEnabled=" + opposite, "MasterNet\\bDhcpEnabled=" + text,
                "SlaveNet\\bDhcpEnabled=" + text });
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(stored("FirstIsAutomatically"), flag);
    QCOMPARE(stored("SecondIsAutomatically"), flag);
}

void SettingsImportTest::missingConnectionName_isStoredAsEmpty()
{
    setOldSwitchIni();
    setDevice(without(deviceLines(), "conName"));
    const QStringList trace = tracedImport();
    QVERIFY(trace.contains("set connectionName QString "));
    QCOMPARE(stored("connectionName"), QString(""));
    QCOMPARE(storedLines(),
             sorted(serverLines() + QStringList("connectionName=") + importedLines().mid(1)));
}

void SettingsImportTest::missingText_isStoredAsEmpty_data()
{
    QTest::addColumn<QString>("deviceKey");
    QTest::addColumn<QString>("key");
    QTest::newRow("conName") << "conName"
                             << "connectionName";
    QTest::newRow("ip of MasterNet") << "MasterNet\\ip"
                                     << "FirstLocalIp";
    QTest::newRow("mask of MasterNet") << "MasterNet\\mask"
                                       << "FirstLocalMask";
    QTest::newRow("gateway of MasterNet") << "MasterNet\\gateway"
                                          << "FirstLocalGateWay";
    QTest::newRow("dns1 of MasterNet") << "MasterNet\\dns1"
                                       << "FirstPreferredDNS";
    QTest::newRow("dns2 of MasterNet") << "MasterNet\\dns2"
                                       << "FirstSpareDNS";
    QTest::newRow("ip of SlaveNet") << "SlaveNet\\ip"
                                    << "SecondLocalIp";
    QTest::newRow("mask of SlaveNet") << "SlaveNet\\mask"
                                      << "SecondLocalMask";
    QTest::newRow("gateway of SlaveNet") << "SlaveNet\\gateway"
                                         << "SecondLocalGateWay";
    QTest::newRow("dns1 of SlaveNet") << "SlaveNet\\dns1"
                                      << "SecondPreferredDNS";
    QTest::newRow("dns2 of SlaveNet") << "SlaveNet\\dns2"
                                      << "SecondSpareDNS";
}

void SettingsImportTest::missingText_isStoredAsEmpty()
{
    QFETCH(QString, deviceKey);
    QFETCH(QString, key);
    setOldSwitchIni();
    setDevice(without(deviceLines(), deviceKey));
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(storedLines(),
             sorted(serverLines() + without(importedLines(), key) + QStringList(key + '=')));
}

void SettingsImportTest::missingNetwork_clearsItsHalf_data()
{
    QTest::addColumn<QString>("group");
    QTest::addColumn<QString>("half");
    QTest::newRow("no main network") << "MasterNet\\"
                                     << "First";
    QTest::newRow("no spare network") << "SlaveNet\\"
                                      << "Second";
}

void SettingsImportTest::missingNetwork_clearsItsHalf()
{
    QFETCH(QString, group);
    QFETCH(QString, half);
    QStringList lines = { "bDhcpEnabled=true" };
    for (const QString &line : without(deviceLines(), "bDhcpEnabled")) {
        if (!line.startsWith(group))
            lines.append(line);
    }
    QStringList expected = serverLines();
    for (int i = 0; i < importedLines().size(); ++i) {
        const bool isCleared = importedLines().at(i).startsWith(half);
        expected.append(isCleared ? nothingImportedLines().at(i) : importedLines().at(i));
    }
    setOldSwitchIni();
    setDevice(lines);
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(storedLines(), sorted(expected));
}

void SettingsImportTest::keysInOtherPlaces_areNotFound_data()
{
    QTest::addColumn<QByteArray>("content");
    const QStringList networks = deviceLines().mid(2);
    QTest::newRow("in the General section") << iniOf(deviceLines());
    QTest::newRow("in a section of another name") << iniOf(deviceLines(), "[NetworkConnection]\n");
    QTest::newRow("section in small letters") << iniOf(deviceLines(), "[networkconnections]\n");
    QTest::newRow("networks in sections of their own")
            << QByteArray("[MasterNet]\nbDhcpEnabled=false\nip=10.1.0.9\nmask=255.0.0.0\n"
                          "[SlaveNet]\nbDhcpEnabled=false\nip=10.2.0.9\n");
    QTest::newRow("networks beside the group") << iniOf(networks);
    QTest::newRow("spare network within the main one")
            << QByteArray("[NetworkConnections]\nMasterNet\\SlaveNet\\ip=10.2.0.9\n"
                          "MasterNet\\SlaveNet\\bDhcpEnabled=false\n");
    QTest::newRow("keys of the networks without a subgroup")
            << QByteArray("[NetworkConnections]\nip=10.1.0.9\nmask=255.0.0.0\ngateway=10.1.0.1\n"
                          "dns1=10.1.0.2\ndns2=10.1.0.3\n");
    QTest::newRow("name within a network")
            << QByteArray("[NetworkConnections]\nMasterNet\\conName=Wired 1\n");
    QTest::newRow("other capitals")
            << QByteArray("[NetworkConnections]\nConName=Wired 1\nbDHCPEnabled=false\n"
                          "MasterNet\\IP=10.1.0.9\nMasterNet\\bDhcpenabled=false\n"
                          "masternet\\mask=255.0.0.0\nSlaveNet\\DNS1=10.1.0.2\n"
                          "SlaveNet\\Gateway=10.1.0.1\n");
}

void SettingsImportTest::keysInOtherPlaces_areNotFound()
{
    QFETCH(QByteArray, content);
    writeSettingsFile(devicePath, content);
    setOldSwitchIni();
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(storedLines(), sorted(serverLines() + nothingImportedLines()));
}

void SettingsImportTest::deviceFileThatCannotBeUsed_clearsEverything_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("permissions");
    const int ordinary = QFile::ReadOwner | QFile::WriteOwner;
    QTest::newRow("no permission to read") << iniOf(deviceLines(), "[NetworkConnections]\n") << 0;
    QTest::newRow("empty file") << QByteArray("") << ordinary;
    QTest::newRow("no settings at all") << QByteArray("\x7f"
                                                      "ELF\0\1\2\n\xff\xfe[\n=\n]==\n",
                                                      18)
                                        << ordinary;
    QTest::newRow("a folder of that name") << QByteArray() << ordinary;
}

void SettingsImportTest::deviceFileThatCannotBeUsed_clearsEverything()
{
    QFETCH(QByteArray, content);
    QFETCH(int, permissions);
    setOldSwitchIni();
    if (content.isNull()) {
        QVERIFY(QDir().mkpath(devicePath));
    } else {
        writeSettingsFile(devicePath, content);
        QVERIFY(QFile::setPermissions(devicePath, QFile::Permissions(permissions)));
    }
    LogCapture log;
    {
        WithoutFileOverride ordinaryUser;
        lastingFacade()->loadSwitchLocalConfig();
    }
    QCOMPARE(log.lines().size(), 0);
    QCOMPARE(storedLines(), sorted(serverLines() + nothingImportedLines()));
}

void SettingsImportTest::text_isTakenOverUnchanged_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("malformed address") << "10.1..300";
    QTest::newRow("number") << "0042";
    QTest::newRow("word of a flag") << "FALSE";
    QTest::newRow("blanks within") << "a  b";
    QTest::newRow("quoted blanks around") << "\" a \"";
    QTest::newRow("quoted comma") << "\"a, b\"";
}

void SettingsImportTest::text_isTakenOverUnchanged()
{
    QFETCH(QString, text);
    QStringList device;
    for (const QString &line : deviceLines()) {
        const QString key = line.section('=', 0, 0);
        device.append(key.endsWith("bDhcpEnabled") ? line : key + '=' + text);
    }
    QStringList expected;
    for (const QString &line : importedLines()) {
        const QString key = line.section('=', 0, 0);
        expected.append(key.endsWith("IsAutomatically") ? line : key + '=' + text);
    }
    setDevice(device);
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(storedLines(), sorted(expected));
}

void SettingsImportTest::nonAsciiConnectionName_isReadAsUtf8()
{
    setDevice({ QString::fromUtf8("conName=\xe6\x9c\x89\xe7\xba\xbf \xc3\xa9") });
    const QStringList trace = tracedImport();
    const QString name = QString(QChar(0x6709)) + QChar(0x7ebf) + ' ' + QChar(0xe9);
    QVERIFY(trace.contains("set connectionName QString " + name));
    QVERIFY(SwitchIni::content().contains("=\xe6\x9c\x89\xe7\xba\xbf \xc3\xa9\n"));
}

void SettingsImportTest::deviceFile_isNeverWritten_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("isReadOnly");
    const QByteArray complete = iniOf(deviceLines(), "; kept\n[NetworkConnections]\n");
    QTest::newRow("complete") << complete << false;
    QTest::newRow("complete, in a read-only folder") << complete << true;
    QTest::newRow("keys missing") << QByteArray("[NetworkConnections]\n") << false;
    QTest::newRow("empty") << QByteArray("") << false;
}

void SettingsImportTest::deviceFile_isNeverWritten()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, isReadOnly);
    writeSettingsFile(devicePath, content);
    const QDateTime written = QFileInfo(devicePath).lastModified();
    if (isReadOnly) {
        QVERIFY(QFile::setPermissions(devicePath, QFile::ReadOwner));
        QVERIFY(QFile::setPermissions("/userdata", QFile::ReadOwner | QFile::ExeOwner));
    }
    {
        WithoutFileOverride ordinaryUser;
        lastingFacade()->loadSwitchLocalConfig();
    }
    QVERIFY(QFile::setPermissions("/userdata",
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    const bool isComplete = content.contains("conName");
    QCOMPARE(storedLines(), sorted(isComplete ? importedLines() : nothingImportedLines()));
    QCOMPARE(deviceContent(), content);
    QCOMPARE(QFileInfo(devicePath).lastModified(), written);
    QCOMPARE(QDir("/userdata").entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList("netSettings.ini"));
}

void SettingsImportTest::switchIniThatCannotBeWritten_isNoFailure()
{
    // A file where the folder of switch.ini would be.
    const QString taken = QFileInfo(SwitchIni::path()).path();
    QVERIFY(QDir().mkpath(QFileInfo(taken).path()));
    writeSettingsFile(taken, "in the way");
    setDevice(deviceLines());
    LogCapture log;
    const QStringList trace = tracedImport();
    QVERIFY(QFile::remove(taken));
    QCOMPARE(log.lines().size(), 0);
    QCOMPARE(trace, expectedTrace(true));
}

void SettingsImportTest::laterImport_takesUpAChangedDeviceFile()
{
    setDevice(deviceLines());
    lastingFacade()->loadSwitchLocalConfig();
    QVERIFY(lastingFacade()->saveConnectionName("stored by the application"));
    QStringList lines = without(deviceLines(), "MasterNet\\ip");
    setDevice(lines + QStringList("MasterNet\\ip=10.1.0.8"));
    lastingFacade()->loadSwitchLocalConfig();
    QCOMPARE(stored("FirstLocalIp"), QString("10.1.0.8"));
    QCOMPARE(stored("connectionName"), QString("Wired 1"));
}

void SettingsImportTest::construction_importsOnceBeforeAnythingElse()
{
    setOldSwitchIni();
    setDevice(deviceLines());
    const auto steps = std::make_shared<QStringList>();
    Interpose::Hooks hooks;
    hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
    const auto add = [steps, thread = QThread::currentThreadId()](const QString &step) {
        if (QThread::currentThreadId() == thread)
            steps->append(step);
    };
    hooks.settingsSetValue = [add](const QString &key, const QVariant &) { add("set " + key); };
    hooks.step = add;
    Interpose::install(hooks);
    // Never destroyed, since its threads run on.
    static const Hoplane *const facade = new Hoplane(nullptr);
    QVERIFY(facade);

    QStringList expected = { "exists " + devicePath };
    for (const QString &line : importedLines())
        expected.append("set " + line.section('=', 0, 0));
    QCOMPARE(steps->mid(0, expected.size()), expected);
    QCOMPARE(steps->filter(QRegularExpression("^(exists /userdata|set )")), expected);
    QVERIFY(steps->size() > expected.size());
    QCOMPARE(storedLines(), sorted(serverLines() + importedLines()));
}

void SettingsImportTest::import_isNoMetaMethod()
{
    const QMetaObject &meta = Hoplane::staticMetaObject;
    QVERIFY(meta.indexOfMethod("onIpChanged()") >= 0);
    QCOMPARE(meta.indexOfMethod("loadSwitchLocalConfig()"), -1);
}

HOPLANE_TEST_MAIN(SettingsImportTest)
#include "settingsimport.moc"
