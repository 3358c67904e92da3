// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

#include <atomic>

class QTimerEvent;

// Tells of each time that the event loop of its thread was kept from running for more than 50 ms:
// a line "stall MILLISECONDS". What the machine itself costs does not count: the time that the
// thread was ready and waited for a processor, and that by which a second thread, which does
// nothing but tick, was late as well. Of an emulated program neither does the time that its
// threads ran, since most of it goes into the translation, for which they wait for one another;
// there it tells of a main thread that sleeps, and for more than 100 ms.
class StallMeter : public QObject
{
    Q_OBJECT

public:
    explicit StallMeter(bool emulated, QObject *parent = nullptr);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Reading
    {
        qint64 tick = 0;
        qint64 excused = 0; // what the scheduler knows of
        qint64 late = 0; // of the second thread, in all
    };
    Reading read() const;
    void keepTicking();

    bool m_emulated;
    int m_schedstat;
    std::atomic<qint64> m_controlTick;
    std::atomic<qint64> m_controlLate{ 0 };
    Reading m_last;
};
