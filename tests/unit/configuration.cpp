// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

#include <type_traits>

using Record = NetworkSwitchWorker::PrivateData;

namespace {

struct Field
{
    QString key;
    bool Record::*flag;
    QString Record::*text;

    Field(const char *name, bool Record::*member)
        : key(QString::fromLatin1(name))
        , flag(member)
        , text(nullptr)
    {
    }
    Field(const char *name, QString Record::*member)
        : key(QString::fromLatin1(name))
        , flag(nullptr)
        , text(member)
    {
    }
};

const QVector<Field> &fields()
{
    static const QVector<Field> table = {
        { "SwitchEnable", &Record::bSwitchEnable },
        { "connectionName", &Record::strConnectionName },
        { "FirstServerIp", &Record::strFirstServerIp },
        { "FirstServerPort", &Record::strFirstServerPort },
        { "FirstIsAutomatically", &Record::bFirstIsAutomatically },
        { "FirstLocalIp", &Record::strFirstLocalIp },
        { "FirstLocalMask", &Record::strFirstLocalMask },
        { "FirstLocalGateWay", &Record::strFirstLocalGateWay },
        { "FirstPreferredDNS", &Record::strFirstPreferredDNS },
        { "FirstSpareDNS", &Record::strFirstSpareDNS },
        { "SecondServerIp", &Record::strSecondServerIp },
        { "SecondServerPort", &Record::strSecondServerPort },
        { "SecondIsAutomatically", &Record::bSecondIsAutomatically },
        { "SecondLocalIp", &Record::strSecondLocalIp },
        { "SecondLocalMask", &Record::strSecondLocalMask },
        { "SecondLocalGateWay", &Record::strSecondLocalGateWay },
        { "SecondPreferredDNS", &Record::strSecondPreferredDNS },
        { "SecondSpareDNS", &Record::strSecondSpareDNS },
    };
    return table;
}

// Where the fields stand in the table.
enum Position {
    SwitchEnable = 0,
    ConnectionName = 1,
    FirstHalf = 2,
    FirstServerIp = 2,
    FirstServerPort = 3,
    FirstIsAutomatically = 4,
    SecondHalf = 10,
    SecondServerIp = 10,
    SecondServerPort = 11,
    SecondIsAutomatically = 12,
    HalfLength = 8
};

/** A value for each field, no text twice; both networks static. */
QStringList distinctValues()
{
    return { "true",         "Wired 1",       "10.1.0.1",    "9001",         "true",
             "192.168.1.10", "255.255.255.0", "192.168.1.1", "192.168.1.53", "192.168.1.54",
             "10.2.0.1",     "9002",          "true",        "172.16.2.20",  "255.255.0.0",
             "172.16.2.1",   "172.16.2.53",   "172.16.2.54" };
}

QStringList withFlags(const QString &first, const QString &second)
{
    QStringList values = distinctValues();
    values[FirstIsAutomatically] = first;
    values[SecondIsAutomatically] = second;
    return values;
}

QStringList exchanged(const QStringList &values)
{
    return values.mid(0, FirstHalf) + values.mid(SecondHalf, HalfLength)
            + values.mid(FirstHalf, HalfLength);
}

/** A table's values when nothing is stored. */
QStringList defaults()
{
    QStringList values;
    for (const Field &field : fields())
        values.append(field.flag ? QStringLiteral("false") : QString(""));
    return values;
}

QStringList valuesOf(const Record &record)
{
    QStringList values;
    for (const Field &field : fields()) {
        if (field.flag)
            values.append(record.*field.flag ? QStringLiteral("true") : QStringLiteral("false"));
        else
            values.append(record.*field.text);
    }
    return values;
}

QByteArray entry(const QString &key, const QString &value)
{
    return key.toUtf8() + '=' + value.toUtf8() + '\n';
}

QByteArray iniOf(const QStringList &values, const QByteArray &section = "[General]\n")
{
    QByteArray content = section;
    for (int i = 0; i < fields().size(); ++i)
        content += entry(fields()[i].key, values[i]);
    return content;
}

/** Answers for the calling thread alone: the watcher's thread asks as well. */
Interpose::Hooks onArchitecture(const QString &name)
{
    Interpose::Hooks hooks;
    hooks.currentCpuArchitecture = [name, thread = QThread::currentThreadId()] {
        return QThread::currentThreadId() == thread ? name : QStringLiteral("x86_64");
    };
    return hooks;
}

QStringList reads(int from, int length)
{
    QStringList lines;
    for (const Field &field : fields().mid(from, length))
        lines.append(QLatin1String("value ") + field.key);
    return lines;
}

QVector<Expected> summary(const QString &firstIp, const QString &firstPort, const QString &secondIp,
                          const QString &secondPort)
{
    return {
        { QtInfoMsg,
          QStringLiteral("[ loadConfig ]  switch info:first serverIp: \"%1\" ,serverPort: \"%2\"")
                  .arg(firstIp, firstPort) },
        { QtInfoMsg,
          QStringLiteral("[ loadConfig ]  switch info:second  serverIp: \"%1\" ,serverPort: "
                         "\"%2\"")
                  .arg(secondIp, secondPort) },
    };
}

QVector<Expected> summaryOf(const QStringList &values)
{
    return summary(values[FirstServerIp], values[FirstServerPort], values[SecondServerIp],
                   values[SecondServerPort]);
}

const QVector<Expected> missingFileLine = {
    { QtInfoMsg,
      QStringLiteral("[ loadConfig ]  switch congif file: "
                     "\"/sandbox/home/Documents/unittest/switch.ini\" "
                     "not exist,can not do net switc.") },
};

/** A worker that has loaded distinctValues(). */
class LoadedWorker : public WorkerFixture
{
public:
    explicit LoadedWorker(const QString &architecture = QStringLiteral("arm64"))
        : WorkerFixture(onArchitecture(architecture))
    {
        SwitchIni::setContent(iniOf(distinctValues()));
        get()->loadConfig();
    }

    QStringList values() { return valuesOf(Peek::record(*get())); }
};

} // namespace

/** switch.ini as the worker reads it, and the record that receives it. */
class ConfigurationTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void record_isAPlainStructure();
    void record_declaresItsFieldsInTheOrderOfTheKeys();
    void newWorker_hasEmptyTextsAndClearedFlags();
    void everyLoad_fillsTheSameRecord();
    void loadConfig_isNoMetaMethod();

    void eachKey_feedsItsOwnField();
    void eachLoad_readsTheFileAfresh();
    void eachLoad_touchesOnlyTheRecord();
    void reads_areEighteenInKeyOrderWithInvalidDefaults();
    void readsOfEmptyFile_areTheSameEighteen();
    void readsOfExchange_areSixteenMoreInTheOrderOfTheFields();
    void keyRemovedBetweenLoads_resetsItsField_data();
    void keyRemovedBetweenLoads_resetsItsField();

    void noFile_logsPathAndOnlyDisablesSwitching();
    void noFileAtFirstLoad_leavesTextsEmpty();
    void noFile_isNeitherReadNorMade();
    void emptyFile_resetsEverything();
    void fileThatCannotBeUsed_countsAsEmpty_data();
    void fileThatCannotBeUsed_countsAsEmpty();

    void flagText_data();
    void flagText();
    void flagAndTextOfOneWord_areReadByTheirTypes();
    void textValue_isHeldUnchanged_data();
    void textValue_isHeldUnchanged();
    void keyInOtherCapitals_isNotFound_data();
    void keyInOtherCapitals_isNotFound();
    void keysOutsideGeneralSection_areNotFound_data();
    void keysOutsideGeneralSection_areNotFound();

    void serverExchange_data();
    void serverExchange();
    void serverExchange_endsWithTheNextLoad();
    void fileReplacedDuringALoad_isNotMixedIn_data();
    void fileReplacedDuringALoad_isNotMixedIn();
    void summaryLines_showTheLoadedServers_data();
    void summaryLines_showTheLoadedServers();
    void load_neverWrites_data();
    void load_neverWrites();
};

void ConfigurationTest::init()
{
    SwitchIni::remove();
}

void ConfigurationTest::record_isAPlainStructure()
{
    QVERIFY(std::is_standard_layout<Record>::value);
    QVERIFY(std::is_aggregate_v<Record>);
    QVERIFY(!std::is_polymorphic<Record>::value);
}

void ConfigurationTest::record_declaresItsFieldsInTheOrderOfTheKeys()
{
    Record record;
    auto &[f0, f1, f2, f3, f4, f5, f6, f7, f8, f9, f10, f11, f12, f13, f14, f15, f16, f17] = record;
    const QVector<const void *> declared = { &f0, &f1,  &f2,  &f3,  &f4,  &f5,  &f6,  &f7,  &f8,
                                             &f9, &f10, &f11, &f12, &f13, &f14, &f15, &f16, &f17 };
    for (int i = 0; i < fields().size(); ++i) {
        const Field &field = fields()[i];
        const void *member = field.flag ? static_cast<const void *>(&(record.*field.flag))
                                        : &(record.*field.text);
        QVERIFY2(declared[i] == member, qPrintable(field.key));
    }
}

void ConfigurationTest::newWorker_hasEmptyTextsAndClearedFlags()
{
    WorkerFixture worker;
    QVERIFY(!Peek::recordPointer(*worker).isNull());
    QCOMPARE(valuesOf(Peek::record(*worker)), defaults());
}

void ConfigurationTest::everyLoad_fillsTheSameRecord()
{
    WorkerFixture worker;
    const Record *record = &Peek::record(*worker);
    worker->loadConfig();
    QCOMPARE(static_cast<const Record *>(Peek::recordPointer(*worker).data()), record);
    SwitchIni::setContent(iniOf(withFlags("false", "true")));
    worker->loadConfig();
    QCOMPARE(static_cast<const Record *>(Peek::recordPointer(*worker).data()), record);
    QCOMPARE(record->strConnectionName, QString("Wired 1"));
}

void ConfigurationTest::loadConfig_isNoMetaMethod()
{
    const QMetaObject &meta = NetworkSwitchWorker::staticMetaObject;
    QVERIFY(meta.indexOfMethod("start()") >= 0);
    QCOMPARE(meta.indexOfMethod("loadConfig()"), -1);
}

void ConfigurationTest::eachKey_feedsItsOwnField()
{
    LoadedWorker worker;
    QCOMPARE(worker.values(), distinctValues());
}

void ConfigurationTest::eachLoad_readsTheFileAfresh()
{
    LoadedWorker worker;
    QStringList values = distinctValues();
    values[ConnectionName] = "Wired 2";
    values[SecondServerPort] = "9003";
    SwitchIni::setContent(iniOf(values));
    worker->loadConfig();
    QCOMPARE(worker.values(), values);
}

void ConfigurationTest::eachLoad_touchesOnlyTheRecord()
{
    WorkerFixture worker;
    Peek::switchState(*worker) = 2;
    Peek::staticAddress(*worker) = "192.168.7.7";
    Peek::currentServerIp(*worker) = "10.9.9.9";
    Peek::sendCurrentServerIp(*worker) = true;
    Peek::needRefresh(*worker) = true;
    const int timer = Peek::timerId(*worker);
    QSignalSpy begun(worker.get(), &NetworkSwitchWorker::mySwitchBegin);
    QSignalSpy finished(worker.get(), &NetworkSwitchWorker::finished);

    SwitchIni::setContent(iniOf(withFlags("false", "true")));
    worker->loadConfig();
    SwitchIni::remove();
    worker->loadConfig();

    QCOMPARE(Peek::switchState(*worker), 2);
    QCOMPARE(Peek::staticAddress(*worker), QString("192.168.7.7"));
    QCOMPARE(Peek::currentServerIp(*worker), QString("10.9.9.9"));
    QVERIFY(Peek::sendCurrentServerIp(*worker));
    QVERIFY(Peek::needRefresh(*worker));
    QCOMPARE(Peek::timerId(*worker), timer);
    QCOMPARE(begun.count(), 0);
    QCOMPARE(finished.count(), 0);
}

void ConfigurationTest::reads_areEighteenInKeyOrderWithInvalidDefaults()
{
    LoadedWorker worker;
    SettingsTrace trace;
    Interpose::Hooks hooks = onArchitecture("x86_64");
    trace.addTo(&hooks);
    worker.setHooks(hooks);
    worker->loadConfig();
    QCOMPARE(trace.lines(), QStringList("exists " + SwitchIni::path()) + reads(0, 18));
}

void ConfigurationTest::readsOfEmptyFile_areTheSameEighteen()
{
    SwitchIni::setContent("");
    SettingsTrace trace;
    Interpose::Hooks hooks;
    trace.addTo(&hooks);
    WorkerFixture worker(hooks);
    worker->loadConfig();
    QCOMPARE(trace.lines(), QStringList("exists " + SwitchIni::path()) + reads(0, 18));
}

void ConfigurationTest::readsOfExchange_areSixteenMoreInTheOrderOfTheFields()
{
    SwitchIni::setContent(iniOf(withFlags("false", "true")));
    SettingsTrace trace;
    Interpose::Hooks hooks;
    trace.addTo(&hooks);
    WorkerFixture worker(hooks);
    worker->loadConfig();
    QCOMPARE(trace.lines(),
             QStringList("exists " + SwitchIni::path()) + reads(0, 18)
                     + reads(SecondHalf, HalfLength) + reads(FirstHalf, HalfLength));
}

void ConfigurationTest::keyRemovedBetweenLoads_resetsItsField_data()
{
    QTest::addColumn<int>("position");
    for (int i = 0; i < fields().size(); ++i)
        QTest::newRow(qPrintable(fields()[i].key)) << i;
}

void ConfigurationTest::keyRemovedBetweenLoads_resetsItsField()
{
    QFETCH(int, position);
    LoadedWorker worker;
    QStringList expected = distinctValues();
    QByteArray content = iniOf(expected);
    content.replace(entry(fields()[position].key, expected[position]), "");
    expected[position] = defaults().at(position);

    SwitchIni::setContent(content);
    worker->loadConfig();
    QCOMPARE(worker.values(), expected);
}

void ConfigurationTest::noFile_logsPathAndOnlyDisablesSwitching()
{
    LoadedWorker worker;
    SwitchIni::remove();
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log, (missingFileLine));
    QStringList expected = distinctValues();
    expected[SwitchEnable] = "false";
    QCOMPARE(worker.values(), expected);
}

void ConfigurationTest::noFileAtFirstLoad_leavesTextsEmpty()
{
    WorkerFixture worker;
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log, (missingFileLine));
    QCOMPARE(valuesOf(Peek::record(*worker)), defaults());
}

void ConfigurationTest::noFile_isNeitherReadNorMade()
{
    const QString folder = QFileInfo(SwitchIni::path()).path();
    SettingsTrace trace;
    Interpose::Hooks hooks;
    trace.addTo(&hooks);
    {
        WorkerFixture worker(hooks);
        worker->loadConfig();
    }
    QCOMPARE(trace.lines(), QStringList("exists " + SwitchIni::path()));
    QVERIFY(!QFileInfo::exists(folder));

    QVERIFY(QDir().mkpath(folder));
    WorkerFixture worker;
    worker->loadConfig();
    QCOMPARE(QDir(folder).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
}

void ConfigurationTest::emptyFile_resetsEverything()
{
    LoadedWorker worker;
    SwitchIni::setContent("");
    LogCapture log;
    worker->loadConfig();
    QCOMPARE(worker.values(), defaults());
    COMPARE_LOG(log, (summary("", "", "", "")));
}

void ConfigurationTest::fileThatCannotBeUsed_countsAsEmpty_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("permissions");
    const int ordinary = QFile::ReadOwner | QFile::WriteOwner;
    QTest::newRow("no permission to read") << iniOf(distinctValues()) << 0;
    QTest::newRow("no settings at all") << QByteArray("\x7f"
                                                      "ELF\0\1\2\n\xff\xfe[\n=\n]==\n",
                                                      18)
                                        << ordinary;
    QTest::newRow("a folder of that name") << QByteArray() << ordinary;
}

void ConfigurationTest::fileThatCannotBeUsed_countsAsEmpty()
{
    QFETCH(QByteArray, content);
    QFETCH(int, permissions);
    LoadedWorker worker;
    if (content.isNull()) {
        SwitchIni::remove();
        QVERIFY(QDir().mkpath(SwitchIni::path()));
    } else {
        SwitchIni::setContent(content);
        QVERIFY(QFile::setPermissions(SwitchIni::path(), QFile::Permissions(permissions)));
    }
    LogCapture log;
    {
        WithoutFileOverride ordinaryUser;
        worker->loadConfig();
    }
    QCOMPARE(worker.values(), defaults());
    COMPARE_LOG(log, (summary("", "", "", "")));
}

void ConfigurationTest::flagText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("flag");
    for (const char *text : { "1", "true", "TRUE", "True", "yes", "on", "2", "-1", "00", "no" })
        QTest::newRow(text) << QString(text) << "true";
    for (const char *text : { "0", "false", "FALSE", "False", "fAlSe" })
        QTest::newRow(text) << QString(text) << "false";
    QTest::newRow("empty value") << ""
                                 << "false";
    QTest::newRow("quoted empty value") << "\"\""
                                        << "false";
    QTest::newRow("quoted blank") << "\" \""
                                  << "true";
    QTest::newRow("quoted false with a blank") << "\"false \""
                                               << "true";
}

void ConfigurationTest::flagText()
{
    QFETCH(QString, text);
    QFETCH(QString, flag);
    WorkerFixture worker;
    // All three alike: nothing is exchanged.
    QStringList values = withFlags(text, text);
    values[SwitchEnable] = text;
    SwitchIni::setContent(iniOf(values));
    worker->loadConfig();

    QStringList expected = withFlags(flag, flag);
    expected[SwitchEnable] = flag;
    QCOMPARE(valuesOf(Peek::record(*worker)), expected);
}

void ConfigurationTest::flagAndTextOfOneWord_areReadByTheirTypes()
{
    WorkerFixture worker;
    QStringList values;
    for (int i = 0; i < fields().size(); ++i)
        values.append("true");
    SwitchIni::setContent(iniOf(values));
    worker->loadConfig();
    QCOMPARE(valuesOf(Peek::record(*worker)), values);
}

void ConfigurationTest::textValue_isHeldUnchanged_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QString>("held");
    QTest::newRow("port with a trailing blank") << QByteArray("\"9001 \"") << "9001 ";
    QTest::newRow("blanks around") << QByteArray("\"  9001\"") << "  9001";
    QTest::newRow("port of letters") << QByteArray("http") << "http";
    QTest::newRow("number beyond any port") << QByteArray("700000") << "700000";
    QTest::newRow("leading zeros") << QByteArray("0080") << "0080";
    QTest::newRow("negative") << QByteArray("-1") << "-1";
    QTest::newRow("word of a flag") << QByteArray("FALSE") << "FALSE";
    QTest::newRow("malformed address") << QByteArray("10.1..300") << "10.1..300";
    QTest::newRow("quoted comma") << QByteArray("\"a, b\"") << "a, b";
    QTest::newRow("letters beyond ASCII")
            << QByteArray("\xc3\xbc\xe2\x82\xac") << QString::fromUtf8("\xc3\xbc\xe2\x82\xac");
}

void ConfigurationTest::textValue_isHeldUnchanged()
{
    QFETCH(QByteArray, stored);
    QFETCH(QString, held);
    WorkerFixture worker;
    QByteArray content = "[General]\n";
    QStringList expected;
    for (const Field &field : fields()) {
        content += field.key.toLatin1() + '=' + (field.flag ? QByteArray("1") : stored) + '\n';
        expected.append(field.flag ? QString("true") : held);
    }
    SwitchIni::setContent(content);
    worker->loadConfig();
    QCOMPARE(valuesOf(Peek::record(*worker)), expected);
}

void ConfigurationTest::keyInOtherCapitals_isNotFound_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<QString>("spelling");
    QTest::newRow("upper-case initial of connectionName") << 1 << "ConnectionName";
    QTest::newRow("lower-case w in FirstLocalGateWay") << 7 << "FirstLocalGateway";
    QTest::newRow("lower-case w in SecondLocalGateWay") << 15 << "SecondLocalGateway";
    QTest::newRow("lower-case ns in FirstPreferredDNS") << 8 << "FirstPreferredDns";
    QTest::newRow("upper-case p in FirstServerIp") << 2 << "FirstServerIP";
    for (int i = 0; i < fields().size(); ++i) {
        const QString key = fields()[i].key;
        QTest::addRow("lower case of %s", qPrintable(key)) << i << key.toLower();
        QTest::addRow("upper case of %s", qPrintable(key)) << i << key.toUpper();
    }
}

void ConfigurationTest::keyInOtherCapitals_isNotFound()
{
    QFETCH(int, position);
    QFETCH(QString, spelling);
    LoadedWorker worker;
    QStringList expected = distinctValues();
    QByteArray content = iniOf(expected);
    content.replace(entry(fields()[position].key, expected[position]),
                    entry(spelling, expected[position]));
    expected[position] = defaults().at(position);

    SwitchIni::setContent(content);
    worker->loadConfig();
    QCOMPARE(worker.values(), expected);
}

void ConfigurationTest::keysOutsideGeneralSection_areNotFound_data()
{
    QTest::addColumn<QByteArray>("section");
    QTest::newRow("section of its own") << QByteArray("[Switch]\n");
    QTest::newRow("group named General") << QByteArray("[%General]\n");
    QTest::newRow("General before, empty") << QByteArray("[General]\n\n[NetworkConnections]\n");
}

void ConfigurationTest::keysOutsideGeneralSection_areNotFound()
{
    QFETCH(QByteArray, section);
    LoadedWorker worker;
    SwitchIni::setContent(iniOf(distinctValues(), section));
    worker->loadConfig();
    QCOMPARE(worker.values(), defaults());
}

void ConfigurationTest::serverExchange_data()
{
    QTest::addColumn<QString>("architecture");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second");
    QTest::addColumn<bool>("isExchanged");

    for (const char *name : { "x86_64", "i386", "aarch64", "ARM", "Arm64", "ar m", "" })
        QTest::addRow("exchange on '%s'", name) << name << "false"
                                                << "true" << true;
    for (const char *name : { "arm", "arm64", "armv7l", "charm" })
        QTest::addRow("order kept on '%s'", name) << name << "false"
                                                  << "true" << false;

    QTest::newRow("both automatic") << "x86_64"
                                    << "false"
                                    << "false" << false;
    QTest::newRow("both static") << "x86_64"
                                 << "true"
                                 << "true" << false;
    QTest::newRow("only the first static") << "x86_64"
                                           << "true"
                                           << "false" << false;
    QTest::newRow("first static on ARM") << "arm64"
                                         << "true"
                                         << "false" << false;
}

void ConfigurationTest::serverExchange()
{
    QFETCH(QString, architecture);
    QFETCH(QString, first);
    QFETCH(QString, second);
    QFETCH(bool, isExchanged);
    LoadedWorker worker(architecture);
    const QStringList stored = withFlags(first, second);
    SwitchIni::setContent(iniOf(stored));
    LogCapture log;
    worker->loadConfig();

    const QStringList expected = isExchanged ? exchanged(stored) : stored;
    QCOMPARE(worker.values(), expected);
    COMPARE_LOG(log, (summaryOf(expected)));
}

void ConfigurationTest::serverExchange_endsWithTheNextLoad()
{
    LoadedWorker worker("x86_64");
    SwitchIni::setContent(iniOf(withFlags("0", "1")));
    worker->loadConfig();
    QCOMPARE(worker.values(), exchanged(withFlags("false", "true")));
    worker->loadConfig();
    QCOMPARE(worker.values(), exchanged(withFlags("false", "true")));
    SwitchIni::setContent(iniOf(withFlags("0", "0")));
    worker->loadConfig();
    QCOMPARE(worker.values(), withFlags("false", "false"));
}

void ConfigurationTest::fileReplacedDuringALoad_isNotMixedIn_data()
{
    QTest::addColumn<bool>("isExchanged");
    QTest::addColumn<int>("reads");
    for (int reads = 1; reads <= 34; ++reads)
        QTest::addRow("exchange, before read %d", reads) << true << reads;
    for (int reads = 1; reads <= 18; ++reads)
        QTest::addRow("file's order, before read %d", reads) << false << reads;
}

/** A load is of one file as a whole, the one that it met; the next load is of the new one. */
void ConfigurationTest::fileReplacedDuringALoad_isNotMixedIn()
{
    QFETCH(bool, isExchanged);
    QFETCH(int, reads);
    const QStringList stored = isExchanged ? withFlags("false", "true") : distinctValues();
    QStringList replaced = stored;
    for (int i = 0; i < replaced.size(); ++i) {
        if (fields()[i].text)
            replaced[i] += " (new)";
    }
    SwitchIni::setContent(iniOf(stored));
    int count = 0;
    Interpose::Hooks hooks = onArchitecture("x86_64");
    hooks.settingsValue = [&](const QString &, const QVariant &) {
        if (++count == reads)
            SwitchIni::setContent(iniOf(replaced));
    };
    WorkerFixture worker(hooks);
    LogCapture log;
    for (const QStringList &values : { stored, replaced }) {
        const QStringList expected = isExchanged ? exchanged(values) : values;
        log.clear();
        worker->loadConfig();
        QCOMPARE(valuesOf(Peek::record(*worker)), expected);
        COMPARE_LOG(log, (summaryOf(expected)));
    }
    QCOMPARE(count, 2 * (isExchanged ? 34 : 18));
}

void ConfigurationTest::summaryLines_showTheLoadedServers_data()
{
    QTest::addColumn<QString>("firstIp");
    QTest::addColumn<QString>("firstPort");
    QTest::addColumn<QString>("secondIp");
    QTest::addColumn<QString>("secondPort");
    QTest::newRow("two servers") << "10.1.0.1"
                                 << "9001"
                                 << "10.2.0.1"
                                 << "9002";
    QTest::newRow("one server") << "10.1.0.1"
                                << "9001"
                                << ""
                                << "";
    QTest::newRow("only ports") << ""
                                << "1"
                                << ""
                                << "2";
}

void ConfigurationTest::summaryLines_showTheLoadedServers()
{
    QFETCH(QString, firstIp);
    QFETCH(QString, firstPort);
    QFETCH(QString, secondIp);
    QFETCH(QString, secondPort);
    WorkerFixture worker;
    QStringList values = distinctValues();
    values[SwitchEnable] = "false";
    values[FirstServerIp] = firstIp;
    values[FirstServerPort] = firstPort;
    values[SecondServerIp] = secondIp;
    values[SecondServerPort] = secondPort;
    SwitchIni::setContent(iniOf(values));
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log, (summary(firstIp, firstPort, secondIp, secondPort)));
}

void ConfigurationTest::load_neverWrites_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("all keys") << iniOf(distinctValues());
    QTest::newRow("exchange") << iniOf(withFlags("false", "true"));
    QTest::newRow("missing keys, comment, foreign section")
            << QByteArray("; kept\n[General]\nSwitchEnable = yes\n\n[Other]\nkey=1\n");
    QTest::newRow("empty file") << QByteArray("");
}

void ConfigurationTest::load_neverWrites()
{
    QFETCH(QByteArray, content);
    SwitchIni::setContent(content);
    const QFileInfo before(SwitchIni::path());
    const QDateTime written = before.lastModified();
    {
        WorkerFixture worker;
        worker->loadConfig();
    }
    QCOMPARE(SwitchIni::content(), content);
    QCOMPARE(QFileInfo(SwitchIni::path()).lastModified(), written);
    QCOMPARE(before.dir().entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden),
             QStringList("switch.ini"));
}

HOPLANE_TEST_MAIN(ConfigurationTest)
#include "configuration.moc"
