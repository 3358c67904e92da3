// SPDX-License-Identifier: MIT
#include "networkswitchworker_p.h"

#include "caddresswatcher.h"
#include "logline_p.h"

#include <QtCore/QDateTime>

namespace {

constexpr qint64 lastPassStartMs = 119999;
constexpr int attemptMs = 500;
constexpr int fewTries = 10;
constexpr int manyTries = 20;
constexpr int timeoutCode = -1;

} // namespace

void NetworkSwitchWorker::findAvailableIp()
{
    m_nSwitchState = Searching;
    loadConfig();
    // Meant: with switching disabled the state stays, and nothing is signalled.
    if (!d->bSwitchEnable)
        return;

    doConnetServer();
    if (m_nSwitchState != ServerReached) {
        qInfo() << LogPrefix(__func__) << " switch time out";
        Q_EMIT mySwitchFailed(QStringLiteral("网络切换超时，请检查双网配置信息或网络线路"),
                              timeoutCode);
        Q_EMIT finished();
    }
    m_nSwitchState = Idle;
}

void NetworkSwitchWorker::doConnetServer()
{
    const QDateTime begin = QDateTime::currentDateTime();
    while (begin.msecsTo(QDateTime::currentDateTime()) <= lastPassStartMs) {
        if (doConnetFirstServer())
            return;
        if (doConnetSecondServer())
            return;
    }
}

bool NetworkSwitchWorker::doConnetFirstServer()
{
    return connectNetwork(__func__, Network::first);
}

bool NetworkSwitchWorker::doConnetSecondServer()
{
    return connectNetwork(__func__, Network::second);
}

bool NetworkSwitchWorker::connectNetwork(const char *function, const Network &network)
{
    const PrivateData &record = *d;
    int maxTries = fewTries;
    if (record.bFirstIsAutomatically && record.bSecondIsAutomatically) {
        if (isOnLocalAddress(function, network))
            return false;
        maxTries = manyTries;
    }

    (this->*network.applyAddressing)();
    if (!tryConnectRemote(record.*network.serverIp, record.*network.serverPort, attemptMs,
                          maxTries))
        return false;

    Q_EMIT mySwitchSuccess(record.*network.serverIp, record.*network.serverPort);
    m_strCurrentServerIp = record.*network.serverIp;
    m_nSwitchState = ServerReached;
    Q_EMIT finished();
    return true;
}

bool NetworkSwitchWorker::isOnLocalAddress(const char *function, const Network &network)
{
    const QString &localIp = (*d).*network.localIp;
    const QString current = getIPAddress();
    qInfo() << LogPrefix(function) << "the net ip adddr:" << current
            << ",the switch local ip addr:" << localIp;
    // Meant: a substring test, so that no address at all, or the beginning of this one, counts as
    // the same.
    if (localIp.indexOf(current) == -1)
        return false;
    qInfo() << LogPrefix(function) << "it is the same net ip adddr " << localIp;
    return true;
}

void NetworkSwitchWorker::slotAddressChanged()
{
    // The number is a fixed piece of the line.
    qInfo() << LogPrefix(__func__) << QString("%1 %2: ip changed").arg(__func__).arg(116);
    if (m_nSwitchState != Idle) {
        qInfo() << LogPrefix(__func__) << " it's doing net switch.";
        return;
    }
    m_nSwitchState = Searching;
    disconnect(m_watcher.data(), &CAddressWatcher::addressChanged, this,
               &NetworkSwitchWorker::slotAddressChanged);
    Q_EMIT ipChanged();
}

void NetworkSwitchWorker::slotNetWorkDown()
{
    loadConfig();
    if (d->bSwitchEnable)
        Q_EMIT mySwitchBegin();
}

void NetworkSwitchWorker::slotReopen_network(int state)
{
    loadConfig();
    if (!d->bSwitchEnable)
        return;
    Q_EMIT mySwitchBegin();
    m_bNeedRefresh = false;
    m_strStaticAddress = QString();
    reopenNetwork(state != 0 ? Network::second : Network::first);
}

void NetworkSwitchWorker::reopenNetwork(const Network &network)
{
    const PrivateData &record = *d;
    (this->*network.applyAddressing)();
    // Meant: an unreachable server is not reported, and the switch state is not touched.
    if (tryConnectRemote(record.*network.serverIp, record.*network.serverPort, attemptMs,
                         manyTries))
        Q_EMIT mySwitchSuccess(record.*network.serverIp, record.*network.serverPort);
}
