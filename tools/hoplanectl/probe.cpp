// SPDX-License-Identifier: MIT
#include "commands.h"

#include "values.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>

namespace {

const QString attemptsOption = QStringLiteral("attempts");
const QString intervalOption = QStringLiteral("interval");
const QString example = QStringLiteral("192.0.2.1:9000");

// In the order of what they say about the server; the verdict on it is the first that was seen, and
// its number the exit status.
enum Outcome { Accepted, Refused, NoAnswer, NotTried };
const char *const outcomeWords[] = { "accepted", "refused", "no answer", "not tried" };
const char *const verdictWords[] = { "accepts", "refuses", "no answer", "not tried" };

struct Attempt
{
    Outcome outcome;
    int error; // of errno, 0 if accepted
    double milliseconds; // until the answer, or until it was no longer waited for
    QString localAddress; // if accepted
};

struct Target
{
    QString host;
    QString port;
    sockaddr_in address; // as far as the host is resolved and the port is one

    QString text() const { return host + QLatin1Char(':') + port; }
    QString ip() const
    {
        char text[INET_ADDRSTRLEN];
        return QString::fromLatin1(inet_ntop(AF_INET, &address.sin_addr, text, sizeof text));
    }
};

class Descriptor
{
public:
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    ~Descriptor()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    Q_DISABLE_COPY_MOVE(Descriptor)

    int get() const { return m_fd; }

private:
    int m_fd;
};

double elapsedMs(const QElapsedTimer &clock)
{
    constexpr double nanoseconds = 1e6;
    return double(clock.nsecsElapsed()) / nanoseconds;
}

// The error of a connection that is being made; 0 when it has been.
int awaitAnswer(int fd, const QElapsedTimer &clock, int interval)
{
    pollfd waited{ fd, POLLOUT, 0 };
    int ready = -1;
    do {
        const qint64 left = std::max<qint64>(interval - clock.elapsed(), 0);
        ready = poll(&waited, 1, int(left));
    } while (ready < 0 && errno == EINTR);
    if (ready < 0)
        return errno;
    if (ready == 0)
        return ETIMEDOUT;
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

QString localAddress(int fd)
{
    Target local{};
    socklen_t length = sizeof local.address;
    const bool known = getsockname(fd, reinterpret_cast<sockaddr *>(&local.address), &length) == 0;
    return known ? local.ip() : QString();
}

Attempt attemptOnce(const sockaddr_in &address, int interval)
{
    QElapsedTimer clock;
    clock.start();
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.get() < 0)
        return { NotTried, errno, elapsedMs(clock), QString() };
    const auto *const any = reinterpret_cast<const sockaddr *>(&address);
    int error = connect(socket.get(), any, sizeof address) == 0 ? 0 : errno;
    // Other errors than this come before anything was sent.
    const bool sent = error == EINPROGRESS;
    if (sent)
        error = awaitAnswer(socket.get(), clock, interval);
    const double milliseconds = elapsedMs(clock);
    if (error == 0)
        return { Accepted, 0, milliseconds, localAddress(socket.get()) };
    if (error == ECONNREFUSED)
        return { Refused, error, milliseconds, QString() };
    return { sent ? NoAnswer : NotTried, error, milliseconds, QString() };
}

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
    static const QRegularExpression decimal(
            QRegularExpression::anchoredPattern(QStringLiteral("[1-9][0-9]{0,4}")));
    constexpr int lastPort = 65535;
    if (!decimal.match(target->port).hasMatch() || target->port.toInt() > lastPort)
        return Values::Refusal{ target->text(),
                                QStringLiteral("the port has to be a number from 1 to 65535"),
                                example };
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
                                example };
    if (!name.match(target.host).hasMatch() || target.host.startsWith(QLatin1Char('-')))
        return Values::Refusal{ target.text(),
                                QStringLiteral("the host is neither an IPv4 address nor a name"),
                                example };
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
    static const QRegularExpression decimal(
            QRegularExpression::anchoredPattern(QStringLiteral("[1-9][0-9]{0,6}")));
    const QString text = line.value(option);
    QString wrong;
    if (line.values(option).size() > 1 && line.isSet(option))
        wrong = QStringLiteral("--%1 stands there twice").arg(option);
    else if (!decimal.match(text).hasMatch() || text.toInt() > most)
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

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

void show(Output *out, int number, const Attempt &attempt)
{
    const QString time = QStringLiteral("%1 ms").arg(attempt.milliseconds, 0, 'f', 1);
    QString text;
    switch (attempt.outcome) {
    case Accepted:
        text = QStringLiteral("accepted after %1, from %2").arg(time, attempt.localAddress);
        break;
    case Refused:
        text = QStringLiteral("refused after %1: %2").arg(time, errorText(attempt.error));
        break;
    case NoAnswer:
        text = QStringLiteral("no answer after %1: %2").arg(time, errorText(attempt.error));
        break;
    case NotTried:
        text = QStringLiteral("not tried, nothing was sent: %1").arg(errorText(attempt.error));
        break;
    }
    out->line(QStringLiteral("attempt %1  %2").arg(number).arg(text));
    constexpr double thousandths = 1000;
    out->object({ { QStringLiteral("type"), QStringLiteral("attempt") },
                  { QStringLiteral("attempt"), number },
                  { QStringLiteral("outcome"), QLatin1String(outcomeWords[attempt.outcome]) },
                  { QStringLiteral("errno"), attempt.error },
                  { QStringLiteral("error"),
                    attempt.error == 0 ? QString() : errorText(attempt.error) },
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
    out->line(verdict == NotTried ? QStringLiteral("not tried: ") + reason
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
    Outcome verdict = NotTried;
    QString reason;
    int number = 0;
    while (verdict != Accepted && number < attempts) {
        QElapsedTimer clock;
        clock.start();
        const Attempt attempt = attemptOnce(target.address, interval);
        show(out, ++number, attempt);
        if (attempt.outcome <= verdict) {
            verdict = attempt.outcome;
            reason = verdict == Accepted
                    ? QString()
                    : QStringLiteral("%1: %2").arg(target.text(), errorText(attempt.error));
        }
        // Each attempt has its whole interval, as the library's have.
        const qint64 left = interval - clock.elapsed();
        if (verdict != Accepted && number < attempts && left > 0)
            QThread::msleep(ulong(left));
    }
    return conclude(out, target, verdict, number, reason);
}

const QString text = QStringLiteral(
        "Asks for a TCP connection and closes it at once. Nothing is sent over it, and nothing is\n"
        "changed: unlike the library's search this never touches the device's addressing.\n\n"
        "An attempt succeeds if the server accepts within the interval; the next one begins when\n"
        "the interval is over. The first that succeeds is the last. HOST is an IPv4 address, or a\n"
        "name, of which the first IPv4 address is taken.\n\n"
        "Exit status: 0 the server accepts, 1 at least one attempt was refused, 2 there was no\n"
        "answer, 3 nothing was sent (the name is not resolved, there is no route, or HOST:PORT is\n"
        "none).");

} // namespace

int runProbe(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(text);
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
        return usageError(
                Values::Refusal{ given, QStringLiteral("the host or the port is missing"), example }
                        .text(),
                QStringLiteral("probe"));
    Values::Verdict refusal = checkPort(&target);
    if (!refusal)
        refusal = checkHost(target);
    const QString reason = refusal ? refusal->text() : resolve(&target);
    if (!reason.isEmpty())
        return conclude(&context.out, target, NotTried, 0, reason);
    return probe(&context.out, target, attempts, interval);
}
