// SPDX-License-Identifier: MIT
#include "logreader.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QVector>

namespace {

constexpr double secondsOfDay = 24 * 60 * 60;
constexpr double daysOfLeapYear = 366;
constexpr double microsecond = 1e-6;

const QString datePattern = QStringLiteral("(?<date>\\d{4}-\\d\\d-\\d\\d)");
const QString clockPattern = QStringLiteral("(?<clock>\\d\\d:\\d\\d:\\d\\d(?:[.,]\\d+)?)");
const QString zonePattern = QStringLiteral("(?:Z|(?<zone>[+-]\\d\\d:?\\d\\d))?");
const QString numberPattern = QStringLiteral("(?<number>\\d+\\.\\d+)");
// Host, facility and level where some write them, program and process.
const QString originPattern =
        QStringLiteral(" (?:[^\\s\\[\\]:\"]+ ){1,2}(?<process>(?<program>[^\\s\\[\\]:\"]+)"
                       "(?:\\[\\d+\\])?):(?: (?<text>.*))?");
// What a pattern for Qt's messages may put between the time and the message.
const QString messagePattern = QStringLiteral(
        "\\]?:? +(?:\\[?(?:debug|info|warning|critical|fatal|[DIWCF])\\]?:? +)?(?:default:? +)?"
        "(?<text>.*)");

struct Form
{
    bool syslogs;
    QRegularExpression expression;
};

Form form(bool syslogs, const QString &text)
{
    return { syslogs,
             QRegularExpression(QLatin1String("^(?<time>") + text + QLatin1Char('$'),
                                QRegularExpression::DotMatchesEverythingOption) };
}

// Host, program, process, kind of message and further data, each "-" where there is none.
QRegularExpression rfc5424()
{
    return QRegularExpression(QLatin1String("^(?:<\\d+>)?1 (?<time>") + datePattern
                                      + QLatin1Char('T') + clockPattern + zonePattern
                                      + QLatin1String(") \\S+ (?<program>\\S+) (?<id>\\S+) \\S+ "
                                                      "(?:-|(?:\\[(?:[^\\]\\\\]|\\\\.)*\\])+)"
                                                      "(?: \\x{FEFF}?(?<text>.*))?$"),
                              QRegularExpression::DotMatchesEverythingOption);
}

const QVector<Form> &forms()
{
    static const QVector<Form> all = {
        // journalctl's short-iso and its relatives, short-full, short, short-monotonic, short-unix
        form(true,
             datePattern + QLatin1String("[T ]") + clockPattern + zonePattern + QLatin1Char(')')
                     + originPattern),
        form(true,
             QLatin1String("\\w+ ") + datePattern + QLatin1Char(' ') + clockPattern
                     + QLatin1String("(?: [A-Z][A-Z0-9_+-]*| [+-]\\d+)?)") + originPattern),
        form(true,
             QLatin1String("(?<month>[A-Z][a-z]{2}) +(?<day>\\d+) ") + clockPattern
                     + QLatin1Char(')') + originPattern),
        form(true, QLatin1String("\\[ *") + numberPattern + QLatin1String("\\])") + originPattern),
        form(true, numberPattern + QLatin1Char(')') + originPattern),
        { true, rfc5424() },
        // Qt's own
        form(false,
             QLatin1String("\\[?") + datePattern + QLatin1String("[T ]") + clockPattern
                     + zonePattern + QLatin1Char(')') + messagePattern),
        form(false, QLatin1String("\\[?") + clockPattern + QLatin1Char(')') + messagePattern),
        form(false, QLatin1String("\\[ *(?<number>\\d+(?:\\.\\d+)?)\\])") + messagePattern),
        form(false,
             QLatin1String(" *") + numberPattern + QLatin1String(")(?= +\\[ \\w+ \\])")
                     + messagePattern),
    };
    return all;
}

int monthOf(const QString &name)
{
    static const QStringList names = {
        QStringLiteral("Jan"), QStringLiteral("Feb"), QStringLiteral("Mar"), QStringLiteral("Apr"),
        QStringLiteral("May"), QStringLiteral("Jun"), QStringLiteral("Jul"), QStringLiteral("Aug"),
        QStringLiteral("Sep"), QStringLiteral("Oct"), QStringLiteral("Nov"), QStringLiteral("Dec")
    };
    return names.indexOf(name) + 1;
}

double secondsOfClock(const QString &text)
{
    const QTime whole = QTime::fromString(text.left(8), QStringLiteral("hh:mm:ss"));
    const double fraction =
            QString(QLatin1String("0.") + text.mid(9)).toDouble(); // 0 where there is none
    return QTime(0, 0).secsTo(whole) + fraction;
}

// "+0130" or "+01:30" in seconds
double secondsOfZone(QString text)
{
    text.remove(QLatin1Char(':'));
    if (text.isEmpty())
        return 0;
    const double minutes = text.mid(1, 2).toInt() * 60 + text.mid(3, 2).toInt();
    return (text.startsWith(QLatin1Char('-')) ? -1 : 1) * minutes * 60;
}

// Of a journal's field, which is a list of bytes where it is no text, and null where it is too
// long.
QString textOf(const QJsonValue &value)
{
    if (!value.isArray())
        return value.toString();
    QByteArray bytes;
    const QJsonArray numbers = value.toArray();
    for (const auto &byte : numbers)
        bytes.append(char(byte.toInt()));
    return QString::fromUtf8(bytes);
}

// A process as the journal's short forms write it; "-" is no number.
QString named(const QString &program, const QString &id)
{
    return id.isEmpty() || id == QLatin1String("-") ? program
                                                    : QStringLiteral("%1[%2]").arg(program, id);
}

} // namespace

LogReader::LogReader(OnEntry onEntry)
    : m_onEntry(std::move(onEntry))
{
}

void LogReader::addLine(QByteArray line)
{
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    Entry entry;
    if (line.startsWith('{') && takeObject(line, &entry)) {
        take(entry);
        return;
    }
    const QString text = QString::fromUtf8(line);
    const bool isIndented =
            text.startsWith(QLatin1String("    ")) || text.startsWith(QLatin1Char('\t'));
    if (takePrefix(text, &entry)) {
        take(entry);
    } else if (m_latest.form == Entry::Syslog && isIndented) {
        // A further line of the same message.
        entry = m_latest;
        entry.text = text.trimmed();
        take(entry);
    } else {
        entry.text = text;
        // A byte order mark is no part of the first line, a colour none of any.
        static const QRegularExpression noise(QStringLiteral("^\\x{FEFF}|\\x1b\\[[\\d;]*[mK]"));
        entry.text.remove(noise);
        const int beginning = LogLine::beginning(entry.text);
        if (beginning > 0)
            entry.text.remove(0, beginning);
        take(entry);
    }
}

void LogReader::finish()
{
    const QStringList processes = m_open.keys();
    for (const QString &process : processes)
        close(process);
}

bool LogReader::takeObject(const QByteArray &line, Entry *entry) const
{
    const QJsonObject object = QJsonDocument::fromJson(line).object();
    const QJsonValue message = object[QStringLiteral("MESSAGE")];
    if (message.isUndefined())
        return false;
    entry->form = Entry::Json;
    entry->text = message.isNull() ? QStringLiteral("[0B blob data]") : textOf(message);
    QString time = object[QStringLiteral("_SOURCE_REALTIME_TIMESTAMP")].toString();
    if (time.isEmpty())
        time = object[QStringLiteral("__REALTIME_TIMESTAMP")].toString();
    bool isNumber = false;
    const qint64 microseconds = time.toLongLong(&isNumber);
    if (isNumber) {
        entry->when.seconds = double(microseconds) * microsecond;
        constexpr int perMillisecond = 1000;
        entry->when.text = QDateTime::fromMSecsSinceEpoch(microseconds / perMillisecond, Qt::UTC)
                                   .toString(Qt::ISODateWithMs);
    }
    entry->program = textOf(object[QStringLiteral("SYSLOG_IDENTIFIER")]);
    if (entry->program.isEmpty())
        entry->program = textOf(object[QStringLiteral("_COMM")]);
    entry->process = named(entry->program, object[QStringLiteral("_PID")].toString());
    return true;
}

bool LogReader::takePrefix(const QString &line, Entry *entry)
{
    for (const Form &form : forms()) {
        const QRegularExpressionMatch match = form.expression.match(line);
        if (!match.hasMatch())
            continue;
        entry->form = form.syslogs ? Entry::Syslog : Entry::Stamped;
        entry->text = match.captured(QStringLiteral("text"));
        if (form.syslogs) {
            entry->program = match.captured(QStringLiteral("program"));
            entry->process = match.captured(QStringLiteral("process"));
            if (entry->process.isEmpty())
                entry->process = named(entry->program, match.captured(QStringLiteral("id")));
        }
        entry->when = moment(match);
        const int beginning = LogLine::beginning(entry->text);
        if (beginning > 0)
            entry->text.remove(0, beginning);
        return true;
    }
    return false;
}

Moment LogReader::moment(const QRegularExpressionMatch &match)
{
    Moment moment;
    moment.text = match.captured(QStringLiteral("time"));
    if (moment.text.startsWith(QLatin1Char('[')) && !moment.text.endsWith(QLatin1Char(']')))
        moment.text.remove(0, 1);
    const QString clockText = match.captured(QStringLiteral("clock"));
    constexpr int wholeLength = 8;
    moment.wholeSeconds = !clockText.isEmpty() && clockText.size() == wholeLength;
    moment.seconds = secondsOf(match);
    return moment;
}

// On a clock that goes on from line to line: at midnight, and at new year, where the text lacks
// the day, or the year.
double LogReader::secondsOf(const QRegularExpressionMatch &match)
{
    const auto part = [&match](const char *name) { return match.captured(QLatin1String(name)); };
    if (!part("number").isEmpty())
        return part("number").toDouble();
    const double ofDay = secondsOfClock(part("clock"));
    const QString date = part("date");
    if (!date.isEmpty()) {
        const qint64 day = QDate::fromString(date, Qt::ISODate).toJulianDay();
        return double(day) * secondsOfDay + ofDay - secondsOfZone(part("zone"));
    }
    double seconds = ofDay;
    double period = secondsOfDay;
    if (!part("month").isEmpty()) {
        // Of a leap year, so that each day is one of its own.
        const QDate day(2000, monthOf(part("month")), part("day").toInt());
        seconds += day.isValid() ? day.dayOfYear() * secondsOfDay : 0;
        period = daysOfLeapYear * secondsOfDay;
    }
    // Back by less than half of it is only a clock that was set.
    if (seconds < m_latestSeconds - period / 2)
        m_added += period;
    m_latestSeconds = seconds;
    return seconds + m_added;
}

void LogReader::noteOrder(const Moment &when)
{
    const Moment &before = m_latest.when;
    if (!when.seconds || !before.seconds)
        return;
    m_back += *when.seconds < *before.seconds;
    m_forward += *when.seconds > *before.seconds;
}

void LogReader::take(const Entry &entry)
{
    noteOrder(entry.when);
    m_latest = entry;
    const LogLine line = LogLine::parse(entry.text);
    const auto open = m_open.find(entry.process);
    if (open != m_open.end()) {
        if (goesOn(*open, entry, line)) {
            open->text += QLatin1Char('\n') + entry.text;
            return;
        }
        close(entry.process);
    }
    if (entry.text.trimmed().isEmpty())
        return;
    if (entry.form != Entry::Json && line.mayGoOn())
        m_open.insert(entry.process, entry);
    else
        m_onEntry(entry, line);
}

bool LogReader::goesOn(const Entry &open, const Entry &entry, const LogLine &line) const
{
    // Qt puts the time before the first line only.
    if (open.form == Entry::Stamped && entry.form == Entry::Stamped)
        return false;
    return line.kind == LogLine::Foreign && !entry.text.trimmed().isEmpty();
}

void LogReader::close(const QString &process)
{
    const Entry entry = m_open.take(process);
    m_onEntry(entry, LogLine::parse(entry.text));
}
