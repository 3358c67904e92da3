// SPDX-License-Identifier: MIT
#include "hoplane.h"

#include "logline_p.h"
#include "networkswitchworker.h"

#include <QtNetwork/QNetworkConfigurationManager>

namespace {

Hoplane *s_pInstance = nullptr;

void logConfiguration(const char *function, const QNetworkConfiguration &config)
{
    qInfo() << LogPrefix(function) << "name" << config.name();
}

} // namespace

Hoplane *Hoplane::instance()
{
    if (!s_pInstance) {
        qInfo() << LogPrefix(__func__) << "new Hoplane ";
        s_pInstance = new Hoplane(nullptr);
    }
    return s_pInstance;
}

Hoplane::Hoplane(QObject *parent)
    : QObject(parent)
{
    // Before the worker exists, so that its first search reads the imported values.
    loadSwitchLocalConfig();

    m_pConfigManager = new QNetworkConfigurationManager;
    connect(m_pConfigManager, SIGNAL(onlineStateChanged(bool)), this, SLOT(networkOnline(bool)));
    connect(m_pConfigManager, &QNetworkConfigurationManager::configurationChanged, this,
            &Hoplane::networkChanged);
    connect(m_pConfigManager, &QNetworkConfigurationManager::configurationAdded, this,
            &Hoplane::networkAdd);
    connect(m_pConfigManager, &QNetworkConfigurationManager::configurationRemoved, this,
            &Hoplane::networkRemove);

    auto *worker = new NetworkSwitchWorker(nullptr);
    worker->moveToThread(&m_workerThread);
    connect(&m_workerThread, &QThread::finished, worker, &NetworkSwitchWorker::deleteLater);
    connect(this, &Hoplane::start, worker, &NetworkSwitchWorker::start);
    connect(this, &Hoplane::sendCurrentServerip, worker,
            &NetworkSwitchWorker::onSendCurrentServerip);
    connect(worker, &NetworkSwitchWorker::mySwitchBegin, this, &Hoplane::switchBegin);
    connect(worker, &NetworkSwitchWorker::mySwitchSuccess, this, &Hoplane::switchSuccess);
    connect(worker, &NetworkSwitchWorker::mySwitchFailed, this, &Hoplane::switchFailed);
    connect(worker, &NetworkSwitchWorker::ipChanged, this, &Hoplane::onIpChanged);
    m_workerThread.start(QThread::InheritPriority);
}

Hoplane::~Hoplane()
{
    // Meant: the worker thread is neither asked to quit nor waited for.
    delete m_pConfigManager;
    m_pConfigManager = nullptr;
}

void Hoplane::networkOnline(bool online)
{
    if (online) {
        // Meant: the messages speak of a search, and none is made.
        qInfo() << LogPrefix(__func__) << "online is true,begin try find available server ip";
        qInfo() << LogPrefix(__func__) << ",finish try find available server ip";
    } else {
        // The number is a fixed piece of the line.
        qInfo() << LogPrefix(__func__) << "online"
                << "false" << 949;
    }
}

void Hoplane::networkChanged(const QNetworkConfiguration &config)
{
    logConfiguration(__func__, config);
}

void Hoplane::networkAdd(const QNetworkConfiguration &config)
{
    logConfiguration(__func__, config);
}

void Hoplane::networkRemove(const QNetworkConfiguration &config)
{
    logConfiguration(__func__, config);
}

void Hoplane::onIpChanged()
{
    Q_EMIT start();
}
