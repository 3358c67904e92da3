// SPDX-License-Identifier: MIT
#include "describe.h"

#include "text.h"
#include "values.h"

namespace Describe {

namespace {

QString orMissing(const QString &text)
{
    return text.isEmpty() ? QStringLiteral("(none)") : text;
}

QString prefix(const QString &mask)
{
    const std::optional<int> length = Values::truePrefix(mask);
    const std::optional<int> applied = Values::appliedPrefix(mask);
    if (!length)
        return QStringLiteral(" netmask ") + orMissing(mask);
    if (applied != length)
        return QStringLiteral("/%1 (applied as /%2)").arg(*length).arg(*applied);
    return QStringLiteral("/%1").arg(*length);
}

} // namespace

QString enabled(bool enabled)
{
    return enabled ? QStringLiteral("on") : QStringLiteral("off");
}

QString connection(const QString &name)
{
    return name.isEmpty() ? QStringLiteral("(the active one)") : name;
}

QString server(const NetworkSettings &network)
{
    if (network.serverIp.isEmpty() && network.serverPort.isEmpty())
        return orMissing(QString());
    return orMissing(network.serverIp) + QLatin1Char(':') + orMissing(network.serverPort);
}

QString addressing(const NetworkSettings &network)
{
    if (!network.isStatic)
        return QStringLiteral("automatic addressing (DHCP)");
    QStringList dns{ network.dns1, network.dns2 };
    dns.removeAll(QString());
    return QStringLiteral("static address %1%2, gateway %3, name servers %4")
            .arg(orMissing(network.ip), prefix(network.mask), orMissing(network.gateway),
                 orMissing(dns.join(QStringLiteral(", "))));
}

QStringList changes(const Settings &before, const Settings &after)
{
    QStringList changes;
    if (before.connection != after.connection)
        changes.append(
                QStringLiteral("the connection becomes \"%1\" (now \"%2\")")
                        .arg(Text::visible(after.connection), Text::visible(before.connection)));
    for (int index : { 0, 1 }) {
        const QString now = Text::visible(addressing(before.networks[index]));
        const QString then = Text::visible(addressing(after.networks[index]));
        if (now != then)
            changes.append(
                    QStringLiteral("network %1 becomes %2 (now %3)").arg(index + 1).arg(then, now));
    }
    return changes;
}

} // namespace Describe
