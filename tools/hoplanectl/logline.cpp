// SPDX-License-Identifier: MIT
#include "logline.h"

#include <QHash>
#include <QRegularExpression>
#include <QVector>

namespace {

struct Shape
{
    LogLine::Kind kind;
    const char *functions; // with | between them
    const char *pattern; // of what follows the function's name; <> is a text in quotes
};

// Blanks are not counted: some who store lines drop those at the end, others double them.
const Shape shapes[] = {
    { LogLine::NewFacade, "instance", "new Hoplane" },
    { LogLine::ImportMissing, "loadSwitchLocalConfig", "NetSetting\\.ini not exist\\." },
    { LogLine::OnlineBegins, "networkOnline", "online is true,begin try find available server ip" },
    { LogLine::OnlineEnds, "networkOnline", ",finish try find available server ip" },
    { LogLine::Offline, "networkOnline", "online false 949" },
    { LogLine::NetworkEvent, "networkAdd|networkChanged|networkRemove", "name <>" },
    { LogLine::SocketOpened, "run", "first time to get uevent socket_fd result =\\s*(-?\\d+)" },
    { LogLine::SocketReady, "run", "get uevent socket_fd success, fd =\\s*(-?\\d+)" },
    { LogLine::EventWithoutAction, "parse_uevent", "cdev->action is NULL" },
    { LogLine::SwitchEvent, "parse_uevent",
      "\"parse_uevent event \\{ name=(.*), action=(.*), path=(.*), state=(-?\\d+)\\}\"" },
    { LogLine::FileMissing, "loadConfig",
      "switch congif file: <> not exist,can not do net switc\\." },
    { LogLine::FirstServer, "loadConfig", "switch info:first serverIp: <> ,serverPort: <>" },
    { LogLine::SecondServer, "loadConfig", "switch info:second\\s+serverIp: <> ,serverPort: <>" },
    { LogLine::AddressCompared, "doConnetFirstServer|doConnetSecondServer",
      "the net ip adddr: <> ,the switch local ip addr: <>" },
    { LogLine::SameAddress, "doConnetFirstServer|doConnetSecondServer",
      "it is the same net ip adddr\\s+<>" },
    { LogLine::NetmaskError, "setStaticIpAddr", "LocalMask error: <>" },
    { LogLine::LookupCommand, "getNetWorkUuid", "\"(nmcli -g (?:[^\"\\\\]|\\\\.)*)\"" },
    { LogLine::NamedConnection, "getNetWorkUuid", "<>" },
    { LogLine::ActiveConnections, "getNetWorkUuid", "([^\"].*)?" },
    { LogLine::NoConnection, "setLocalIpAuto|setStaticIpAddr|slotTryRefreshNetwork",
      "get uuid is empty,d->strConnectionName= <>" },
    { LogLine::CannotStart, "excuCmd", "\"popen (.*)  error\\.\"" },
    { LogLine::Oversized, "excuCmd", "Get Disk data error bacause data memery is too large\\." },
    { LogLine::CommandRun, "setLocalIpAuto|setStaticIpAddr|slotTryRefreshNetwork",
      "execute the cmd: <> result(?: (.*))?" },
    { LogLine::RefreshedAgain, "slotTryRefreshNetwork", "2 execute the cmd: <> result(?: (.*))?" },
    { LogLine::Applied, "setFirstStaticIpAddr|setSecondStaticIpAddr", "run successful" },
    { LogLine::NotApplied, "setFirstStaticIpAddr|setSecondStaticIpAddr", "run failed" },
    { LogLine::PortUnusable, "tryConnectRemote", "783 trans failed, port is\\s+<>" },
    { LogLine::AttemptFailed, "tryConnectRemote",
      "connect to host fail:\\s+<>\\s+(\\d+)\\s+locak address: <>" },
    { LogLine::LocalAddress, "tryConnectRemote", "local IP =\\s+<>" },
    { LogLine::HostAvailable, "tryConnectRemote", "host is available,\\s+<> ,\\s+(\\d+)" },
    { LogLine::Reactivated, "tryConnectRemote", "cmd:\\s+<> bb\\s+result:(?:\\s+(.*))?" },
    { LogLine::TimeLimit, "findAvailableIp", "switch time out" },
    { LogLine::SearchFinished, "slotFinish", "\"slotFinish 71: addressChanged :\\d\"" },
    { LogLine::AddressChanged, "slotAddressChanged", "\"slotAddressChanged 116: ip changed\"" },
    { LogLine::Busy, "slotAddressChanged", "it's doing net switch\\." },
    { LogLine::NoRefreshDue, "slotTryRefreshNetwork", "144\\s+not fresh network" },
    { LogLine::RefreshTakenBack, "slotTryRefreshNetwork", "170\\s+not fresh network" },
};

struct Expression
{
    LogLine::Kind kind;
    QRegularExpression expression;
};

QRegularExpression whole(const QString &pattern)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern),
                              QRegularExpression::DotMatchesEverythingOption);
}

using Table = QHash<QString, QVector<Expression>>;

Table makeTable()
{
    const QString quoted = QStringLiteral("\"((?:[^\"\\\\]|\\\\.)*)\"");
    Table table;
    for (const Shape &shape : shapes) {
        QString pattern = QLatin1String(shape.pattern);
        pattern.replace(QLatin1String("<>"), quoted);
        const QString functions = QLatin1String(shape.functions);
        for (const QString &function : functions.split(QLatin1Char('|')))
            table[function].append({ shape.kind, whole(pattern) });
    }
    return table;
}

const Table &table()
{
    static const Table made = makeTable();
    return made;
}

// Takes back what the logger's stream does to a text in quotes.
QString plain(const QString &escaped)
{
    if (!escaped.contains(QLatin1Char('\\')))
        return escaped;
    static const QHash<QChar, QChar> controls = { { QLatin1Char('n'), QLatin1Char('\n') },
                                                  { QLatin1Char('r'), QLatin1Char('\r') },
                                                  { QLatin1Char('t'), QLatin1Char('\t') } };
    QString text;
    for (int i = 0; i < escaped.size(); ++i) {
        if (escaped[i] != QLatin1Char('\\') || i + 1 == escaped.size()) {
            text += escaped[i];
            continue;
        }
        const QChar what = escaped[++i];
        constexpr int digits = 4;
        bool isNumber = false;
        const ushort code = escaped.mid(i + 1, digits).toUShort(&isNumber, 16);
        if (what == QLatin1Char('u') && isNumber) {
            text += QChar(code);
            i += digits;
        } else {
            text += controls.value(what, what);
        }
    }
    return text;
}

bool isInQuotes(const QString &text, int position)
{
    bool inside = false;
    for (int i = 0; i < position; ++i) {
        if (text[i] == QLatin1Char('\\'))
            ++i;
        else if (text[i] == QLatin1Char('"'))
            inside = !inside;
    }
    return inside;
}

LogLine ofLibrary(const QString &function, const QString &text)
{
    for (const Expression &shape : table().value(function)) {
        const QRegularExpressionMatch match = shape.expression.match(text);
        if (!match.hasMatch())
            continue;
        LogLine line{ shape.kind, function, {} };
        for (int i = 1; i <= shape.expression.captureCount(); ++i) {
            const QString part = match.captured(i).trimmed();
            line.texts.append(isInQuotes(text, match.capturedStart(i)) ? plain(part) : part);
        }
        return line;
    }
    return { LogLine::Unknown, function, { text } };
}

} // namespace

LogLine LogLine::parse(const QString &text)
{
    static const QRegularExpression librarys = whole(QStringLiteral("\\[ (\\w+) \\](.*)"));
    static const QRegularExpression notification =
            whole(QStringLiteral("(\\d+): (up|down)(?: (\\S+))?"));
    static const QRegularExpression withheld =
            whole(QStringLiteral("\\[[\\d.]+[KMGT]?B? blob data\\]"));
    static const QRegularExpression message =
            whole(QStringLiteral("(?:Error|Warning|Hint|nmcli|awk|sh|/bin/sh): .+"));
    QRegularExpressionMatch match = librarys.match(text);
    if (match.hasMatch())
        return ofLibrary(match.captured(1), match.captured(2).trimmed());
    const QString trimmed = text.trimmed();
    match = notification.match(trimmed);
    if (match.hasMatch())
        return { LinkNotification,
                 QString(),
                 { match.captured(1), match.captured(2), match.captured(3) } };
    if (withheld.match(trimmed).hasMatch())
        return { Withheld, QString(), { trimmed } };
    if (message.match(trimmed).hasMatch())
        return { CommandMessage, QString(), { trimmed } };
    return { Foreign, QString(), { trimmed } };
}

bool LogLine::isOfSearch() const
{
    return kind >= AddressCompared && kind <= SearchFinished
            && function != QLatin1String("slotTryRefreshNetwork");
}

bool LogLine::isLibraryFunction(const QString &function)
{
    return table().contains(function);
}

int LogLine::beginning(const QString &text)
{
    static const QRegularExpression marked(QStringLiteral("\\[ (\\w+) \\]"));
    for (auto match = marked.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch next = match.next();
        if (isLibraryFunction(next.captured(1)))
            return next.capturedStart();
    }
    return -1;
}

bool LogLine::mayGoOn() const
{
    const bool hasOutput = kind == CommandRun || kind == RefreshedAgain || kind == Reactivated
            || kind == ActiveConnections;
    return hasOutput && !texts.last().isEmpty();
}
