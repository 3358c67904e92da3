// SPDX-License-Identifier: MIT
#include "live.h"

#include "text.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLoggingCategory>
#include <QSocketNotifier>
#include <QThread>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

// A search between two networks that are both skipped logs thousands of lines a second; it waits
// then until they are told.
constexpr int mostQueued = 4096;

Live *theLive = nullptr;
int signalPipe[2] = { -1, -1 };
QLoggingCategory::CategoryFilter otherFilter = nullptr;

// The library's lines come whatever the rules of the user's environment leave out.
void enableAll(QLoggingCategory *category)
{
    if (otherFilter)
        otherFilter(category);
    if (std::strcmp(category->categoryName(), "default") != 0)
        return;
    category->setEnabled(QtDebugMsg, true);
    category->setEnabled(QtInfoMsg, true);
}

bool isMainThread()
{
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

bool fail(const char *what)
{
    Output::message(QStringLiteral("%1: %2").arg(QLatin1String(what), Text::ofError(errno)));
    return false;
}

} // namespace

Live::Live(OnEntry onEntry, OnSignal onSignal)
    : m_onEntry(std::move(onEntry))
    , m_onSignal(std::move(onSignal))
{
    m_said.isError = true;
}

Live::~Live()
{
    if (theLive == this)
        qInstallMessageHandler(nullptr);
    if (m_errors >= 0)
        dup2(m_errors, STDERR_FILENO);
}

bool Live::start(Output *out)
{
    const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    m_errors = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (results < 0 || m_errors < 0 || !(m_results = fdopen(results, "w")))
        return fail("standard output");
    if (!catchSignals() || !replace(STDOUT_FILENO, &m_printed) || !replace(STDERR_FILENO, &m_said))
        return fail("pipe");
    const bool json = out->json();
    *out = Output(m_results);
    out->setJson(json);
    theLive = this;
    otherFilter = QLoggingCategory::installFilter(enableAll);
    qInstallMessageHandler(log);
    return true;
}

void Live::message(const QString &text) const
{
    const QByteArray bytes = Output::asMessage(text);
    if (::write(m_errors, bytes.constData(), size_t(bytes.size())) < 0)
        return; // nobody left to tell it to
}

Moment Live::now()
{
    const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
    const QDateTime local = QDateTime::currentDateTime();
    return { now.count(), false,
             local.toOffsetFromUtc(local.offsetFromUtc()).toString(Qt::ISODateWithMs) };
}

void Live::leave(Output *out, int status)
{
    if (!out->finish()) {
        theLive->message(QStringLiteral("the results could not be written"));
        if (status == 0)
            status = resultsLost;
    }
    std::_Exit(status);
}

void Live::log(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtFatalMsg)
        theLive->abandon(text);
    theLive->queue(text);
}

void Live::abandon(const QString &text) const
{
    message(text);
    // What the runtime says on the way.
    if (dup2(m_errors, STDERR_FILENO) < 0)
        std::_Exit(128 + SIGABRT);
    std::abort();
}

void Live::queue(const QString &text)
{
    const bool isMain = isMainThread();
    const Moment when = now();
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!isMain)
        m_room.wait(lock, [this] { return m_queue.size() < mostQueued; });
    m_queue.append({ text, when, drain(m_printed), drain(m_said) });
    if (m_queue.size() == 1)
        QCoreApplication::postEvent(&m_receiver, new QEvent(QEvent::User));
}

void Live::handleAll()
{
    QVector<Logged> queued;
    QByteArray printed;
    QByteArray said;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        queued.swap(m_queue);
        printed = drain(m_printed);
        said = drain(m_said);
    }
    m_room.notify_all();
    for (const Logged &logged : queued) {
        take(&m_printed, logged.printed, logged.when);
        take(&m_said, logged.said, logged.when);
        // Commands are logged when they have ended, also if their last line has not.
        if (!m_said.rest.isEmpty())
            takePrinted(QString::fromLocal8Bit(std::exchange(m_said.rest, QByteArray())), true,
                        logged.when);
        handle(logged);
    }
    const Moment last = now();
    take(&m_printed, printed, last);
    take(&m_said, said, last);
}

void Live::handle(const Logged &logged)
{
    LogEntry entry;
    entry.text = logged.text;
    entry.when = logged.when;
    LogLine line = LogLine::parse(logged.text);
    // Only what is printed is a notification.
    if (line.kind == LogLine::LinkNotification || line.kind == LogLine::CommandMessage)
        line.kind = LogLine::Foreign;
    m_onEntry(entry, line);
}

// Lets the descriptor lead into a pipe whose other end is read.
bool Live::replace(int descriptor, Stream *stream)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || dup2(ends[1], descriptor) < 0
        || fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0)
        return false;
    close(ends[1]);
    stream->end = ends[0];
    listen(stream->end, [this] { handleAll(); });
    return true;
}

void Live::listen(int descriptor, const std::function<void()> &callback)
{
    auto *const notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, &m_receiver);
    QObject::connect(notifier, &QSocketNotifier::activated, &m_receiver, callback);
}

// What the descriptor's end has until now.
QByteArray Live::drain(const Stream &stream)
{
    QByteArray taken;
    char bytes[4096];
    ssize_t length = 0;
    while ((length = ::read(stream.end, bytes, sizeof bytes)) > 0)
        taken.append(bytes, int(length));
    return taken;
}

void Live::take(Stream *stream, const QByteArray &bytes, const Moment &when)
{
    stream->rest.append(bytes);
    for (int end = stream->rest.indexOf('\n'); end >= 0; end = stream->rest.indexOf('\n')) {
        const QString line = QString::fromLocal8Bit(stream->rest.left(end));
        stream->rest.remove(0, end + 1);
        takePrinted(line, stream->isError, when);
    }
}

void Live::takePrinted(const QString &line, bool isError, const Moment &when)
{
    if (line.trimmed().isEmpty())
        return;
    LogEntry entry;
    entry.text = line;
    entry.when = when;
    LogLine taken = LogLine::parse(line);
    if (isError)
        taken = { LogLine::CommandMessage, QString(), { line.trimmed() } };
    else if (taken.kind != LogLine::LinkNotification)
        taken.kind = LogLine::Foreign;
    m_onEntry(entry, taken);
}

void Live::catchSignal(int number)
{
    const int kept = errno;
    const char byte = char(number);
    if (::write(signalPipe[1], &byte, 1) < 0)
        _exit(128 + number);
    errno = kept;
}

bool Live::catchSignals()
{
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    for (const int number : { SIGINT, SIGTERM, SIGHUP }) {
        struct sigaction before = {};
        sigaction(number, nullptr, &before);
        // Whoever had it ignored, as nohup does with others, wants that.
        if (before.sa_handler == SIG_IGN)
            continue;
        struct sigaction action = {};
        action.sa_handler = catchSignal;
        // The second one ends the process whatever it is at.
        action.sa_flags = SA_RESTART | int(SA_RESETHAND);
        sigaction(number, &action, nullptr);
    }
    listen(signalPipe[0], [this] {
        char number = 0;
        if (::read(signalPipe[0], &number, 1) == 1)
            m_onSignal(number);
    });
    return true;
}
