// SPDX-License-Identifier: MIT
#include "nmclicommand.h"

#include <QRegularExpression>
#include <QStringList>

namespace {

QString staticAddressing(const QRegularExpressionMatch &match)
{
    QString text = QStringLiteral("static address %1").arg(match.captured(QStringLiteral("ip")));
    const QString gateway = match.captured(QStringLiteral("gateway"));
    if (!gateway.isEmpty())
        text += QStringLiteral(", gateway %1").arg(gateway);
    QString dns = match.captured(QStringLiteral("dns"));
    if (!dns.isEmpty())
        text += QStringLiteral(", name servers %1")
                        .arg(dns.replace(QLatin1Char(','), QLatin1String(", ")));
    return text;
}

} // namespace

NmcliCommand NmcliCommand::parse(const QString &command)
{
    static const QRegularExpression automatic(
            QStringLiteral("^nmcli connection modify uuid .* ipv4\\.method auto\\s*$"));
    static const QRegularExpression manual(
            QStringLiteral("^nmcli connection modify uuid .* ipv4\\.addresses (?<ip>\\S*)"
                           "(?:\\s+ipv4\\.gateway (?<gateway>\\S+))?"
                           "(?:\\s+ipv4\\.dns (?<dns>\\S+))?\\s.*ipv4\\.method manual\\s*$"));
    static const QRegularExpression activation(QStringLiteral("^nmcli connection up uuid "));
    if (automatic.match(command).hasMatch())
        return { Automatic, QStringLiteral("automatic addressing (DHCP)") };
    const QRegularExpressionMatch match = manual.match(command);
    if (match.hasMatch())
        return { Static, staticAddressing(match) };
    if (activation.match(command).hasMatch())
        return { Activation, QString() };
    return {};
}

bool NmcliCommand::isFailure(const QString &message)
{
    for (const QString &line : message.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (!line.startsWith(QLatin1String("Warning:")) && !line.startsWith(QLatin1String("Hint:")))
            return true;
    }
    return false;
}
