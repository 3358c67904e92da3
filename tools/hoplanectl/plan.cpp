// SPDX-License-Identifier: MIT
#include "commands.h"

#include "describe.h"
#include "planning.h"
#include "text.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

namespace {

using namespace Planning;

// The text.

QString seconds(int milliseconds)
{
    constexpr double oneSecond = 1000;
    return QStringLiteral("%1 s").arg(milliseconds / oneSecond);
}

void showWarnings(Output *out, const QStringList &warnings, const QString &indent)
{
    for (const QString &warning : warnings)
        out->line(indent + QStringLiteral("warning: ") + Text::visible(warning), Output::Warning);
}

void showSkipped(Output *out, const Turn &turn, const QString &ip)
{
    QString reason =
            QStringLiteral("its address %1 contains the device's: %2").arg(ip, turn.deviceAddress);
    if (turn.deviceAddress.isEmpty())
        reason = QStringLiteral("the device has no address");
    else if (turn.deviceAddress == ip)
        reason = QStringLiteral("the device has its address: %1").arg(ip);
    out->line(QStringLiteral("     skipped, because ") + Text::visible(reason));
}

void showSteps(Output *out, const Turn &turn)
{
    const QString target = turn.targets.isEmpty() ? turn.names.join(QStringLiteral(", "))
                                                  : turn.targets.join(QStringLiteral(", "));
    for (int index = 0; index < turn.steps.size();) {
        const Rehearsal::Step &step = turn.steps[index];
        if (step.kind == Rehearsal::Step::Command) {
            out->line(QStringLiteral("     runs   ") + Text::visible(step.command));
            ++index;
            continue;
        }
        const int begin = index;
        while (index < turn.steps.size() && turn.steps[index].kind == Rehearsal::Step::Attempt
               && turn.steps[index].milliseconds == step.milliseconds)
            ++index;
        out->line(QStringLiteral("     tries  %1, %2 of %3 ms")
                          .arg(Text::visible(target),
                               Text::counted(index - begin, QStringLiteral("attempt")))
                          .arg(step.milliseconds));
    }
}

void showPass(Output *out, const Plan &plan, const Pass &pass)
{
    static const char *const headings[] = { "Each pass", "The first pass", "Each later pass",
                                            "Each pass once the device has an address" };
    out->line(QLatin1String(headings[pass.when]), Output::Bold);
    for (int index = 0; index < pass.turns.size(); ++index) {
        const Turn &turn = pass.turns[index];
        const NetworkSettings &network = plan.settings.networks[turn.network];
        out->line(Text::visible(
                QStringLiteral("  %1. network %2: server %3; %4")
                        .arg(index + 1)
                        .arg(turn.network + 1)
                        .arg(Describe::server(network), Describe::addressing(network))));
        if (turn.skipped)
            showSkipped(out, turn, network.ip);
        else
            showSteps(out, turn);
        showWarnings(out, turn.warnings, QStringLiteral("     "));
    }
}

// "4 look-ups × 25 s", if there are any.
QStringList term(int count, const QString &what, int milliseconds)
{
    if (count == 0)
        return {};
    return { QStringLiteral("%1 × %2").arg(Text::counted(count, what), seconds(milliseconds)) };
}

void showTime(Output *out, const Effort &effort)
{
    const QString activation = QStringLiteral("activation");
    const QString attempts = QStringLiteral("%1 of attempts").arg(seconds(effort.attemptsMs));
    const QString plus = QStringLiteral(" + ");
    const QStringList worst =
            QStringList{ QStringLiteral("%1 until the last pass begins").arg(seconds(limitMs)),
                         attempts }
            + term(effort.lookUps, QStringLiteral("look-up"), hangingMs)
            + term(effort.changes, QStringLiteral("change"), hangingMs)
            + term(effort.activations, activation, interruptedMs);
    out->line(QStringLiteral("Time"), Output::Bold);
    out->line(QStringLiteral("  A pass takes %1, and what its commands take.").arg(attempts));
    out->line(QStringLiteral("  At worst a search takes %1 = %2.")
                      .arg(worst.join(plus), seconds(effort.worstCaseMs())));
    out->line(QStringLiteral("  A command takes %1 when NetworkManager hangs, and an activation %2 "
                             "when it is interrupted.")
                      .arg(seconds(hangingMs), seconds(interruptedMs)));
    if (effort.automaticActivations == 0)
        return;
    const QStringList silent = QStringList{ seconds(limitMs), attempts }
            + term(effort.automaticActivations, activation, effort.silentDhcpMs);
    out->line(QStringLiteral("  With only the DHCP server silent it takes %1 = %2.")
                      .arg(silent.join(plus), seconds(effort.silentDhcpCaseMs())));
}

QString orderText(const Plan &plan)
{
    return plan.exchanged ? QStringLiteral("network 2, which is static, goes before network 1, "
                                           "which is automatic; on ARM it would not")
                          : QStringLiteral("the networks go in the file's order");
}

void showText(Output *out, const QString &path, const Plan &plan)
{
    if (!plan.idleBecause.isEmpty())
        out->line(
                Text::visible(QStringLiteral("A search would do nothing: %1. Otherwise it would do "
                                             "this:")
                                      .arg(plan.idleBecause)),
                Output::Warning);
    out->line(Text::visible(
            QStringLiteral("application  %1").arg(QCoreApplication::applicationName())));
    out->line(Text::visible(QStringLiteral("file         %1").arg(path)));
    out->line(QStringLiteral("processor    %1: %2").arg(plan.processor, orderText(plan)));
    out->line(Text::visible(
            QStringLiteral("connection   %1").arg(Describe::connection(plan.settings.connection))));
    showWarnings(out, plan.warnings, QString());
    for (const Pass &pass : plan.passes)
        showPass(out, plan, pass);
    showTime(out, effortOf(plan));
}

// The objects.

QJsonObject planObject(const QString &path, const QString &idleBecause)
{
    return { { QStringLiteral("type"), QStringLiteral("plan") },
             { QStringLiteral("app"), QCoreApplication::applicationName() },
             { QStringLiteral("file"), path },
             { QStringLiteral("search"), idleBecause.isEmpty() },
             { QStringLiteral("reason"), idleBecause } };
}

QJsonObject planObject(const QString &path, const Plan &plan)
{
    const Effort effort = effortOf(plan);
    QJsonObject object = planObject(path, plan.idleBecause);
    object[QStringLiteral("processor")] = plan.processor;
    object[QStringLiteral("exchanged")] = plan.exchanged;
    object[QStringLiteral("connection")] = plan.settings.connection;
    object[QStringLiteral("uuid")] = plan.lookUp.uuid;
    object[QStringLiteral("placeholder")] = !plan.lookUp.placeholderFor.isEmpty();
    object[QStringLiteral("limitMs")] = limitMs;
    object[QStringLiteral("attemptsMs")] = effort.attemptsMs;
    object[QStringLiteral("lookUps")] = effort.lookUps;
    object[QStringLiteral("changes")] = effort.changes;
    object[QStringLiteral("activations")] = effort.activations;
    object[QStringLiteral("worstCaseMs")] = effort.worstCaseMs();
    object[QStringLiteral("silentDhcpCaseMs")] = effort.silentDhcpCaseMs();
    object[QStringLiteral("warnings")] = QJsonArray::fromStringList(plan.warnings);
    return object;
}

// What the objects of a turn have in common: where they belong.
QJsonObject placed(const char *type, const Pass &pass, int index)
{
    static const char *const times[] = { "each", "first", "later", "addressed" };
    return { { QStringLiteral("type"), QLatin1String(type) },
             { QStringLiteral("pass"), QLatin1String(times[pass.when]) },
             { QStringLiteral("turn"), index + 1 },
             { QStringLiteral("network"), pass.turns[index].network + 1 } };
}

QJsonObject networkObject(QJsonObject object, const Turn &turn, const NetworkSettings &network)
{
    const auto attempt =
            std::find_if(turn.steps.begin(), turn.steps.end(), [](const Rehearsal::Step &step) {
                return step.kind == Rehearsal::Step::Attempt;
            });
    object[QStringLiteral("server")] = network.serverIp;
    object[QStringLiteral("port")] = network.serverPort;
    object[QStringLiteral("addressing")] =
            network.isStatic ? QStringLiteral("static") : QStringLiteral("dhcp");
    object[QStringLiteral("skipped")] = turn.skipped;
    object[QStringLiteral("deviceAddress")] = turn.deviceAddress;
    object[QStringLiteral("attempts")] = turn.attempts();
    object[QStringLiteral("attemptMs")] = attempt == turn.steps.end() ? 0 : attempt->milliseconds;
    object[QStringLiteral("targets")] = QJsonArray::fromStringList(turn.targets);
    object[QStringLiteral("warnings")] = QJsonArray::fromStringList(turn.warnings);
    return object;
}

void showTurnObjects(Output *out, const Plan &plan, const Pass &pass, int index)
{
    static const char *const purposes[] = { "look-up", "change", "activation" };
    const Turn &turn = pass.turns[index];
    out->object(networkObject(placed("network", pass, index), turn,
                              plan.settings.networks[turn.network]));
    int before = 0;
    for (const Rehearsal::Step &step : turn.steps) {
        if (step.kind == Rehearsal::Step::Attempt) {
            ++before;
            continue;
        }
        QJsonObject object = placed("command", pass, index);
        object[QStringLiteral("afterAttempts")] = before;
        object[QStringLiteral("purpose")] = QLatin1String(purposes[int(plan.purposeOf(step))]);
        object[QStringLiteral("command")] = step.command;
        out->object(object);
    }
}

void showObjects(Output *out, const QString &path, const Plan &plan)
{
    out->object(planObject(path, plan));
    for (const Pass &pass : plan.passes) {
        for (int index = 0; index < pass.turns.size(); ++index)
            showTurnObjects(out, plan, pass, index);
    }
}

int showNoFile(Output *out, const QString &path)
{
    const QString reason = QStringLiteral("there is no %1").arg(path);
    out->line(Text::visible(QStringLiteral("A search would do nothing: %1").arg(reason)),
              Output::Warning);
    out->object(planObject(path, reason));
    return ExitFailed;
}

} // namespace

int runPlan(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(QStringLiteral(
            "The library itself makes the plan: it searches, with nothing below it. No\n"
            "command is run but those that ask nmcli for the connection, nothing is\n"
            "connected to, and nothing is changed.\n\n"
            "Exit status: 0 if a search would run, 1 if it would do nothing, because\n"
            "switching is off or there is no file that can be read."));
    if (!line.parse(&context, arguments, 0, 0))
        return line.status();
    if (!Configuration::choose(context.app, true))
        return ExitFailed;
    const QString path = Configuration::path();
    if (!QFileInfo::exists(path))
        return showNoFile(&context.out, path);
    const Plan plan = make(path);
    if (context.out.json())
        showObjects(&context.out, path, plan);
    else
        showText(&context.out, path, plan);
    return plan.idleBecause.isEmpty() ? ExitGood : ExitFailed;
}
