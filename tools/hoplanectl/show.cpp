// SPDX-License-Identifier: MIT
#include "commands.h"

#include "configuration.h"
#include "describe.h"
#include "text.h"

#include <QCoreApplication>
#include <QJsonArray>

namespace {

void showText(Output *out, const Settings &settings)
{
    out->line(Text::visible(
            QStringLiteral("application  %1").arg(QCoreApplication::applicationName())));
    out->line(Text::visible(QStringLiteral("file         %1").arg(Configuration::path())));
    out->line(QStringLiteral("switching    %1").arg(Describe::enabled(settings.enabled)));
    out->line(Text::visible(
            QStringLiteral("connection   %1").arg(Describe::connection(settings.connection))));
    for (int index : { 0, 1 }) {
        const NetworkSettings &network = settings.networks[index];
        out->line(Text::visible(
                QStringLiteral("network %1    server %2; %3")
                        .arg(index + 1)
                        .arg(Describe::server(network), Describe::addressing(network))));
    }
}

QJsonObject networkObject(const NetworkSettings &network)
{
    QJsonObject object{ { QStringLiteral("server"), network.serverIp },
                        { QStringLiteral("port"), network.serverPort },
                        { QStringLiteral("addressing"),
                          network.isStatic ? QStringLiteral("static") : QStringLiteral("dhcp") },
                        { QStringLiteral("address"), network.ip },
                        { QStringLiteral("netmask"), network.mask },
                        { QStringLiteral("gateway"), network.gateway } };
    object[QStringLiteral("dns")] = QJsonArray{ network.dns1, network.dns2 };
    return object;
}

QJsonObject settingsObject(const Settings &settings)
{
    return { { QStringLiteral("type"), QStringLiteral("settings") },
             { QStringLiteral("app"), QCoreApplication::applicationName() },
             { QStringLiteral("file"), Configuration::path() },
             { QStringLiteral("enabled"), settings.enabled },
             { QStringLiteral("connection"), settings.connection },
             { QStringLiteral("networks"),
               QJsonArray{ networkObject(settings.networks[0]),
                           networkObject(settings.networks[1]) } } };
}

void showRaw(Output *out, const QString &path)
{
    for (const RawValue &raw : Configuration::rawValues(path)) {
        const QString text = Configuration::rawText(raw.value);
        out->line(raw.value.isValid() ? QStringLiteral("%1=%2").arg(raw.key, text)
                                      : QStringLiteral("%1 is missing").arg(raw.key));
        out->object({ { QStringLiteral("type"), QStringLiteral("key") },
                      { QStringLiteral("key"), QString(raw.key) },
                      { QStringLiteral("value"),
                        raw.value.isValid() ? QJsonValue(text) : QJsonValue() } });
    }
}

} // namespace

int runShow(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.add({ QStringLiteral("raw"), QStringLiteral("The keys as the file has them.") });
    if (!line.parse(&context, arguments, 0, 0))
        return line.status();
    if (!Configuration::choose(context.app, false))
        return ExitFailed;
    const QString path = Configuration::path();
    const QString unreadable = Configuration::unreadable(path);
    if (!unreadable.isEmpty()) {
        Output::message(unreadable);
        return ExitFailed;
    }
    const QString notIni = Configuration::notIni(path);
    if (!notIni.isEmpty())
        Output::message(QStringLiteral("%1; shown is what the library makes of it").arg(notIni));
    const int status = notIni.isEmpty() ? ExitGood : ExitFailed;
    if (line.isSet(QStringLiteral("raw"))) {
        showRaw(&context.out, path);
        return status;
    }
    const Settings settings = Settings::read(path);
    showText(&context.out, settings);
    context.out.object(settingsObject(settings));
    return status;
}
