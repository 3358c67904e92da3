// SPDX-License-Identifier: MIT
// What the narrator makes of each line of the log.

#include "narrator.h"

#include <QRegularExpression>

namespace {

// After so many failed ones the worker activates the connection once more.
constexpr int attemptsBeforeReactivation = 11;
const QString endMissing = QStringLiteral("its end is not in the log");

QString server(const QString &ip, const QString &port)
{
    if (ip.isEmpty() && port.isEmpty())
        return QString();
    return ip + QLatin1Char(':') + port;
}

QString orNone(const QString &text)
{
    return text.isEmpty() ? QStringLiteral("(none)") : text;
}

// 1 or 2, as the function's name says.
int networkOf(const LogLine &line)
{
    return line.function.contains(QLatin1String("First")) ? 1 : 2;
}

QString notFound(const QString &name)
{
    return name.isEmpty() ? QStringLiteral("no connection is active")
                          : QStringLiteral("no connection \"%1\" is found").arg(name);
}

QString withMessage(const QString &text, const QString &message)
{
    return message.isEmpty() ? text : QStringLiteral("%1: %2").arg(text, message);
}

} // namespace

const QHash<int, Narrator::Handler> Narrator::handlers = {
    { LogLine::Unknown, &Narrator::unknown },
    { LogLine::Withheld, &Narrator::unknown },
    { LogLine::CommandMessage, &Narrator::commandMessage },
    { LogLine::LinkNotification, &Narrator::linkNotification },
    { LogLine::NewFacade, &Narrator::newFacade },
    { LogLine::ImportMissing, &Narrator::importMissing },
    { LogLine::OnlineBegins, &Narrator::online },
    { LogLine::OnlineEnds, &Narrator::online },
    { LogLine::Offline, &Narrator::online },
    { LogLine::NetworkEvent, &Narrator::networkEvent },
    { LogLine::SocketOpened, &Narrator::socket },
    { LogLine::SocketReady, &Narrator::socket },
    { LogLine::SwitchEvent, &Narrator::switchEvent },
    { LogLine::EventWithoutAction, &Narrator::eventWithoutAction },
    { LogLine::FileMissing, &Narrator::fileMissing },
    { LogLine::FirstServer, &Narrator::server },
    { LogLine::SecondServer, &Narrator::server },
    { LogLine::AddressCompared, &Narrator::addressCompared },
    { LogLine::SameAddress, &Narrator::sameAddress },
    { LogLine::NetmaskError, &Narrator::netmaskError },
    { LogLine::LookupCommand, &Narrator::lookupCommand },
    { LogLine::NamedConnection, &Narrator::connectionFound },
    { LogLine::ActiveConnections, &Narrator::connectionFound },
    { LogLine::NoConnection, &Narrator::noConnection },
    { LogLine::CannotStart, &Narrator::cannotStart },
    { LogLine::Oversized, &Narrator::oversized },
    { LogLine::CommandRun, &Narrator::commandRun },
    { LogLine::Applied, &Narrator::addressing },
    { LogLine::NotApplied, &Narrator::addressing },
    { LogLine::PortUnusable, &Narrator::portUnusable },
    { LogLine::AttemptFailed, &Narrator::attemptFailed },
    { LogLine::LocalAddress, &Narrator::localAddress },
    { LogLine::HostAvailable, &Narrator::hostAvailable },
    { LogLine::Reactivated, &Narrator::reactivated },
    { LogLine::TimeLimit, &Narrator::timeLimit },
    { LogLine::SearchFinished, &Narrator::searchFinished },
    { LogLine::AddressChanged, &Narrator::addressChanged },
    { LogLine::Busy, &Narrator::busy },
    { LogLine::NoRefreshDue, &Narrator::refresh },
    { LogLine::RefreshTakenBack, &Narrator::refresh },
    { LogLine::RefreshedAgain, &Narrator::refresh },
};

// The facade's thread.

void Narrator::newFacade(const LogLine &)
{
    // A process that is read along with has just begun, and what is announced came before this.
    if (!m_alongside) {
        rest(QStringLiteral("the application was started anew"));
        m_last = Moment();
        m_linksDown = 0;
        m_switchStates.clear();
        m_servers[0] = m_servers[1] = QString();
        m_messages.clear();
    }
    tell(step(Step::Started, QStringLiteral("the application takes the library into use")));
}

void Narrator::importMissing(const LogLine &)
{
    tell(step(Step::Import,
              QStringLiteral("the device has no network settings file: nothing is imported"),
              Output::Dim));
}

void Narrator::online(const LogLine &line)
{
    Step told = step(Step::Online,
                     line.kind == LogLine::Offline ? QStringLiteral("the device is offline")
                                                   : QStringLiteral("the device is online"),
                     Output::Dim);
    // Two lines tell of the one change.
    told.detail = line.kind == LogLine::OnlineEnds;
    told.fields[QStringLiteral("online")] = line.kind != LogLine::Offline;
    tell(told);
}

void Narrator::networkEvent(const LogLine &line)
{
    static const QHash<QString, QString> changes = {
        { QStringLiteral("networkAdd"), QStringLiteral("added") },
        { QStringLiteral("networkChanged"), QStringLiteral("changed") },
        { QStringLiteral("networkRemove"), QStringLiteral("removed") },
    };
    const QString change = changes.value(line.function);
    Step told = step(Step::Network,
                     QStringLiteral("network configuration \"%1\" %2").arg(line.texts[0], change),
                     Output::Dim);
    told.fields[QStringLiteral("name")] = line.texts[0];
    told.fields[QStringLiteral("change")] = change;
    tell(told);
}

// The watcher's thread.

void Narrator::socket(const LogLine &line)
{
    const bool failed = line.texts[0].toInt() < 0;
    Step told = step(Step::Socket, QStringLiteral("listening to the LAN switch"));
    if (failed) {
        told.text = QStringLiteral("the socket for the LAN switch's events cannot be opened; the "
                                   "library tries again every 5 s");
        told.style = Output::Fault;
    }
    // The other line follows once it is open.
    told.detail = line.kind == LogLine::SocketOpened && !failed;
    tell(told);
}

void Narrator::switchEvent(const LogLine &line)
{
    const int state = line.texts[3].toInt();
    m_switchStates.append(state);
    Step told = step(Step::SwitchEvent,
                     QStringLiteral("the LAN switch reports state %1").arg(state), Output::Bold);
    told.fields[QStringLiteral("name")] = line.texts[0];
    told.fields[QStringLiteral("action")] = line.texts[1];
    told.fields[QStringLiteral("path")] = line.texts[2];
    told.fields[QStringLiteral("state")] = state;
    tell(told);
}

void Narrator::eventWithoutAction(const LogLine &)
{
    tell(step(Step::SwitchEvent,
              QStringLiteral("an event of the LAN switch without an action: ignored"),
              Output::Warning));
}

void Narrator::linkNotification(const LogLine &line)
{
    const bool up = line.texts[1] == QLatin1String("up");
    const QString name =
            line.texts[2].isEmpty() ? QStringLiteral("number ") + line.texts[0] : line.texts[2];
    if (!up)
        ++m_linksDown;
    Step told = step(Step::Link, QStringLiteral("link %1 is %2").arg(name, line.texts[1]),
                     Output::Bold);
    told.fields[QStringLiteral("interface")] = line.texts[2];
    told.fields[QStringLiteral("up")] = up;
    tell(told);
}

// Of nobody's thread.

void Narrator::commandMessage(const LogLine &line)
{
    m_messages += line.texts[0] + QLatin1Char('\n');
    const bool isShells = line.texts[0].startsWith(QLatin1String("sh:"))
            || line.texts[0].startsWith(QLatin1String("/bin/sh:"));
    Step told = step(Step::Message,
                     QStringLiteral("%1: %2").arg(isShells ? QStringLiteral("the shell says")
                                                           : QStringLiteral("nmcli says"),
                                                  line.texts[0]),
                     Output::Warning);
    told.fields[QStringLiteral("message")] = line.texts[0];
    tell(told);
}

void Narrator::unknown(const LogLine &line)
{
    Step told = step(Step::UnknownLine, QString(), Output::Warning);
    if (line.kind == LogLine::Withheld)
        told.text = QStringLiteral("a line that the journal does not show: %1; journalctl --all "
                                   "shows it")
                            .arg(line.texts[0]);
    else
        told.text = QStringLiteral("unknown line: %1").arg(m_now.text.trimmed());
    told.fields[QStringLiteral("line")] = m_now.text;
    tell(told);
}

// The worker's thread.

void Narrator::fileMissing(const LogLine &line)
{
    rest(endMissing);
    if (m_linksDown > 0)
        --m_linksDown;
    else if (!m_switchStates.isEmpty())
        m_switchStates.removeFirst();
    else if (m_starts > 0)
        --m_starts;
    Step told = step(
            Step::Configuration,
            QStringLiteral("there is no configuration file %1: nothing is done").arg(line.texts[0]),
            Output::Fault);
    told.fields[QStringLiteral("file")] = line.texts[0];
    tell(told);
}

void Narrator::server(const LogLine &line)
{
    const bool isSecond = line.kind == LogLine::SecondServer;
    if (!isSecond || !m_configured) {
        rest(endMissing);
        m_configured = m_now.when;
    }
    m_servers[isSecond ? 1 : 0] = ::server(line.texts[0], line.texts[1]);
    if (isSecond)
        decide();
}

void Narrator::tellBeginning()
{
    Step told = step(Step::Begin, QString(), Output::Bold);
    told.when = m_account->begin;
    if (m_account->kind == SearchAccount::Reopening) {
        const int network = nextNetwork();
        told.text = QStringLiteral("state %1 selects network %2, its server is %3")
                            .arg(m_account->state)
                            .arg(network)
                            .arg(orNone(m_servers[network - 1]));
        told.fields[QStringLiteral("state")] = m_account->state;
    } else if (m_account->partial) {
        told.text = QStringLiteral("the log begins in the middle of this");
    } else {
        told.text = QStringLiteral("server 1 is %1, server 2 is %2")
                            .arg(orNone(m_servers[0]), orNone(m_servers[1]));
    }
    tell(told);
}

void Narrator::addressCompared(const LogLine &line)
{
    work(true);
    if (isProbeOpen())
        closeProbe();
    m_account->bothStatic = true;
    openTurn(networkOf(line));
    m_deviceAddress = line.texts[0];
    Step told = ofNetwork(Step::Address,
                          QStringLiteral("the device's address is %1, this network's is %2")
                                  .arg(orNone(line.texts[0]), orNone(line.texts[1])));
    told.detail = true;
    // A search between two networks that are both skipped turns thousands of times a second.
    QString &before = m_compared[m_turn.network - 1];
    if (before != told.text)
        tell(told);
    before = told.text;
}

void Narrator::sameAddress(const LogLine &line)
{
    work(true);
    if (m_turn.over || m_turn.network != networkOf(line)) {
        openTurn(networkOf(line));
        m_deviceAddress = line.texts[0];
    }
    QString reason = QStringLiteral("the device has its address %1 already").arg(line.texts[0]);
    if (m_deviceAddress.isEmpty())
        reason = QStringLiteral("the device has no address");
    else if (m_deviceAddress != line.texts[0])
        reason = QStringLiteral("its address %1 contains the device's, %2")
                         .arg(line.texts[0], m_deviceAddress);
    ++network()->skipped;
    network()->skipReason = reason;
    QString &before = m_skipped[m_turn.network - 1];
    if (before == reason) {
        ++m_repeatedSkips;
    } else {
        endRepeatedSkips();
        before = reason;
        tell(ofNetwork(Step::Skip, QStringLiteral("skipped, %1").arg(reason), Output::Warning));
    }
    m_turn.over = true;
}

void Narrator::netmaskError(const LogLine &line)
{
    startTurn();
    Step told = ofNetwork(Step::Netmask,
                          QStringLiteral("the netmask \"%1\" has not four parts: prefix length 0")
                                  .arg(line.texts[0]),
                          Output::Fault);
    told.fields[QStringLiteral("netmask")] = line.texts[0];
    tell(told);
}

void Narrator::lookupCommand(const LogLine &line)
{
    static const QRegularExpression name(QStringLiteral(" c s '(.*)'$"));
    m_connection = name.match(line.texts[0]).captured(1);
}

void Narrator::connectionFound(const LogLine &line)
{
    if (line.kind == LogLine::ActiveConnections)
        m_connection = QString();
    const QString uuids = line.texts[0].simplified();
    const int count = uuids.isEmpty() ? 0 : uuids.count(QLatin1Char(' ')) + 1;
    const QString what = m_connection.isNull()
            ? QStringLiteral("the active connection")
            : QStringLiteral("connection \"%1\"").arg(m_connection);
    Step told = step(Step::Lookup, QString());
    told.duration = sinceLast();
    told.fields[QStringLiteral("connection")] = m_connection;
    told.fields[QStringLiteral("uuid")] = uuids;
    if (count == 0) {
        told.text = notFound(m_connection);
        told.style = Output::Fault;
    } else if (count == 1) {
        told.text = QStringLiteral("%1 is %2").arg(what, uuids);
    } else {
        told.text = QStringLiteral("%1: there are %2, and the commands name them all: %3")
                            .arg(what)
                            .arg(count)
                            .arg(uuids);
        told.style = Output::Warning;
    }
    tellLookup(told);
}

// What the look-up is for is told by the next line where this may be the middle of anything.
void Narrator::tellLookup(Step step)
{
    const bool isReactivation = isProbeOpen() && m_turn.attempts == attemptsBeforeReactivation
            && m_account->attemptsOfTurn() > attemptsBeforeReactivation;
    const bool hasOutcome = m_account && m_account->outcome != SearchAccount::Open;
    const bool isClear =
            isReactivation || (m_account && !isProbeOpen() && !hasOutcome) || m_configured;
    if (!isClear) {
        m_heldLookup = step;
        return;
    }
    if (isReactivation)
        m_phase = Reactivating;
    else
        startTurn();
    m_heldLookup = step;
    tellHeldLookup();
    if (!isReactivation)
        m_phase = Setting;
}

void Narrator::tellHeldLookup()
{
    if (!m_heldLookup)
        return;
    Step told = *m_heldLookup;
    m_heldLookup.reset();
    if (told.style == Output::Fault) {
        m_notFound = true;
        noteTrouble(withMessage(told.text, takeMessages()));
    } else {
        takeMessages();
    }
    if (m_account && m_account->outcome == SearchAccount::Open) {
        const Step prefixed = ofNetwork(told.kind, told.text, told.style);
        told.text = prefixed.text;
        told.fields[QStringLiteral("network")] = prefixed.fields[QStringLiteral("network")];
        m_account->lookups += told.duration.value_or(0);
    }
    tell(told);
}

void Narrator::noConnection(const LogLine &line)
{
    if (line.function == QLatin1String("slotTryRefreshNetwork")) {
        refresh(line);
        return;
    }
    startTurn();
    const QString text = notFound(line.texts[0]);
    if (!m_notFound)
        tell(ofNetwork(Step::NoConnection, text, Output::Fault));
    m_notFound = false;
    noteTrouble(withMessage(text, takeMessages()));
}

void Narrator::cannotStart(const LogLine &line)
{
    Step told = ofNetwork(Step::CannotStart,
                          QStringLiteral("a command could not be started: %1").arg(line.texts[0]),
                          Output::Fault);
    told.fields[QStringLiteral("command")] = line.texts[0];
    noteTrouble(told.text);
    tell(told);
}

void Narrator::oversized(const LogLine &)
{
    tell(ofNetwork(Step::Oversized,
                   QStringLiteral("a command printed more than 4095 bytes: the rest is dropped"),
                   Output::Warning));
}

void Narrator::commandRun(const LogLine &line)
{
    if (line.function == QLatin1String("slotTryRefreshNetwork")) {
        refresh(line);
        return;
    }
    startTurn();
    // What the commands of a turn print is logged with each of them, from the first one on.
    QString output = line.texts[1];
    if (output.startsWith(m_turn.printed))
        output = output.mid(m_turn.printed.size()).trimmed();
    m_turn.printed = line.texts[1];
    const NmcliCommand command = NmcliCommand::parse(line.texts[0]);
    if (command.kind == NmcliCommand::Activation)
        tellActivation(Step::Activate, line.texts[0], output);
    else
        tellSetting(line.texts[0], output, command);
    m_phase = Activating;
}

void Narrator::tellSetting(const QString &command, const QString &output,
                           const NmcliCommand &parsed)
{
    const QString message = takeMessages();
    const bool failed =
            NmcliCommand::isFailure(message) || output.startsWith(QLatin1String("Error"));
    const QString what = parsed.kind == NmcliCommand::Other
            ? QStringLiteral("command \"%1\"").arg(command)
            : parsed.addressing;
    Step told = ofNetwork(Step::Set,
                          QStringLiteral("%1 %2").arg(what,
                                                      failed ? QStringLiteral("refused by nmcli")
                                                             : QStringLiteral("handed to nmcli")));
    if (!output.isEmpty())
        told.text += QStringLiteral(", which prints \"%1\"").arg(output.simplified());
    if (failed) {
        told.style = Output::Fault;
        m_turn.isRefused = true;
        noteTrouble(message.isEmpty() ? output.simplified() : message);
    }
    tellCommand(told, command, output, message);
}

void Narrator::tellActivation(Step::Kind kind, const QString &command, const QString &output)
{
    const QString message = takeMessages();
    // nmcli tells of a success, in the user's language, on standard output.
    const bool failed = output.isEmpty() || output.startsWith(QLatin1String("Error"));
    const bool known = failed || output.contains(QLatin1String("successfully activated"));
    QString text = failed ? QStringLiteral("connection not activated")
                          : QStringLiteral("connection activated");
    if (kind == Step::Reactivate)
        text += QStringLiteral(" again");
    if (!known || (failed && !output.isEmpty()))
        text += QStringLiteral(": \"%1\"").arg(output.simplified());
    else if (failed && message.isEmpty())
        text += QStringLiteral(": nmcli confirmed nothing");
    else if (!failed && m_turn.isRefused)
        text += QStringLiteral(" with the addressing that it had");
    Step told = ofNetwork(kind, text, failed ? Output::Fault : Output::Plain);
    if (failed)
        noteTrouble(message.isEmpty() ? text : message);
    tellCommand(told, command, output, message);
}

void Narrator::tellCommand(Step told, const QString &command, const QString &output,
                           const QString &message)
{
    told.duration = sinceLast();
    m_account->commands += told.duration.value_or(0);
    told.fields[QStringLiteral("command")] = command.trimmed();
    told.fields[QStringLiteral("output")] = output;
    told.fields[QStringLiteral("message")] = message;
    tell(told);
}

void Narrator::addressing(const LogLine &line)
{
    startTurn();
    if (m_turn.network != networkOf(line)) {
        takeBackPresumption();
        m_turn.network = networkOf(line);
    }
    NetworkAccount *const account = network();
    ++account->turns;
    if (!m_turn.trouble.isEmpty()) {
        ++account->troubles;
        account->trouble = m_turn.trouble;
    }
    Step told = ofNetwork(Step::Addressing, QStringLiteral("addressing applied"));
    told.detail = line.kind == LogLine::Applied;
    if (!told.detail) {
        told.text = ofNetwork(Step::Addressing, QStringLiteral("addressing not applied")).text;
        told.style = Output::Fault;
    }
    tell(told);
    m_notFound = false;
    m_phase = Probing;
    m_turn.probed = m_now.when;
}

void Narrator::portUnusable(const LogLine &line)
{
    work(false);
    tellHeldLookup();
    if (NetworkAccount *const account = network())
        account->unusablePort = line.texts[0].isEmpty() ? QLatin1String("") : line.texts[0];
    Step told = ofNetwork(
            Step::Port,
            QStringLiteral("\"%1\" is no port number: the server is not tried").arg(line.texts[0]),
            Output::Fault);
    told.fields[QStringLiteral("port")] = line.texts[0];
    tell(told);
    m_turn.over = true;
    m_phase = LookingUp;
    if (m_account->kind == SearchAccount::Reopening && !m_account->presumed) {
        m_account->outcome = SearchAccount::Failed;
        end(m_now.when);
    }
}

void Narrator::attemptFailed(const LogLine &line)
{
    work(false);
    tellHeldLookup();
    if (m_turn.over)
        openTurn(nextNetwork());
    const QString tried = ::server(line.texts[0], line.texts[1]);
    inferNetwork(tried);
    m_turn.server = tried;
    m_phase = Probing;
    m_turn.tried = m_now.when;
    if (++m_turn.attempts == 1 && !m_turn.probed.seconds)
        m_turn.probed = m_last;
    if (NetworkAccount *const account = network())
        ++account->attempts;
    const int of = m_account->attemptsOfTurn();
    Step told =
            ofNetwork(Step::Attempt,
                      QStringLiteral("attempt %1%2 at %3 failed")
                              .arg(QString::number(m_turn.attempts),
                                   of > 0 ? QStringLiteral(" of %1").arg(of) : QString(), tried));
    told.detail = true;
    told.duration = sinceLast();
    told.fields[QStringLiteral("server")] = tried;
    told.fields[QStringLiteral("attempt")] = m_turn.attempts;
    told.fields[QStringLiteral("of")] = of > 0 ? QJsonValue(of) : QJsonValue();
    spendOnAttempt();
    tell(told);
    if (m_turn.attempts == of)
        closeProbe();
}

void Narrator::localAddress(const LogLine &line)
{
    m_localAddress = line.texts[0];
}

void Narrator::hostAvailable(const LogLine &line)
{
    work(false);
    tellHeldLookup();
    if (m_turn.over)
        openTurn(nextNetwork());
    const QString reached = ::server(line.texts[0], line.texts[1]);
    inferNetwork(reached);
    spendOnAttempt();
    const int of = m_account->attemptsOfTurn();
    QString text = QStringLiteral("%1 reached at attempt %2")
                           .arg(reached, QString::number(m_turn.attempts + 1));
    if (of > 0)
        text += QStringLiteral(" of %1").arg(of);
    if (!m_localAddress.isEmpty())
        text += QStringLiteral(", from %1").arg(m_localAddress);
    Step told = ofNetwork(Step::Reached, text, Output::Good);
    told.duration = spentOnAttempts(m_turn.attempts + 1, m_now.when);
    told.fields[QStringLiteral("server")] = reached;
    told.fields[QStringLiteral("attempt")] = m_turn.attempts + 1;
    told.fields[QStringLiteral("of")] = of > 0 ? QJsonValue(of) : QJsonValue();
    told.fields[QStringLiteral("from")] = m_localAddress;
    tell(told);
    m_localAddress.clear();
    m_account->outcome = SearchAccount::Reached;
    m_account->server = reached;
    m_account->network = m_turn.network;
    m_phase = Ending;
    if (m_account->kind == SearchAccount::Reopening && !m_account->presumed)
        end(m_now.when);
}

void Narrator::reactivated(const LogLine &line)
{
    work(false);
    tellHeldLookup();
    tellActivation(Step::Reactivate, line.texts[0], line.texts[1]);
    m_notFound = false;
    m_turn.over = false;
    m_phase = Probing;
}

void Narrator::timeLimit(const LogLine &)
{
    work(true);
    tellHeldLookup();
    if (isProbeOpen())
        closeProbe();
    endRepeatedSkips();
    m_account->outcome = SearchAccount::Failed;
    m_phase = Ending;
    QString text = QStringLiteral("the time limit of 120 s is over");
    if (m_account->clockSet == QLatin1String("forward"))
        text += QStringLiteral(", as the clock was set forward");
    tell(step(Step::TimeLimit, text, Output::Fault));
}

void Narrator::searchFinished(const LogLine &)
{
    tellHeldLookup();
    if (!m_account) {
        tell(step(Step::Ended, QStringLiteral("a search ended; the rest of it is not in the log")));
        return;
    }
    takeBackPresumption();
    if (m_account->outcome == SearchAccount::Open) {
        m_account->outcome = SearchAccount::Unfinished;
        m_account->why = QStringLiteral("it ended, and how is not in the log");
    }
    end(m_now.when);
}

void Narrator::addressChanged(const LogLine &)
{
    rest(endMissing);
    tell(step(Step::AddressChange, QStringLiteral("a link is notified as up")));
}

void Narrator::busy(const LogLine &)
{
    rest(endMissing);
    tell(step(Step::Busy, QStringLiteral("nothing is done about it: the library counts as busy"),
              Output::Dim));
}

// Nothing in the library makes a refresh due; an application may.
void Narrator::refresh(const LogLine &line)
{
    rest(endMissing);
    QString text = QStringLiteral("refresh: none is due");
    if (line.kind == LogLine::RefreshTakenBack)
        text = QStringLiteral("refresh: taken back");
    else if (line.kind == LogLine::NoConnection)
        text = QStringLiteral("refresh: %1").arg(notFound(line.texts[0]));
    else if (line.kind != LogLine::NoRefreshDue)
        text = QStringLiteral("refresh: command \"%1\" prints \"%2\"")
                       .arg(line.texts[0].trimmed(), line.texts[1].simplified());
    m_notFound = false;
    takeMessages();
    tell(step(Step::Refresh, text));
}
