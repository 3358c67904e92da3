// SPDX-License-Identifier: MIT
#include "commands.h"

#include "change.h"
#include "devicesettings.h"

#include <QFile>

namespace {

// Why the file that is loaded cannot be imported; nothing if it can. The library itself asks for
// nothing of this and imports emptiness.
QString load(const QString &path, DeviceSettings *settings)
{
    if (!QFile::exists(path))
        return QStringLiteral("there is no %1").arg(path);
    bool isIni = true;
    const QString reason = settings->load(path, &isIni);
    if (!reason.isEmpty())
        return QStringLiteral("%1: %2").arg(path, reason);
    return isIni ? QString() : QStringLiteral("%1: it is no INI file throughout").arg(path);
}

} // namespace

int runImport(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(QStringLiteral(
            "Does once what the library does at each start of the application: the\n"
            "connection's name and the addressing of both networks become the device's."));
    line.add({ QStringLiteral("from"),
               QStringLiteral("The device's file. Default: %1.").arg(DeviceSettings::path()),
               QStringLiteral("FILE"), DeviceSettings::path() });
    line.add({ QStringLiteral("dry-run"), QStringLiteral("Only tell what would change.") });
    if (!line.parse(&context, arguments, 0, 0))
        return line.status();
    const bool dryRun = line.isSet(QStringLiteral("dry-run"));
    const QString from = line.value(QStringLiteral("from"));
    DeviceSettings settings;
    const QString reason = load(from, &settings);
    if (!reason.isEmpty()) {
        Output::message(QStringLiteral("nothing is changed: %1").arg(reason));
        return ExitFailed;
    }
    if (!Configuration::choose(context.app, true))
        return ExitFailed;
    return makeChanges(&context.out, settings.changes(), dryRun);
}
