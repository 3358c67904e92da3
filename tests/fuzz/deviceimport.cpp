// SPDX-License-Identifier: MIT
// Any bytes as the device's network settings, imported into a switch.ini that has other values.

#include "fuzzing.h"
#include "hoplane.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSettings>
#include <QtCore/QStandardPaths>
#include <QtCore/QTextCodec>

namespace {

constexpr std::size_t mostBytes = 20000;
const QString devicePath = QStringLiteral("/userdata/netSettings.ini");
// QSettings keeps what it has parsed or written of a path, so that files are read under others. It
// also parses a section when it is first asked for: the same questions have the same answers only
// in the same order.
const QString copyPath = QStringLiteral("/userdata/copy.ini");
const QString storedPath = QStringLiteral("/userdata/stored.ini");
const QString writtenPath = QStringLiteral("/userdata/written.ini");

QString path()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + QLatin1Char('/')
            + QCoreApplication::applicationName() + QLatin1String("/switch.ini");
}

using Values = QVector<QPair<QString, QString>>;

/** What the import replaces, from the device's file. */
Values expected()
{
    QSettings device(copyPath, QSettings::IniFormat);
    device.setIniCodec(QTextCodec::codecForName("UTF-8"));
    const QString group = QStringLiteral("NetworkConnections/");
    const auto text = [&](const QString &key) { return device.value(group + key).toString(); };
    const auto flag = [&](const QString &key, bool fallback) {
        return device.contains(group + key) ? device.value(group + key).toBool() : fallback;
    };
    Values values = { { "connectionName", text("conName") } };
    const bool common = flag("bDhcpEnabled", true);
    const QString names[][2] = { { "First", "MasterNet/" }, { "Second", "SlaveNet/" } };
    for (const auto &[to, from] : names) {
        const bool dhcp = flag(from + "bDhcpEnabled", common);
        values.append({ to + "IsAutomatically", dhcp ? "false" : "true" });
        values.append({ to + "LocalIp", text(from + "ip") });
        values.append({ to + "LocalMask", text(from + "mask") });
        values.append({ to + "LocalGateWay", text(from + "gateway") });
        values.append({ to + "PreferredDNS", text(from + "dns1") });
        values.append({ to + "SpareDNS", text(from + "dns2") });
    }
    return values;
}

/** The same values of a file, as it lies on the disk. */
Values stored(const QString &in, const Values &wanted)
{
    Fuzzing::writeFile(storedPath, Fuzzing::readFile(in));
    QSettings file(storedPath, QSettings::IniFormat);
    file.setIniCodec(QTextCodec::codecForName("UTF-8"));
    Values found;
    for (const auto &value : wanted)
        found.append({ value.first, file.value(value.first, "missing").toString() });
    return found;
}

/** Not all characters come through a file: half a surrogate pair becomes another one. */
Values throughFile(const Values &values)
{
    Fuzzing::writeFile(writtenPath, "");
    {
        QSettings file(writtenPath, QSettings::IniFormat);
        file.setIniCodec(QTextCodec::codecForName("UTF-8"));
        for (const auto &value : values)
            file.setValue(value.first, value.second);
    }
    return stored(writtenPath, values);
}

QString shown(const Values &values)
{
    QString text;
    for (const auto &value : values)
        text += value.first + QLatin1Char('=') + value.second + QLatin1Char('\n');
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size > mostBytes)
        return -1;
    // Its two threads only wait. It imports, too, and finds no file yet.
    static Hoplane *const facade = Hoplane::instance();
    Fuzzing::writeFile(devicePath, std::string(data, data + size));
    Fuzzing::writeFile(copyPath, std::string(data, data + size));
    Fuzzing::writeFile(path(),
                       "[General]\nSwitchEnable=true\nFirstServerIp=192.0.2.1\n"
                       "connectionName=old\nFirstSpareDNS=old\nSecondIsAutomatically=true\n"
                       "mine=kept\n");
    Fuzzing::takeLog();
    if (Fuzzing::runsOutOfMemory([] { facade->loadSwitchLocalConfig(); })) {
        Fuzzing::require("the file alone does that too",
                         Fuzzing::runsOutOfMemory([] { (void)expected(); }));
        return 0;
    }
    Fuzzing::requireEqual("nothing is logged", Fuzzing::takeLog(), {});

    const Values wanted = expected();
    const Values found = stored(path(), wanted);
    const QSettings file(storedPath, QSettings::IniFormat);
    Fuzzing::require("other keys are kept",
                     file.value("SwitchEnable").toString() == "true"
                             && file.value("FirstServerIp").toString() == "192.0.2.1"
                             && file.value("mine").toString() == "kept");
    if (found != wanted)
        Fuzzing::requireEqual("what is stored", shown(found), shown(throughFile(wanted)));
    return 0;
}
