// SPDX-License-Identifier: MIT
#include "commands.h"

#include "tcpattempt.h"
#include "text.h"
#include "values.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cmath>
#include <memory>

namespace {

const QString attemptsOption = QStringLiteral("attempts");
const QString intervalOption = QStringLiteral("interval");
const QString exampleTarget = QStringLiteral("192.0.2.1:9000");

// The verdict on the server is the first of these outcomes that was seen, and its number the exit
// status.
using Outcome = TcpAttempt::Outcome;
const char *const outcomeWords[] = { "accepted", "refused", "no answer", "not tried" };
const char *const verdictWords[] = { "accepts", "refuses", "no answer", "not tried" };

struct Target
{
    QString host;
    QString port;
    sockaddr_in address; // as far as the host is resolved and the port is one

    QString text() const { return host + QLatin1Char(':') + port; }
    QString ip() const { return dottedAddress(address); }
};

// Takes the host and the port apart; false if one of them is missing.
bool split(const QString &text, Target *target)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    target->host = text.left(colon);
    target->port = text.mid(colon + 1);
    return colon > 0 && !target->port.isEmpty();
}

Values::Verdict checkPort(Target *target)
{
    if (Values::Verdict refusal = Values::port(target->text(), target->port))
        return refusal;
    target->address.sin_port = htons(quint16(target->port.toInt()));
    return std::nullopt;
}

// Whether the text is an address or a name; the resolver takes more for one.
Values::Verdict checkHost(const Target &target)
{
    static const QRegularExpression numeric(
            QRegularExpression::anchoredPattern(QStringLiteral("[0-9.]+")));
    static const QRegularExpression name(
            QRegularExpression::anchoredPattern(QStringLiteral("[A-Za-z0-9_.-]{1,253}")));
    if (numeric.match(target.host).hasMatch() && !Values::bits(target.host))
        return Values::Refusal{ target.text(),
                                QStringLiteral("an IPv4 address has four numbers from 0 to 255 "
                                               "without leading zeros"),
                                exampleTarget };
    if (!name.match(target.host).hasMatch() || target.host.startsWith(QLatin1Char('-')))
        return Values::Refusal{ target.text(),
                                QStringLiteral("the host is neither an IPv4 address nor a name"),
                                exampleTarget };
    return std::nullopt;
}

// The host's first IPv4 address; what went wrong, or nothing.
QString resolve(Target *target)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(target->host.toLatin1().constData(), nullptr, &hints, &found);
    if (error != 0)
        return QStringLiteral("%1 cannot be resolved: %2")
                .arg(target->host, QString::fromLocal8Bit(gai_strerror(error)));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    target->address.sin_family = AF_INET;
    target->address.sin_addr =
            reinterpret_cast<const sockaddr_in *>(found->ai_addr)->sin_addr; // of ai_family
    return QString();
}

// The option's number; 0, with a message, if it is none from 1 to `most`.
int number(const CommandLine &line, const QString &option, int most, const QString &usual)
{
    const QString text = line.value(option);
    QString wrong;
    if (line.values(option).size() > 1 && line.isSet(option))
        wrong = QStringLiteral("--%1 stands there twice").arg(option);
    else if (Values::number(text, most).value_or(0) == 0)
        wrong = QStringLiteral("--%1 %2").arg(
                option,
                Values::Refusal{ text,
                                 QStringLiteral("it has to be a number from 1 to %1").arg(most),
                                 QStringLiteral("--%1 %2").arg(option, usual) }
                        .text());
    if (wrong.isEmpty())
        return text.toInt();
    usageError(wrong, QStringLiteral("probe"));
    return 0;
}

void show(Output *out, int number, const TcpAttempt &attempt)
{
    const QString time = QStringLiteral("%1 ms").arg(attempt.milliseconds, 0, 'f', 1);
    QString text;
    switch (attempt.outcome) {
    case Outcome::Accepted:
        text = QStringLiteral("accepted after %1, from %2").arg(time, attempt.localAddress);
        break;
    case Outcome::Refused:
        text = QStringLiteral("refused after %1: %2").arg(time, Text::ofError(attempt.error));
        break;
    case Outcome::NoAnswer:
        text = QStringLiteral("no answer after %1: %2").arg(time, Text::ofError(attempt.error));
        break;
    case Outcome::NotTried:
        text = QStringLiteral("not tried, nothing was sent: %1").arg(Text::ofError(attempt.error));
        break;
    }
    out->line(QStringLiteral("attempt %1  %2").arg(number).arg(text));
    constexpr double thousandths = 1000;
    out->object({ { QStringLiteral("type"), QStringLiteral("attempt") },
                  { QStringLiteral("attempt"), number },
                  { QStringLiteral("outcome"), QLatin1String(outcomeWords[attempt.outcome]) },
                  { QStringLiteral("errno"), attempt.error },
                  { QStringLiteral("error"),
                    attempt.error == 0 ? QString() : Text::ofError(attempt.error) },
                  { QStringLiteral("milliseconds"),
                    std::round(attempt.milliseconds * thousandths) / thousandths },
                  { QStringLiteral("localAddress"), attempt.localAddress } });
}

// Ends the results; returns the exit status.
int conclude(Output *out, const Target &target, Outcome verdict, int attempts,
             const QString &reason)
{
    static const char *const texts[] = { "%1 accepts", "%1 refuses: nothing accepts on that port",
                                         "%1 gives no answer" };
    static const Output::Style styles[] = { Output::Good, Output::Fault, Output::Fault,
                                            Output::Warning };
    const bool resolved = target.address.sin_family == AF_INET;
    QString name = target.text();
    if (resolved && target.ip() != target.host)
        name += QStringLiteral(" (%1)").arg(target.ip());
    out->line(verdict == Outcome::NotTried ? QStringLiteral("not tried: ") + reason
                                           : QString(QLatin1String(texts[verdict])).arg(name),
              styles[verdict]);
    out->object({ { QStringLiteral("type"), QStringLiteral("probe") },
                  { QStringLiteral("host"), target.host },
                  { QStringLiteral("port"), target.port },
                  { QStringLiteral("address"), resolved ? QJsonValue(target.ip()) : QJsonValue() },
                  { QStringLiteral("attempts"), attempts },
                  { QStringLiteral("verdict"), QLatin1String(verdictWords[verdict]) },
                  { QStringLiteral("reason"), reason } });
    return int(verdict);
}

int probe(Output *out, const Target &target, int attempts, int interval)
{
    Outcome verdict = Outcome::NotTried;
    QString reason;
    int number = 0;
    while (verdict != Outcome::Accepted && number < attempts) {
        QElapsedTimer clock;
        clock.start();
        const TcpAttempt attempt = TcpAttempt::make(target.address, interval);
        show(out, ++number, attempt);
        if (attempt.outcome <= verdict) {
            verdict = attempt.outcome;
            reason = verdict == Outcome::Accepted
                    ? QString()
                    : QStringLiteral("%1: %2").arg(target.text(), Text::ofError(attempt.error));
        }
        // Each attempt has its whole interval, as the library's have.
        const qint64 left = interval - clock.elapsed();
        if (verdict != Outcome::Accepted && number < attempts && left > 0)
            QThread::msleep(ulong(left));
    }
    return conclude(out, target, verdict, number, reason);
}

const QString probeText = QStringLiteral(
        "Asks for a TCP connection and closes it at once. Nothing is sent over it, and\n"
        "nothing is changed: unlike a search this never touches the device's addressing.\n\n"
        "An attempt succeeds if the server accepts within the interval; the next one\n"
        "begins when the interval is over. The first that succeeds is the last. HOST is\n"
        "an IPv4 address, or a name, of which the first IPv4 address is taken.\n\n"
        "Exit status: 0 the server accepts, 1 at least one attempt was refused, 2 there\n"
        "was no answer, 3 nothing was sent (the name is not resolved, there is no route,\n"
        "or HOST:PORT is none).");

} // namespace

int runProbe(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(probeText);
    line.add({ attemptsOption, QStringLiteral("So many attempts at most, 1 to 1000. Default: 1."),
               QStringLiteral("N"), QStringLiteral("1") });
    line.add({ intervalOption,
               QStringLiteral("Milliseconds that each attempt has, 1 to 60000. Default: 500."),
               QStringLiteral("MS"), QStringLiteral("500") });
    if (!line.parse(&context, arguments, 1, 1))
        return line.status();
    constexpr int mostAttempts = 1000;
    constexpr int longestInterval = 60000;
    const int attempts = number(line, attemptsOption, mostAttempts, QStringLiteral("20"));
    if (attempts == 0)
        return ExitUsage;
    const int interval = number(line, intervalOption, longestInterval, QStringLiteral("500"));
    if (interval == 0)
        return ExitUsage;

    Target target{};
    const QString given = line.arguments().first();
    if (!split(given, &target))
        return usageError(Values::Refusal{ given, QStringLiteral("the host or the port is missing"),
                                           exampleTarget }
                                  .text(),
                          QStringLiteral("probe"));
    Values::Verdict refusal = checkPort(&target);
    if (!refusal)
        refusal = checkHost(target);
    const QString reason = refusal ? refusal->text() : resolve(&target);
    if (!reason.isEmpty())
        return conclude(&context.out, target, Outcome::NotTried, 0, reason);
    return probe(&context.out, target, attempts, interval);
}
