// SPDX-License-Identifier: MIT
#include "stallmeter.h"

#include "line.h"

#include <QByteArray>
#include <QThread>
#include <QTimerEvent>

#include <fcntl.h>
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
    , m_controlTick(nowNs())
    , m_last(read())
{
    QThread::create([this] { keepTicking(); })->start();
    startTimer(intervalMs, Qt::PreciseTimer);
}

void StallMeter::keepTicking()
{
    for (;;) {
        QThread::msleep(controlIntervalMs);
        const qint64 now = nowNs();
        m_controlLate += std::max<qint64>(0, now - m_controlTick - controlIntervalNs);
        m_controlTick = now;
    }
}

StallMeter::Reading StallMeter::read() const
{
    Reading reading;
    // The main thread's. Its second number: nanoseconds for which it was ready without a processor.
    QByteArray text(100, '\0');
    text.truncate(int(qMax<ssize_t>(0, pread(m_schedstat, text.data(), size_t(text.size()), 0))));
    reading.excused = text.split(' ').value(1).toLongLong() + (m_emulated ? processorNs() : 0);
    reading.tick = nowNs();
    // With what the second thread is late by just now.
    reading.late =
            m_controlLate + std::max<qint64>(0, reading.tick - m_controlTick - controlIntervalNs);
    return reading;
}

void StallMeter::timerEvent(QTimerEvent *)
{
    const Reading now = read();
    const qint64 excused = std::max(now.excused - m_last.excused, now.late - m_last.late);
    const qint64 stalled = now.tick - m_last.tick - intervalNs - excused;
    if (stalled > (m_emulated ? emulatedLimitMs : limitMs) * nanosecondsPerMs)
        writeLine("stall", QString::number(stalled / nanosecondsPerMs));
    m_last = now;
}
