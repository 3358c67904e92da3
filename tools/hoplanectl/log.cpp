// SPDX-License-Identifier: MIT
#include "commands.h"

#include "checks.h"
#include "logreader.h"
#include "text.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

namespace {

constexpr int nothingUnderstood = 1;
constexpr int unreadable = 2;

// Before a step: the time, or in a search the time since its beginning.
QString margin(const Step &step)
{
    constexpr int column = 10;
    const QString gap = QStringLiteral("  ");
    if (step.search == 0)
        return step.when.text.isEmpty() ? QString() : step.when.text + gap;
    const QString elapsed =
            step.elapsed ? inWords(*step.elapsed, step.when.wholeSeconds) : QString();
    return elapsed.rightJustified(column) + gap;
}

QString duration(const Step &step)
{
    return step.duration
            ? QStringLiteral("  (%1)").arg(spent(*step.duration, step.when.wholeSeconds))
            : QString();
}

// All processes' stories, told one line a step.
class Account
{
public:
    explicit Account(Output *out)
        : m_out(out)
    {
    }

    void take(const LogEntry &entry, const LogLine &line);
    void finish();

    int understood() const { return m_understood; }
    void tellSum();

private:
    Narrator *narratorFor(const LogEntry &entry, const LogLine &line);
    Narrator *make(const LogEntry &entry);
    void tell(const QString &process, const Step &step);
    void tellEnd(const QString &process, const SearchAccount &search);
    void noteMissingTimes(const Moment &when);
    void head(const QString &process);
    void tag(const QString &process, QJsonObject object);

    Output *m_out;
    std::map<QString, std::unique_ptr<Narrator>> m_narrators; // by process
    std::map<QString, QString> m_latest; // process, by program
    QString m_shown; // the process whose steps are told now
    std::map<QString, int> m_passes; // the latest that was told, by process
    bool m_noted = false;
    int m_lines = 0;
    int m_understood = 0;
    int m_unknown = 0;
    int m_foreign = 0;
    int m_searches = 0;
    int m_reopenings = 0;
};

void Account::take(const LogEntry &entry, const LogLine &line)
{
    ++m_lines;
    Narrator *const narrator = narratorFor(entry, line);
    if (!narrator || line.kind == LogLine::Foreign) {
        ++m_foreign;
        return;
    }
    if (line.isLibrarys())
        ++m_understood;
    else if (line.kind != LogLine::CommandMessage)
        ++m_unknown;
    narrator->feed(entry, line);
}

Narrator *Account::narratorFor(const LogEntry &entry, const LogLine &line)
{
    const auto known = m_narrators.find(entry.process);
    if (known != m_narrators.end())
        return known->second.get();
    const bool isLibrarys = line.isLibrarys()
            || (line.kind == LogLine::Unknown && LogLine::isLibraryFunction(line.function));
    if (isLibrarys)
        return make(entry);
    // A command that the library runs writes under the program's name, with a number of its own.
    const auto latest = m_latest.find(entry.program);
    if (line.kind == LogLine::CommandMessage && latest != m_latest.end())
        return m_narrators.at(latest->second).get();
    return nullptr;
}

Narrator *Account::make(const LogEntry &entry)
{
    const QString process = entry.process;
    m_latest[entry.program] = process;
    return (m_narrators[process] = std::make_unique<Narrator>(
                    [this, process](const Step &step) { tell(process, step); },
                    [this, process](const SearchAccount &search) { tellEnd(process, search); }))
            .get();
}

void Account::finish()
{
    for (const auto &narrator : m_narrators)
        narrator.second->finish(QStringLiteral("the log ends here"));
}

void Account::tag(const QString &process, QJsonObject object)
{
    if (!process.isEmpty())
        object[QStringLiteral("process")] = process;
    m_out->object(object);
}

void Account::head(const QString &process)
{
    if (process == m_shown)
        return;
    m_shown = process;
    m_out->line();
    m_out->line(QStringLiteral("Process %1").arg(Narrator::printable(process)), Output::Bold);
}

// Once, at the first search that it matters for.
void Account::noteMissingTimes(const Moment &when)
{
    if (m_noted || when.seconds)
        return;
    m_noted = true;
    const QString text =
            QStringLiteral("The log has no times that are understood. Attempts are reckoned "
                           "with the 0.5 s that each takes; no other duration is told.");
    m_out->line(text, Output::Warning);
    m_out->object({ { QStringLiteral("type"), QStringLiteral("note") },
                    { QStringLiteral("text"), text } });
}

void Account::tell(const QString &process, const Step &step)
{
    tag(process, step.object());
    if (step.detail)
        return;
    head(process);
    if (step.kind == Step::Begin) {
        noteMissingTimes(step.when);
        m_passes[process] = 1;
        m_out->line();
        m_out->line(QStringLiteral("%1%2: %3")
                            .arg(step.searchKind == SearchAccount::Search
                                         ? QStringLiteral("Search %1").arg(step.search)
                                         : QStringLiteral("LAN switch"),
                                 step.when.text.isEmpty() ? QString()
                                                          : QLatin1String(", ") + step.when.text,
                                 step.text),
                    step.style);
        return;
    }
    int &pass = m_passes[process];
    if (step.pass > qMax(pass, 1))
        m_out->line(QStringLiteral("  pass %1").arg(step.pass), Output::Dim);
    pass = qMax(step.pass, pass);
    m_out->line(margin(step) + m_out->styled(step.text, step.style) + duration(step));
}

void Account::tellEnd(const QString &process, const SearchAccount &search)
{
    ++(search.kind == SearchAccount::Search ? m_searches : m_reopenings);
    tag(process, search.object());
    head(process);
    const bool reached = search.outcome == SearchAccount::Reached;
    m_out->line(QStringLiteral("  ") + Narrator::printable(search.text()),
                reached ? Output::Good : Output::Fault);
    if (search.outcome == SearchAccount::Failed) {
        for (const QString &reason : search.reasons())
            m_out->line(QStringLiteral("    ") + Narrator::printable(reason));
    }
}

void Account::tellSum()
{
    QString text = Text::counted(m_searches, QStringLiteral("search"), QStringLiteral("searches"));
    if (m_reopenings > 0)
        text += QLatin1String(", ")
                + Text::counted(m_reopenings, QStringLiteral("change of the LAN switch"),
                                QStringLiteral("changes of the LAN switch"));
    text += QStringLiteral(" in %1 of the library")
                    .arg(Text::counted(m_understood, QStringLiteral("line")));
    if (m_unknown > 0)
        text += QStringLiteral("; %1").arg(Text::counted(m_unknown, QStringLiteral("line")))
                + QStringLiteral(" not understood");
    if (m_foreign > 0)
        text += QStringLiteral("; %1").arg(Text::counted(m_foreign, QStringLiteral("line")))
                + QStringLiteral(" of others left out");
    m_out->line();
    m_out->line(text, Output::Dim);
    m_out->object({ { QStringLiteral("type"), QStringLiteral("sum") },
                    { QStringLiteral("searches"), m_searches },
                    { QStringLiteral("reopenings"), m_reopenings },
                    { QStringLiteral("processes"), int(m_narrators.size()) },
                    { QStringLiteral("lines"), m_lines },
                    { QStringLiteral("understood"), m_understood },
                    { QStringLiteral("unknown"), m_unknown },
                    { QStringLiteral("others"), m_foreign } });
}

// A journal's own files are not text; they begin like this.
bool isJournal(const QByteArray &first)
{
    return first.startsWith("LPKSHHRH");
}

// Line by line as they come, so that a pipe may be followed. Returns what went wrong, or nothing.
QString readAll(FILE *input, LogReader *reader, QByteArray *first)
{
    char *line = nullptr;
    size_t size = 0;
    ssize_t length = 0;
    while (!reader->isReversed() && !isJournal(*first)
           && (length = getline(&line, &size, input)) >= 0) {
        const QByteArray bytes(line, int(length));
        if (first->isEmpty())
            *first = bytes;
        reader->addLine(bytes);
    }
    QString error = ferror(input) ? Text::ofError(errno) : QString();
    free(line);
    return error;
}

int cannotRead(const QString &name, const QString &reason)
{
    Output::message(QStringLiteral("%1 cannot be read: %2").arg(name, reason));
    return unreadable;
}

// What has to be done to a text that begins like this; nothing if it is as it should be.
QString hint(const QByteArray &first)
{
    for (const QByteArray &compressed :
         { QByteArrayLiteral("\x1f\x8b"), QByteArrayLiteral("\xfd\x37zXZ"),
           QByteArrayLiteral("\x28\xb5\x2f\xfd") }) {
        if (first.startsWith(compressed))
            return QStringLiteral("; it is compressed; zcat, xzcat or zstdcat unpacks it");
    }
    if (first.startsWith("\xff\xfe") || first.startsWith("\xfe\xff"))
        return QStringLiteral("; it is UTF-16; iconv -f UTF-16 -t UTF-8 turns it into UTF-8");
    if (first.trimmed() == "{")
        return QStringLiteral("; journalctl -o json gives an object a line");
    return QString();
}

int explain(Output *out, FILE *input, const QString &name)
{
    Account account(out);
    LogReader reader(
            [&account](const LogEntry &entry, const LogLine &line) { account.take(entry, line); });
    QByteArray first;
    const QString error = readAll(input, &reader, &first);
    if (isJournal(first))
        return cannotRead(
                name,
                QStringLiteral("it is a journal's own file; pipe "
                               "\"journalctl --file %1\" into hoplanectl log")
                        .arg(input == stdin ? QStringLiteral("FILE") : Check::quoted(name)));
    if (reader.isReversed()) {
        Output::message(QStringLiteral("%1 has its newest lines first; journalctl without "
                                       "--reverse shows them in order")
                                .arg(name));
        return unreadable;
    }
    reader.finish();
    account.finish();
    if (!error.isEmpty())
        return cannotRead(name, error);
    account.tellSum();
    if (account.understood() > 0)
        return ExitGood;
    Output::message(QStringLiteral("%1 has no line of the library's log%2").arg(name, hint(first)));
    return nothingUnderstood;
}

const QString logText = QStringLiteral(
        "Reads FILE, or standard input without one or for -: what the application wrote,\n"
        "or what the journal has, in any of journalctl's short forms and its JSON.\n"
        "Without times the attempts are reckoned with the 0.5 s that each takes.\n\n"
        "  journalctl -u failover | hoplanectl log\n"
        "  journalctl -o json -b | hoplanectl log --json\n\n"
        "Exit status: 0 if something of the library was found, 1 if nothing was, 2 if\n"
        "FILE cannot be read, or has its newest lines first.");

} // namespace

int runLog(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(logText);
    if (!line.parse(&context, arguments, 0, 1))
        return line.status();
    const QString name = line.arguments().value(0, QStringLiteral("-"));
    if (name == QLatin1String("-"))
        return explain(&context.out, stdin, QStringLiteral("standard input"));
    const std::unique_ptr<FILE, int (*)(FILE *)> file(
            std::fopen(QFile::encodeName(name).constData(), "re"), std::fclose);
    if (!file)
        return cannotRead(name, Text::ofError(errno));
    return explain(&context.out, file.get(), name);
}
