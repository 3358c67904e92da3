// SPDX-License-Identifier: MIT
#include "stallmeter.h"

#include "line.h"

#include <QByteArray>
#include <QFile>
#include <QTimerEvent>

#include <chrono>

namespace {
constexpr int intervalMs = 5;
constexpr qint64 limitMs = 50;
constexpr qint64 nanosecondsPerMs = 1'000'000;

qint64 nowNs()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// How long the main thread has been ready without a processor: the second number of schedstat.
qint64 waitedNs()
{
    QFile file(QStringLiteral("/proc/self/schedstat"));
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    return file.readAll().split(' ').value(1).toLongLong();
}
} // namespace

StallMeter::StallMeter(QObject *parent)
    : QObject(parent)
    , m_lastTick(nowNs())
    , m_lastWait(waitedNs())
{
    startTimer(intervalMs, Qt::PreciseTimer);
}

void StallMeter::timerEvent(QTimerEvent *)
{
    const qint64 tick = nowNs();
    const qint64 wait = waitedNs();
    const qint64 stalled = (tick - m_lastTick - (wait - m_lastWait)) / nanosecondsPerMs;
    if (stalled > limitMs + intervalMs) {
        writeLine("stall", QString::number(stalled));
    }
    m_lastTick = tick;
    m_lastWait = wait;
}
