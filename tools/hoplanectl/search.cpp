// SPDX-License-Identifier: MIT
#include "commands.h"

#include "checks.h"
#include "configuration.h"
#include "livecommand.h"
#include "values.h"

#include <QCoreApplication>

#include <csignal>

namespace {

constexpr int notStarted = 2;
constexpr int interruption = 128; // plus the signal's number
constexpr int mostSeconds = 24 * 60 * 60;
constexpr int millisecondsOfSecond = 1000;

QJsonObject outcomeObject(const QString &outcome, const QString &text)
{
    return { { QStringLiteral("type"), QStringLiteral("outcome") },
             { QStringLiteral("outcome"), outcome },
             { QStringLiteral("server"), QJsonValue() },
             { QStringLiteral("network"), QJsonValue() },
             { QStringLiteral("text"), text } };
}

// One search, from start() to its outcome.
class Search : public LiveCommand
{
public:
    explicit Search(Context *context)
        : LiveCommand(context)
    {
    }

    int run(int timeoutSeconds);

protected:
    QString margin(const Moment &when) const override;
    void look() override;
    void ended(const SearchAccount &search) override;
    void interrupted(int signal) override;

private:
    [[noreturn]] void refuse(const QString &reason);
    [[noreturn]] void giveUp(const QString &outcome, const QString &text, int status);

    Moment m_begin;
    bool m_asked = false;
    bool m_givingUp = false;
    QTimer m_timeout;
};

// Why the library does not begin a search.
QString unfitness()
{
    const QString file = Configuration::path();
    if (Settings::read(file).enabled)
        return QStringLiteral("%1 was changed meanwhile").arg(file);
    QString unusable = Configuration::unusable(file);
    if (!unusable.isEmpty())
        return unusable;
    return QStringLiteral("switching is disabled in %1; enable it with hoplanectl --app %2 set "
                          "enabled on")
            .arg(file, Check::quoted(QCoreApplication::applicationName()));
}

int Search::run(int timeoutSeconds)
{
    // It may itself cut the line that it is shown over: a terminal's is hung up, and of another one
    // nobody reads any more. Ignored, so that its commands come to their end, too.
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    m_begin = Live::now();
    Hoplane *const library = takeLibrary();
    if (!library)
        return notStarted;
    noteImport();
    noteExchange();
    if (timeoutSeconds > 0) {
        m_timeout.setSingleShot(true);
        m_timeout.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timeout, &QTimer::timeout, &m_timeout, [this, timeoutSeconds] {
            giveUp(QStringLiteral("timeout"),
                   QStringLiteral("given up after %1 s").arg(timeoutSeconds), ExitFailed);
        });
        m_timeout.start(timeoutSeconds * millisecondsOfSecond);
    }
    m_begin = Live::now();
    m_asked = true;
    Q_EMIT library->start();
    return QCoreApplication::exec();
}

QString Search::margin(const Moment &when) const
{
    constexpr int column = 8;
    return inWords(between(m_begin, when).value_or(0), false).rightJustified(column)
            + QLatin1String("  ");
}

// A search that was asked for and is neither expected nor running any more has not begun.
void Search::look()
{
    if (!m_asked || narrator().current() || narrator().awaitsSearch())
        return;
    refuse(unfitness());
}

void Search::ended(const SearchAccount &search)
{
    // What the LAN switch leads to is not what was asked for.
    if (search.kind != SearchAccount::Search || m_givingUp)
        return;
    const bool reached = search.outcome == SearchAccount::Reached;
    QJsonObject outcome = outcomeObject(
            reached ? QStringLiteral("reached") : QStringLiteral("failed"), search.text());
    if (reached) {
        outcome[QStringLiteral("server")] = search.server;
        outcome[QStringLiteral("network")] = search.network;
    }
    out()->object(outcome);
    leave(reached ? ExitGood : ExitFailed);
}

void Search::interrupted(int signal)
{
    giveUp(QStringLiteral("interrupted"), QStringLiteral("interrupted"), interruption + signal);
}

void Search::giveUp(const QString &outcome, const QString &text, int status)
{
    m_givingUp = true;
    const bool isUnderWay = narrator().current();
    finish(text);
    if (!isUnderWay)
        timedLine(text, Output::Fault);
    out()->object(outcomeObject(outcome, text));
    leave(status);
}

void Search::refuse(const QString &reason)
{
    message(QStringLiteral("no search: %1").arg(reason));
    out()->object(outcomeObject(QStringLiteral("not-started"), reason));
    leave(notStarted);
}

const QString searchText = QStringLiteral(
        "Does what the application does with start(), and changes the device's\n"
        "addressing as it does. As at each start of the application the device's own\n"
        "network settings are imported first, if it has any.\n\n"
        "Exit status: 0 a server is reached, 1 none is (or --timeout came first), 2 the\n"
        "search could not begin, 128 plus the signal's number when interrupted, 3 a\n"
        "server is reached but the results could not be written, or nobody read them.");

} // namespace

int runSearch(Context &context, const Command &command, const QStringList &arguments)
{
    const QString timeout = QStringLiteral("timeout");
    const QString verbose = QStringLiteral("verbose");
    CommandLine line(command);
    line.setText(searchText);
    line.add({ timeout, QStringLiteral("Give up after so many seconds, 1 to %1.").arg(mostSeconds),
               QStringLiteral("S") });
    line.add({ verbose, QStringLiteral("Show each line of the library's log, too.") });
    if (!line.parse(&context, arguments, 0, 0))
        return line.status();
    const int seconds = Values::number(line.value(timeout), mostSeconds).value_or(0);
    if (line.isSet(timeout) && seconds == 0)
        return usageError(QStringLiteral("--timeout %1: it has to be a number from 1 to %2")
                                  .arg(line.value(timeout))
                                  .arg(mostSeconds),
                          QStringLiteral("search"));
    QString reason;
    if (!Configuration::choose(context.app, false, &reason)) {
        context.out.object(outcomeObject(QStringLiteral("not-started"), reason));
        return notStarted;
    }
    Search search(&context);
    search.setVerbose(line.isSet(verbose));
    return search.run(seconds);
}
