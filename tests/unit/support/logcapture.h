// SPDX-License-Identifier: MIT
#ifndef LOGCAPTURE_H
#define LOGCAPTURE_H

#include <QtCore/QByteArray>
#include <QtCore/QLoggingCategory>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <functional>

/** One line as the message handler got it. */
struct LogLine
{
    QtMsgType level;
    QString text;
    QByteArray category;
    bool hasContext; // a file, a line or a function
    Qt::HANDLE thread;
};

/** A line that a test expects. */
struct Expected
{
    QtMsgType level;
    QString text;
};

/** Collects everything that is logged, by any thread, from its making to its end. */
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    Q_DISABLE_COPY(LogCapture)

    /** Every line, of whatever form: one that the library does not mean to write is a fault too. */
    QVector<LogLine> lines() const;
    QStringList texts() const;
    int count(const QString &text) const;
    void clear();

    /** Waits until @p text has been logged; false after 10 s. */
    bool waitFor(const QString &text) const;

    /** Called in the logging thread, after the line has been kept. */
    void onLine(std::function<void(const LogLine &)> callback);

    /**
     * Empty if exactly @p expected was logged, each in category "default" without file,
     * line and function; otherwise the difference, for a failure's text.
     */
    QString difference(const QVector<Expected> &expected) const;
};

/** Fails the test unless exactly these lines were logged, in this order. */
#define COMPARE_LOG(capture, ...) \
    do { \
        const QString logDifference = (capture).difference(QVector<Expected> __VA_ARGS__); \
        QVERIFY2(logDifference.isEmpty(), qPrintable(logDifference)); \
    } while (false)

#endif
