// SPDX-License-Identifier: MIT
#include "workerfence.h"

#include "line.h"

#include <hoplane.h>

#include <QCoreApplication>
#include <QMetaObject>
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
    auto *object = new QObject;
    object->moveToThread(&(hoplane->*granted(WorkerThread())));
    const auto passed = [name] { writeLine("fence", name); };
    const auto answer = [object, passed] {
        object->deleteLater();
        QMetaObject::invokeMethod(QCoreApplication::instance(), passed, Qt::QueuedConnection);
    };
    QMetaObject::invokeMethod(object, answer, Qt::QueuedConnection);
}
