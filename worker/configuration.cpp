// SPDX-License-Identifier: MIT
#include "networkswitchworker_p.h"

#include "logline_p.h"
#include "switchsettings_p.h"

#include <QtCore/QFile>
#include <QtCore/QSysInfo>

void NetworkSwitchWorker::Network::read(const IniFile &file,
                                        const SwitchSettings::NetworkKeys &keys,
                                        PrivateData *record) const
{
    record->*serverIp = file.text(keys.serverIp);
    record->*serverPort = file.text(keys.serverPort);
    record->*isAutomatically = file.flag(keys.isAutomatically);
    record->*localIp = file.text(keys.localIp);
    record->*localMask = file.text(keys.localMask);
    record->*localGateWay = file.text(keys.localGateWay);
    record->*preferredDns = file.text(keys.preferredDns);
    record->*spareDns = file.text(keys.spareDns);
}

void NetworkSwitchWorker::loadConfig()
{
    const QString path = SwitchSettings::path();
    if (!QFile::exists(path)) {
        qInfo() << LogPrefix(__func__) << " switch congif file:" << path
                << "not exist,can not do net switc.";
        d->bSwitchEnable = false;
        return;
    }

    const IniFile file(path);
    d->bSwitchEnable = file.flag(SwitchSettings::enableKey);
    d->strConnectionName = file.text(SwitchSettings::connectionNameKey);
    Network::first.read(file, SwitchSettings::firstKeys, d.data());
    Network::second.read(file, SwitchSettings::secondKeys, d.data());

    // Meant: off the device, a static second network is tried before an automatic first one.
    const bool onArm = QSysInfo::currentCpuArchitecture().contains(QLatin1String("arm"));
    if (!onArm && !d->bFirstIsAutomatically && d->bSecondIsAutomatically) {
        Network::first.read(file, SwitchSettings::secondKeys, d.data());
        Network::second.read(file, SwitchSettings::firstKeys, d.data());
    }

    qInfo() << LogPrefix(__func__) << " switch info:first serverIp:" << d->strFirstServerIp
            << ",serverPort:" << d->strFirstServerPort;
    qInfo() << LogPrefix(__func__) << " switch info:second  serverIp:" << d->strSecondServerIp
            << ",serverPort:" << d->strSecondServerPort;
}
