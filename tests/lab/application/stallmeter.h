// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

class QTimerEvent;

// Tells of each time that the event loop of its thread was kept from running for more than 50 ms:
// a line "stall MILLISECONDS". The time that the thread was ready and waited for a processor does
// not count, so a busy machine is no stall.
class StallMeter : public QObject
{
    Q_OBJECT

public:
    explicit StallMeter(QObject *parent = nullptr);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    qint64 m_lastTick;
    qint64 m_lastWait;
};
