// SPDX-License-Identifier: MIT
#include "planning.h"

#include "describe.h"
#include "devicesettings.h"
#include "nmcli.h"
#include "processor.h"

#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QRegularExpression>

#include <networkswitchworker.h>

#include <algorithm>
#include <optional>

namespace Planning {

namespace {

// What means something to the shell that runs the library's commands, blanks aside.
const QLatin1String shellCharacters("'\"`$\\;|&<>()*?[]{}~#!");

// What the shell makes of the values.

// What ends a word of the shell.
QString wordEnds()
{
    constexpr char16_t lastControl = 0x1F;
    QString ends(QLatin1Char(' '));
    for (char16_t control = 0; control <= lastControl; ++control)
        ends += QChar(control);
    return ends;
}

// What ends a name between the library's quotes: one of them, and the end of the command itself.
QString nameEnds()
{
    return QLatin1Char('\'') + QString(QChar(QChar::Null));
}

// The first of the characters that the text contains; nothing without any.
QString firstOf(const QString &text, const QString &characters)
{
    const auto *const found = std::find_if(text.begin(), text.end(), [&](QChar character) {
        return characters.contains(character);
    });
    if (found == text.end())
        return QString();
    if (*found == QLatin1Char(' '))
        return QStringLiteral("a blank");
    return found->isPrint() ? QString(*found) : QStringLiteral("a control character");
}

QStringList shellWarnings(const QStringList &values, const QString &characters)
{
    QStringList warnings;
    for (const QString &value : values) {
        const QString found = firstOf(value, characters);
        if (!found.isEmpty())
            warnings += QStringLiteral("\"%1\" contains %2: the shell that runs the commands may "
                                       "make something else of it")
                                .arg(value, found);
    }
    return warnings;
}

// The look-up.

// With these arguments nmcli prints what it prints for the library's look-up.
QStringList lookUpArguments(const QString &connection)
{
    if (connection.isEmpty())
        return { QStringLiteral("-f"), QStringLiteral("uuid"), QStringLiteral("connection"),
                 QStringLiteral("show"), QStringLiteral("-active") };
    return { QStringLiteral("-g"), QStringLiteral("connection.uuid"), QStringLiteral("c"),
             QStringLiteral("s"), connection };
}

// What the look-up prints, or nothing if nmcli cannot tell.
std::optional<QByteArray> lookUpOutput(const QString &connection, QString *whyNot)
{
    const Nmcli::Answer answer = Nmcli::ask(lookUpArguments(connection));
    if (answer.outcome == Nmcli::Answer::Refused && answer.status == Nmcli::NotFound)
        return QByteArray();
    if (answer.outcome != Nmcli::Answer::Answered) {
        *whyNot = answer.outcome == Nmcli::Answer::NotStarted
                ? QStringLiteral("nmcli cannot be run")
                : answer.message;
        return std::nullopt;
    }
    QByteArray output;
    // Of the table of the active ones, the library's pipeline leaves each line's first word, and
    // nothing of the heading.
    for (const QStringList &row : answer.rows.mid(connection.isEmpty() ? 1 : 0)) {
        const QString line = row.join(QLatin1Char(':'));
        const QString word = line.simplified().section(QLatin1Char(' '), 0, 0);
        output += (connection.isEmpty() ? word : line).toUtf8() + '\n';
    }
    return output;
}

QByteArray placeholder(const QString &connection)
{
    // Without the word UUID, which the library takes out of what it finds here.
    if (connection.isEmpty())
        return QByteArrayLiteral("ID-OF-THE-ACTIVE-CONNECTION\n");
    static const QRegularExpression others(QStringLiteral("[^A-Za-z0-9_.]+"));
    return "UUID-OF-" + QString(connection).replace(others, QStringLiteral("-")).toLatin1() + '\n';
}

// Makes the library's look-up, and lets the library find in the rehearsal what it would find.
LookUp lookUp(const QString &connection)
{
    QString uuid;
    const auto find = [&](NetworkSwitchWorker &worker) {
        QString name = connection;
        uuid = worker.getNetWorkUuid(name);
    };
    const QVector<Rehearsal::Step> steps = Rehearsal::play(find).steps;
    if (steps.isEmpty())
        return {};
    LookUp found{ steps.first().command, QString(), QString() };
    std::optional<QByteArray> output;
    if (!firstOf(connection, nameEnds()).isEmpty())
        found.placeholderFor = QStringLiteral("the connection's name ends the shell's quotes");
    else
        output = lookUpOutput(connection, &found.placeholderFor);
    Rehearsal::setAnswer(found.command, output.value_or(placeholder(connection)));
    Rehearsal::play(find);
    found.uuid = uuid;
    return found;
}

QStringList lookUpWarnings(const LookUp &found, const QString &connection)
{
    if (found.command.isEmpty())
        return { QStringLiteral("the connection's name makes the look-up longer than the library's "
                                "commands may be; it is not run, and nothing is changed") };
    if (!found.placeholderFor.isEmpty())
        return { QStringLiteral("%1 is a placeholder for the UUID: %2")
                         .arg(found.uuid, found.placeholderFor) };
    if (found.uuid.isEmpty())
        return { connection.isEmpty()
                         ? QStringLiteral("no connection is active: the library changes nothing")
                         : QStringLiteral("there is no connection %1: the library changes nothing")
                                   .arg(connection) };
    if (found.uuid.contains(QLatin1Char(' ')))
        return { QStringLiteral("the look-up finds several UUIDs; nmcli will refuse the commands "
                                "that have them all") };
    return {};
}

// The passes.

QStringList turnWarnings(const Turn &turn, const NetworkSettings &network)
{
    QStringList warnings;
    if (network.isStatic)
        warnings = shellWarnings({ network.ip, network.gateway, network.dns1, network.dns2 },
                                 wordEnds() + shellCharacters);
    if (turn.skipped)
        return warnings;
    const QString server = Describe::server(network);
    if (turn.attempts() == 0)
        return warnings
                << QStringLiteral("server %1 is never tried: its port is no number").arg(server);
    if (!turn.names.isEmpty())
        return warnings << QStringLiteral("server %1 is no IPv4 address: each attempt also waits "
                                          "until the name \"%2\" is resolved, or is not")
                                   .arg(server, turn.names.join(QStringLiteral("\", \"")));
    const QString asWritten = network.serverIp + QLatin1Char(':') + network.serverPort;
    for (const QString &target : turn.targets) {
        if (target != asWritten)
            warnings << QStringLiteral("server %1 is taken for %2").arg(server, target);
    }
    return warnings;
}

Turn playTurn(const Plan &plan, int network, bool (NetworkSwitchWorker::*connectServer)())
{
    Turn turn{ network, false, QString(), {}, {}, {}, {} };
    const Rehearsal::Account account = Rehearsal::play([&](NetworkSwitchWorker &worker) {
        turn.deviceAddress = worker.getIPAddress();
        (worker.*connectServer)();
    });
    turn.skipped = account.steps.isEmpty()
            && !account.log.filter(QStringLiteral("it is the same net ip adddr")).isEmpty();
    turn.steps = account.steps;
    turn.targets = account.targets;
    turn.names = account.names;
    turn.warnings = turnWarnings(turn, plan.settings.networks[network]);
    const bool tooLong = !account.log.filter(QStringLiteral("\"popen nmcli ")).isEmpty();
    if (tooLong && !plan.lookUp.command.isEmpty())
        turn.warnings += QStringLiteral("a value makes a command longer than the library's may be; "
                                        "it is not run");
    return turn;
}

// The address that the library finds on these interfaces.
QString addressOn(const QList<QNetworkInterface> &interfaces)
{
    Rehearsal::setInterfaces(interfaces);
    QString address;
    Rehearsal::play([&](NetworkSwitchWorker &worker) { address = worker.getIPAddress(); });
    return address;
}

// The interface that the connection is active on, or that its profile names.
QString interfaceOf(const QString &uuid)
{
    const Nmcli::Answer answer = Nmcli::ask(
            { QStringLiteral("-g"), QStringLiteral("connection.interface-name,GENERAL.DEVICES"),
              QStringLiteral("connection"), QStringLiteral("show"), QStringLiteral("uuid"), uuid });
    QString name;
    for (const QStringList &row : answer.rows) {
        if (!row.value(0).isEmpty())
            name = row.value(0);
    }
    return name;
}

// How long an activation waits in vain for a DHCP server: what the connection's profile says, and
// nmcli no longer than for any.
int silentDhcpMs(const Plan &plan)
{
    const auto &networks = plan.settings.networks;
    const QString &uuid = plan.lookUp.uuid;
    if ((networks[0].isStatic && networks[1].isStatic) || uuid.isEmpty()
        || !plan.lookUp.placeholderFor.isEmpty())
        return usualDhcpMs;
    const Nmcli::Answer answer = Nmcli::ask(
            { QStringLiteral("-g"), QStringLiteral("ipv4.dhcp-timeout"),
              QStringLiteral("connection"), QStringLiteral("show"), QStringLiteral("uuid"), uuid });
    const QString text =
            answer.rows.value(0).value(0).section(QLatin1Char(' '), 0, 0); // without a remark
    if (text == QLatin1String("infinity"))
        return interruptedMs;
    const int seconds = text.toInt();
    return seconds > 0 ? qMin(seconds, interruptedMs / 1000) * 1000 : usualDhcpMs;
}

// The library takes the address of the last interface that has one, whichever a search changes.
void findOtherAddresses(Plan *plan)
{
    constexpr int loopbackAndOne = 2;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    const auto &networks = plan->settings.networks;
    if (interfaces.size() <= loopbackAndOne || !networks[0].isStatic || !networks[1].isStatic
        || plan->lookUp.uuid.isEmpty() || !plan->lookUp.placeholderFor.isEmpty())
        return;
    const QString name = interfaceOf(plan->lookUp.uuid);
    for (int index = 0; index < interfaces.size(); ++index) {
        if (interfaces[index].name() == name) {
            plan->addressBefore = addressOn(interfaces.mid(0, index));
            plan->addressBehind = addressOn(interfaces.mid(index + 1));
        }
    }
    Rehearsal::setInterfaces(interfaces);
}

// What the library finds once the connection has the address, which it may not count.
QString foundAddress(const Plan &plan, const QString &ip)
{
    if (!plan.addressBehind.isEmpty())
        return plan.addressBehind;
    bool counts = false;
    Rehearsal::play([&](NetworkSwitchWorker &worker) {
        counts = worker.filterInvalidIP(QHostAddress(ip));
    });
    return counts ? ip : plan.addressBefore;
}

// Both networks in the order of their tries. Afterwards the device is where that takes it.
Pass playPass(const Plan &plan, Pass::When when)
{
    const int first = plan.exchanged ? 1 : 0;
    Pass pass{ when, {} };
    for (int network : { first, 1 - first }) {
        pass.turns += playTurn(plan, network,
                               network == first ? &NetworkSwitchWorker::doConnetFirstServer
                                                : &NetworkSwitchWorker::doConnetSecondServer);
        const NetworkSettings &settings = plan.settings.networks[network];
        const bool isApplied = !pass.turns.last().skipped && !plan.lookUp.uuid.isEmpty();
        if (isApplied && settings.isStatic)
            Rehearsal::setDeviceAddress(foundAddress(plan, settings.ip));
    }
    return pass;
}

bool isSame(const Pass &one, const Pass &other)
{
    return std::equal(one.turns.begin(), one.turns.end(), other.turns.begin(), other.turns.end(),
                      [](const Turn &left, const Turn &right) {
                          return left.skipped == right.skipped
                                  && left.steps.size() == right.steps.size();
                      });
}

bool isIdle(const Pass &pass)
{
    return std::all_of(pass.turns.begin(), pass.turns.end(),
                       [](const Turn &turn) { return turn.skipped; });
}

void playPasses(Plan *plan)
{
    const Pass first = playPass(*plan, Pass::First);
    // From the second one on nothing changes any more.
    const Pass later = playPass(*plan, Pass::Later);
    plan->passes = { first, later };
    if (isSame(first, later)) {
        plan->passes = { first };
        plan->passes.first().when = Pass::Each;
    }
    const QString limit = QString::number(limitMs / 1000);
    if (isIdle(first))
        plan->warnings += QStringLiteral("as the device is now, a search tries nothing and fails "
                                         "after its %1 s")
                                  .arg(limit);
    else if (isIdle(later))
        plan->warnings += QStringLiteral("from the second pass on a search tries nothing, and "
                                         "fails after its %1 s")
                                  .arg(limit);
    if (isIdle(first) && first.turns.first().deviceAddress.isEmpty()) {
        // No address contains this.
        Rehearsal::setDeviceAddress(QStringLiteral("elsewhere"));
        plan->passes += playPass(*plan, Pass::OnceAddressed);
    }
}

// Whether the library tries the static second network before the automatic first one.
bool isExchanged(const Settings &settings)
{
    if (settings.networks[0].isStatic || !settings.networks[1].isStatic)
        return false;
    const QStringList log =
            Rehearsal::play([](NetworkSwitchWorker &worker) { worker.setFirstStaticIpAddr(); }).log;
    return std::any_of(log.begin(), log.end(), [](const QString &line) {
        return line.startsWith(QLatin1String("[ setStaticIpAddr ]"));
    });
}

void add(Effort *effort, const Rehearsal::Step &step, Purpose purpose, bool isAutomatic)
{
    if (step.kind == Rehearsal::Step::Attempt) {
        effort->attemptsMs += step.milliseconds;
        return;
    }
    effort->lookUps += int(purpose == Purpose::LookUp);
    effort->changes += int(purpose == Purpose::Change);
    effort->activations += int(purpose == Purpose::Activation);
    effort->automaticActivations += int(purpose == Purpose::Activation && isAutomatic);
}

} // namespace

int Turn::attempts() const
{
    return int(std::count_if(steps.begin(), steps.end(), [](const Rehearsal::Step &step) {
        return step.kind == Rehearsal::Step::Attempt;
    }));
}

Purpose Plan::purposeOf(const Rehearsal::Step &step) const
{
    if (step.command == lookUp.command)
        return Purpose::LookUp;
    return step.command.section(QLatin1Char(' '), 2, 2) == QLatin1String("up") ? Purpose::Activation
                                                                               : Purpose::Change;
}

Plan make(const QString &path)
{
    Plan plan{ Settings::read(path), {}, Processor::name(), false, {}, {}, {}, {}, {} };
    const QString unusable = Configuration::unusable(path);
    if (!plan.settings.enabled)
        plan.idleBecause = unusable.isEmpty() ? QStringLiteral("switching is off") : unusable;
    const bool isPartly = plan.settings.enabled && !unusable.isEmpty();
    const QString &connection = plan.settings.connection;
    plan.lookUp = lookUp(connection);
    if (isPartly)
        plan.warnings +=
                QStringLiteral("%1; planned is what the library makes of it").arg(unusable);
    plan.warnings += lookUpWarnings(plan.lookUp, connection)
            + shellWarnings({ connection }, nameEnds())
            + shellWarnings({ plan.lookUp.uuid }, shellCharacters);
    plan.exchanged = isExchanged(plan.settings);
    plan.silentDhcpMs = silentDhcpMs(plan);
    findOtherAddresses(&plan);
    playPasses(&plan);
    const QString imported = DeviceSettings::announcement(path, plan.settings);
    if (!imported.isEmpty())
        plan.warnings += imported;
    return plan;
}

Effort effortOf(const Plan &plan)
{
    Effort most;
    most.silentDhcpMs = plan.silentDhcpMs;
    for (const Pass &pass : plan.passes) {
        Effort effort;
        effort.silentDhcpMs = plan.silentDhcpMs;
        for (const Turn &turn : pass.turns) {
            for (const Rehearsal::Step &step : turn.steps)
                add(&effort, step, plan.purposeOf(step),
                    !plan.settings.networks[turn.network].isStatic);
        }
        if (effort.passMs() > most.passMs())
            most = effort;
    }
    return most;
}

} // namespace Planning
