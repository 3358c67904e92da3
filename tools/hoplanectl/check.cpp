// SPDX-License-Identifier: MIT
#include "commands.h"

#include "checks.h"
#include "text.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <initializer_list>

namespace {

enum Need { Nothing = 0, File = 1, Manager = 2 };

struct Item
{
    const char *id;
    int needs; // without these it cannot be judged
    Findings (*check)(Situation &situation);
};

// In this order: the later ones use what the earlier ones have found out.
const Item items[] = {
    { "file", Nothing, Check::file },
    { "keys", File, Check::keys },
    { "trust", File, Check::trust },
    { "enabled", File, Check::enabled },
    { "server-1", File, [](Situation &situation) { return Check::server(situation, 0); } },
    { "server-2", File, [](Situation &situation) { return Check::server(situation, 1); } },
    { "servers", File, Check::servers },
    { "network-1", File, [](Situation &situation) { return Check::network(situation, 0); } },
    { "network-2", File, [](Situation &situation) { return Check::network(situation, 1); } },
    { "networks", File, Check::networks },
    { "name", File, Check::name },
    { "nmcli", Nothing, Check::nmcli },
    { "awk", Nothing, Check::awk },
    { "manager", Nothing, Check::manager },
    { "connection", File | Manager, Check::connection },
    { "interface", File | Manager, Check::interface },
    { "profile", File | Manager, Check::profile },
    { "permissions", Manager, Check::permissions },
    { "device-file", Nothing, Check::deviceFile },
    { "link-events", Nothing, Check::linkEvents },
    { "clock", Nothing, Check::clock },
    { "locale", Nothing, Check::locale },
};
const Item probes[] = {
    { "probe-1", File, [](Situation &situation) { return Check::probe(situation, 0); } },
    { "probe-2", File, [](Situation &situation) { return Check::probe(situation, 1); } },
};

constexpr int levels = 3;
struct LevelText
{
    const char *word;
    const char *marker;
    Output::Style style;
};
const LevelText levelTexts[levels] = {
    { "good", "good", Output::Good },
    { "warning", "WARNING", Output::Warning },
    { "fault", "FAULT", Output::Fault },
};

Findings judge(const Item &item, Situation *situation)
{
    if ((item.needs & File) != 0 && !situation->readable)
        return { Finding::notJudged(QStringLiteral("there is no configuration to read")) };
    if ((item.needs & Manager) != 0 && !situation->managerTrouble.isEmpty())
        return { Finding::notJudged(situation->managerTrouble) };
    return item.check(*situation);
}

QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}

void tell(Output *out, const char *item, const Finding &finding)
{
    constexpr int markerWidth = 8;
    constexpr int itemWidth = 12;
    const LevelText &level = levelTexts[finding.level];
    const QString marker = QLatin1String(level.marker);
    out->line(out->styled(marker, level.style) + blanks(markerWidth - marker.size())
              + QStringLiteral("%1 %2").arg(QLatin1String(item), -itemWidth).arg(finding.text));
    if (!finding.remedy.isEmpty())
        out->line(blanks(markerWidth + itemWidth + 1) + QStringLiteral("remedy: ")
                  + finding.remedy);
    out->object({ { QStringLiteral("type"), QStringLiteral("check") },
                  { QStringLiteral("item"), QLatin1String(item) },
                  { QStringLiteral("level"), QLatin1String(level.word) },
                  { QStringLiteral("judged"), finding.judged },
                  { QStringLiteral("text"), finding.text },
                  { QStringLiteral("remedy"),
                    finding.remedy.isEmpty() ? QJsonValue() : QJsonValue(finding.remedy) } });
}

int sumUp(Output *out, const Situation &situation, const int (&counts)[levels])
{
    const int faults = counts[Finding::Fault];
    const int warnings = counts[Finding::Warning];
    const int worst = faults > 0 ? Finding::Fault : warnings > 0 ? Finding::Warning : Finding::Good;
    out->line(out->styled(worst == Finding::Good ? QStringLiteral("all is good")
                                                 : Text::counted(faults, QStringLiteral("fault"))
                                          + QStringLiteral(", ")
                                          + Text::counted(warnings, QStringLiteral("warning")),
                          levelTexts[worst].style));
    const bool known = !situation.path.isEmpty();
    out->object({ { QStringLiteral("type"), QStringLiteral("summary") },
                  { QStringLiteral("app"),
                    known ? QJsonValue(QCoreApplication::applicationName()) : QJsonValue() },
                  { QStringLiteral("file"), known ? QJsonValue(situation.path) : QJsonValue() },
                  { QStringLiteral("good"), counts[Finding::Good] },
                  { QStringLiteral("warnings"), warnings },
                  { QStringLiteral("faults"), faults } });
    return worst;
}

// The application's file; without any application the path stays empty, which is an item's fault.
bool chooseFile(const QString &app, Situation *situation)
{
    situation->app = app;
    if (app.isNull() && Configuration::applications().isEmpty())
        return true;
    if (!Configuration::choose(app, true))
        return false;
    situation->path = Configuration::path();
    return true;
}

} // namespace

QString Situation::command(const QString &rest) const
{
    const QString application =
            app.isNull() ? QString() : QStringLiteral(" --app ") + Check::quoted(app);
    return QStringLiteral("hoplanectl%1 %2").arg(application, rest);
}

QString Situation::set(const QString &rest) const
{
    return command(QStringLiteral("set ") + rest);
}

QString Check::shown(const QString &text)
{
    return QLatin1Char('"') + Text::visible(text) + QLatin1Char('"');
}

QString Check::quoted(const QString &word)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_./:@%+,-]+\\z"));
    if (plain.match(word).hasMatch())
        return word;
    QString inside = word;
    inside.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + inside + QLatin1Char('\'');
}

QString Check::user()
{
    const passwd *const entry = getpwuid(geteuid());
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(geteuid());
}

QString Check::chown(const QString &path)
{
    const group *const entry = getgrgid(getegid());
    const QString name =
            entry ? QString::fromLocal8Bit(entry->gr_name) : QString::number(getegid());
    return QStringLiteral("chown %1:%2 %3").arg(user(), name, quoted(path));
}

int runCheck(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(QStringLiteral(
            "Changes nothing. Run it as the application's user, in the application's\n"
            "environment.\n\n"
            "Exit status: 0 all is good, 1 warnings, 2 faults."));
    line.add({ QStringLiteral("probe"),
               QStringLiteral("Also try each server once, with the addressing as it is now.") });
    if (!line.parse(&context, arguments, 0, 0))
        return line.status();
    Situation situation;
    if (!chooseFile(context.app, &situation))
        return ExitUsage;
    int counts[levels] = {};
    const auto run = [&](const Item &item) {
        for (const Finding &finding : judge(item, &situation)) {
            ++counts[finding.level];
            tell(&context.out, item.id, finding);
        }
    };
    for (const Item &item : items)
        run(item);
    if (line.isSet(QStringLiteral("probe"))) {
        for (const Item &item : probes)
            run(item);
    }
    // The level of the worst finding is the exit status.
    return sumUp(&context.out, situation, counts);
}
