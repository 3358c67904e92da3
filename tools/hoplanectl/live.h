// SPDX-License-Identifier: MIT
#pragma once

#include "narrator.h"

#include <QByteArray>
#include <QEvent>
#include <QObject>
#include <QString>
#include <QVector>

#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>

// Reads along with the library where it works in this process: its log, what it prints, and what
// its commands say on standard error. One a process.
class Live
{
public:
    using OnEntry = std::function<void(const LogEntry &, const LogLine &)>;
    using OnSignal = std::function<void(int)>;

    // Both are called in the main thread, by its event loop. `onSignal`: SIGINT, SIGTERM
    // or SIGHUP came.
    Live(OnEntry onEntry, OnSignal onSignal);
    // Only an exception comes here, see leave(): standard error leads where it led before.
    ~Live();
    Q_DISABLE_COPY(Live)

    // From here on standard output and standard error are the library's and its commands', and
    // `out` writes to where standard output led before. False, with a message, if that failed.
    bool start(Output *out);

    // Where the results go.
    FILE *results() const { return m_results; }
    // "hoplanectl: TEXT" to where standard error led before.
    void message(const QString &text) const;
    static Moment now();

    // The exit status of a success that could not be told.
    static constexpr int resultsLost = 3;
    // Ends the process, whose other threads never end, without the destructors that would wait for
    // them.
    [[noreturn]] static void leave(Output *out, int status);

private:
    struct Logged
    {
        QString text;
        Moment when;
        // What was printed, and said on standard error, before this line.
        QByteArray printed;
        QByteArray said;
    };
    // Takes what other threads want done in the main thread.
    class Receiver : public QObject
    {
    public:
        explicit Receiver(Live *live)
            : m_live(live)
        {
        }

    protected:
        void customEvent(QEvent *) override { m_live->handleAll(); }

    private:
        Live *m_live;
    };
    struct Stream
    {
        int end = -1; // that is read
        QByteArray rest; // of a line that has not ended
        bool isError = false;
    };

    static void log(QtMsgType type, const QMessageLogContext &context, const QString &text);
    static void catchSignal(int number);
    void queue(const QString &text);
    void handleAll();
    void handle(const Logged &logged);
    bool replace(int descriptor, Stream *stream);
    static QByteArray drain(const Stream &stream);
    void take(Stream *stream, const QByteArray &bytes, const Moment &when);
    void takePrinted(const QString &line, bool isError, const Moment &when);
    void listen(int descriptor, const std::function<void()> &callback);
    bool catchSignals();
    [[noreturn]] void abandon(const QString &text) const;

    OnEntry m_onEntry;
    OnSignal m_onSignal;
    FILE *m_results = nullptr;
    int m_errors = -1;
    Stream m_printed;
    Stream m_said;
    Receiver m_receiver{ this };
    std::mutex m_mutex;
    std::condition_variable m_room;
    QVector<Logged> m_queue;
};
