// SPDX-License-Identifier: MIT
#include "hoplane.h"

#include "switchsettings_p.h"

#include <initializer_list>

namespace {

struct Entry
{
    QLatin1String key;
    QVariant value;
};

// Meant: nobody is told of a file that could not be written.
bool store(std::initializer_list<Entry> entries)
{
    IniFile file(SwitchSettings::path());
    for (const Entry &entry : entries)
        file.setValue(entry.key, entry.value);
    return true;
}

bool storeLocalAddressing(const SwitchSettings::NetworkKeys &keys, bool isAutomatically,
                          const QString &localIp, const QString &localMask,
                          const QString &localGateWay, const QString &preferredDns,
                          const QString &spareDns)
{
    return store({ { keys.isAutomatically, isAutomatically },
                   { keys.localIp, localIp },
                   { keys.localMask, localMask },
                   { keys.localGateWay, localGateWay },
                   { keys.preferredDns, preferredDns },
                   { keys.spareDns, spareDns } });
}

} // namespace

bool Hoplane::saveSwitchInfoToFile(bool switchEnable, QString firstServerIp,
                                   QString firstServerPort, QString secondServerIp,
                                   QString secondServerPort)
{
    return store({ { SwitchSettings::enableKey, switchEnable },
                   { SwitchSettings::firstKeys.serverIp, firstServerIp },
                   { SwitchSettings::firstKeys.serverPort, firstServerPort },
                   { SwitchSettings::secondKeys.serverIp, secondServerIp },
                   { SwitchSettings::secondKeys.serverPort, secondServerPort } });
}

bool Hoplane::saveConnectionName(QString connectionName)
{
    return store({ { SwitchSettings::connectionNameKey, connectionName } });
}

bool Hoplane::saveFirstLocalInoToFile(bool isAutomatically, QString localIp, QString localMask,
                                      QString localGateWay, QString preferredDns, QString spareDns)
{
    return storeLocalAddressing(SwitchSettings::firstKeys, isAutomatically, localIp, localMask,
                                localGateWay, preferredDns, spareDns);
}

bool Hoplane::saveSecondLocalInfoToFile(bool isAutomatically, QString localIp, QString localMask,
                                        QString localGateWay, QString preferredDns,
                                        QString spareDns)
{
    return storeLocalAddressing(SwitchSettings::secondKeys, isAutomatically, localIp, localMask,
                                localGateWay, preferredDns, spareDns);
}
