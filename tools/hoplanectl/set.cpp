// SPDX-License-Identifier: MIT
#include "commands.h"

#include "change.h"
#include "configuration.h"
#include "devicesettings.h"
#include "values.h"

#include <QHash>

namespace {

const QString dhcpOption = QStringLiteral("dhcp");
const QString addressOption = QStringLiteral("address");
const QString gatewayOption = QStringLiteral("gateway");
const QString dnsOption = QStringLiteral("dns");

int refuse(const Values::Refusal &refusal)
{
    Output::message(refusal.text());
    Output::message(QStringLiteral("nothing is changed"));
    return ExitFailed;
}

// 0 or 1 for "1" or "2".
int networkIndex(const QString &text)
{
    return text == QLatin1String("1") ? 0 : text == QLatin1String("2") ? 1 : -1;
}

Values::Verdict unknownNetwork(const QString &text, const QString &example)
{
    return Values::Refusal{ text, QStringLiteral("there are the networks and servers 1 and 2"),
                            example };
}

Values::Verdict setServer(const QStringList &arguments, Changes *changes)
{
    const int index = networkIndex(arguments[1]);
    if (index < 0)
        return unknownNetwork(arguments[1], QStringLiteral("set server 1 192.0.2.1:9000"));
    Values::Server server;
    if (Values::Verdict refusal = Values::server(arguments[2], &server))
        return refusal;
    changes->setServer(index, server.ip, server.port);
    return std::nullopt;
}

Values::Verdict setNetwork(const QStringList &arguments, const CommandLine &line, Changes *changes)
{
    const int index = networkIndex(arguments[1]);
    if (index < 0)
        return unknownNetwork(arguments[1], QStringLiteral("set network 1 --dhcp"));
    NetworkSettings network;
    if (!line.isSet(dhcpOption)) {
        Values::Addressing addressing;
        const QString gateway = line.value(gatewayOption);
        if (line.isSet(gatewayOption) && gateway.isEmpty())
            return Values::Refusal{ gateway, QStringLiteral("the gateway is empty"),
                                    QStringLiteral("--gateway 10.0.0.1, or no --gateway at all") };
        if (Values::Verdict refusal = Values::addressing(line.value(addressOption), gateway,
                                                         line.values(dnsOption), &addressing))
            return refusal;
        network.isStatic = true;
        network.ip = addressing.ip;
        network.mask = addressing.mask;
        network.gateway = addressing.gateway;
        network.dns1 = addressing.dns.value(0);
        network.dns2 = addressing.dns.value(1);
    }
    changes->setAddressing(index, network);
    return std::nullopt;
}

Values::Verdict setConnection(const QStringList &arguments, Changes *changes)
{
    if (Values::Verdict refusal = Values::connectionName(arguments[1]))
        return refusal;
    changes->setConnection(arguments[1]);
    return std::nullopt;
}

Values::Verdict setEnabled(const QStringList &arguments, Changes *changes)
{
    if (arguments[1] != QLatin1String("on") && arguments[1] != QLatin1String("off"))
        return Values::Refusal{ arguments[1], QStringLiteral("it is either on or off"),
                                QStringLiteral("set enabled on") };
    changes->setEnabled(arguments[1] == QLatin1String("on"));
    return std::nullopt;
}

Values::Verdict setItem(const CommandLine &line, Changes *changes)
{
    const QStringList arguments = line.arguments();
    const QString &what = arguments.first();
    if (what == QLatin1String("server"))
        return setServer(arguments, changes);
    if (what == QLatin1String("network"))
        return setNetwork(arguments, line, changes);
    if (what == QLatin1String("connection"))
        return setConnection(arguments, changes);
    return setEnabled(arguments, changes);
}

// Of what each start of the application overwrites.
void warnOfImport(const QString &what)
{
    const QString path = Configuration::path();
    if (what != QLatin1String("network") && what != QLatin1String("connection"))
        return;
    const QString imported = DeviceSettings::announcement(path, Settings::read(path));
    if (!imported.isEmpty())
        Output::message(imported);
}

// What is wrong with the name of what is to be set, or the number of its arguments; nothing if all
// is well.
QString misnamed(const QStringList &arguments)
{
    static const QHash<QString, int> wanted = { { QStringLiteral("server"), 3 },
                                                { QStringLiteral("network"), 2 },
                                                { QStringLiteral("connection"), 2 },
                                                { QStringLiteral("enabled"), 2 } };
    const QString &what = arguments.first();
    if (!wanted.contains(what))
        return QStringLiteral("set: \"%1\" cannot be set; there are server, network, connection "
                              "and enabled")
                .arg(what);
    if (arguments.size() < wanted[what])
        return QStringLiteral("set %1: an argument is missing").arg(what);
    if (arguments.size() > wanted[what])
        return QStringLiteral("set %1: \"%2\" is one argument too many")
                .arg(what, arguments.last());
    return QString();
}

// What of the options does not go together, or with what is set; nothing if all is well.
QString contradiction(const CommandLine &line)
{
    const QString what = line.arguments().first();
    const bool isStatic = line.isSet(addressOption);
    for (const QString &option : { dhcpOption, addressOption, gatewayOption, dnsOption }) {
        if (what != QLatin1String("network") && line.isSet(option))
            return QStringLiteral("--%1 is for set network").arg(option);
    }
    if (what != QLatin1String("network"))
        return QString();
    if (line.isSet(dhcpOption)) {
        for (const QString &option : { addressOption, gatewayOption, dnsOption }) {
            if (line.isSet(option))
                return QStringLiteral("--dhcp and --%1 exclude each other").arg(option);
        }
    } else if (!isStatic) {
        return QStringLiteral("set network wants --dhcp, or --address and what belongs to it");
    }
    for (const QString &option : { addressOption, gatewayOption }) {
        if (line.values(option).size() > 1)
            return QStringLiteral("--%1 stands there twice").arg(option);
    }
    return QString();
}

const QString setText = QStringLiteral(
        "  set server 1|2 IP:PORT           the server, for example 192.0.2.1:9000\n"
        "  set network 1|2 --dhcp           automatic addressing beside that server\n"
        "  set network 1|2 --address IP/PREFIX [--gateway IP] [--dns IP [--dns IP]]\n"
        "                                   static addressing beside that server\n"
        "  set connection NAME              the wired connection of NetworkManager\n"
        "  set enabled on|off               whether the failover works at all\n\n"
        "A value that the library could not apply is refused, and nothing is changed.");

} // namespace

int runSet(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(setText);
    line.add({ dhcpOption, QStringLiteral("Automatic addressing.") });
    line.add({ addressOption, QStringLiteral("Static address with prefix length."),
               QStringLiteral("IP/PREFIX") });
    line.add({ gatewayOption, QStringLiteral("The network's gateway."), QStringLiteral("IP") });
    line.add({ dnsOption, QStringLiteral("A name server, up to two."), QStringLiteral("IP") });
    if (!line.parse(&context, arguments, 1, 3))
        return line.status();

    QString wrong = misnamed(line.arguments());
    if (wrong.isEmpty())
        wrong = contradiction(line);
    if (!wrong.isEmpty())
        return usageError(wrong, QStringLiteral("set"));

    Changes changes;
    if (const Values::Verdict refusal = setItem(line, &changes))
        return refuse(*refusal);
    if (!Configuration::choose(context.app, true))
        return ExitFailed;
    const int status = makeChanges(&context.out, changes, false);
    if (status == ExitGood)
        warnOfImport(line.arguments().first());
    return status;
}
