// SPDX-License-Identifier: MIT
#include "stallmeter.h"

#include "line.h"

#include <QByteArray>
#include <QThread>
#include <QTimerEvent>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>

namespace {
constexpr int intervalMs = 5;
constexpr qint64 limitMs = 50;
constexpr qint64 emulatedLimitMs = 100;
constexpr qint64 nanosecondsPerMs = 1'000'000;
constexpr qint64 msPerSecond = 1000;
constexpr qint64 intervalNs = intervalMs * nanosecondsPerMs;
// So long that its ticks' own small delays do not add up.
constexpr int controlIntervalMs = 25;
constexpr qint64 controlIntervalNs = controlIntervalMs * nanosecondsPerMs;

qint64 nowNs()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// What all threads together have had of the processors.
qint64 processorNs()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return time.tv_sec * nanosecondsPerMs * msPerSecond + time.tv_nsec;
}
} // namespace

StallMeter::StallMeter(bool emulated, QObject *parent)
    : QObject(parent)
    , m_emulated(emulated)
    , m_schedstat(open("/proc/self/schedstat", O_RDONLY | O_CLOEXEC))
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        CPU_ZERO(&allowed);
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &allowed))
            m_controls.push_back(std::make_unique<Control>(processor));
    }
    m_last = read();
    startTimer(intervalMs, Qt::PreciseTimer);
}

StallMeter::Control::Control(int processor)
    : m_tick(nowNs())
{
    QThread::create([this, processor] { keepTicking(processor); })->start();
}

void StallMeter::Control::keepTicking(int processor)
{
    cpu_set_t own;
    CPU_ZERO(&own);
    CPU_SET(processor, &own);
    // Where that is refused, it ticks on any of them.
    sched_setaffinity(0, sizeof own, &own);
    for (;;) {
        QThread::msleep(controlIntervalMs);
        const qint64 now = nowNs();
        m_late += std::max<qint64>(0, now - m_tick - controlIntervalNs);
        m_tick = now;
    }
}

qint64 StallMeter::Control::late(qint64 now) const
{
    // With what it is late by just now.
    return m_late + std::max<qint64>(0, now - m_tick - controlIntervalNs);
}

StallMeter::Reading StallMeter::read() const
{
    Reading reading;
    // The main thread's. Its second number: nanoseconds for which it was ready without a processor.
    QByteArray text(100, '\0');
    text.truncate(int(qMax<ssize_t>(0, pread(m_schedstat, text.data(), size_t(text.size()), 0))));
    reading.excused = text.split(' ').value(1).toLongLong() + (m_emulated ? processorNs() : 0);
    reading.tick = nowNs();
    for (const auto &control : m_controls)
        reading.late.push_back(control->late(reading.tick));
    return reading;
}

void StallMeter::timerEvent(QTimerEvent *)
{
    const Reading now = read();
    qint64 excused = now.excused - m_last.excused;
    for (std::size_t i = 0; i < now.late.size(); ++i)
        excused = std::max(excused, now.late[i] - m_last.late[i]);
    const qint64 stalled = now.tick - m_last.tick - intervalNs - excused;
    if (stalled > (m_emulated ? emulatedLimitMs : limitMs) * nanosecondsPerMs)
        writeLine("stall", QString::number(stalled / nanosecondsPerMs));
    m_last = now;
}
