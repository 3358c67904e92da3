// SPDX-License-Identifier: MIT
#pragma once

#include "commandline.h"
#include "configuration.h"
#include "live.h"

#include <hoplane.h>

#include <QTimer>

// What search and watch share: the library works in this process, and each of its steps is told
// as it happens; on a terminal, below them, a line that says what it is doing.
class LiveCommand
{
public:
    explicit LiveCommand(Context *context);
    virtual ~LiveCommand() = default;
    LiveCommand(const LiveCommand &) = delete;
    LiveCommand &operator=(const LiveCommand &) = delete;

    void setVerbose(bool verbose) { m_verbose = verbose; }

protected:
    // Makes the library's object; null, with a message, if the system refuses what that needs.
    Hoplane *takeLibrary();
    [[noreturn]] void leave(int status);

    virtual QString margin(const Moment &when) const = 0;
    // After each line of the log.
    virtual void look() { }
    virtual void ended(const SearchAccount &search) = 0;
    virtual void interrupted(int signal) = 0;

    Output *out() { return &m_context->out; }
    const Narrator &narrator() const { return m_narrator; }
    void line(const QString &text, Output::Style style = Output::Plain);
    // A line with the time before it.
    void timedLine(const QString &text, Output::Style style = Output::Plain,
                   const Moment &when = Live::now());
    void message(const QString &text);
    // Says what the library has taken over of the device's own settings.
    void noteImport();
    // Says so if the networks' numbers are not the file's.
    void noteExchange();
    // The end of what is under way, for a reason that is none of the library's.
    void finish(const QString &why) { m_narrator.finish(why, Live::now()); }
    void announceSearch() { m_narrator.announceSearch(); }
    // Whether the file has switching enabled.
    static bool isEnabled();

private:
    void take(const LogEntry &entry, const LogLine &line);
    void tell(const Step &step);
    void tellEnd(const SearchAccount &search);
    void clearStatus();
    void showStatus();
    void note(const QString &text);
    QString status() const;
    int columns() const;

    Context *m_context;
    Live m_live;
    Narrator m_narrator;
    Settings m_beforeImport;
    QTimer m_tick;
    bool m_verbose = false;
    bool m_hasStatus = false; // a terminal that can redraw it
    bool m_statusShown = false;
    Moment m_drawn;
    int m_pass = 1; // the latest that was told
};
