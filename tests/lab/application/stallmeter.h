// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

#include <atomic>
#include <memory>
#include <vector>

class QTimerEvent;

// Tells of each time that the event loop of its thread was kept from running for more than 50 ms:
// a line "stall MILLISECONDS". What the machine itself costs does not count: the time that the
// thread was ready and waited for a processor, and that by which another thread was late, which
// does nothing but tick on one processor; there is one for each, as a host may take away one of
// several, and with it the timers that were set there. Of an emulated program neither does the time
// that its threads ran, since most of it goes into the translation, for which they wait for one
// another; there it tells of a main thread that sleeps, and for more than 100 ms.
class StallMeter : public QObject
{
    Q_OBJECT

public:
    explicit StallMeter(bool emulated, QObject *parent = nullptr);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    // Ticks on one processor.
    class Control
    {
    public:
        explicit Control(int processor);
        // In all, in nanoseconds.
        qint64 late(qint64 now) const;

    private:
        void keepTicking(int processor);

        std::atomic<qint64> m_tick;
        std::atomic<qint64> m_late{ 0 };
    };
    struct Reading
    {
        qint64 tick = 0;
        qint64 excused = 0; // what the scheduler knows of
        std::vector<qint64> late; // of each control
    };
    Reading read() const;

    bool m_emulated;
    int m_schedstat;
    std::vector<std::unique_ptr<Control>> m_controls;
    Reading m_last;
};
