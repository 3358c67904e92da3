// SPDX-License-Identifier: MIT
// The items about the device and the surroundings, and the servers as they answer now.

#include "checks.h"

#include "describe.h"
#include "devicesettings.h"
#include "processor.h"
#include "tcpattempt.h"
#include "text.h"
#include "values.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QTextCodec>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// What is wrong with the values that the import would bring.
void judgeImported(const Situation &situation, const Settings &after, Findings *found)
{
    const QString remedy = QStringLiteral("correct %1").arg(DeviceSettings::path());
    if (after.connection.isEmpty())
        found->append(Finding::warning(
                QStringLiteral("it has no conName: the next start of the application empties the "
                               "connection's name"),
                remedy));
    else if (const Values::Verdict refusal = Values::connectionName(after.connection))
        found->append(Finding::fault(QStringLiteral("its conName: ") + refusal->text(), remedy));
    Situation then = situation;
    then.settings = after;
    for (int index : { 0, 1 }) {
        for (Finding finding : Check::network(then, index)) {
            finding.text.prepend(QStringLiteral("its group %1: ")
                                         .arg(index == 0 ? QStringLiteral("MasterNet")
                                                         : QStringLiteral("SlaveNet")));
            finding.remedy = remedy;
            if (finding.level != Finding::Good)
                found->append(finding);
        }
    }
}

// The error's number if the kernel does not let this process listen, else 0.
int errorOfListening(int type, int protocol, quint32 groups)
{
    const int fd = socket(PF_NETLINK, type | SOCK_CLOEXEC, protocol);
    if (fd < 0)
        return errno;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    const bool bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    const int error = bound ? 0 : errno;
    close(fd);
    return error;
}

Finding cannotListen(const QString &what, int error)
{
    return Finding::fault(
            QStringLiteral("%1 cannot be received: %2").arg(what, Text::ofError(error)),
            QStringLiteral("allow the application sockets of the family AF_NETLINK, for example "
                           "in RestrictAddressFamilies= of its service"));
}

bool isAscii(const QString &text)
{
    return std::all_of(text.begin(), text.end(),
                       [](QChar character) { return character.unicode() < 0x80; });
}

// Waits as long as an attempt of the library does.
constexpr int attemptMs = 500;

TcpAttempt attemptAt(const NetworkSettings &network)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(network.serverPort.toUShort());
    address.sin_addr.s_addr = htonl(*Values::bits(network.serverIp));
    return TcpAttempt::make(address, attemptMs);
}

} // namespace

Findings Check::deviceFile(Situation &situation)
{
    const QString path = DeviceSettings::path();
    if (!QFile::exists(path))
        return { Finding::good(
                QStringLiteral("there is no %1: no start of the application changes the file")
                        .arg(path)) };
    DeviceSettings settings;
    const QString reason = settings.load(path);
    if (!reason.isEmpty())
        return { Finding::fault(DeviceSettings::emptying(reason),
                                QStringLiteral("mv %1 %1.old").arg(path)) };
    if (situation.path.isEmpty())
        return { Finding::notJudged(
                QStringLiteral("there is no configuration that %1 would change").arg(path)) };
    const Changes changes = settings.changes();
    Settings after = situation.settings;
    changes.applyTo(&after);
    Findings found;
    const QString announced =
            DeviceSettings::announcement(situation.path, settings, situation.settings);
    // The library goes on with what it could not store.
    const QString until = situation.storable
            ? QString()
            : QStringLiteral("; until it ends only, as it cannot store them");
    if (!announced.isEmpty())
        found.append(Finding::warning(
                announced + until,
                QStringLiteral("correct %1, which comes first; or mv %1 %1.old").arg(path)));
    judgeImported(situation, after, &found);
    if (found.isEmpty())
        found.append(Finding::good(
                QStringLiteral("%1 has the values that the file has already").arg(path)));
    return found;
}

Findings Check::linkEvents(Situation &)
{
    if (!Processor::isDevices()) {
        const int error = errorOfListening(SOCK_RAW, NETLINK_ROUTE, RTMGRP_LINK);
        if (error != 0)
            return { cannotListen(QStringLiteral("the kernel's link notifications"), error) };
        return { Finding::good(QStringLiteral("link notifications of all interfaces (%1)")
                                       .arg(Processor::name())) };
    }
    const int error = errorOfListening(SOCK_DGRAM, NETLINK_KOBJECT_UEVENT, 0xFFFFFFFF);
    if (error != 0)
        return { cannotListen(QStringLiteral("the LAN switch's uevents"), error) };
    const QString device = QStringLiteral("/sys/devices/virtual/switch/lan-switch");
    if (!QFileInfo::exists(device))
        return { Finding::warning(
                QStringLiteral("there is no %1: no event of the LAN switch will come (%2)")
                        .arg(device, Processor::name()),
                QStringLiteral("load the LAN switch's driver")) };
    return { Finding::good(
            QStringLiteral("uevents of the LAN switch (%1)").arg(Processor::name())) };
}

Findings Check::clock(Situation &)
{
    // The kernel counts the error of a clock that nobody sets up to this limit.
    constexpr long unknownError = 16000000;
    constexpr int firstYear = 2020;
    timex state = {};
    if (adjtimex(&state) < 0)
        return { Finding::notJudged(Text::ofError(errno)) };
    const QDateTime now = QDateTime::fromSecsSinceEpoch(state.time.tv_sec, Qt::UTC);
    const QString time = now.toString(QStringLiteral("yyyy-MM-dd HH:mm 'UTC'"));
    const QString remedy = QStringLiteral("timedatectl set-ntp true");
    const QString consequence = QStringLiteral("; a jump during a search changes its 120 s");
    if (now.date().year() < firstYear)
        return { Finding::warning(
                QStringLiteral("the clock is wrong, it says %1%2").arg(time, consequence),
                remedy) };
    if (state.maxerror >= unknownError)
        return { Finding::warning(QStringLiteral("the clock is not synchronised, it says %1%2")
                                          .arg(time, consequence),
                                  remedy) };
    return { Finding::good(QStringLiteral("the clock is synchronised, it says %1").arg(time)) };
}

Findings Check::locale(Situation &situation)
{
    const QString codec = QString::fromLatin1(QTextCodec::codecForLocale()->name());
    if (codec == QLatin1String("UTF-8"))
        return { Finding::good(codec) };
    const QString remedy = QStringLiteral("set LC_ALL=C.UTF-8 in the application's environment");
    const QString path = situation.path.isEmpty() ? Configuration::folder() : situation.path;
    if (!isAscii(path))
        return { Finding::fault(
                QStringLiteral("in %1 the path %2 has another spelling than in UTF-8, and the file "
                               "is not found")
                        .arg(codec, path),
                remedy) };
    if (!isAscii(situation.settings.connection))
        return { Finding::warning(QStringLiteral("in %1 the log shows the connection's name %2 in "
                                                 "another spelling")
                                          .arg(codec, shown(situation.settings.connection)),
                                  remedy) };
    return { Finding::good(
            QStringLiteral("%1, which is enough for the names in the configuration").arg(codec)) };
}

Findings Check::probe(const Situation &situation, int index)
{
    const NetworkSettings &network = situation.settings.networks[index];
    const QString server = network.serverIp + QLatin1Char(':') + network.serverPort;
    Values::Server ignored;
    if (Values::server(server, &ignored))
        return { Finding::notJudged(QStringLiteral("the server is no valid one")) };
    const TcpAttempt attempt = attemptAt(network);
    const QString elapsed = QString::number(qRound(attempt.milliseconds));
    if (attempt.outcome == TcpAttempt::Accepted)
        return { Finding::good(QStringLiteral("%1 accepts, after %2 ms").arg(server, elapsed)) };
    return { Finding::warning(
            QStringLiteral("%1: %2, after %3 ms; with the addressing as it is now")
                    .arg(server,
                         attempt.error == ETIMEDOUT ? QStringLiteral("no answer")
                                                    : Text::ofError(attempt.error),
                         elapsed),
            situation.command(QStringLiteral("search"))) };
}
