// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "hoplane.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtTest/QtTest>

namespace {

const QString home = QStringLiteral("/sandbox/home");
const QString documents = home + QStringLiteral("/Documents");
const QString otherDocuments = home + QStringLiteral("/Own Papers");
const QString userFolders = home + QStringLiteral("/.config/user-dirs.dirs");

bool write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly)
            && file.write(content) == content.size();
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/** The bytes that stand for a value in switch.ini. */
QByteArray storedValue(const QByteArray &key)
{
    const QList<QByteArray> lines = SwitchIni::content().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith(key + '='))
            return line.mid(key.size() + 1);
    }
    return QByteArray();
}

/** Every file below the home folder, without the desktop's own configuration. */
QStringList filesAtHome()
{
    QStringList files;
    QDirIterator entries(home, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QString path = entries.next();
        if (path != userFolders)
            files.append(path);
    }
    files.sort();
    return files;
}

void removeAllAtHome()
{
    QDir(home).removeRecursively();
    QDir().mkpath(home);
}

QVector<Expected> missing(const QString &path)
{
    return { { QtInfoMsg,
               QStringLiteral("[ loadConfig ]  switch congif file: \"%1\" "
                              "not exist,can not do net switc.")
                       .arg(path) } };
}

/** Stores an enabled first server at @p ip with the writer that needs no object. */
bool storeServer(const QString &ip)
{
    return Hoplane::saveSwitchInfoToFile(true, ip, "9001", "", "");
}

void readerAndWriterUse(const QString &path)
{
    WorkerFixture worker;
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log, (missing(path)));
    QVERIFY(storeServer("10.1.0.1"));
    QCOMPARE(filesAtHome(), QStringList(path));
}

} // namespace

/** Where switch.ini is, and its encoding, for the reader and the writers alike. */
class SwitchSettingsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void reader_looksInDocumentsUnderTheApplicationsName();
    void writer_storesInDocumentsUnderTheApplicationsName();
    void reader_asksForTheComposedPathAlone();
    void applicationName_isTakenUpAtEachLoad();
    void applicationName_isTakenUpAtEachWrite();
    void applicationName_isUsedAsItIs_data();
    void applicationName_isUsedAsItIs();
    void clearedApplicationName_fallsBackToTheExecutablesName();
    void documentsFolder_isTakenUpAtEachAccess();
    void missingFolders_areMadeByTheWriterOnly();
    void workingFolder_isOfNoInfluence();
    void writerAndReader_agreeOnThePath();

    void reader_decodesUtf8();
    void writer_encodesUtf8();
    void writer_keepsForeignUtf8();
    void keys_areWrittenToTheGeneralSection();
};

void SwitchSettingsTest::init()
{
    removeAllAtHome();
    QCoreApplication::setApplicationName("unittest");
}

void SwitchSettingsTest::cleanup()
{
    QCoreApplication::setApplicationName("unittest");
    removeAllAtHome();
}

void SwitchSettingsTest::reader_looksInDocumentsUnderTheApplicationsName()
{
    WorkerFixture worker;
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log, (missing("/sandbox/home/Documents/unittest/switch.ini")));
}

void SwitchSettingsTest::writer_storesInDocumentsUnderTheApplicationsName()
{
    QVERIFY(storeServer("10.1.0.1"));
    QCOMPARE(filesAtHome(), QStringList("/sandbox/home/Documents/unittest/switch.ini"));
}

void SwitchSettingsTest::reader_asksForTheComposedPathAlone()
{
    SettingsTrace trace;
    Interpose::Hooks hooks;
    trace.addTo(&hooks);
    WorkerFixture worker(hooks);
    worker->loadConfig();
    QCOMPARE(trace.lines(), QStringList("exists /sandbox/home/Documents/unittest/switch.ini"));
}

void SwitchSettingsTest::applicationName_isTakenUpAtEachLoad()
{
    QVERIFY(write(documents + "/one/switch.ini", "[General]\nFirstServerIp=10.1.0.1\n"));
    QVERIFY(write(documents + "/another/switch.ini", "[General]\nFirstServerIp=10.1.0.22\n"));
    WorkerFixture worker;
    QCoreApplication::setApplicationName("one");
    worker->loadConfig();
    QCOMPARE(Peek::record(*worker).strFirstServerIp, QString("10.1.0.1"));
    QCoreApplication::setApplicationName("another");
    worker->loadConfig();
    QCOMPARE(Peek::record(*worker).strFirstServerIp, QString("10.1.0.22"));
    QCoreApplication::setApplicationName("third");
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log, (missing("/sandbox/home/Documents/third/switch.ini")));
}

void SwitchSettingsTest::applicationName_isTakenUpAtEachWrite()
{
    QCoreApplication::setApplicationName("one");
    QVERIFY(storeServer("10.1.0.1"));
    const QByteArray first = contentOf(documents + "/one/switch.ini");
    QCoreApplication::setApplicationName("another");
    QVERIFY(storeServer("10.1.0.2"));

    QCOMPARE(filesAtHome(),
             (QStringList{ documents + "/another/switch.ini", documents + "/one/switch.ini" }));
    QVERIFY(first.contains("FirstServerIp=10.1.0.1\n"));
    QCOMPARE(contentOf(documents + "/one/switch.ini"), first);
    QVERIFY(contentOf(documents + "/another/switch.ini").contains("FirstServerIp=10.1.0.2\n"));
}

void SwitchSettingsTest::applicationName_isUsedAsItIs_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("blanks and capitals") << "My Device";
    QTest::newRow("dots") << "org.example.device";
    QTest::newRow("ending that looks like a file's") << "device.ini";
    QTest::newRow("letters beyond ASCII") << QString::fromUtf8("Ger\xc3\xa4t");
    QTest::newRow("folder within a folder") << "vendor/device";
}

void SwitchSettingsTest::applicationName_isUsedAsItIs()
{
    QFETCH(QString, name);
    QCoreApplication::setApplicationName(name);
    const QString path = "/sandbox/home/Documents/" + name + "/switch.ini";
    readerAndWriterUse(path);
}

void SwitchSettingsTest::clearedApplicationName_fallsBackToTheExecutablesName()
{
    const QString executable = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    const QString path = "/sandbox/home/Documents/" + executable + "/switch.ini";
    QCoreApplication::setApplicationName(QString());
    readerAndWriterUse(path);
}

void SwitchSettingsTest::documentsFolder_isTakenUpAtEachAccess()
{
    QVERIFY(storeServer("10.1.0.1"));
    WorkerFixture worker;
    worker->loadConfig();
    QCOMPARE(Peek::record(*worker).strFirstServerIp, QString("10.1.0.1"));

    QVERIFY(write(userFolders, "XDG_DOCUMENTS_DIR=\"$HOME/Own Papers\"\n"));
    LogCapture log;
    worker->loadConfig();
    COMPARE_LOG(log, (missing("/sandbox/home/Own Papers/unittest/switch.ini")));
    QVERIFY(storeServer("10.1.0.2"));
    worker->loadConfig();
    QCOMPARE(Peek::record(*worker).strFirstServerIp, QString("10.1.0.2"));
    QCOMPARE(filesAtHome(),
             (QStringList{ documents + "/unittest/switch.ini",
                           otherDocuments + "/unittest/switch.ini" }));
}

void SwitchSettingsTest::missingFolders_areMadeByTheWriterOnly()
{
    WorkerFixture worker;
    worker->loadConfig();
    QCOMPARE(QDir(home).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    QVERIFY(storeServer("10.1.0.1"));
    QVERIFY(QFileInfo(documents + "/unittest").isDir());
}

void SwitchSettingsTest::workingFolder_isOfNoInfluence()
{
    const QString before = QDir::currentPath();
    QTemporaryDir elsewhere;
    QVERIFY(QDir::setCurrent(elsewhere.path()));
    const bool stored = storeServer("10.1.0.1");
    const QStringList here = QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    QVERIFY(QDir::setCurrent(before));
    QVERIFY(stored);
    QCOMPARE(here, QStringList());
    QCOMPARE(filesAtHome(), QStringList("/sandbox/home/Documents/unittest/switch.ini"));
}

void SwitchSettingsTest::writerAndReader_agreeOnThePath()
{
    WorkerFixture worker;
    for (const char *name : { "one", "another", "one" }) {
        QCoreApplication::setApplicationName(name);
        const QString ip = QString("10.1.0.%1").arg(int(qstrlen(name)));
        QVERIFY(storeServer(ip));
        worker->loadConfig();
        QCOMPARE(Peek::record(*worker).strFirstServerIp, ip);
        QVERIFY(Peek::record(*worker).bSwitchEnable);
    }
}

void SwitchSettingsTest::reader_decodesUtf8()
{
    WorkerFixture worker;
    SwitchIni::setContent("[General]\nconnectionName=\xe6\x9c\x89\xe7\xba\xbf \xc3\xa9 1\n");
    worker->loadConfig();
    const QString expected = QChar(0x6709) + QString(QChar(0x7ebf)) + ' ' + QChar(0xe9) + " 1";
    QCOMPARE(Peek::record(*worker).strConnectionName, expected);
}

void SwitchSettingsTest::writer_encodesUtf8()
{
    QVERIFY(storeServer(QString(QChar(0x6709)) + QChar(0xe9)));
    QCOMPARE(storedValue("FirstServerIp"), QByteArray("\xe6\x9c\x89\xc3\xa9"));
}

void SwitchSettingsTest::writer_keepsForeignUtf8()
{
    SwitchIni::setContent("[General]\nconnectionName=\xe6\x9c\x89\xe7\xba\xbf\n");
    QVERIFY(storeServer("10.1.0.1"));
    QCOMPARE(storedValue("connectionName"), QByteArray("\xe6\x9c\x89\xe7\xba\xbf"));
}

void SwitchSettingsTest::keys_areWrittenToTheGeneralSection()
{
    QVERIFY(storeServer("10.1.0.1"));
    const QByteArray content = SwitchIni::content();
    QVERIFY(content.startsWith("[General]\n"));
    QCOMPARE(content.count('['), 1);
    QCOMPARE(content.count('\\'), 0);
}

HOPLANE_TEST_MAIN(SwitchSettingsTest)
#include "switchsettings.moc"
