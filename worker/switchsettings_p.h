// SPDX-License-Identifier: MIT
#ifndef HOPLANE_SWITCHSETTINGS_P_H
#define HOPLANE_SWITCHSETTINGS_P_H

#include <QtCore/QSettings>
#include <QtCore/QString>

/** An INI file in UTF-8. Destroying it writes what was set. A missing key is empty, or false. */
class Q_DECL_HIDDEN IniFile : public QSettings
{
public:
    explicit IniFile(const QString &path);

    QString text(QLatin1String key) const;
    bool flag(QLatin1String key) const;
};

/** The path and the key names of switch.ini: the one place that knows them. */
namespace SwitchSettings {

/** Key names of one server and of the local addressing used to reach it. */
struct NetworkKeys
{
    QLatin1String serverIp;
    QLatin1String serverPort;
    QLatin1String isAutomatically;
    QLatin1String localIp;
    QLatin1String localMask;
    QLatin1String localGateWay;
    QLatin1String preferredDns;
    QLatin1String spareDns;
};

extern const QLatin1String enableKey;
extern const QLatin1String connectionNameKey;
extern const NetworkKeys firstKeys;
extern const NetworkKeys secondKeys;

/** Composed anew at each call: documents folder, application name, "switch.ini". */
QString path();

} // namespace SwitchSettings

#endif
