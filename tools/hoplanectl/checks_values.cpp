// SPDX-License-Identifier: MIT
// The items about the values in the file.

#include "checks.h"

#include "describe.h"
#include "values.h"

#include <QHostAddress>
#include <QNetworkInterface>

namespace {

bool isAddress(const QString &text)
{
    return !Values::address(text, QString(), QString());
}

// The network's values where they are of use, and words for what has to be thought of.
QString networkCommand(const Situation &situation, int index, const QString &bad = QString())
{
    const NetworkSettings &network = situation.settings.networks[index];
    const auto usable = [&bad](const QString &text, const char *placeholder) {
        return isAddress(text) && text != bad ? text : QString::fromLatin1(placeholder);
    };
    const std::optional<int> prefix = Values::truePrefix(network.mask);
    const bool usablePrefix = prefix && *prefix > 0 && Values::appliedPrefix(network.mask) == prefix
            && network.mask != bad;
    QString command =
            QStringLiteral("network %1 --address %2/%3")
                    .arg(index + 1)
                    .arg(usable(network.ip, "IP"),
                         usablePrefix ? QString::number(*prefix) : QStringLiteral("PREFIX"));
    if (!network.gateway.isEmpty())
        command += QStringLiteral(" --gateway ") + usable(network.gateway, "IP");
    for (const QString &dns : { network.dns1, network.dns2 }) {
        if (!dns.isEmpty())
            command += QStringLiteral(" --dns ") + usable(dns, "IP");
    }
    return situation.set(command);
}

QString serverCommand(const Situation &situation, int index)
{
    const NetworkSettings &network = situation.settings.networks[index];
    Values::Server ignored;
    const bool portIsGood =
            !Values::server(QStringLiteral("192.0.2.1:") + network.serverPort, &ignored);
    return situation.set(
            QStringLiteral("server %1 %2:%3")
                    .arg(index + 1)
                    .arg(isAddress(network.serverIp) ? network.serverIp : QStringLiteral("IP"),
                         portIsGood ? network.serverPort : QStringLiteral("PORT")));
}

// What the library makes of any netmask at all: of four parts their bits, of anything else none.
int prefixOfAnything(const QString &mask)
{
    const QStringList parts = mask.split(QLatin1Char('.'));
    if (parts.size() != 4)
        return 0;
    const quint32 bits = parts[0].toUInt() << 24 | parts[1].toUInt() << 16 | parts[2].toUInt() << 8
            | parts[3].toUInt();
    return Values::appliedPrefix(QHostAddress(bits).toString()).value_or(0);
}

QStringList nameServers(const NetworkSettings &network)
{
    QStringList dns{ network.dns1, network.dns2 };
    dns.removeAll(QString());
    return dns;
}

// Whether the network's server can be reached with its static addressing; all values are valid.
std::optional<Finding> unreachable(const Situation &situation, int index)
{
    const NetworkSettings &network = situation.settings.networks[index];
    const std::optional<quint32> server = Values::bits(network.serverIp);
    if (!server)
        return std::nullopt;
    if (network.serverIp == network.ip)
        return Finding::fault(
                QStringLiteral("%1 is the server's address, and here the device's own")
                        .arg(network.ip),
                networkCommand(situation, index, network.ip));
    const quint32 mask = *Values::bits(network.mask);
    const bool isNear = (*server & mask) == (*Values::bits(network.ip) & mask);
    const quint32 host = *server & ~mask;
    // A network of one or two addresses has none for itself.
    if (isNear && ~mask > 1 && (host == 0 || host == ~mask))
        return Finding::fault(
                QStringLiteral("no server has the address %1: in this network it is %2")
                        .arg(network.serverIp,
                             host == 0 ? QStringLiteral("that of the network itself")
                                       : QStringLiteral("the broadcast address")),
                situation.set(
                        QStringLiteral("server %1 IP:%2").arg(index + 1).arg(network.serverPort)));
    if (network.gateway.isEmpty() && !isNear)
        return Finding::fault(
                QStringLiteral("the server %1 is outside the network of %2/%3, and there is no "
                               "gateway")
                        .arg(network.serverIp, network.ip)
                        .arg(*Values::truePrefix(network.mask)),
                networkCommand(situation, index) + QStringLiteral(" --gateway IP"));
    return std::nullopt;
}

struct DeviceAddress
{
    QString address; // empty if there is none
    QString interface;
};

// What the library takes for the device's own: the address of the last interface that has one.
DeviceAddress currentAddress()
{
    const QNetworkInterface::InterfaceFlags wanted = QNetworkInterface::IsUp
            | QNetworkInterface::IsRunning | QNetworkInterface::CanBroadcast
            | QNetworkInterface::CanMulticast;
    DeviceAddress current;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (interface.flags() != wanted)
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (!entry.ip().isLoopback() && !entry.ip().isLinkLocal()) {
                current = { entry.ip().toString(), interface.name() };
                break;
            }
        }
    }
    return current;
}

bool isBehind(const QString &interface, const QString &other)
{
    QStringList names;
    for (const QNetworkInterface &each : QNetworkInterface::allInterfaces())
        names.append(each.name());
    return names.contains(other) && names.indexOf(interface) > names.indexOf(other);
}

// A device with the address of `own` takes the other network for the one that it is in already.
void judgeLikeness(const Situation &situation, int own, Findings *found)
{
    const QString &ip = situation.settings.networks[own].ip;
    const QString &other = situation.settings.networks[1 - own].ip;
    if (ip.isEmpty() || ip == other || !other.contains(ip))
        return;
    found->append(Finding::fault(
            QStringLiteral("the text %1 is a part of %2: a device with the address %1 skips both "
                           "networks, and its search fails after 120 s")
                    .arg(ip, other),
            networkCommand(situation, 1 - own, other)));
}

// With the address that the device has now, as the library compares: by a part of the text.
void judgeSkippingNow(const Situation &situation, const QString &current, Findings *found)
{
    const QString &first = situation.settings.networks[0].ip;
    const QString &second = situation.settings.networks[1].ip;
    if (!first.contains(current) || !second.contains(current))
        return;
    found->append(Finding::fault(
            QStringLiteral("the device has the address %1 now, and this text is a part of %2 and "
                           "of %3: a search skips both, and fails after 120 s")
                    .arg(current, first, second),
            networkCommand(situation, 1, second)));
}

// What the library leaves out of its command stays in the profile as the other network had it.
void judgeLeftovers(const Situation &situation, int index, Findings *found)
{
    const NetworkSettings &network = situation.settings.networks[index];
    const NetworkSettings &other = situation.settings.networks[1 - index];
    const QString text = QStringLiteral("network %1 has no %2: that of network %3 stays in the "
                                        "profile");
    if (network.gateway.isEmpty() && !other.gateway.isEmpty())
        found->append(Finding::warning(
                text.arg(index + 1).arg(QStringLiteral("gateway")).arg(2 - index),
                networkCommand(situation, index) + QStringLiteral(" --gateway IP")));
    if (nameServers(network).isEmpty() && !nameServers(other).isEmpty())
        found->append(Finding::warning(
                text.arg(index + 1).arg(QStringLiteral("name server")).arg(2 - index),
                networkCommand(situation, index) + QStringLiteral(" --dns IP")));
}

Findings bothStatic(const Situation &situation)
{
    const QString &ip = situation.settings.networks[0].ip;
    Findings found;
    if (ip == situation.settings.networks[1].ip && !ip.isEmpty())
        found.append(Finding::fault(
                QStringLiteral("both networks have the address %1: a device that has it skips "
                               "both, and its search fails after 120 s")
                        .arg(ip),
                networkCommand(situation, 1, ip)));
    for (int index : { 0, 1 }) {
        judgeLikeness(situation, index, &found);
        judgeLeftovers(situation, index, &found);
    }
    const QString current = currentAddress().address;
    const QString &name = situation.settings.connection;
    if (current.isEmpty())
        found.append(Finding::warning(
                QStringLiteral("both networks are static: a device without any address skips "
                               "both, and its search fails after 120 s; now it has none"),
                name.isEmpty() ? situation.set(QStringLiteral("network 2 --dhcp"))
                               : QStringLiteral("nmcli connection modify %1 "
                                                "connection.autoconnect yes; nmcli connection "
                                                "up %1")
                                         .arg(Check::quoted(name))));
    else
        judgeSkippingNow(situation, current, &found);
    if (found.isEmpty())
        found.append(Finding::good(
                QStringLiteral("both are static, and the device has an address now, %1: a search "
                               "does not skip both")
                        .arg(current)));
    return found;
}

} // namespace

Findings Check::server(const Situation &situation, int index)
{
    const NetworkSettings &network = situation.settings.networks[index];
    if (network.serverIp.isEmpty() && network.serverPort.isEmpty())
        return { Finding::fault(QStringLiteral("there is none"), serverCommand(situation, index)) };
    Values::Server ignored;
    const QString text = network.serverIp + QLatin1Char(':') + network.serverPort;
    if (const Values::Verdict refusal = Values::server(text, &ignored))
        return { Finding::fault(refusal->text(), serverCommand(situation, index)) };
    return { Finding::good(text) };
}

Findings Check::servers(Situation &situation)
{
    const NetworkSettings &first = situation.settings.networks[0];
    const NetworkSettings &second = situation.settings.networks[1];
    if (first.serverIp != second.serverIp || first.serverPort != second.serverPort)
        return { Finding::good(QStringLiteral("they differ")) };
    const QString remedy = situation.set(QStringLiteral("server 2 IP:PORT"));
    if (Describe::addressing(first) == Describe::addressing(second))
        return { Finding::fault(QStringLiteral("both servers are the same, and so is the way to "
                                               "them: there is nothing to switch to"),
                                remedy) };
    return { Finding::warning(
            QStringLiteral("both servers are the same; only the way to them differs"), remedy) };
}

Findings Check::network(const Situation &situation, int index)
{
    const NetworkSettings &network = situation.settings.networks[index];
    if (!network.isStatic)
        return { Finding::good(Describe::addressing(network)) };
    if (const Values::Verdict refusal = Values::storedAddressing(
                network.ip, network.mask, network.gateway, nameServers(network))) {
        QString text = refusal->text();
        if (refusal->value == network.mask)
            text += QStringLiteral("; the library applies it as /%1")
                            .arg(prefixOfAnything(network.mask));
        return { Finding::fault(text, networkCommand(situation, index, refusal->value)) };
    }
    if (const std::optional<Finding> finding = unreachable(situation, index))
        return { *finding };
    return { Finding::good(Describe::addressing(network)) };
}

Findings Check::networks(Situation &situation)
{
    const bool firstIsStatic = situation.settings.networks[0].isStatic;
    if (firstIsStatic != situation.settings.networks[1].isStatic)
        return { Finding::good(QStringLiteral("they differ")) };
    if (firstIsStatic)
        return bothStatic(situation);
    return { Finding::warning(
            QStringLiteral("both networks are automatic (DHCP), and so the same"),
            situation.set(QStringLiteral("network 2 --address IP/PREFIX --gateway IP"))) };
}

Findings Check::skippedForAnother(const Situation &situation)
{
    Findings found;
    const auto &networks = situation.settings.networks;
    if (!networks[0].isStatic || !networks[1].isStatic)
        return found;
    const DeviceAddress current = currentAddress();
    if (!isBehind(current.interface, situation.interface))
        return found;
    for (int index : { 0, 1 }) {
        if (networks[index].ip.contains(current.address))
            found.append(Finding::fault(
                    QStringLiteral("the library takes the address %1 of %2 for that of %3, and "
                                   "skips network %4 (%5) in every pass")
                            .arg(current.address, current.interface, situation.interface)
                            .arg(index + 1)
                            .arg(networks[index].ip),
                    networkCommand(situation, index, networks[index].ip)));
    }
    return found;
}

Findings Check::name(Situation &situation)
{
    const QString &name = situation.settings.connection;
    const QString remedy = situation.set(QStringLiteral("connection NAME"));
    if (name.isEmpty())
        return { Finding::warning(
                QStringLiteral("the connection has no name: the library takes the active one, and "
                               "none any more after an activation that failed"),
                remedy) };
    if (const Values::Verdict refusal = Values::connectionName(name))
        return { Finding::fault(refusal->text(), remedy) };
    return { Finding::good(shown(name)) };
}
