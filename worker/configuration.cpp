// SPDX-License-Identifier: MIT
#include "networkswitchworker_p.h"

#include "logline_p.h"
#include "switchsettings_p.h"

#include <QtCore/QFile>
#include <QtCore/QSysInfo>

using SwitchSettings::NetworkKeys;

const NetworkSwitchWorker::Network NetworkSwitchWorker::Network::first = {
    &PrivateData::strFirstServerIp,
    &PrivateData::strFirstServerPort,
    &PrivateData::bFirstIsAutomatically,
    &PrivateData::strFirstLocalIp,
    &PrivateData::strFirstLocalMask,
    &PrivateData::strFirstLocalGateWay,
    &PrivateData::strFirstPreferredDNS,
    &PrivateData::strFirstSpareDNS,
    &NetworkSwitchWorker::setFirstStaticIpAddr,
};

const NetworkSwitchWorker::Network NetworkSwitchWorker::Network::second = {
    &PrivateData::strSecondServerIp,
    &PrivateData::strSecondServerPort,
    &PrivateData::bSecondIsAutomatically,
    &PrivateData::strSecondLocalIp,
    &PrivateData::strSecondLocalMask,
    &PrivateData::strSecondLocalGateWay,
    &PrivateData::strSecondPreferredDNS,
    &PrivateData::strSecondSpareDNS,
    &NetworkSwitchWorker::setSecondStaticIpAddr,
};

namespace {

bool readFlag(const QSettings &file, QLatin1String key)
{
    return file.value(key, QVariant()).toBool();
}

QString readText(const QSettings &file, QLatin1String key)
{
    return file.value(key, QVariant()).toString();
}

template<typename Record, typename Fields>
void readNetwork(const QSettings &file, const NetworkKeys &keys, Record &record,
                 const Fields &fields)
{
    record.*fields.serverIp = readText(file, keys.serverIp);
    record.*fields.serverPort = readText(file, keys.serverPort);
    record.*fields.isAutomatically = readFlag(file, keys.isAutomatically);
    record.*fields.localIp = readText(file, keys.localIp);
    record.*fields.localMask = readText(file, keys.localMask);
    record.*fields.localGateWay = readText(file, keys.localGateWay);
    record.*fields.preferredDns = readText(file, keys.preferredDns);
    record.*fields.spareDns = readText(file, keys.spareDns);
}

} // namespace

void NetworkSwitchWorker::loadConfig()
{
    const QString path = SwitchSettings::path();
    if (!QFile::exists(path)) {
        qInfo() << From(__func__) << " switch congif file:" << path
                << "not exist,can not do net switc.";
        d->bSwitchEnable = false;
        return;
    }

    const IniFile file(path);
    d->bSwitchEnable = readFlag(file, SwitchSettings::enableKey);
    d->strConnectionName = readText(file, SwitchSettings::connectionNameKey);
    readNetwork(file, SwitchSettings::firstKeys, *d, Network::first);
    readNetwork(file, SwitchSettings::secondKeys, *d, Network::second);

    // Meant: off the device, a static second network is tried before an automatic first one.
    const bool onArm = QSysInfo::currentCpuArchitecture().contains(QLatin1String("arm"));
    if (!onArm && !d->bFirstIsAutomatically && d->bSecondIsAutomatically) {
        readNetwork(file, SwitchSettings::secondKeys, *d, Network::first);
        readNetwork(file, SwitchSettings::firstKeys, *d, Network::second);
    }

    qInfo() << From(__func__) << " switch info:first serverIp:" << d->strFirstServerIp
            << ",serverPort:" << d->strFirstServerPort;
    qInfo() << From(__func__) << " switch info:second  serverIp:" << d->strSecondServerIp
            << ",serverPort:" << d->strSecondServerPort;
}
