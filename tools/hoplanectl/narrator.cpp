// SPDX-License-Identifier: MIT
#include "narrator.h"

#include "text.h"

#include <QJsonValue>

namespace {

const char *nameOf(Step::Kind kind)
{
    static const char *const names[] = {
        "begin",         "correction",     "lookup",
        "no-connection", "netmask",        "cannot-start",
        "oversized",     "message",        "set",
        "activate",      "reactivate",     "addressing",
        "address",       "skip",           "port",
        "attempt",       "probe",          "reached",
        "time-limit",    "refresh",        "configuration",
        "started",       "import",         "online",
        "network",       "socket",         "switch-event",
        "link",          "address-change", "busy",
        "clock",         "ended",          "unknown",
    };
    return names[kind];
}

} // namespace

QJsonObject Step::object() const
{
    QJsonObject object = fields;
    object[QStringLiteral("type")] = QStringLiteral("step");
    object[QStringLiteral("step")] = QLatin1String(nameOf(kind));
    object[QStringLiteral("text")] = text;
    object[QStringLiteral("failed")] = style == Output::Fault || kind == Attempt;
    if (!when.text.isEmpty())
        object[QStringLiteral("time")] = when.text;
    if (search > 0)
        object[searchKind == SearchAccount::Search ? QStringLiteral("search")
                                                   : QStringLiteral("reopening")] = search;
    if (pass > 0)
        object[QStringLiteral("pass")] = pass;
    if (elapsed)
        object[QStringLiteral("elapsed")] = *elapsed;
    if (duration)
        object[QStringLiteral("duration")] = *duration;
    return object;
}

Narrator::Narrator(OnStep onStep, OnEnd onEnd)
    : m_onStep(std::move(onStep))
    , m_onEnd(std::move(onEnd))
{
}

void Narrator::feed(const LogEntry &entry, const LogLine &line)
{
    m_now = entry;
    if (m_now.when.seconds)
        *m_now.when.seconds -= m_clockSet;
    noteClock(line);
    const Handler handler = handlers.value(line.kind);
    if (handler)
        (this->*handler)(line);
    // These stand before the line with which what they belong to ends.
    const bool isPart = line.kind == LogLine::LookupCommand || line.kind == LogLine::CannotStart
            || line.kind == LogLine::Oversized || line.kind == LogLine::LocalAddress;
    if (line.isWorkers() && !isPart)
        m_last = m_now.when;
}

// Up to the search's end the time goes on from there, as if nothing lay between.
void Narrator::noteClock(const LogLine &line)
{
    // nmcli gives up an activation after 90 s, and nothing else takes long; threads exchange lines
    // that are written at the same time.
    constexpr double mostForward = 120;
    constexpr double mostBack = 1;
    const bool underWay = m_account && m_account->outcome == SearchAccount::Open;
    if (!underWay || !line.isOfSearch() || !m_last.seconds || !m_now.when.seconds)
        return;
    const double seconds = *m_now.when.seconds - *m_last.seconds;
    if (seconds <= mostForward && seconds >= -mostBack)
        return;
    m_clockSet += seconds;
    m_now.when.seconds = m_last.seconds;
    m_account->clockSet = seconds > 0 ? QStringLiteral("forward") : QStringLiteral("back");
    tell(step(Step::Clock,
              QStringLiteral("the clock was set %1 here, from %2 to %3, or lines are missing")
                      .arg(m_account->clockSet, m_last.text, m_now.when.text),
              Output::Warning));
}

void Narrator::finish(const QString &why, const std::optional<Moment> &when)
{
    m_now.when = when.value_or(m_now.when);
    tellHeldLookup();
    if (m_configured)
        ignoreConfiguration();
    if (!m_account)
        return;
    if (m_account->outcome == SearchAccount::Open) {
        m_account->outcome = SearchAccount::Unfinished;
        m_account->why = QStringLiteral("%1 (%2)").arg(why, activity());
        end(m_now.when);
    } else {
        end(m_last);
    }
}

QString Narrator::activity() const
{
    const int number = m_turn.over ? nextNetwork() : m_turn.network;
    const QString prefix = number > 0 ? QStringLiteral("network %1: ").arg(number) : QString();
    switch (m_phase) {
    case Resting:
        break;
    case LookingUp:
        return prefix + QStringLiteral("looking up the connection");
    case Setting:
        return prefix + QStringLiteral("setting the addressing");
    case Activating:
        return prefix + QStringLiteral("activating the connection");
    case Reactivating:
        return prefix + QStringLiteral("activating the connection again");
    case Probing: {
        const int of = m_account ? m_account->attemptsOfTurn() : 0;
        const QString server = number > 0 ? m_servers[number - 1] : QString();
        return prefix + QStringLiteral("attempt %1").arg(m_turn.attempts + 1)
                + (of > 0 ? QStringLiteral(" of %1").arg(of) : QString())
                + (server.isEmpty() ? QString() : QStringLiteral(" at ") + server);
    }
    case Ending:
        return QStringLiteral("ending");
    }
    return QStringLiteral("waiting");
}

QString Narrator::printable(QString text)
{
    for (QChar &character : text) {
        if (character.category() == QChar::Other_Control)
            character = QChar::ReplacementCharacter;
    }
    return text;
}

// What the configuration is read for, where one thing only is possible.
void Narrator::decide()
{
    if (!m_alongside)
        return;
    const bool search = m_starts > 0;
    const bool reopening = !m_switchStates.isEmpty();
    const bool down = m_linksDown > 0;
    if (m_enabled == false || (down && !search && !reopening))
        ignoreConfiguration();
    else if (!down && search != reopening)
        begin(search);
}

// The configuration was read, and nothing follows from it.
void Narrator::ignoreConfiguration()
{
    QString text = QStringLiteral("the configuration was read, and nothing followed: a link went "
                                  "down, or switching is disabled");
    Output::Style style = Output::Plain;
    const QString disabled = m_unusable.isEmpty()
            ? QStringLiteral("switching is disabled: nothing is done")
            : QStringLiteral("%1: nothing is done").arg(printable(m_unusable));
    if (m_linksDown > 0) {
        --m_linksDown;
        text = QStringLiteral("a link went down: the application is told that a switch begins");
        if (!m_alongside)
            text += QStringLiteral(", if switching is enabled");
    } else if (!m_switchStates.isEmpty()) {
        m_switchStates.removeFirst();
        text = disabled;
        style = Output::Warning;
    } else if (m_starts > 0) {
        --m_starts;
    }
    if (m_enabled == false) {
        text = disabled;
        style = Output::Warning;
    }
    Step told = step(Step::Configuration, text, style);
    told.when = *m_configured;
    m_configured.reset();
    tell(told);
    tellWaiting();
}

// The worker has nothing under way: it does something else now.
void Narrator::rest(const QString &why)
{
    tellHeldLookup();
    if (m_configured)
        ignoreConfiguration();
    if (m_account && m_account->kind == SearchAccount::Reopening && isProbeOpen())
        closeProbe();
    if (!m_account)
        return;
    if (m_account->outcome == SearchAccount::Open) {
        m_account->outcome = m_account->kind == SearchAccount::Reopening
                ? SearchAccount::Failed
                : SearchAccount::Unfinished;
        m_account->why = why;
    }
    end(m_last);
}

void Narrator::begin(bool ofSearch)
{
    SearchAccount account;
    account.partial = !m_configured;
    account.begin = m_configured.value_or(m_now.when);
    if (account.partial)
        m_last = Moment();
    m_configured.reset();
    if (!ofSearch && !m_switchStates.isEmpty()) {
        account.kind = SearchAccount::Reopening;
        account.state = m_switchStates.takeFirst();
        account.presumed = !m_alongside || m_starts > 0;
    } else if (m_starts > 0) {
        --m_starts;
    }
    for (int index : { 0, 1 })
        account.networks[index].server = m_servers[index];
    account.number = ++m_numbers[account.kind];
    m_account = account;
    m_turn = Turn();
    m_phase = LookingUp;
    tellBeginning();
    tellWaiting();
}

// What the worker does from here on belongs to a search or a re-opening; `ofSearch`: to a search.
void Narrator::work(bool ofSearch)
{
    const bool hasOutcome = m_account && m_account->outcome != SearchAccount::Open;
    if (hasOutcome)
        end(m_last);
    if (!m_account)
        begin(ofSearch);
    else if (ofSearch)
        takeBackPresumption();
}

void Narrator::takeBackPresumption()
{
    if (m_account->kind != SearchAccount::Reopening)
        return;
    m_switchStates.prepend(m_account->state);
    --m_numbers[m_account->kind];
    m_account->kind = SearchAccount::Search;
    m_account->number = ++m_numbers[m_account->kind];
    m_account->presumed = false;
    m_account->passes = qMax(m_account->passes, 1);
    if (m_starts > 0)
        --m_starts;
    tell(step(Step::Correction,
              QStringLiteral("this is a search; what the LAN switch reported waits for its end")));
}

// The worker is about to apply an addressing, or in the middle of it.
void Narrator::startTurn()
{
    work(false);
    // A re-opening has one turn only.
    if (isProbeOpen() && m_account->presumed)
        takeBackPresumption();
    if (isProbeOpen())
        closeProbe();
    if (!m_account)
        begin(false);
    if (m_turn.over)
        newTurn();
    tellHeldLookup();
}

void Narrator::openTurn(int network)
{
    m_turn = Turn();
    m_turn.network = network;
    m_turn.over = false;
    m_phase = LookingUp;
    if (m_account->kind == SearchAccount::Search && (network == 1 || m_account->passes == 0))
        ++m_account->passes;
}

void Narrator::newTurn()
{
    const bool isFirst = m_account->networks[0].turns + m_account->networks[1].turns == 0;
    if (!isFirst)
        takeBackPresumption();
    openTurn(nextNetwork());
    endRepeatedSkips();
    m_skipped[0] = m_skipped[1] = QString();
}

// The attempts of a turn are over, and none has succeeded.
void Narrator::closeProbe()
{
    const int of = m_account->attemptsOfTurn();
    const bool allThere = m_turn.attempts > 0 && (of == 0 || m_turn.attempts == of);
    NetworkAccount *const account = network();
    if (account && !allThere)
        account->attemptsMissing = true;
    const bool isKnown = m_turn.server.isEmpty() && account;
    QString text = QStringLiteral("%1 not reached")
                           .arg(orTheServer(isKnown ? account->server : m_turn.server));
    if (m_turn.attempts > 0)
        text += QStringLiteral(" in ") + Text::counted(m_turn.attempts, QStringLiteral("attempt"));
    if (!allThere)
        text += m_turn.attempts > 0 ? QStringLiteral("; the others are not in the log")
                                    : QStringLiteral("; the attempts are not in the log");
    Step told = ofNetwork(Step::Probe, text, Output::Fault);
    if (m_turn.attempts > 0) {
        told.when = m_turn.tried;
        told.duration = spentOnAttempts(m_turn.attempts, m_turn.tried);
    }
    told.fields[QStringLiteral("attempts")] = m_turn.attempts;
    tell(told);
    m_turn.over = true;
    m_phase = LookingUp;
    if (m_account->kind == SearchAccount::Reopening && (!m_account->presumed || allThere)) {
        m_account->outcome = SearchAccount::Failed;
        end(m_turn.tried);
    }
}

void Narrator::endRepeatedSkips()
{
    if (m_repeatedSkips == 0)
        return;
    const QString often = m_repeatedSkips == 1
            ? QStringLiteral("once more")
            : QStringLiteral("%1 more times").arg(m_repeatedSkips);
    Step told = step(Step::Skip, QStringLiteral("skipped %1 for the same reason").arg(often));
    told.fields[QStringLiteral("times")] = m_repeatedSkips;
    m_repeatedSkips = 0;
    tell(told);
}

void Narrator::end(const Moment &when)
{
    endRepeatedSkips();
    m_skipped[0] = m_skipped[1] = m_compared[0] = m_compared[1] = QString();
    m_account->end = when;
    const SearchAccount account = *m_account;
    m_account.reset();
    m_turn = Turn();
    m_phase = Resting;
    m_clockSet = 0;
    m_onEnd(account);
    tellWaiting();
}

int Narrator::nextNetwork() const
{
    if (m_turn.network > 0)
        return 3 - m_turn.network;
    if (!m_account || m_account->passes > 0)
        return 0;
    if (m_account->kind == SearchAccount::Reopening)
        return m_account->state == 0 ? 1 : 2;
    return m_account->partial ? 0 : 1;
}

NetworkAccount *Narrator::network()
{
    return m_account && m_turn.network > 0 ? &m_account->networks[m_turn.network - 1] : nullptr;
}

// Of a log that does not tell the turn's network, from the server that is tried.
void Narrator::inferNetwork(const QString &server)
{
    for (int index : { 0, 1 }) {
        if (m_turn.network == 0 && m_servers[index] == server && m_servers[1 - index] != server)
            m_turn.network = index + 1;
    }
    if (NetworkAccount *const account = network())
        account->server = server;
}

void Narrator::noteTrouble(const QString &trouble)
{
    if (m_turn.trouble.isEmpty())
        m_turn.trouble = trouble;
}

// Reckoned where there are no times.
std::optional<double> Narrator::spentOnAttempts(int count, const Moment &until) const
{
    if (!until.seconds)
        return count * secondsOfAttempt;
    return between(m_turn.probed, until);
}

void Narrator::spendOnAttempt()
{
    const std::optional<double> measured = sinceLast();
    m_account->attempts += measured.value_or(secondsOfAttempt);
    if (!measured)
        m_account->estimated = true;
}

bool Narrator::isProbeOpen() const
{
    return m_account && !m_turn.over && (m_phase == Probing || m_phase == Reactivating);
}

Step Narrator::step(Step::Kind kind, const QString &text, Output::Style style) const
{
    Step made;
    made.kind = kind;
    made.text = text;
    made.style = style;
    made.when = m_now.when;
    return made;
}

Step Narrator::ofNetwork(Step::Kind kind, const QString &text, Output::Style style) const
{
    Step made = step(kind, text, style);
    if (m_turn.network > 0) {
        made.text = QStringLiteral("network %1: %2").arg(m_turn.network).arg(text);
        made.fields[QStringLiteral("network")] = m_turn.network;
    }
    return made;
}

void Narrator::tell(const Step &step)
{
    // What happens between a re-opening and the proof that it was none is outside of it.
    const bool isOver =
            m_account && m_account->presumed && m_account->outcome != SearchAccount::Open;
    if (m_configured || (isOver && step.kind != Step::Reached)) {
        m_waiting.append(step);
        return;
    }
    Step told = step;
    told.text = printable(told.text);
    if (m_account) {
        told.search = m_account->number;
        told.searchKind = m_account->kind;
        told.pass = m_account->partial ? 0 : m_account->passes;
        told.elapsed = between(m_account->begin, told.when);
    }
    m_onStep(told);
}

void Narrator::tellWaiting()
{
    const QList<Step> waiting = m_waiting;
    m_waiting.clear();
    for (const Step &step : waiting)
        tell(step);
}

QString Narrator::takeMessages()
{
    QString messages = m_messages.trimmed();
    m_messages.clear();
    return messages;
}
