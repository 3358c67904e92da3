// SPDX-License-Identifier: MIT
#pragma once

#include "logline.h"
#include "narrator.h"

#include <QByteArray>
#include <QHash>

#include <functional>

// Takes off what stands before the library's lines in a file or a journal, and puts together the
// lines that a command's output with line breaks was logged as.
class LogReader
{
public:
    using OnEntry = std::function<void(const LogEntry &, const LogLine &)>;

    explicit LogReader(OnEntry onEntry);

    // With or without the end of the line.
    void addLine(QByteArray line);
    // There are no more.
    void finish();

    // Whether the times go back from line to line, as journalctl --reverse shows them.
    bool isReversed() const { return m_back >= leastBack && m_back > 2 * m_forward; }

private:
    struct Entry : LogEntry
    {
        enum Form { Bare, Stamped, Syslog, Json };
        Form form = Bare;
    };

    bool takeObject(const QByteArray &line, Entry *entry) const;
    bool takePrefix(const QString &line, Entry *entry);
    Moment moment(const QRegularExpressionMatch &match);
    double secondsOf(const QRegularExpressionMatch &match);
    void take(const Entry &entry);
    void noteOrder(const Moment &when);
    bool goesOn(const Entry &open, const Entry &entry, const LogLine &line) const;
    void close(const QString &process);

    static constexpr int leastBack = 3;

    OnEntry m_onEntry;
    QHash<QString, Entry> m_open; // by process: what the next lines may belong to
    Entry m_latest;
    int m_back = 0; // times that lie before the line before
    int m_forward = 0;
    double m_latestSeconds = 0; // of a clock without a year, or without a day
    double m_added = 0; // the years or days that have passed meanwhile
};
