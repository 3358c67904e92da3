// SPDX-License-Identifier: MIT
#include "searchaccount.h"

#include "text.h"

#include <QJsonArray>

namespace {

QJsonValue orNull(const QString &text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

// A tenth of a second at most is of interest, and less is noise.
double rounded(double seconds)
{
    constexpr double perSecond = 1000;
    return qRound64(seconds * perSecond) / perSecond;
}

QJsonValue orNull(std::optional<double> seconds)
{
    return seconds ? QJsonValue(rounded(*seconds)) : QJsonValue();
}

} // namespace

std::optional<double> between(const Moment &from, const Moment &to)
{
    if (!from.seconds || !to.seconds || *to.seconds < *from.seconds)
        return std::nullopt;
    return rounded(*to.seconds - *from.seconds);
}

QString inWords(double seconds, bool whole)
{
    if (whole && seconds < 1)
        return QStringLiteral("under 1 s");
    if (whole)
        return QStringLiteral("about %1 s").arg(seconds, 0, 'f', 0);
    return QStringLiteral("%1 s").arg(seconds, 0, 'f', 1);
}

QString spent(double seconds, bool whole)
{
    constexpr int perSecond = 1000;
    if (!whole && seconds < 1)
        return QStringLiteral("%1 ms").arg(qRound(seconds * perSecond));
    return inWords(seconds, whole);
}

QString orTheServer(const QString &server)
{
    return server.isEmpty() ? QStringLiteral("the server") : server;
}

QString NetworkAccount::reason() const
{
    QStringList parts;
    if (!unusablePort.isNull())
        parts.append(QStringLiteral("\"%1\" is no port number").arg(unusablePort));
    else if (attempts > 0)
        parts.append(QStringLiteral("%1 did not accept in %2%3")
                             .arg(orTheServer(server),
                                  Text::counted(attempts, QStringLiteral("attempt")),
                                  attemptsMissing ? QStringLiteral(" (more are not in the log)")
                                                  : QString()));
    else if (attemptsMissing)
        parts.append(QStringLiteral("%1 did not accept; the attempts are not in the log")
                             .arg(orTheServer(server)));
    if (skipped > 0)
        parts.append(QStringLiteral("skipped %1: %2")
                             .arg(Text::counted(skipped, QStringLiteral("time")), skipReason));
    if (troubles > 0)
        parts.append(QStringLiteral("its addressing failed in %1, at last: %2")
                             .arg(Text::counted(troubles, QStringLiteral("turn")), trouble));
    return parts.join(QStringLiteral("; "));
}

QJsonObject NetworkAccount::object() const
{
    return { { QStringLiteral("server"), orNull(server) },
             { QStringLiteral("turns"), turns },
             { QStringLiteral("attempts"), attempts },
             { QStringLiteral("attemptsMissing"), attemptsMissing },
             { QStringLiteral("skipped"), skipped },
             { QStringLiteral("troubles"), troubles },
             { QStringLiteral("reason"), orNull(reason()) } };
}

int SearchAccount::attemptsOfTurn() const
{
    constexpr int few = 10;
    constexpr int many = 20;
    if (kind == Reopening || bothStatic)
        return many;
    return partial ? 0 : few;
}

std::optional<double> SearchAccount::duration() const
{
    return clockSet.isEmpty() ? between(begin, end) : std::nullopt;
}

QString SearchAccount::text() const
{
    return clockSet.isEmpty()
            ? ending()
            : QStringLiteral("%1; the clock was set %2 meanwhile").arg(ending(), clockSet);
}

QString SearchAccount::ending() const
{
    const std::optional<double> seconds = duration();
    const QString after = seconds
            ? QStringLiteral(" after %1").arg(inWords(*seconds, begin.wholeSeconds))
            : QString();
    const QString pass =
            passes > 0 && !partial ? QStringLiteral(", in pass %1").arg(passes) : QString();
    switch (outcome) {
    case Reached:
        return QStringLiteral("reached %1%2%3%4")
                .arg(server,
                     network > 0 ? QStringLiteral(" through network %1").arg(network) : QString(),
                     after, kind == Search ? pass : QString());
    case Failed:
        if (kind == Reopening)
            return QStringLiteral("%1 not reached%2; the application is told nothing of it")
                    .arg(orTheServer(networks[state == 0 ? 0 : 1].server), after);
        return QStringLiteral("failed%1: no server reached").arg(after)
                + (partial ? QString()
                           : QStringLiteral(" in ")
                                   + Text::counted(passes, QStringLiteral("pass"),
                                                   QStringLiteral("passes")));
    case Open:
    case Unfinished:
        break;
    }
    return QStringLiteral("no outcome%1: %2").arg(after, why);
}

QStringList SearchAccount::reasons() const
{
    QStringList lines;
    for (int index : { 0, 1 }) {
        const QString reason =
                outcome == Reached && network == index + 1 ? QString() : networks[index].reason();
        if (!reason.isEmpty())
            lines.append(QStringLiteral("network %1: %2").arg(index + 1).arg(reason));
    }
    return lines;
}

QJsonObject SearchAccount::object() const
{
    static const char *const outcomes[] = { "open", "reached", "failed", "unfinished" };
    QJsonObject object{
        { QStringLiteral("type"),
          kind == Search ? QStringLiteral("search") : QStringLiteral("reopening") },
        { kind == Search ? QStringLiteral("search") : QStringLiteral("reopening"), number },
        { QStringLiteral("begin"), orNull(begin.text) },
        { QStringLiteral("end"), orNull(end.text) },
        { QStringLiteral("duration"), orNull(duration()) },
        { QStringLiteral("outcome"), QLatin1String(outcomes[outcome]) },
        { QStringLiteral("server"), orNull(server) },
        { QStringLiteral("network"), network > 0 ? QJsonValue(network) : QJsonValue() },
        { QStringLiteral("partial"), partial },
        { QStringLiteral("networks"), QJsonArray{ networks[0].object(), networks[1].object() } },
        { QStringLiteral("text"), text() },
    };
    if (kind == Search)
        object[QStringLiteral("passes")] = passes;
    else
        object[QStringLiteral("state")] = state;
    const bool timed = begin.seconds.has_value();
    object[QStringLiteral("durations")] = QJsonObject{
        { QStringLiteral("lookups"), timed ? QJsonValue(rounded(lookups)) : QJsonValue() },
        { QStringLiteral("commands"), timed ? QJsonValue(rounded(commands)) : QJsonValue() },
        { QStringLiteral("attempts"), rounded(attempts) },
        { QStringLiteral("estimated"), estimated },
    };
    return object;
}
