// SPDX-License-Identifier: MIT
#include "switchsettings_p.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QStandardPaths>
#include <QtCore/QTextCodec>

IniFile::IniFile(const QString &path)
    : QSettings(path, QSettings::IniFormat)
{
    setIniCodec(QTextCodec::codecForName("UTF-8"));
}

QString IniFile::text(QLatin1String key) const
{
    return value(key, QVariant()).toString();
}

bool IniFile::flag(QLatin1String key) const
{
    return value(key, QVariant()).toBool();
}

namespace SwitchSettings {

const QLatin1String enableKey("SwitchEnable");
const QLatin1String connectionNameKey("connectionName");

const NetworkKeys firstKeys = {
    QLatin1String("FirstServerIp"),        QLatin1String("FirstServerPort"),
    QLatin1String("FirstIsAutomatically"), QLatin1String("FirstLocalIp"),
    QLatin1String("FirstLocalMask"),       QLatin1String("FirstLocalGateWay"),
    QLatin1String("FirstPreferredDNS"),    QLatin1String("FirstSpareDNS"),
};

const NetworkKeys secondKeys = {
    QLatin1String("SecondServerIp"),        QLatin1String("SecondServerPort"),
    QLatin1String("SecondIsAutomatically"), QLatin1String("SecondLocalIp"),
    QLatin1String("SecondLocalMask"),       QLatin1String("SecondLocalGateWay"),
    QLatin1String("SecondPreferredDNS"),    QLatin1String("SecondSpareDNS"),
};

QString path()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + QLatin1String("/")
            + QCoreApplication::applicationName() + QLatin1String("/switch.ini");
}

} // namespace SwitchSettings
