// SPDX-License-Identifier: MIT
#include "livecommand.h"

#include "describe.h"
#include "devicesettings.h"
#include "processor.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// The columns that a character takes on a terminal.
int widthOf(QChar character)
{
    constexpr ushort firstWide = 0x1100; // from here on nearly all scripts are
    return character.unicode() >= firstWide ? 2 : 1;
}

QString shortened(const QString &text, int columns)
{
    int used = 0;
    for (int i = 0; i < text.size(); ++i) {
        used += widthOf(text[i]);
        if (used > columns)
            return text.left(i);
    }
    return text;
}

} // namespace

LiveCommand::LiveCommand(Context *context)
    : m_context(context)
    , m_live([this](const LogEntry &entry, const LogLine &line) { take(entry, line); },
             [this](int number) { interrupted(number); })
    , m_narrator([this](const Step &step) { tell(step); },
                 [this](const SearchAccount &search) { tellEnd(search); })
{
    m_narrator.readAlong();
}

Hoplane *LiveCommand::takeLibrary()
{
    if (!m_live.start(out()))
        return nullptr;
    m_hasStatus =
            out()->onTerminal() && !out()->json() && qgetenv("TERM") != QByteArrayLiteral("dumb");
    constexpr int refreshMs = 500;
    QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] { showStatus(); });
    if (m_hasStatus)
        m_tick.start(refreshMs);
    m_beforeImport = Settings::read(Configuration::path());
    Hoplane *const library = Hoplane::instance();
    QObject::connect(library, &Hoplane::start, &m_tick, [this] { announceSearch(); });
    return library;
}

void LiveCommand::leave(int status)
{
    clearStatus();
    Live::leave(out(), status);
}

bool LiveCommand::isEnabled()
{
    return Settings::read(Configuration::path()).enabled;
}

void LiveCommand::take(const LogEntry &entry, const LogLine &line)
{
    if (m_verbose && line.kind != LogLine::LinkNotification
        && line.kind != LogLine::CommandMessage) {
        QString text = entry.text.trimmed();
        text.replace(QLatin1Char('\n'), QLatin1String("\\n"));
        timedLine(QStringLiteral("log: ") + Narrator::printable(text), Output::Dim, entry.when);
        out()->object({ { QStringLiteral("type"), QStringLiteral("log") },
                        { QStringLiteral("time"), entry.when.text },
                        { QStringLiteral("text"), entry.text } });
    }
    if (line.kind == LogLine::Foreign)
        return;
    // What the library has just read of the file.
    if (line.kind == LogLine::SecondServer)
        m_narrator.setEnabled(isEnabled(), Configuration::unusable(Configuration::path()));
    m_narrator.feed(entry, line);
    look();
    // A busy log does not have it drawn anew with each line.
    constexpr double leastSeconds = 0.1;
    if (!m_statusShown || between(m_drawn, Live::now()).value_or(leastSeconds) >= leastSeconds)
        showStatus();
}

void LiveCommand::tell(const Step &step)
{
    out()->object(step.object());
    // The line at the bottom has them.
    const bool isShown = !step.detail || (step.kind == Step::Attempt && !m_hasStatus);
    if (!isShown)
        return;
    QString text = step.text;
    if (step.kind == Step::Begin)
        text.prepend(step.searchKind == SearchAccount::Search ? QStringLiteral("search: ")
                                                              : QStringLiteral("LAN switch: "));
    if (step.duration && step.kind != Step::Attempt)
        text += QStringLiteral("  (%1)").arg(spent(*step.duration, false));
    if (step.pass > m_pass)
        timedLine(QStringLiteral("pass %1").arg(step.pass), Output::Dim, step.when);
    m_pass = step.kind == Step::Begin ? 1 : qMax(step.pass, m_pass);
    timedLine(text, step.style, step.when);
}

void LiveCommand::tellEnd(const SearchAccount &search)
{
    out()->object(search.object());
    const bool reached = search.outcome == SearchAccount::Reached;
    timedLine(Narrator::printable(search.text()), reached ? Output::Good : Output::Fault,
              search.end);
    if (search.outcome == SearchAccount::Failed) {
        for (const QString &reason : search.reasons())
            timedLine(Narrator::printable(reason), Output::Plain, search.end);
    }
    ended(search);
}

// Off the device the library tries a static second network before an automatic first one. It cannot
// be asked here: a rehearsal would hold it back for good.
void LiveCommand::noteExchange()
{
    const Settings settings = Settings::read(Configuration::path());
    const bool exchanged = !Processor::isDevices() && !settings.networks[0].isStatic
            && settings.networks[1].isStatic;
    if (!exchanged)
        return;
    note(QStringLiteral("on this processor (%1) the library exchanges the two networks: what is 1 "
                        "here is 2 in the file")
                 .arg(Processor::name()));
}

// What taking the library has made of the file.
void LiveCommand::noteImport()
{
    const QStringList changes =
            Describe::changes(m_beforeImport, Settings::read(Configuration::path()));
    if (!changes.isEmpty())
        note(QStringLiteral("at its start the library takes over %1: %2")
                     .arg(DeviceSettings::path(), changes.join(QStringLiteral("; "))));
}

void LiveCommand::note(const QString &text)
{
    line(text, Output::Warning);
    out()->object({ { QStringLiteral("type"), QStringLiteral("note") },
                    { QStringLiteral("text"), text } });
}

void LiveCommand::line(const QString &text, Output::Style style)
{
    clearStatus();
    out()->line(text, style);
}

void LiveCommand::timedLine(const QString &text, Output::Style style, const Moment &when)
{
    clearStatus();
    out()->line(margin(when) + out()->styled(text, style));
}

void LiveCommand::message(const QString &text)
{
    clearStatus();
    m_live.message(text);
}

void LiveCommand::clearStatus()
{
    if (!m_statusShown)
        return;
    m_statusShown = false;
    std::fputs("\r\x1b[K", m_live.results());
    std::fflush(m_live.results());
}

void LiveCommand::showStatus()
{
    const QString text = status();
    if (!m_hasStatus || text.isEmpty()) {
        clearStatus();
        return;
    }
    m_statusShown = true;
    m_drawn = Live::now();
    const QByteArray bytes = shortened(Narrator::printable(text), columns() - 1).toUtf8();
    std::fprintf(m_live.results(), "\r%s\x1b[K", bytes.constData());
    std::fflush(m_live.results());
}

QString LiveCommand::status() const
{
    const SearchAccount *const search = m_narrator.current();
    if (!search)
        return QString();
    const double seconds = between(search->begin, Live::now()).value_or(0);
    const QString elapsed = QStringLiteral("%1 s").arg(int(seconds));
    if (search->kind == SearchAccount::Reopening)
        return QStringLiteral("%1, %2").arg(elapsed, m_narrator.activity());
    return QStringLiteral("%1 of 120 s, pass %2, %3")
            .arg(elapsed)
            .arg(qMax(search->passes, 1))
            .arg(m_narrator.activity());
}

int LiveCommand::columns() const
{
    constexpr int usual = 80;
    winsize size = {};
    if (ioctl(fileno(m_live.results()), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return usual;
    return size.ws_col;
}
