// SPDX-License-Identifier: MIT
#include "change.h"

namespace {

QString shown(const QVariant &value)
{
    return value.isValid() ? QLatin1Char('"') + Configuration::rawText(value) + QLatin1Char('"')
                           : QStringLiteral("missing");
}

QJsonValue jsonValue(const QVariant &value)
{
    return value.isValid() ? QJsonValue(Configuration::rawText(value)) : QJsonValue();
}

QVariant oldValue(const QVector<RawValue> &before, QLatin1String key)
{
    for (const RawValue &raw : before) {
        if (raw.key == key)
            return raw.value;
    }
    return QVariant();
}

} // namespace

int makeChanges(Output *out, const Changes &changes, bool dryRun)
{
    const QString path = Configuration::path();
    const QVector<RawValue> before = Configuration::rawValues(path);
    const QVector<RawValue> different = Configuration::differences(path, changes);
    if (!dryRun && !different.isEmpty()) {
        const QString error = Configuration::save(path, changes);
        if (!error.isEmpty()) {
            Output::message(QStringLiteral("nothing is changed: %1").arg(error));
            return ExitFailed;
        }
    }
    for (const RawValue &raw : different) {
        const QVariant old = oldValue(before, raw.key);
        out->line(QStringLiteral("%1: %2, %3 %4")
                          .arg(raw.key, shown(raw.value),
                               dryRun ? QStringLiteral("now") : QStringLiteral("was"), shown(old)));
        out->object({ { QStringLiteral("type"), QStringLiteral("change") },
                      { QStringLiteral("key"), QString(raw.key) },
                      { QStringLiteral("old"), jsonValue(old) },
                      { QStringLiteral("new"), jsonValue(raw.value) },
                      { QStringLiteral("written"), !dryRun } });
    }
    if (different.isEmpty())
        out->line(QStringLiteral("nothing to change: %1 has these values already").arg(path));
    else
        out->line(dryRun ? QStringLiteral("%1 is not changed").arg(path)
                         : QStringLiteral("%1 is changed").arg(path));
    return ExitGood;
}
