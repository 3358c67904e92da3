// SPDX-License-Identifier: MIT
#ifndef GATE_H
#define GATE_H

#include <condition_variable>
#include <mutex>

/** Holds whoever comes while it is closed; its order is one that the thread sanitizer sees. */
class Gate
{
public:
    void close() { set(true); }
    void open() { set(false); }

    void pass()
    {
        std::unique_lock<std::mutex> lock(m_guard);
        ++m_waiting;
        m_change.wait(lock, [this] { return !m_isClosed; });
        --m_waiting;
    }

    bool isWaitedAt()
    {
        const std::lock_guard<std::mutex> lock(m_guard);
        return m_waiting > 0;
    }

private:
    void set(bool closed)
    {
        const std::lock_guard<std::mutex> lock(m_guard);
        m_isClosed = closed;
        m_change.notify_all();
    }

    std::mutex m_guard;
    std::condition_variable m_change;
    bool m_isClosed = false;
    int m_waiting = 0;
};

#endif
