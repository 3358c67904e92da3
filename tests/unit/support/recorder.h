// SPDX-License-Identifier: MIT
#ifndef RECORDER_H
#define RECORDER_H

#include "interpose.h"
#include "logcapture.h"

#include <QtCore/QStringList>
#include <QtCore/QThread>

#include <memory>
#include <mutex>

/**
 * One list of what happened, in its order: the steps that the library's objects took part in, and
 * log lines. Usable from any thread; a hook that is running may outlive the recorder.
 */
class Recorder
{
public:
    void add(const QString &line) const
    {
        const std::lock_guard<std::mutex> lock(m_state->guard);
        m_state->lines.append(line);
    }

    /** What was recorded since the last call. */
    QStringList take() const
    {
        const std::lock_guard<std::mutex> lock(m_state->guard);
        QStringList lines;
        lines.swap(m_state->lines);
        return lines;
    }

    /** Records killTimer() in this thread and the steps that name a class of the library. */
    void addStepsTo(Interpose::Hooks *hooks) const
    {
        hooks->step = [recorder = *this, thread = QThread::currentThreadId()](const QString &step) {
            if ((step.startsWith(QLatin1String("killTimer"))
                 && QThread::currentThreadId() == thread)
                || step.contains(QLatin1String("Hoplane"))
                || step.contains(QLatin1String("NetworkSwitchWorker"))
                || step.contains(QLatin1String("CAddressWatcher")))
                recorder.add(step);
        };
    }

    /** Records every log line. */
    void addLinesOf(LogCapture *log) const
    {
        log->onLine([recorder = *this](const LogLine &line) { recorder.add(line.text); });
    }

private:
    struct State
    {
        std::mutex guard;
        QStringList lines;
    };
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

#endif
