// SPDX-License-Identifier: MIT
#include "values.h"

#include "text.h"

#include <QRegularExpression>

#include <algorithm>
#include <array>

namespace Values {

namespace {

constexpr int addressBits = 32;
constexpr int lastWithHosts = 30; // longer prefixes have no network and no broadcast address
constexpr quint32 allOnes = 0xFFFFFFFF;
const char *const addressExample = "192.0.2.10";

quint32 maskBits(int prefix)
{
    return prefix == 0 ? 0 : allOnes << (addressBits - prefix);
}

QString dotted(quint32 bits)
{
    return QStringLiteral("%1.%2.%3.%4")
            .arg(bits >> 24)
            .arg(bits >> 16 & 0xFF)
            .arg(bits >> 8 & 0xFF)
            .arg(bits & 0xFF);
}

// Why no single machine has the address; nothing if one can.
QString reservedFor(quint32 bits)
{
    struct Range
    {
        quint32 first;
        int prefix;
        const char *what;
    };
    static const std::array<Range, 4> ranges = {
        Range{ 0, 8, "addresses of 0.0.0.0/8 belong to no machine" },
        Range{ 0x7F000000, 8, "addresses of 127.0.0.0/8 are this machine's own loopback" },
        Range{ 0xE0000000, 4, "addresses from 224.0.0.0 on are for groups of machines" },
        Range{ 0xF0000000, 4, "addresses from 240.0.0.0 on are reserved" },
    };
    for (const Range &range : ranges) {
        if ((bits & maskBits(range.prefix)) == range.first)
            return QLatin1String(range.what);
    }
    return QString();
}

Verdict refused(const QString &value, const QString &reason, const QString &example)
{
    return Refusal{ value, reason, example };
}

// The device's own address; the library has to notice that the device has it.
Verdict checkOwn(const QString &ip, quint32 host)
{
    constexpr quint32 linkLocal = 0xA9FE0000;
    constexpr int linkLocalPrefix = 16;
    if ((host & maskBits(linkLocalPrefix)) == linkLocal)
        return refused(ip,
                       QStringLiteral("the library does not count addresses of 169.254.0.0/16 "
                                      "(link-local), so the device would have none for it"),
                       QStringLiteral("10.0.0.2/24"));
    return std::nullopt;
}

// The address with its prefix; what the library makes of the mask has to be the same prefix.
Verdict checkPrefix(const QString &text, const QString &prefixText, int *prefix)
{
    const QString example = QStringLiteral("10.0.0.2/24");
    const std::optional<int> typed = number(prefixText, addressBits);
    if (!typed || *typed == 0)
        return refused(text, QStringLiteral("the prefix length has to be a number from 1 to 32"),
                       example);
    const QString mask = maskOf(*typed);
    const int applied = appliedPrefix(mask).value_or(0);
    if (applied != *typed)
        return refused(text,
                       QStringLiteral("no netmask gives /%1: the library applies %2 as /%3")
                               .arg(*typed)
                               .arg(mask)
                               .arg(applied),
                       example);
    *prefix = *typed;
    return std::nullopt;
}

Verdict checkHost(const QString &text, quint32 host, int prefix)
{
    if (prefix > lastWithHosts)
        return std::nullopt;
    const quint32 mask = maskBits(prefix);
    const QString example = dotted((host & mask) + 2) + QLatin1Char('/') + QString::number(prefix);
    if ((host & ~mask) == 0)
        return refused(text, QStringLiteral("it is the address of the network itself"), example);
    if ((host & ~mask) == ~mask)
        return refused(text, QStringLiteral("it is the broadcast address of its network"), example);
    return std::nullopt;
}

// Another address of the network.
QString gatewayExample(quint32 host, int prefix)
{
    if (prefix == addressBits)
        return QStringLiteral("no --gateway, or a shorter prefix");
    if (prefix > lastWithHosts)
        return dotted(host ^ 1);
    const quint32 mask = maskBits(prefix);
    for (const quint32 other : { (host & mask) + 1, host + 1, host - 1 }) {
        if (other != host && (other & ~mask) != ~mask && reservedFor(other).isEmpty())
            return dotted(other);
    }
    return QStringLiteral("another address of the network");
}

Verdict checkGateway(const QString &gateway, quint32 host, int prefix)
{
    const quint32 mask = maskBits(prefix);
    const QString example = gatewayExample(host, prefix);
    if (Verdict refusal = address(gateway, QStringLiteral("gateway"), example))
        return refusal;
    const quint32 bits = *Values::bits(gateway);
    const QString network = dotted(host & mask) + QLatin1Char('/') + QString::number(prefix);
    if ((bits & mask) != (host & mask))
        return refused(
                gateway,
                QStringLiteral("the gateway is outside the network %1, so it cannot be reached")
                        .arg(network),
                example);
    if (bits == host)
        return refused(gateway, QStringLiteral("the gateway is the device's own address"), example);
    if (Verdict refusal = checkHost(gateway, bits, prefix)) {
        refusal->example = example;
        return refusal;
    }
    return std::nullopt;
}

Verdict checkDns(const QStringList &dns)
{
    for (const QString &server : dns) {
        if (Verdict refusal =
                    address(server, QStringLiteral("name server"), QStringLiteral("8.8.8.8")))
            return refusal;
    }
    if (dns.size() > 2)
        return refused(dns[2], QStringLiteral("there is room for two name servers only"),
                       QStringLiteral("--dns 8.8.8.8 --dns 8.8.4.4"));
    if (dns.size() == 2 && dns[0] == dns[1])
        return refused(dns[1], QStringLiteral("both name servers are the same"),
                       QStringLiteral("--dns 8.8.8.8 --dns 8.8.4.4"));
    return std::nullopt;
}

// Of a connection's name.
Verdict checkCharacters(const QString &name, const QString &example)
{
    for (const QChar character : name) {
        if (QStringLiteral("'\"`$\\;|&<>()").contains(character))
            return refused(
                    name,
                    QStringLiteral("the name contains %1, which means something to the shell "
                                   "that runs the library's commands")
                            .arg(character),
                    example);
        if (character.category() == QChar::Other_Control || character == QChar::LineSeparator
            || character == QChar::ParagraphSeparator)
            return refused(name, QStringLiteral("the name contains a control character"), example);
    }
    if (!name.isValidUtf16() || name.contains(QChar::ReplacementCharacter))
        return refused(name, QStringLiteral("the name is not valid Unicode text"), example);
    // A byte order mark gets lost behind a comma.
    if (!isKept(name) || name.contains(QChar::ByteOrderMark))
        return refused(name,
                       QStringLiteral("the name contains a character that the file does not keep, "
                                      "such as an emoji"),
                       example);
    return std::nullopt;
}

} // namespace

QString Refusal::text() const
{
    return QStringLiteral("\"%1\": %2; for example %3").arg(Text::visible(value), reason, example);
}

std::optional<int> number(const QString &text, int most)
{
    static const QRegularExpression decimal(QStringLiteral("^(0|[1-9][0-9]{0,8})$"),
                                            QRegularExpression::DontCaptureOption);
    // Of one line: an end of the expression may stand before a line break.
    if (text.endsWith(QLatin1Char('\n')) || !decimal.match(text).hasMatch() || text.toInt() > most)
        return std::nullopt;
    return text.toInt();
}

bool isKept(const QString &text)
{
    return std::none_of(text.begin(), text.end(),
                        [](QChar character) { return character.isSurrogate(); });
}

std::optional<quint32> bits(const QString &address)
{
    const QStringList parts = address.split(QLatin1Char('.'));
    if (parts.size() != 4)
        return std::nullopt;
    quint32 result = 0;
    for (const QString &part : parts) {
        const std::optional<int> value = number(part, 255);
        if (!value)
            return std::nullopt;
        result = result << 8 | quint32(*value);
    }
    return result;
}

Verdict address(const QString &text, const QString &what, const QString &example)
{
    const std::optional<quint32> parsed = bits(text);
    if (!parsed)
        return refused(
                text,
                QStringLiteral("the %1 has to be an IPv4 address, four numbers from 0 to 255 "
                               "without leading zeros")
                        .arg(what),
                example);
    const QString reason = reservedFor(*parsed);
    if (!reason.isEmpty())
        return refused(text, reason, example);
    return std::nullopt;
}

Verdict port(const QString &text, const QString &port)
{
    constexpr int lastPort = 65535;
    if (number(port, lastPort).value_or(0) == 0)
        return refused(text, QStringLiteral("the port has to be a number from 1 to 65535"),
                       QStringLiteral("192.0.2.1:9000"));
    return std::nullopt;
}

Verdict server(const QString &text, Server *server)
{
    const QString example = QStringLiteral("192.0.2.1:9000");
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    if (colon < 0)
        return refused(text, QStringLiteral("the port is missing"), example);
    const QString ip = text.left(colon);
    const QString port = text.mid(colon + 1);
    if (Verdict refusal = address(ip, QStringLiteral("server"), example)) {
        refusal->value = text;
        return refusal;
    }
    if (Verdict refusal = Values::port(text, port))
        return refusal;
    *server = { ip, port };
    return std::nullopt;
}

Verdict addressing(const QString &text, const QString &gateway, const QStringList &dns,
                   Addressing *addressing)
{
    const QString example = QStringLiteral("10.0.0.2/24");
    const int slash = text.indexOf(QLatin1Char('/'));
    if (slash < 0)
        return refused(text, QStringLiteral("the prefix length is missing"), example);
    const QString ip = text.left(slash);
    if (Verdict refusal = address(ip, QStringLiteral("address"), example)) {
        refusal->value = text;
        return refusal;
    }
    int prefix = 0;
    if (Verdict refusal = checkPrefix(text, text.mid(slash + 1), &prefix))
        return refusal;
    const quint32 host = *bits(ip);
    if (Verdict refusal = checkOwn(ip, host))
        return refusal;
    if (Verdict refusal = checkHost(text, host, prefix))
        return refusal;
    if (!gateway.isEmpty()) {
        if (Verdict refusal = checkGateway(gateway, host, prefix))
            return refusal;
    }
    if (Verdict refusal = checkDns(dns))
        return refusal;
    *addressing = { ip, maskOf(prefix), gateway, dns };
    return std::nullopt;
}

Verdict connectionName(const QString &name)
{
    const QString example = QStringLiteral("\"Wired connection 1\"");
    // Words that nmcli takes for something else where a name is expected.
    static const QStringList words = { QStringLiteral("id"), QStringLiteral("uuid"),
                                       QStringLiteral("path"), QStringLiteral("apath"),
                                       QStringLiteral("filename") };
    // With the name between them a command line of the library has to stay below 4096 bytes.
    constexpr int mostBytes = 1024;
    if (name.isEmpty())
        return refused(name, QStringLiteral("the name is empty"), example);
    if (Verdict refusal = checkCharacters(name, example))
        return refusal;
    if (name != name.trimmed())
        return refused(name, QStringLiteral("the name begins or ends with a blank"), example);
    // Of this one the beginning is enough for it.
    const bool isHelp = QLatin1String("help").startsWith(name);
    if (name.startsWith(QLatin1Char('-')) || words.contains(name) || isHelp)
        return refused(name, QStringLiteral("nmcli does not take this word for a name"), example);
    if (name.contains(QLatin1Char('%')))
        return refused(name, QStringLiteral("the name contains %, which the library may replace"),
                       example);
    if (name.toUtf8().size() > mostBytes)
        return refused(name.left(20) + QChar(0x2026),
                       QStringLiteral("the name is longer than %1 bytes").arg(mostBytes), example);
    return std::nullopt;
}

std::optional<int> truePrefix(const QString &mask)
{
    const std::optional<quint32> parsed = bits(mask);
    for (int prefix = 0; parsed && prefix <= addressBits; ++prefix) {
        if (maskBits(prefix) == *parsed)
            return prefix;
    }
    return std::nullopt;
}

std::optional<int> appliedPrefix(const QString &mask)
{
    const std::optional<quint32> parsed = bits(mask);
    if (!parsed)
        return std::nullopt;
    // Meant: the library's own count, whose 6 devices rely on.
    constexpr quint32 classA = 0xFF000000;
    constexpr int classAPrefix = 6;
    int prefix = 0;
    while (prefix < addressBits && (*parsed & maskBits(prefix + 1)) == maskBits(prefix + 1))
        ++prefix;
    return *parsed == classA ? classAPrefix : prefix;
}

QString maskOf(int prefix)
{
    return dotted(maskBits(prefix));
}

Verdict storedAddressing(const QString &ip, const QString &mask, const QString &gateway,
                         const QStringList &dns)
{
    if (Verdict refusal = address(ip, QStringLiteral("address"), QLatin1String(addressExample)))
        return refusal;
    const std::optional<int> prefix = truePrefix(mask);
    if (!prefix)
        return refused(mask,
                       QStringLiteral("the netmask has to be one bits followed by zero bits, in "
                                      "four numbers"),
                       QStringLiteral("255.255.255.0"));
    Addressing ignored;
    return addressing(ip + QLatin1Char('/') + QString::number(*prefix), gateway, dns, &ignored);
}

} // namespace Values
