// SPDX-License-Identifier: MIT
// Any bytes as switch.ini.

#include "../unit/support/peek.h"
#include "fuzzing.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSettings>
#include <QtCore/QStandardPaths>
#include <QtCore/QTextCodec>

namespace {

constexpr std::size_t mostBytes = 20000;
// QSettings keeps what it has parsed of a path.
const QString copyPath = QStringLiteral("/userdata/copy.ini");

QString path()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + QLatin1Char('/')
            + QCoreApplication::applicationName() + QLatin1String("/switch.ini");
}

QString flag(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

/** The record, a line a field. */
QString shown(const NetworkSwitchWorker::PrivateData &record)
{
    const QStringList fields = {
        flag(record.bSwitchEnable),
        record.strConnectionName,
        record.strFirstServerIp,
        record.strFirstServerPort,
        flag(record.bFirstIsAutomatically),
        record.strFirstLocalIp,
        record.strFirstLocalMask,
        record.strFirstLocalGateWay,
        record.strFirstPreferredDNS,
        record.strFirstSpareDNS,
        record.strSecondServerIp,
        record.strSecondServerPort,
        flag(record.bSecondIsAutomatically),
        record.strSecondLocalIp,
        record.strSecondLocalMask,
        record.strSecondLocalGateWay,
        record.strSecondPreferredDNS,
        record.strSecondSpareDNS,
    };
    return fields.join(QStringLiteral("\n"));
}

/** The same from the file itself. */
QString expected(bool onDevice)
{
    QSettings file(copyPath, QSettings::IniFormat);
    file.setIniCodec(QTextCodec::codecForName("UTF-8"));
    const auto text = [&file](const QString &key) { return file.value(key).toString(); };
    const auto isTrue = [&file](const QString &key) { return flag(file.value(key).toBool()); };
    const bool exchanged = !onDevice && !file.value("FirstIsAutomatically").toBool()
            && file.value("SecondIsAutomatically").toBool();
    QStringList fields = { isTrue("SwitchEnable"), text("connectionName") };
    const QString order[] = { exchanged ? "Second" : "First", exchanged ? "First" : "Second" };
    for (const QString &which : order) {
        fields << text(which + "ServerIp") << text(which + "ServerPort")
               << isTrue(which + "IsAutomatically") << text(which + "LocalIp")
               << text(which + "LocalMask") << text(which + "LocalGateWay")
               << text(which + "PreferredDNS") << text(which + "SpareDNS");
    }
    return fields.join(QStringLiteral("\n"));
}

/** As the logger shows a text, with the blanks around it. */
QString quoted(const QString &text)
{
    QString shown;
    QDebug(&shown) << text;
    return shown;
}

QVector<Fuzzing::Line> log(const NetworkSwitchWorker::PrivateData &record)
{
    return {
        { QtInfoMsg,
          QStringLiteral("[ loadConfig ]  switch info:first serverIp: ")
                  + quoted(record.strFirstServerIp) + QStringLiteral(",serverPort: ")
                  + quoted(record.strFirstServerPort).chopped(1) },
        { QtInfoMsg,
          QStringLiteral("[ loadConfig ]  switch info:second  serverIp: ")
                  + quoted(record.strSecondServerIp) + QStringLiteral(",serverPort: ")
                  + quoted(record.strSecondServerPort).chopped(1) },
    };
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size > mostBytes)
        return -1;
    Fuzzing::Bytes bytes(data, size);
    const bool onDevice = bytes.byte() % 2 != 0;
    Fuzzing::setArchitecture(onDevice ? QStringLiteral("arm64") : QStringLiteral("x86_64"));
    const std::string content = bytes.rest();
    Fuzzing::writeFile(path(), content);
    Fuzzing::writeFile(copyPath, content);
    NetworkSwitchWorker &worker = Fuzzing::worker();
    Fuzzing::takeLog();

    if (Fuzzing::runsOutOfMemory([&] { worker.loadConfig(); })) {
        Fuzzing::require("the file alone does that too",
                         Fuzzing::runsOutOfMemory([&] { (void)expected(onDevice); }));
        return 0;
    }
    const NetworkSwitchWorker::PrivateData &record = Peek::record(worker);
    const QString once = shown(record);
    Fuzzing::requireEqual("the log", Fuzzing::takeLog(), log(record));
    Fuzzing::requireEqual("the record", once, expected(onDevice));
    Fuzzing::writeFile(path(), content);
    worker.loadConfig();
    Fuzzing::requireEqual("a second load", shown(record), once);
    return 0;
}
