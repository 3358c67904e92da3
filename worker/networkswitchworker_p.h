// SPDX-License-Identifier: MIT
#ifndef HOPLANE_NETWORKSWITCHWORKER_P_H
#define HOPLANE_NETWORKSWITCHWORKER_P_H

#include "networkswitchworker.h"
#include "switchsettings_p.h"

/** The in-memory form of switch.ini, in the order in which it is read. */
struct Q_DECL_HIDDEN NetworkSwitchWorker::PrivateData
{
    bool bSwitchEnable = false;
    QString strConnectionName;
    QString strFirstServerIp;
    QString strFirstServerPort;
    bool bFirstIsAutomatically = false;
    QString strFirstLocalIp;
    QString strFirstLocalMask;
    QString strFirstLocalGateWay;
    QString strFirstPreferredDNS;
    QString strFirstSpareDNS;
    QString strSecondServerIp;
    QString strSecondServerPort;
    bool bSecondIsAutomatically = false;
    QString strSecondLocalIp;
    QString strSecondLocalMask;
    QString strSecondLocalGateWay;
    QString strSecondPreferredDNS;
    QString strSecondSpareDNS;
};

enum SwitchState { Idle = 0, Searching = 1, ServerReached = 2 };

/** One network's half of the record, and the public function that applies its addressing. */
struct Q_DECL_HIDDEN NetworkSwitchWorker::Network
{
    QString PrivateData::*serverIp;
    QString PrivateData::*serverPort;
    bool PrivateData::*isAutomatically;
    QString PrivateData::*localIp;
    QString PrivateData::*localMask;
    QString PrivateData::*localGateWay;
    QString PrivateData::*preferredDns;
    QString PrivateData::*spareDns;
    void (NetworkSwitchWorker::*applyAddressing)();

    /** Fills this half of the record from the values under the keys. */
    void read(const IniFile &file, const SwitchSettings::NetworkKeys &keys,
              PrivateData *record) const;

    static const Network first;
    static const Network second;
};

#endif
