// SPDX-License-Identifier: MIT
#ifndef PEEK_H
#define PEEK_H

#include "caddresswatcher.h"
#include "hoplane.h"
#include "networkswitchworker_p.h"

#include <cstddef>

/** The private members of the library's classes, for tests to read and to set. */
namespace Peek {

QSharedPointer<CAddressWatcher> &watcher(NetworkSwitchWorker &worker);
int &timerId(NetworkSwitchWorker &worker);
int &switchState(NetworkSwitchWorker &worker);
NetworkSwitchWorker::PrivateData &record(NetworkSwitchWorker &worker);
/** Null while the pointer is. */
QScopedPointer<NetworkSwitchWorker::PrivateData> &recordPointer(NetworkSwitchWorker &worker);
QString &staticAddress(NetworkSwitchWorker &worker);
QString &currentServerIp(NetworkSwitchWorker &worker);
bool &sendCurrentServerIp(NetworkSwitchWorker &worker);
bool &needRefresh(NetworkSwitchWorker &worker);

QNetworkConfigurationManager *&configManager(Hoplane &facade);
QThread &workerThread(Hoplane &facade);

bool &running(CAddressWatcher &watcher);
bool &addressChanged(CAddressWatcher &watcher);
bool &finishPending(CAddressWatcher &watcher);

/** Runs the watcher's loop in the calling thread. */
void run(CAddressWatcher &watcher);

/** Delivers a timer event to the worker's handler. */
void tick(NetworkSwitchWorker &worker);

/** How many connections @p signal (written with SIGNAL()) of @p sender has. */
int receivers(const QObject &sender, const char *signal);

/** The address of a member within its object, for the order of declaration. */
template<typename Object, typename Member>
std::ptrdiff_t offset(const Object &object, const Member &member)
{
    return reinterpret_cast<const char *>(&member) - reinterpret_cast<const char *>(&object);
}

} // namespace Peek

#endif
