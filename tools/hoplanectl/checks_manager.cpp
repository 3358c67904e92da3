// SPDX-License-Identifier: MIT
// The items about NetworkManager and what it says of the connection.

#include "checks.h"

#include "values.h"

#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

using Nmcli::Answer;

const QString wired = QStringLiteral("802-3-ethernet");
const QString profileFolder = QStringLiteral("/etc/NetworkManager/system-connections");

Finding unanswered(const Answer &answer)
{
    return Finding::fault(answer.message, QStringLiteral("systemctl restart NetworkManager"));
}

QVector<Connection> connections(const Answer &answer)
{
    QVector<Connection> found;
    for (const QStringList &row : answer.rows)
        found.append({ row.value(0), row.value(1), row.value(2), row.value(3) });
    return found;
}

// One property of the connection's profile, or nothing.
QString property(const Connection &connection, const QString &name)
{
    return Nmcli::ask({ QStringLiteral("-g"), name, QStringLiteral("connection"),
                        QStringLiteral("show"), QStringLiteral("uuid"), connection.uuid })
            .rows.value(0)
            .join(QLatin1Char(':'));
}

QString inPath()
{
    return QStringLiteral("PATH, which is %1").arg(qEnvironmentVariable("PATH"));
}

// How to get a connection that can be named, from what there is.
QString remedyForNone(const Situation &situation, const QVector<Connection> &all)
{
    QStringList commands;
    for (const Connection &connection : all) {
        if (connection.type == wired)
            commands.append(
                    situation.set(QStringLiteral("connection ") + Check::quoted(connection.name)));
    }
    const QString name = situation.settings.connection;
    if (commands.isEmpty())
        commands.append(
                QStringLiteral("nmcli connection add type ethernet ifname INTERFACE "
                               "con-name %1")
                        .arg(name.isEmpty() ? QStringLiteral("NAME") : Check::quoted(name)));
    return commands.join(QStringLiteral("; or "));
}

Findings judgeType(Situation *situation, const Connection &connection,
                   const QVector<Connection> &all)
{
    if (connection.type != wired) {
        QVector<Connection> others;
        for (const Connection &other : all) {
            if (other.uuid != connection.uuid)
                others.append(other);
        }
        return { Finding::fault(QStringLiteral("%1 is no wired connection: its type is %2")
                                        .arg(Check::shown(connection.name), connection.type),
                                remedyForNone(*situation, others)) };
    }
    situation->connection = connection;
    return { Finding::good(QStringLiteral("%1, wired, %2, %3")
                                   .arg(Check::shown(connection.name), connection.uuid,
                                        connection.device.isEmpty() ? QStringLiteral("not active")
                                                                    : QStringLiteral("active on ")
                                                        + connection.device)) };
}

Findings judgeSeveral(const QVector<Connection> &found)
{
    QStringList commands;
    for (const Connection &connection : found.mid(1))
        commands.append(QStringLiteral("nmcli connection delete uuid %1").arg(connection.uuid));
    return { Finding::fault(
            QStringLiteral("%1 connections are named %2: the library takes them for one, and "
                           "nothing is applied")
                    .arg(found.size())
                    .arg(Check::shown(found.first().name)),
            QStringLiteral("keep one: ") + commands.join(QStringLiteral("; "))) };
}

// The library's own question, so that what nmcli takes for a name counts.
Findings namedConnection(Situation *situation, const QVector<Connection> &all)
{
    const QString &name = situation->settings.connection;
    if (Values::connectionName(name))
        return { Finding::notJudged(QStringLiteral("the name cannot be looked up")) };
    const Answer answer =
            Nmcli::ask({ QStringLiteral("-g"), QStringLiteral("connection.uuid"),
                         QStringLiteral("connection"), QStringLiteral("show"), name });
    if (answer.outcome != Answer::Answered && answer.status != Nmcli::NotFound)
        return { unanswered(answer) };
    QVector<Connection> found;
    for (const QStringList &row : answer.rows) {
        for (const Connection &connection : all) {
            if (connection.uuid == row.value(0))
                found.append(connection);
        }
    }
    if (found.isEmpty())
        return { Finding::fault(
                QStringLiteral("NetworkManager has no connection %1").arg(Check::shown(name)),
                remedyForNone(*situation, all)) };
    if (found.size() > 1)
        return judgeSeveral(found);
    return judgeType(situation, found.first(), all);
}

Findings activeConnection(Situation *situation, const QVector<Connection> &all)
{
    QVector<Connection> active;
    QStringList names;
    for (const Connection &connection : all) {
        if (!connection.device.isEmpty()) {
            active.append(connection);
            names.append(QStringLiteral("%1 on %2")
                                 .arg(Check::shown(connection.name), connection.device));
        }
    }
    if (active.isEmpty())
        return { Finding::fault(QStringLiteral("none is named and none is active: the library has "
                                               "nothing to apply an addressing to"),
                                remedyForNone(*situation, all)) };
    if (active.size() > 1)
        return { Finding::fault(
                QStringLiteral("none is named and %1 are active, %2: the library takes them for "
                               "one, and nothing is applied")
                        .arg(active.size())
                        .arg(names.join(QStringLiteral(", "))),
                remedyForNone(*situation, all)) };
    return judgeType(situation, active.first(), all);
}

// The interface that the connection uses, or would use. Otherwise what is wrong with it.
std::optional<Finding> findInterface(Situation *situation, const Answer &devices)
{
    const Connection &connection = *situation->connection;
    situation->interface = connection.device.isEmpty()
            ? property(connection, QStringLiteral("connection.interface-name"))
            : connection.device;
    if (!situation->interface.isEmpty())
        return std::nullopt;
    QStringList names;
    for (const QStringList &device : devices.rows) {
        if (device.value(1) == QLatin1String("ethernet"))
            names.append(device.value(0));
    }
    const QString command =
            QStringLiteral("nmcli connection modify %1 connection.interface-name %2")
                    .arg(Check::quoted(connection.name));
    if (names.isEmpty())
        return Finding::fault(QStringLiteral("there is no wired interface"),
                              QStringLiteral("load the driver of the network adapter"));
    if (names.size() > 1)
        return Finding::warning(QStringLiteral("the connection may use any of %1")
                                        .arg(names.join(QStringLiteral(", "))),
                                command.arg(names.first()));
    situation->interface = names.first();
    return std::nullopt;
}

// The settings of a profile that bind it to certain devices, and what they are set to here.
QStringList bindings(const Connection &connection, const QString &interface, QStringList *settings)
{
    QStringList told;
    for (const QString &name :
         { QStringLiteral("connection.interface-name"),
           QStringLiteral("802-3-ethernet.mac-address"),
           QStringLiteral("802-3-ethernet.mac-address-blacklist"),
           QStringLiteral("match.interface-name"), QStringLiteral("match.driver"),
           QStringLiteral("match.path"), QStringLiteral("match.kernel-command-line") }) {
        const QString value = property(connection, name);
        // The interface's own name binds to nothing else.
        if (value.isEmpty() || value == interface)
            continue;
        told.append(QStringLiteral("%1 is %2").arg(name, value));
        settings->append(name);
    }
    return told;
}

// The profile is not for this device. Which of the settings it is, NetworkManager does not tell.
Finding misfit(const Connection &connection, const QString &interface)
{
    QStringList settings;
    const QStringList told = bindings(connection, interface, &settings);
    const QString text =
            QStringLiteral("the profile does not fit %1, and NetworkManager does not activate it")
                    .arg(interface);
    if (told.isEmpty())
        return Finding::fault(text,
                              QStringLiteral("nmcli connection up uuid %1, which tells the reason")
                                      .arg(connection.uuid));
    QString command = QStringLiteral("nmcli connection modify uuid %1").arg(connection.uuid);
    for (const QString &setting : settings)
        command += QStringLiteral(" %1 ''").arg(setting);
    return Finding::fault(text + QStringLiteral(": ") + told.join(QStringLiteral(", ")), command);
}

// What keeps the profile from being activated on the interface. NetworkManager judges that itself,
// but only of an interface whose carrier it has noticed.
std::optional<Finding> notForThis(const Situation &situation)
{
    constexpr int disconnected = 30; // the lowest state in which connections can be activated
    const Connection &connection = *situation.connection;
    const Answer answer =
            Nmcli::list(QStringLiteral("GENERAL.STATE,WIRED-PROPERTIES.CARRIER,"
                                       "CONNECTIONS.AVAILABLE-CONNECTIONS"),
                        { QStringLiteral("device"), QStringLiteral("show"), situation.interface });
    if (answer.outcome != Answer::Answered)
        return unanswered(answer);
    int state = 0;
    bool carrier = false;
    bool fits = false;
    for (const QStringList &row : answer.rows) {
        if (row.value(0) == QLatin1String("GENERAL.STATE"))
            state = row.value(1).section(QLatin1Char(' '), 0, 0).toInt();
        else if (row.value(0) == QLatin1String("WIRED-PROPERTIES.CARRIER"))
            carrier = row.value(1) == QLatin1String("on");
        else
            fits = fits || row.value(1).startsWith(connection.uuid);
    }
    if (state < disconnected || !carrier || fits)
        return std::nullopt;
    return misfit(connection, situation.interface);
}

// A port that has to be opened first may stay closed; where the connection is active it is open.
std::optional<Finding> withLogin(const Connection &connection)
{
    const QString eap = property(connection, QStringLiteral("802-1x.eap"));
    if (eap.isEmpty() || !connection.device.isEmpty())
        return std::nullopt;
    return Finding::warning(
            QStringLiteral("the profile wants a login at the wired port (802.1X, %1): where that "
                           "fails, so does each activation")
                    .arg(eap),
            QStringLiteral("nmcli connection up uuid %1, to see whether it succeeds; if the "
                           "network has no such login, nmcli connection modify uuid %1 remove "
                           "802-1x")
                    .arg(connection.uuid));
}

// Whether a cable can be noticed and is. Not of NetworkManager, which tells it later.
std::optional<Finding> withoutCarrier(const QString &interface)
{
    QFile carrier(QStringLiteral("/sys/class/net/%1/carrier").arg(interface));
    // Of an interface that is down it cannot be read.
    const QByteArray state =
            carrier.open(QIODevice::ReadOnly) ? carrier.readAll().trimmed() : QByteArray();
    if (state.isEmpty())
        return Finding::warning(QStringLiteral("%1 is down").arg(interface),
                                QStringLiteral("ip link set %1 up").arg(interface));
    if (state != "1")
        return Finding::warning(QStringLiteral("%1 has no carrier").arg(interface),
                                QStringLiteral("plug the cable in at both ends"));
    return std::nullopt;
}

// What in the profile keeps the addressing from being applied, or from being of use.
std::optional<Finding> badProfile(const Situation &situation)
{
    const Connection &connection = *situation.connection;
    const QString modify = QStringLiteral("nmcli connection modify uuid %1 ").arg(connection.uuid);
    const QString port = property(connection, QStringLiteral("connection.master"));
    if (!port.isEmpty())
        return Finding::fault(
                QStringLiteral("the connection is a port of %1 and has no addressing of its own")
                        .arg(port),
                modify + QStringLiteral("connection.master '' connection.slave-type ''"));
    const auto &networks = situation.settings.networks;
    if (networks[0].isStatic && networks[1].isStatic
        && property(connection, QStringLiteral("connection.autoconnect")) == QLatin1String("no"))
        return Finding::warning(
                QStringLiteral("the connection is not activated by itself: a device that starts "
                               "without any address skips both static networks"),
                modify + QStringLiteral("connection.autoconnect yes"));
    if (property(connection, QStringLiteral("ipv4.never-default")) == QLatin1String("yes"))
        return Finding::warning(
                QStringLiteral("the profile never uses a gateway (ipv4.never-default)"),
                modify + QStringLiteral("ipv4.never-default no"));
    return std::nullopt;
}

// What the profile has of its own and the library leaves there, as the network has none to replace
// it. Where both networks are static and the other one has some, that is told of them.
void judgeRest(const Situation &situation, int index, const QString &what, const QString &setting,
               QString (*valueOf)(const NetworkSettings &), Findings *found)
{
    const NetworkSettings &network = situation.settings.networks[index];
    const NetworkSettings &other = situation.settings.networks[1 - index];
    if (!network.isStatic || !valueOf(network).isEmpty()
        || (other.isStatic && !valueOf(other).isEmpty()))
        return;
    const QString rest = property(*situation.connection, setting);
    if (rest.isEmpty())
        return;
    QString text = QStringLiteral("network %1 has no %2: the profile's own, %3, stays")
                           .arg(index + 1)
                           .arg(what, rest);
    if (!other.isStatic)
        text += QStringLiteral(" until network %1 was applied once").arg(2 - index);
    found->append(Finding::warning(text,
                                   QStringLiteral("nmcli connection modify uuid %1 %2 ''")
                                           .arg(situation.connection->uuid, setting)));
}

Findings restOfProfile(const Situation &situation)
{
    Findings found;
    for (int index : { 0, 1 }) {
        judgeRest(
                situation, index, QStringLiteral("gateway"), QStringLiteral("ipv4.gateway"),
                [](const NetworkSettings &network) { return network.gateway; }, &found);
        judgeRest(
                situation, index, QStringLiteral("name server"), QStringLiteral("ipv4.dns"),
                [](const NetworkSettings &network) { return network.dns1 + network.dns2; }, &found);
    }
    return found;
}

// The folder that a change of the profile is stored in, or the nearest one there is.
QString storedIn(const QString &fileName)
{
    const bool kept = !fileName.isEmpty() && !fileName.startsWith(QLatin1String("/run/"))
            && !fileName.startsWith(QLatin1String("/usr/"));
    QString folder = kept ? QFileInfo(fileName).path() : profileFolder;
    while (!QFileInfo::exists(folder))
        folder = QFileInfo(folder).path();
    return folder;
}

// As root writes it; it allows what is needed and nothing else.
QString polkitRule(const QStringList &actions)
{
    QStringList conditions;
    for (const QString &action : actions)
        conditions.append(QStringLiteral("action.id == \"%1\"").arg(action));
    return QStringLiteral("write into /etc/polkit-1/rules.d/50-hoplane.rules: "
                          "polkit.addRule(function(action, subject) { if (subject.user == \"%1\" "
                          "&& (%2)) return polkit.Result.YES; }); or run the application as root")
            .arg(Check::user(), conditions.join(QStringLiteral(" || ")));
}

QString meaningOf(const QString &value)
{
    if (value == QLatin1String("no"))
        return QStringLiteral("is refused");
    if (value == QLatin1String("auth"))
        return QStringLiteral("asks for somebody's password, and nobody is there");
    return QStringLiteral("is unknown (%1), as where polkit does not run, and so is refused")
            .arg(value);
}

} // namespace

Findings Check::nmcli(Situation &situation)
{
    const QString program = Nmcli::program();
    if (program.isEmpty())
        return { Finding::fault(
                QStringLiteral("it is not in ") + inPath(),
                QStringLiteral("apt install network-manager; or extend the application's PATH")) };
    const QString version = QStringLiteral("--version");
    const Answer answer = Nmcli::ask({ version });
    if (answer.outcome != Answer::Answered)
        return { Finding::fault(QStringLiteral("%1: %2").arg(program, answer.message),
                                QStringLiteral("apt install --reinstall network-manager")) };
    situation.nmcliVersion = answer.word().section(QLatin1Char(' '), -1);
    const QString text = QStringLiteral("%1, version %2").arg(program, situation.nmcliVersion);
    // The library looks a named connection up with this option, which old ones lack.
    const Answer option =
            Nmcli::ask({ QStringLiteral("-g"), QStringLiteral("connection.uuid"), version });
    if (option.outcome != Answer::Answered)
        return { Finding::fault(QStringLiteral("%1, does not know the option -g that the library "
                                               "uses: %2")
                                        .arg(text, option.message),
                                QStringLiteral("install a newer NetworkManager")) };
    return { Finding::good(text) };
}

Findings Check::awk(Situation &situation)
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("awk"));
    if (!program.isEmpty())
        return { Finding::good(program) };
    const QString text = QStringLiteral("it is not in ") + inPath();
    const QString remedy = QStringLiteral("apt install mawk; or extend the application's PATH");
    if (situation.readable && !situation.settings.connection.isEmpty())
        return { Finding::warning(
                text + QStringLiteral("; it is needed for a connection without a name only"),
                remedy) };
    return { Finding::fault(text, remedy) };
}

Findings Check::manager(Situation &situation)
{
    if (situation.nmcliVersion.isEmpty()) {
        situation.managerTrouble = QStringLiteral("without nmcli NetworkManager cannot be asked");
        return { Finding::notJudged(situation.managerTrouble) };
    }
    const Answer answer =
            Nmcli::list(QStringLiteral("RUNNING,VERSION,STATE"), { QStringLiteral("general") });
    if (answer.outcome == Answer::Silent) {
        situation.managerTrouble = QStringLiteral("NetworkManager does not answer");
        return { unanswered(answer) };
    }
    if (answer.outcome != Answer::Answered || answer.word() != QLatin1String("running")) {
        const bool told = answer.status == Nmcli::NotRunning || answer.message.isEmpty();
        situation.managerTrouble = told ? QStringLiteral("NetworkManager is not running")
                                        : QStringLiteral("NetworkManager cannot be asked");
        return { Finding::fault(
                told ? situation.managerTrouble
                     : situation.managerTrouble + QStringLiteral(": ") + answer.message,
                // The message bus comes first.
                (told ? QString() : QStringLiteral("systemctl start dbus.socket; "))
                        + QStringLiteral("systemctl enable --now NetworkManager")) };
    }
    // Then each interface is unmanaged, whatever is set for it.
    if (answer.rows.first().value(2) == QLatin1String("asleep")) {
        situation.managerTrouble = QStringLiteral("networking is switched off");
        return { Finding::fault(situation.managerTrouble
                                        + QStringLiteral(": NetworkManager leaves all interfaces "
                                                         "alone"),
                                QStringLiteral("nmcli networking on")) };
    }
    const QString version = answer.rows.first().value(1);
    if (version != situation.nmcliVersion)
        return { Finding::warning(
                QStringLiteral("NetworkManager runs in version %1, nmcli is of version %2")
                        .arg(version, situation.nmcliVersion),
                QStringLiteral("systemctl restart NetworkManager")) };
    return { Finding::good(QStringLiteral("NetworkManager runs, version %1").arg(version)) };
}

Findings Check::connection(Situation &situation)
{
    const Answer answer = Nmcli::list(QStringLiteral("NAME,UUID,TYPE,DEVICE"),
                                      { QStringLiteral("connection"), QStringLiteral("show") });
    if (answer.outcome != Answer::Answered)
        return { unanswered(answer) };
    const QVector<Connection> all = connections(answer);
    return situation.settings.connection.isEmpty() ? activeConnection(&situation, all)
                                                   : namedConnection(&situation, all);
}

Findings Check::interface(Situation &situation)
{
    if (!situation.connection)
        return { Finding::notJudged(QStringLiteral("it is not clear which connection is meant")) };
    const Answer devices = Nmcli::list(QStringLiteral("DEVICE,TYPE,STATE"),
                                       { QStringLiteral("device"), QStringLiteral("status") });
    if (devices.outcome != Answer::Answered)
        return { unanswered(devices) };
    if (const std::optional<Finding> finding = findInterface(&situation, devices))
        return { *finding };
    const QString &interface = situation.interface;
    QString state;
    for (const QStringList &device : devices.rows) {
        if (device.value(0) == interface)
            state = device.value(2);
    }
    if (state.isEmpty())
        return { Finding::fault(
                QStringLiteral("there is no interface %1").arg(interface),
                QStringLiteral("nmcli connection modify %1 connection.interface-name INTERFACE")
                        .arg(quoted(situation.connection->name))) };
    if (state == QLatin1String("unmanaged"))
        return { Finding::fault(
                QStringLiteral("NetworkManager leaves %1 alone (unmanaged)").arg(interface),
                QStringLiteral("nmcli device set %1 managed yes").arg(interface)) };
    if (const std::optional<Finding> finding = withoutCarrier(interface))
        return { *finding };
    if (const std::optional<Finding> finding = notForThis(situation))
        return { *finding };
    if (const std::optional<Finding> finding = withLogin(*situation.connection))
        return { *finding };
    const Findings skipped = skippedForAnother(situation);
    if (!skipped.isEmpty())
        return skipped;
    return { Finding::good(QStringLiteral("%1, %2, with a carrier").arg(interface, state)) };
}

Findings Check::profile(Situation &situation)
{
    if (!situation.connection)
        return { Finding::notJudged(QStringLiteral("it is not clear which connection is meant")) };
    const Answer answer = Nmcli::list(QStringLiteral("UUID,FILENAME"),
                                      { QStringLiteral("connection"), QStringLiteral("show") });
    if (answer.outcome != Answer::Answered)
        return { unanswered(answer) };
    QString fileName;
    for (const QStringList &row : answer.rows) {
        if (row.value(0) == situation.connection->uuid)
            fileName = row.value(1);
    }
    if (const std::optional<Finding> finding =
                unwritable(storedIn(fileName),
                           QStringLiteral("NetworkManager refuses each change of the addressing")))
        return { *finding };
    if (const std::optional<Finding> finding = badProfile(situation))
        return { *finding };
    const Findings rest = restOfProfile(situation);
    if (!rest.isEmpty())
        return rest;
    if (fileName.isEmpty() || fileName.startsWith(QLatin1String("/run/")))
        return { Finding::warning(
                QStringLiteral("the profile is gone after a restart of the device: it is in %1")
                        .arg(fileName.isEmpty() ? QStringLiteral("memory only") : fileName),
                QStringLiteral("nmcli connection modify uuid %1 connection.id %2")
                        .arg(situation.connection->uuid, quoted(situation.connection->name))) };
    return { Finding::good(fileName) };
}

Findings Check::permissions(Situation &situation)
{
    const QString prefix = QStringLiteral("org.freedesktop.NetworkManager.");
    const bool own = situation.connection
            && property(*situation.connection, QStringLiteral("connection.permissions"))
                    == QStringLiteral("user:") + user();
    const QStringList needed = { prefix
                                         + (own ? QStringLiteral("settings.modify.own")
                                                : QStringLiteral("settings.modify.system")),
                                 prefix + QStringLiteral("network-control") };
    const Answer answer = Nmcli::list(QStringLiteral("PERMISSION,VALUE"),
                                      { QStringLiteral("general"), QStringLiteral("permissions") });
    if (answer.outcome != Answer::Answered)
        return { unanswered(answer) };
    Findings found;
    for (const QString &permission : needed) {
        QString value;
        for (const QStringList &row : answer.rows) {
            if (row.value(0) == permission)
                value = row.value(1);
        }
        if (value.isEmpty())
            found.append(Finding::notJudged(
                    QStringLiteral("NetworkManager tells nothing of %1").arg(permission)));
        else if (value != QLatin1String("yes"))
            found.append(Finding::fault(QStringLiteral("for the user %1 %2 %3")
                                                .arg(user(), permission, meaningOf(value)),
                                        polkitRule(needed)));
    }
    if (found.isEmpty())
        found.append(Finding::good(
                QStringLiteral("the user %1 may change and activate connections").arg(user())));
    return found;
}
