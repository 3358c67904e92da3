// SPDX-License-Identifier: MIT
#include "logcapture.h"

#include <QtCore/QMutex>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <mutex>
#include <utility>

namespace {

std::mutex logGuard;
QVector<LogLine> collected;
std::function<void(const LogLine &)> listener;
QtMessageHandler previous = nullptr;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const LogLine line = { type, text, context.category,
                           context.file || context.line != 0 || context.function,
                           QThread::currentThreadId() };
    std::function<void(const LogLine &)> callback;
    {
        const std::lock_guard<std::mutex> lock(logGuard);
        collected.append(line);
        callback = listener;
    }
    if (callback)
        callback(line);
    if (type == QtFatalMsg && previous)
        previous(type, context, text);
}

QString levelName(QtMsgType level)
{
    switch (level) {
    case QtDebugMsg:
        return QStringLiteral("debug");
    case QtInfoMsg:
        return QStringLiteral("info");
    case QtWarningMsg:
        return QStringLiteral("warning");
    case QtCriticalMsg:
        return QStringLiteral("critical");
    case QtFatalMsg:
        return QStringLiteral("fatal");
    }
    return QStringLiteral("?");
}

} // namespace

LogCapture::LogCapture()
{
    {
        const std::lock_guard<std::mutex> lock(logGuard);
        collected.clear();
    }
    previous = qInstallMessageHandler(collect);
}

LogCapture::~LogCapture()
{
    onLine(nullptr);
    qInstallMessageHandler(previous);
    previous = nullptr;
}

QVector<LogLine> LogCapture::lines() const
{
    const std::lock_guard<std::mutex> lock(logGuard);
    return collected;
}

QStringList LogCapture::texts() const
{
    QStringList list;
    const QVector<LogLine> own = lines();
    for (const LogLine &line : own)
        list.append(line.text);
    return list;
}

int LogCapture::count(const QString &text) const
{
    return texts().count(text);
}

void LogCapture::clear()
{
    const std::lock_guard<std::mutex> lock(logGuard);
    collected.clear();
}

bool LogCapture::waitFor(const QString &text) const
{
    return QTest::qWaitFor([&] { return count(text) > 0; }, 10000);
}

void LogCapture::onLine(std::function<void(const LogLine &)> callback)
{
    const std::lock_guard<std::mutex> lock(logGuard);
    listener = std::move(callback);
}

QString LogCapture::difference(const QVector<Expected> &expected) const
{
    const QVector<LogLine> own = lines();
    QString report;
    for (int i = 0; i < qMax(own.size(), expected.size()); ++i) {
        const QString wanted = i < expected.size()
                ? levelName(expected[i].level) + QLatin1Char(' ') + expected[i].text
                : QStringLiteral("(nothing)");
        const QString got = i < own.size()
                ? levelName(own[i].level) + QLatin1Char(' ') + own[i].text
                : QStringLiteral("(nothing)");
        if (wanted != got)
            report += QStringLiteral("\nline %1\n  expected %2|\n  got      %3|")
                              .arg(i)
                              .arg(wanted, got);
        else if (own[i].category != "default" || own[i].hasContext)
            report += QStringLiteral("\nline %1 has a category or a context of its own: %2")
                              .arg(i)
                              .arg(got);
    }
    return report;
}
