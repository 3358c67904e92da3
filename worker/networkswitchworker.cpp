// SPDX-License-Identifier: MIT
#include "networkswitchworker_p.h"

#include "caddresswatcher.h"

#include <QtNetwork/QHostAddress>

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

constexpr int noTimer = -1;
constexpr int statisticsIntervalMs = 3000;

} // namespace

NetworkSwitchWorker::NetworkSwitchWorker(QObject *parent)
    : QObject(parent)
    , m_watcher(new CAddressWatcher(this))
    , m_nTimerId(noTimer)
    , m_nSwitchState(Idle)
    , d(new PrivateData)
    , m_bSendCurrentServerIp(false)
    , m_bNeedRefresh(false)
{
    m_nTimerId = startTimer(statisticsIntervalMs, Qt::CoarseTimer);

    connect(m_watcher.data(), &CAddressWatcher::addressChanged, this,
            &NetworkSwitchWorker::slotAddressChanged);
    connect(m_watcher.data(), &CAddressWatcher::netWorkdown, this,
            &NetworkSwitchWorker::slotNetWorkDown);
    connect(m_watcher.data(), &CAddressWatcher::reopen_network, this,
            &NetworkSwitchWorker::slotReopen_network);
    connect(this, &NetworkSwitchWorker::finished, m_watcher.data(), &CAddressWatcher::slotFinish);

    m_watcher->start(QThread::InheritPriority);
}

NetworkSwitchWorker::~NetworkSwitchWorker()
{
    // Meant: the watcher's thread is neither asked to end nor waited for.
    stopStatisticsTimer();
}

void NetworkSwitchWorker::start()
{
    findAvailableIp();
    // Meant: not a unique connection; slotAddressChanged() removes all of them at once.
    connect(m_watcher.data(), &CAddressWatcher::addressChanged, this,
            &NetworkSwitchWorker::slotAddressChanged);
}

void NetworkSwitchWorker::resume()
{
    startStatisticsTimer();
}

void NetworkSwitchWorker::pause()
{
    // Meant: the counterpart of resume() stops nothing.
}

void NetworkSwitchWorker::startStatisticsTimer()
{
    if (m_nTimerId == noTimer)
        m_nTimerId = startTimer(statisticsIntervalMs, Qt::CoarseTimer);
}

void NetworkSwitchWorker::stopStatisticsTimer()
{
    if (m_nTimerId != noTimer) {
        killTimer(m_nTimerId);
        m_nTimerId = noTimer;
    }
}

void NetworkSwitchWorker::timerEvent(QTimerEvent *)
{
    // Meant: the timer ticks for the worker's whole life and does no work.
}

void NetworkSwitchWorker::onSendCurrentServerip(QString)
{
    m_bSendCurrentServerIp = true;
}

bool NetworkSwitchWorker::IsSameAsCurConfig()
{
    return true;
}

bool NetworkSwitchWorker::filterInvalidIP(const QHostAddress &addr)
{
    if (addr.isLoopback())
        return false;
    // Meant: the loopback test covers these two already.
    if (addr == QHostAddress::LocalHost)
        return false;
    if (addr == QHostAddress::LocalHostIPv6)
        return false;
    return !addr.isLinkLocal();
}
