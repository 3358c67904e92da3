// SPDX-License-Identifier: MIT
#include "workerfence.h"

#include "line.h"

#include <hoplane.h>

#include <QCoreApplication>
#include <QThread>

// An explicit instantiation may name a private member; its friend hands the pointer out.
namespace {
template<typename Tag, typename Tag::Pointer pointer>
struct Grant
{
    friend typename Tag::Pointer granted(Tag) { return pointer; }
};

struct WorkerThread
{
    using Pointer = QThread Hoplane::*;
    friend Pointer granted(WorkerThread);
};
template struct Grant<WorkerThread, &Hoplane::m_workerThread>;
} // namespace

void passWorkerFence(Hoplane *hoplane, const QString &name)
{
    // Its deletion takes its turn among what is queued to the worker thread, and tells of itself.
    auto *object = new QObject;
    object->moveToThread(&(hoplane->*granted(WorkerThread())));
    QObject::connect(object, &QObject::destroyed, QCoreApplication::instance(),
                     [name] { writeLine("fence", name); });
    object->deleteLater();
}
