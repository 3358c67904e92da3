// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "hoplane.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QMetaMethod>
#include <QtTest/QtTest>

#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

namespace {

struct Writer
{
    const char *name;
    /** Stores a flag, for the writers that have one, and as many texts as there are other keys. */
    std::function<bool(bool flag, const QStringList &texts)> call;
    /** In the order of the parameters. */
    QStringList keys;
    bool hasFlag;

    int textCount() const { return hasFlag ? keys.size() - 1 : keys.size(); }
};

const QVector<Writer> &writers()
{
    static const QVector<Writer> table = {
        { "saveSwitchInfoToFile",
          [](bool flag, const QStringList &t) {
              return Hoplane::saveSwitchInfoToFile(flag, t[0], t[1], t[2], t[3]);
          },
          { "SwitchEnable", "FirstServerIp", "FirstServerPort", "SecondServerIp",
            "SecondServerPort" },
          true },
        { "saveConnectionName",
          [](bool, const QStringList &t) { return lastingFacade()->saveConnectionName(t[0]); },
          { "connectionName" },
          false },
        { "saveFirstLocalInoToFile",
          [](bool flag, const QStringList &t) {
              return lastingFacade()->saveFirstLocalInoToFile(flag, t[0], t[1], t[2], t[3], t[4]);
          },
          { "FirstIsAutomatically", "FirstLocalIp", "FirstLocalMask", "FirstLocalGateWay",
            "FirstPreferredDNS", "FirstSpareDNS" },
          true },
        { "saveSecondLocalInfoToFile",
          [](bool flag, const QStringList &t) {
              return lastingFacade()->saveSecondLocalInfoToFile(flag, t[0], t[1], t[2], t[3], t[4]);
          },
          { "SecondIsAutomatically", "SecondLocalIp", "SecondLocalMask", "SecondLocalGateWay",
            "SecondPreferredDNS", "SecondSpareDNS" },
          true },
    };
    return table;
}

/** A different text for each parameter. */
QStringList texts(int count, const QString &prefix = QStringLiteral("10.0.0."))
{
    QStringList list;
    for (int i = 1; i <= count; ++i)
        list.append(prefix + QString::number(i));
    return list;
}

QStringList repeated(int count, const QString &text)
{
    return QVector<QString>(count, text).toList();
}

/** What a call stores, each key with its value in the file. */
QStringList storedLines(const Writer &writer, bool flag, const QStringList &values)
{
    QStringList all = values;
    if (writer.hasFlag)
        all.prepend(flag ? QStringLiteral("true") : QStringLiteral("false"));
    QStringList lines;
    for (int i = 0; i < writer.keys.size(); ++i)
        lines.append(writer.keys[i] + '=' + all[i]);
    return lines;
}

QStringList sorted(QStringList lines)
{
    lines.sort();
    return lines;
}

QStringList fileLines()
{
    return sorted(QString::fromUtf8(SwitchIni::content()).split('\n', Qt::SkipEmptyParts));
}

/** Every key of switch.ini with the value "old". */
QStringList oldLines()
{
    QStringList lines;
    for (const Writer &writer : writers()) {
        for (const QString &key : writer.keys)
            lines.append(key + "=old");
    }
    return lines;
}

QByteArray iniOf(const QStringList &lines)
{
    return "[General]\n" + lines.join('\n').toUtf8() + '\n';
}

void addWriterRows()
{
    QTest::addColumn<int>("writer");
    for (int i = 0; i < writers().size(); ++i)
        QTest::newRow(writers()[i].name) << i;
}

/** Architecture with "arm": the loaded record follows the file's order. */
Interpose::Hooks inFileOrder()
{
    Interpose::Hooks hooks;
    hooks.currentCpuArchitecture = [thread = QThread::currentThreadId()] {
        return QThread::currentThreadId() == thread ? QStringLiteral("arm64")
                                                    : QStringLiteral("x86_64");
    };
    return hooks;
}

/** A folder that the ordinary user may not write to, for the file of the named application. */
class ReadOnlyFolder
{
public:
    explicit ReadOnlyFolder(const QByteArray &content, QFile::Permissions file)
    {
        if (content.isNull())
            QDir().mkpath(m_folder);
        else
            SwitchIni::setContent(content);
        QFile::setPermissions(SwitchIni::path(), file);
        QFile::setPermissions(m_folder, QFile::ReadOwner | QFile::ExeOwner);
    }
    ~ReadOnlyFolder()
    {
        QFile::setPermissions(m_folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    Q_DISABLE_COPY(ReadOnlyFolder)

private:
    QString m_folder = QFileInfo(SwitchIni::path()).path();
};

} // namespace

/** The facade's functions that store settings in switch.ini. */
class SettingsWritersTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void switchInfo_needsNoInstance();
    void signatures_areThePublishedOnes();
    void writers_areNoMetaMethods_data();
    void writers_areNoMetaMethods();

    void values_areSetInTheOrderOfTheParameters_data();
    void values_areSetInTheOrderOfTheParameters();
    void missingFile_isMadeWithTheKeysOfTheCallOnly_data();
    void missingFile_isMadeWithTheKeysOfTheCallOnly();
    void emptyFile_getsTheKeysOfTheCallOnly_data();
    void emptyFile_getsTheKeysOfTheCallOnly();
    void otherKeys_keepTheirValues_data();
    void otherKeys_keepTheirValues();
    void fourWriters_coverTheEighteenKeysOnceEach();
    void emptyText_replacesWhatWasThere_data();
    void emptyText_replacesWhatWasThere();
    void nullText_isStoredAsAnEmptyOne();
    void secondCall_replacesTheFirst_data();
    void secondCall_replacesTheFirst();
    void flag_isStoredAsAWord_data();
    void flag_isStoredAsAWord();

    void storedValues_areLoadedExactly_data();
    void storedValues_areLoadedExactly();
    void text_isStoredUnchanged_data();
    void text_isStoredUnchanged();
    void loadBetweenTwoWriters_seesTheFirstCallOnly();

    void fileThatCannotBeWritten_staysAndNobodyIsTold_data();
    void fileThatCannotBeWritten_staysAndNobodyIsTold();
    void folderThatCannotBeMade_isNoFailure_data();
    void folderThatCannotBeMade_isNoFailure();
    void writers_logAndSignalNothing();
};

void SettingsWritersTest::init()
{
    SwitchIni::remove();
}

void SettingsWritersTest::cleanup()
{
    Interpose::install(Interpose::Hooks());
    QCoreApplication::setApplicationName("unittest");
}

// The first of all, so that no other has made the instance.
void SettingsWritersTest::switchInfo_needsNoInstance()
{
    LogCapture log;
    QVERIFY(Hoplane::saveSwitchInfoToFile(true, "10.1.0.1", "9001", "10.2.0.1", "9002"));
    QVERIFY(SwitchIni::content().contains("FirstServerIp=10.1.0.1\n"));
    QCOMPARE(log.lines().size(), 0);

    lastingFacade();
    COMPARE_LOG(log,
                { { QtInfoMsg, "[ instance ] new Hoplane " },
                  { QtWarningMsg, "[ loadSwitchLocalConfig ] NetSetting.ini not exist." } });
}

void SettingsWritersTest::signatures_areThePublishedOnes()
{
    using Local = bool (Hoplane::*)(bool, QString, QString, QString, QString, QString);
    QVERIFY((std::is_same_v<decltype(&Hoplane::saveSwitchInfoToFile),
                            bool (*)(bool, QString, QString, QString, QString)>));
    QVERIFY((std::is_same_v<decltype(&Hoplane::saveConnectionName), bool (Hoplane::*)(QString)>));
    QVERIFY((std::is_same_v<decltype(&Hoplane::saveFirstLocalInoToFile), Local>));
    QVERIFY((std::is_same_v<decltype(&Hoplane::saveSecondLocalInfoToFile), Local>));
}

void SettingsWritersTest::writers_areNoMetaMethods_data()
{
    addWriterRows();
}

void SettingsWritersTest::writers_areNoMetaMethods()
{
    QFETCH(int, writer);
    const QMetaObject &meta = Hoplane::staticMetaObject;
    QStringList names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        names.append(meta.method(i).name());
    QVERIFY(names.contains("onIpChanged"));
    QVERIFY(!names.contains(writers()[writer].name));
}

void SettingsWritersTest::values_areSetInTheOrderOfTheParameters_data()
{
    addWriterRows();
}

void SettingsWritersTest::values_areSetInTheOrderOfTheParameters()
{
    QFETCH(int, writer);
    const Writer &tested = writers()[writer];
    lastingFacade();
    const QStringList values = texts(tested.textCount());
    QStringList expected;
    if (tested.hasFlag)
        expected.append("set " + tested.keys.first() + " bool true");
    for (int i = 0; i < values.size(); ++i)
        expected.append("set " + tested.keys[i + int(tested.hasFlag)] + " QString " + values[i]);

    SettingsTrace trace;
    Interpose::Hooks hooks;
    trace.addTo(&hooks);
    Interpose::install(hooks);
    const bool result = tested.call(true, values);
    Interpose::install(Interpose::Hooks());
    QVERIFY(result);
    // Neither a test for the file nor a look at what it holds.
    QCOMPARE(trace.lines(), expected);
}

void SettingsWritersTest::missingFile_isMadeWithTheKeysOfTheCallOnly_data()
{
    addWriterRows();
}

void SettingsWritersTest::missingFile_isMadeWithTheKeysOfTheCallOnly()
{
    QFETCH(int, writer);
    const Writer &tested = writers()[writer];
    const QStringList values = texts(tested.textCount());
    QVERIFY(!QFileInfo::exists(SwitchIni::path()));
    QVERIFY(tested.call(true, values));
    QCOMPARE(fileLines(), sorted(storedLines(tested, true, values) + QStringList("[General]")));
    QCOMPARE(QFileInfo(SwitchIni::path()).dir().entryList(QDir::Files | QDir::Hidden),
             QStringList("switch.ini"));
}

void SettingsWritersTest::emptyFile_getsTheKeysOfTheCallOnly_data()
{
    addWriterRows();
}

void SettingsWritersTest::emptyFile_getsTheKeysOfTheCallOnly()
{
    QFETCH(int, writer);
    const Writer &tested = writers()[writer];
    const QStringList values = texts(tested.textCount());
    SwitchIni::setContent("");
    QVERIFY(tested.call(false, values));
    QCOMPARE(fileLines(), sorted(storedLines(tested, false, values) + QStringList("[General]")));
}

void SettingsWritersTest::otherKeys_keepTheirValues_data()
{
    addWriterRows();
}

void SettingsWritersTest::otherKeys_keepTheirValues()
{
    QFETCH(int, writer);
    const Writer &tested = writers()[writer];
    const QStringList values = texts(tested.textCount());
    const QStringList foreign = { "Unknown=kept", "connectionname=lower" };
    SwitchIni::setContent(iniOf(oldLines() + foreign) + "\n[Other]\nFirstServerIp=kept\n");
    QVERIFY(tested.call(false, values));

    QStringList expected = foreign + QStringList{ "[General]", "[Other]", "FirstServerIp=kept" }
            + storedLines(tested, false, values);
    for (const QString &line : oldLines()) {
        if (!tested.keys.contains(line.section('=', 0, 0)))
            expected.append(line);
    }
    QCOMPARE(fileLines(), sorted(expected));
}

void SettingsWritersTest::fourWriters_coverTheEighteenKeysOnceEach()
{
    SwitchIni::setContent(iniOf(oldLines()));
    SettingsTrace trace;
    lastingFacade();
    Interpose::Hooks hooks;
    trace.addTo(&hooks);
    Interpose::install(hooks);
    for (const Writer &writer : writers())
        writer.call(true, texts(writer.textCount()));
    Interpose::install(Interpose::Hooks());

    QCOMPARE(trace.lines().size(), 18);
    QCOMPARE(fileLines().size(), 19);
    QVERIFY(!SwitchIni::content().contains("=old"));
}

void SettingsWritersTest::emptyText_replacesWhatWasThere_data()
{
    addWriterRows();
}

void SettingsWritersTest::emptyText_replacesWhatWasThere()
{
    QFETCH(int, writer);
    const Writer &tested = writers()[writer];
    QVERIFY(tested.call(true, texts(tested.textCount())));
    const QStringList values = repeated(tested.textCount(), "");
    QVERIFY(tested.call(true, values));
    QCOMPARE(fileLines(), sorted(storedLines(tested, true, values) + QStringList("[General]")));
}

void SettingsWritersTest::nullText_isStoredAsAnEmptyOne()
{
    QVERIFY(lastingFacade()->saveConnectionName("Wired 1"));
    QVERIFY(lastingFacade()->saveConnectionName(QString()));
    QCOMPARE(SwitchIni::content(), QByteArray("[General]\nconnectionName=\n"));
}

void SettingsWritersTest::secondCall_replacesTheFirst_data()
{
    addWriterRows();
}

void SettingsWritersTest::secondCall_replacesTheFirst()
{
    QFETCH(int, writer);
    const Writer &tested = writers()[writer];
    const QStringList values = texts(tested.textCount(), "172.16.0.");
    QVERIFY(tested.call(true, texts(tested.textCount())));
    QVERIFY(tested.call(false, values));
    QCOMPARE(fileLines(), sorted(storedLines(tested, false, values) + QStringList("[General]")));
}

void SettingsWritersTest::flag_isStoredAsAWord_data()
{
    QTest::addColumn<int>("writer");
    QTest::addColumn<bool>("flag");
    for (int i = 0; i < writers().size(); ++i) {
        if (!writers()[i].hasFlag)
            continue;
        QTest::addRow("%s true", writers()[i].name) << i << true;
        QTest::addRow("%s false", writers()[i].name) << i << false;
    }
}

void SettingsWritersTest::flag_isStoredAsAWord()
{
    QFETCH(int, writer);
    QFETCH(bool, flag);
    const Writer &tested = writers()[writer];
    SwitchIni::setContent(iniOf({ tested.keys.first() + (flag ? "=false" : "=true") }));
    QVERIFY(tested.call(flag, texts(tested.textCount())));
    QVERIFY(fileLines().contains(tested.keys.first() + (flag ? "=true" : "=false")));

    WorkerFixture worker(inFileOrder());
    worker->loadConfig();
    const NetworkSwitchWorker::PrivateData &record = Peek::record(*worker);
    const bool expected[] = { record.bSwitchEnable, record.bFirstIsAutomatically,
                              record.bSecondIsAutomatically };
    QCOMPARE(expected[writer == 0 ? 0 : writer - 1], flag);
}

void SettingsWritersTest::storedValues_areLoadedExactly_data()
{
    QTest::addColumn<bool>("first");
    QTest::addColumn<bool>("second");
    QTest::newRow("both static") << true << true;
    QTest::newRow("both automatic") << false << false;
    QTest::newRow("first static") << true << false;
    QTest::newRow("second static") << false << true;
}

void SettingsWritersTest::storedValues_areLoadedExactly()
{
    QFETCH(bool, first);
    QFETCH(bool, second);
    Hoplane *facade = lastingFacade();
    QVERIFY(Hoplane::saveSwitchInfoToFile(true, "10.1.0.1", "9001", "10.2.0.1", "9002"));
    QVERIFY(facade->saveFirstLocalInoToFile(first, "a1", "a2", "a3", "a4", "a5"));
    QVERIFY(facade->saveSecondLocalInfoToFile(second, "b1", "b2", "b3", "b4", "b5"));
    QVERIFY(facade->saveConnectionName("Wired 1"));
    WorkerFixture worker(inFileOrder());
    worker->loadConfig();

    const NetworkSwitchWorker::PrivateData &d = Peek::record(*worker);
    QVERIFY(d.bSwitchEnable);
    QCOMPARE(d.bFirstIsAutomatically, first);
    QCOMPARE(d.bSecondIsAutomatically, second);
    const QStringList loaded = {
        d.strConnectionName,     d.strFirstServerIp,      d.strFirstServerPort,
        d.strFirstLocalIp,       d.strFirstLocalMask,     d.strFirstLocalGateWay,
        d.strFirstPreferredDNS,  d.strFirstSpareDNS,      d.strSecondServerIp,
        d.strSecondServerPort,   d.strSecondLocalIp,      d.strSecondLocalMask,
        d.strSecondLocalGateWay, d.strSecondPreferredDNS, d.strSecondSpareDNS,
    };
    QCOMPARE(loaded,
             (QStringList{ "Wired 1", "10.1.0.1", "9001", "a1", "a2", "a3", "a4", "a5", "10.2.0.1",
                           "9002", "b1", "b2", "b3", "b4", "b5" }));
}

void SettingsWritersTest::text_isStoredUnchanged_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("blanks around") << "  9001 ";
    QTest::newRow("a blank alone") << " ";
    QTest::newRow("comma and semicolon") << "a, b; c";
    QTest::newRow("quotes") << "\"Wired\" 'one'";
    QTest::newRow("backslash") << "a\\b\\n";
    QTest::newRow("equals sign") << "a=b";
    QTest::newRow("at sign") << "@Invalid()";
    QTest::newRow("per cent") << "%1 %20";
    QTest::newRow("line break and tabulator") << "a\nb\tc";
    QTest::newRow("leading zeros") << "00080";
    QTest::newRow("number") << "1e3";
    QTest::newRow("word of a flag") << "FALSE";
    QTest::newRow("malformed address") << "10.1..300";
    QTest::newRow("letters beyond ASCII") << QString::fromUtf8("\xe6\x9c\x89\xe7\xba\xbf \xc3\xa9");
    QTest::newRow("long text") << QString(5000, 'x');
}

void SettingsWritersTest::text_isStoredUnchanged()
{
    QFETCH(QString, text);
    for (const Writer &writer : writers()) {
        QVERIFY(writer.call(true, repeated(writer.textCount(), text)));
    }
    // A modification time of its own makes the reader parse what was really written.
    SwitchIni::setContent(SwitchIni::content());
    WorkerFixture worker;
    worker->loadConfig();
    const NetworkSwitchWorker::PrivateData &d = Peek::record(*worker);
    for (const QString &loaded :
         { d.strConnectionName, d.strFirstServerIp, d.strFirstServerPort, d.strFirstLocalIp,
           d.strFirstLocalMask, d.strFirstLocalGateWay, d.strFirstPreferredDNS, d.strFirstSpareDNS,
           d.strSecondServerIp, d.strSecondServerPort, d.strSecondLocalIp, d.strSecondLocalMask,
           d.strSecondLocalGateWay, d.strSecondPreferredDNS, d.strSecondSpareDNS })
        QCOMPARE(loaded, text);
}

void SettingsWritersTest::loadBetweenTwoWriters_seesTheFirstCallOnly()
{
    SwitchIni::setContent(iniOf(oldLines()));
    Hoplane *facade = lastingFacade();
    WorkerFixture worker;
    const NetworkSwitchWorker::PrivateData &d = Peek::record(*worker);

    QVERIFY(facade->saveFirstLocalInoToFile(true, "a1", "a2", "a3", "a4", "a5"));
    worker->loadConfig();
    QCOMPARE(d.strFirstLocalIp, QString("a1"));
    QCOMPARE(d.strFirstSpareDNS, QString("a5"));
    QCOMPARE(d.strSecondLocalIp, QString("old"));
    QCOMPARE(d.strFirstServerIp, QString("old"));

    QVERIFY(facade->saveSecondLocalInfoToFile(true, "b1", "b2", "b3", "b4", "b5"));
    worker->loadConfig();
    QCOMPARE(d.strFirstLocalIp, QString("a1"));
    QCOMPARE(d.strSecondLocalIp, QString("b1"));
    QCOMPARE(d.strSecondSpareDNS, QString("b5"));
}

void SettingsWritersTest::fileThatCannotBeWritten_staysAndNobodyIsTold_data()
{
    QTest::addColumn<int>("writer");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("permissions");
    const QByteArray content = iniOf(oldLines());
    for (int i = 0; i < writers().size(); ++i) {
        const char *name = writers()[i].name;
        QTest::addRow("%s, read-only file", name) << i << content << int(QFile::ReadOwner);
        QTest::addRow("%s, no permission at all", name) << i << content << 0;
        QTest::addRow("%s, no file", name) << i << QByteArray() << 0;
    }
}

void SettingsWritersTest::fileThatCannotBeWritten_staysAndNobodyIsTold()
{
    QFETCH(int, writer);
    QFETCH(QByteArray, content);
    QFETCH(int, permissions);
    const Writer &tested = writers()[writer];
    lastingFacade();
    // An application for each row: within one process a failed write is kept for the next one.
    QCoreApplication::setApplicationName(QTest::currentDataTag());
    const ReadOnlyFolder folder(content, QFile::Permissions(permissions));

    LogCapture log;
    {
        WithoutFileOverride ordinaryUser;
        QVERIFY(tested.call(true, texts(tested.textCount())));
    }
    QCOMPARE(log.lines().size(), 0);
    QCOMPARE(SwitchIni::content(), content);
    QCOMPARE(QFileInfo(SwitchIni::path()).dir().entryList(QDir::Files | QDir::Hidden),
             content.isNull() ? QStringList() : QStringList("switch.ini"));
}

void SettingsWritersTest::folderThatCannotBeMade_isNoFailure_data()
{
    addWriterRows();
}

void SettingsWritersTest::folderThatCannotBeMade_isNoFailure()
{
    QFETCH(int, writer);
    const Writer &tested = writers()[writer];
    lastingFacade();
    QCoreApplication::setApplicationName(QString("taken %1").arg(writer));
    const QString taken = QFileInfo(SwitchIni::path()).path();
    QVERIFY(QDir().mkpath(QFileInfo(taken).path()));
    writeSettingsFile(taken, "a file where the folder would be");

    LogCapture log;
    QVERIFY(tested.call(true, texts(tested.textCount())));
    QCOMPARE(log.lines().size(), 0);
    QVERIFY(QFileInfo(taken).isFile());
    QVERIFY(QFile::remove(taken));
}

void SettingsWritersTest::writers_logAndSignalNothing()
{
    Hoplane *facade = lastingFacade();
    std::vector<std::unique_ptr<QSignalSpy>> spies;
    const QMetaObject &meta = Hoplane::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Signal)
            spies.push_back(std::make_unique<QSignalSpy>(facade, meta.method(i)));
    }
    QCOMPARE(spies.size(), size_t(5));

    LogCapture log;
    for (const Writer &writer : writers())
        QVERIFY(writer.call(true, texts(writer.textCount())));
    QCOMPARE(log.lines().size(), 0);
    for (const auto &spy : spies)
        QVERIFY2(spy->isEmpty(), spy->signal().constData());
}

HOPLANE_TEST_MAIN(SettingsWritersTest)
#include "settingswriters.moc"
