// SPDX-License-Identifier: MIT
#include "peek.h"

#include <QtCore/QTimerEvent>

// An explicit instantiation may name a private member; its friend hands the pointer out.
namespace {

template<typename Tag, typename Tag::Pointer pointer>
struct Grant
{
    friend typename Tag::Pointer granted(Tag) { return pointer; }
};

} // namespace

#define GRANT(Name, Class, Type, member) \
    namespace { \
    struct Name \
    { \
        using Pointer = Type Class::*; /* NOLINT(bugprone-macro-parentheses): a type */ \
        friend Pointer granted(Name); \
    }; \
    template struct Grant<Name, &Class::member>; \
    }

#define GRANT_CALL(Name, PointerType, pointer) \
    namespace { \
    struct Name \
    { \
        using Pointer = PointerType; \
        friend Pointer granted(Name); \
    }; \
    template struct Grant<Name, pointer>; \
    }

GRANT(WorkerWatcher, NetworkSwitchWorker, QSharedPointer<CAddressWatcher>, m_watcher)
GRANT(WorkerTimerId, NetworkSwitchWorker, int, m_nTimerId)
GRANT(WorkerSwitchState, NetworkSwitchWorker, int, m_nSwitchState)
GRANT(WorkerRecord, NetworkSwitchWorker, QScopedPointer<NetworkSwitchWorker::PrivateData>, d)
GRANT(WorkerStaticAddress, NetworkSwitchWorker, QString, m_strStaticAddress)
GRANT(WorkerCurrentServerIp, NetworkSwitchWorker, QString, m_strCurrentServerIp)
GRANT(WorkerSendCurrentServerIp, NetworkSwitchWorker, bool, m_bSendCurrentServerIp)
GRANT(WorkerNeedRefresh, NetworkSwitchWorker, bool, m_bNeedRefresh)
GRANT(FacadeConfigManager, Hoplane, QNetworkConfigurationManager *, m_pConfigManager)
GRANT(FacadeWorkerThread, Hoplane, QThread, m_workerThread)
GRANT(WatcherRunning, CAddressWatcher, bool, bRunning)
GRANT(WatcherAddressChanged, CAddressWatcher, bool, bAddressChanged)
GRANT(WatcherFinishPending, CAddressWatcher, bool, bFinishPending)
GRANT_CALL(WatcherRun, void (CAddressWatcher::*)(), &CAddressWatcher::run)
GRANT_CALL(WorkerTimerEvent, void (NetworkSwitchWorker::*)(QTimerEvent *),
           &NetworkSwitchWorker::timerEvent)
GRANT_CALL(ObjectReceivers, int (QObject::*)(const char *) const, &QObject::receivers)

QSharedPointer<CAddressWatcher> &Peek::watcher(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerWatcher());
}

int &Peek::timerId(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerTimerId());
}

int &Peek::switchState(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerSwitchState());
}

NetworkSwitchWorker::PrivateData &Peek::record(NetworkSwitchWorker &worker)
{
    return *(worker.*granted(WorkerRecord()));
}

QScopedPointer<NetworkSwitchWorker::PrivateData> &Peek::recordPointer(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerRecord());
}

QString &Peek::staticAddress(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerStaticAddress());
}

QString &Peek::currentServerIp(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerCurrentServerIp());
}

bool &Peek::sendCurrentServerIp(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerSendCurrentServerIp());
}

bool &Peek::needRefresh(NetworkSwitchWorker &worker)
{
    return worker.*granted(WorkerNeedRefresh());
}

QNetworkConfigurationManager *&Peek::configManager(Hoplane &facade)
{
    return facade.*granted(FacadeConfigManager());
}

QThread &Peek::workerThread(Hoplane &facade)
{
    return facade.*granted(FacadeWorkerThread());
}

bool &Peek::running(CAddressWatcher &watcher)
{
    return watcher.*granted(WatcherRunning());
}

bool &Peek::addressChanged(CAddressWatcher &watcher)
{
    return watcher.*granted(WatcherAddressChanged());
}

bool &Peek::finishPending(CAddressWatcher &watcher)
{
    return watcher.*granted(WatcherFinishPending());
}

void Peek::run(CAddressWatcher &watcher)
{
    (watcher.*granted(WatcherRun()))();
}

void Peek::tick(NetworkSwitchWorker &worker)
{
    QTimerEvent event(timerId(worker));
    (worker.*granted(WorkerTimerEvent()))(&event);
}

int Peek::receivers(const QObject &sender, const char *signal)
{
    return (sender.*granted(ObjectReceivers()))(signal);
}
