// SPDX-License-Identifier: MIT
#include "change.h"

#include "describe.h"
#include "text.h"

#include <QFileInfo>

namespace {

// What a person sees of the settings, item by item.
QVector<QPair<QString, QString>> items(const Settings &settings)
{
    QVector<QPair<QString, QString>> all{
        { QStringLiteral("switching"), Describe::enabled(settings.enabled) },
        { QStringLiteral("connection"), Describe::connection(settings.connection) }
    };
    for (int index : { 0, 1 }) {
        const NetworkSettings &network = settings.networks[index];
        all += { { QStringLiteral("server %1").arg(index + 1), Describe::server(network) },
                 { QStringLiteral("network %1").arg(index + 1), Describe::addressing(network) } };
    }
    return all;
}

void tell(Output *out, const Settings &before, const Settings &after, bool dryRun)
{
    const auto old = items(before);
    const auto changed = items(after);
    for (int index = 0; index < old.size(); ++index) {
        const auto &[name, value] = changed[index];
        if (value == old[index].second)
            continue;
        out->line(Text::visible(QStringLiteral("%1: %2").arg(name, value)), Output::Bold);
        out->line(Text::visible(QStringLiteral("  %1 %2").arg(
                dryRun ? QStringLiteral("at present") : QStringLiteral("was"), old[index].second)));
        out->object({ { QStringLiteral("type"), QStringLiteral("change") },
                      { QStringLiteral("item"), name },
                      { QStringLiteral("old"), old[index].second },
                      { QStringLiteral("new"), value },
                      { QStringLiteral("written"), !dryRun } });
    }
}

int refuse(const QString &reason)
{
    Output::message(QStringLiteral("nothing is changed: %1").arg(reason));
    return ExitFailed;
}

} // namespace

int makeChanges(Output *out, const Changes &changes, bool dryRun)
{
    const QString path = Configuration::path();
    // Also where nothing would be written: the values of such a file are not what it seems to say.
    const QString unusable = QFileInfo::exists(path) ? Configuration::unusable(path) : QString();
    if (!unusable.isEmpty())
        return refuse(unusable + QStringLiteral("; hoplanectl check tells what helps"));
    Settings before = Settings::read(path);
    // A key that is missing is written too, though it may mean the same.
    const bool different = !Configuration::differences(path, changes).isEmpty();
    if (different && !dryRun) {
        const QString error = Configuration::save(path, changes, &before);
        if (!error.isEmpty())
            return refuse(error);
    }
    Settings after = before;
    changes.applyTo(&after);
    tell(out, before, after, dryRun);
    const QString outcome = !different
            ? QStringLiteral("nothing to change: %1 has these values already")
            : dryRun ? QStringLiteral("%1 is not changed")
                     : QStringLiteral("%1 is written");
    out->line(Text::visible(outcome.arg(path)));
    return ExitGood;
}
