// SPDX-License-Identifier: MIT
#include "commands.h"

#include "checks.h"
#include "configuration.h"
#include "livecommand.h"
#include "processor.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace {

constexpr int notStarted = 2;
constexpr int interruption = 128; // plus the signal's number

// What happens while nobody asks for anything, until it is interrupted.
class Watch : public LiveCommand
{
public:
    explicit Watch(Context *context)
        : LiveCommand(context)
    {
    }

    int run();

protected:
    QString margin(const Moment &when) const override;
    void ended(const SearchAccount &) override { }
    void interrupted(int signal) override;

private:
    void tellBeginning();
    void warnOfFile(const QString &file);
    void reportSignals(Hoplane *library);
    void report(const QString &name, const QJsonObject &arguments, const QString &text);
};

int Watch::run()
{
    Hoplane *const library = takeLibrary();
    if (!library)
        return notStarted;
    tellBeginning();
    noteImport();
    noteExchange();
    reportSignals(library);
    return QCoreApplication::exec();
}

// The time of day.
QString Watch::margin(const Moment &when) const
{
    return when.text.mid(11, 8) + QLatin1String("  ");
}

void Watch::tellBeginning()
{
    const QString processor = Processor::name();
    const bool isArm = Processor::isDevices();
    const QString file = Configuration::path();
    const bool exists = QFileInfo::exists(file);
    line(QStringLiteral("watching %1 on this processor (%2), as \"%3\"; end with Ctrl-C")
                 .arg(isArm ? QStringLiteral("the LAN switch")
                            : QStringLiteral("the notifications of all links"),
                      processor, QCoreApplication::applicationName()),
         Output::Bold);
    out()->object({ { QStringLiteral("type"), QStringLiteral("watch") },
                    { QStringLiteral("events"),
                      isArm ? QStringLiteral("lan-switch") : QStringLiteral("links") },
                    { QStringLiteral("processor"), processor },
                    { QStringLiteral("app"), QCoreApplication::applicationName() },
                    { QStringLiteral("file"), file },
                    { QStringLiteral("exists"), exists },
                    { QStringLiteral("enabled"), isEnabled() } });
    warnOfFile(file);
}

// Why nothing will follow from an event, or not what the whole file would lead to.
void Watch::warnOfFile(const QString &file)
{
    const QString unusable = Configuration::unusable(file);
    if (!unusable.isEmpty())
        message(isEnabled()
                        ? QStringLiteral("%1; the library takes what it makes of it").arg(unusable)
                        : QStringLiteral("%1, so nothing will follow from an event").arg(unusable));
    else if (!isEnabled())
        message(QStringLiteral("switching is disabled in %1, so nothing will follow from an event; "
                               "enable it with hoplanectl --app %2 set enabled on")
                        .arg(file, Check::quoted(QCoreApplication::applicationName())));
}

void Watch::reportSignals(Hoplane *library)
{
    QObject::connect(library, &Hoplane::switchBegin, library, [this] {
        report(QStringLiteral("switchBegin"), {}, QStringLiteral("signal switchBegin"));
    });
    QObject::connect(library, &Hoplane::switchSuccess, library,
                     [this](const QString &ip, const QString &port) {
                         report(QStringLiteral("switchSuccess"),
                                { { QStringLiteral("ip"), ip }, { QStringLiteral("port"), port } },
                                QStringLiteral("signal switchSuccess: %1 %2").arg(ip, port));
                     });
    QObject::connect(
            library, &Hoplane::switchFailed, library, [this](const QString &reason, int code) {
                report(QStringLiteral("switchFailed"),
                       { { QStringLiteral("error"), reason }, { QStringLiteral("code"), code } },
                       QStringLiteral("signal switchFailed: %1 %2").arg(code).arg(reason));
            });
}

void Watch::report(const QString &name, const QJsonObject &arguments, const QString &text)
{
    QJsonObject object = arguments;
    object[QStringLiteral("type")] = QStringLiteral("signal");
    object[QStringLiteral("signal")] = name;
    object[QStringLiteral("time")] = Live::now().text;
    out()->object(object);
    timedLine(text, Output::Dim);
}

void Watch::interrupted(int signal)
{
    finish(QStringLiteral("interrupted"));
    timedLine(QStringLiteral("interrupted"));
    out()->object({ { QStringLiteral("type"), QStringLiteral("end") },
                    { QStringLiteral("reason"), QStringLiteral("interrupted") },
                    { QStringLiteral("time"), Live::now().text } });
    leave(interruption + signal);
}

const QString watchText = QStringLiteral(
        "Asks for nothing. The library reacts to events as in the application, and\n"
        "changes the device's addressing then: on ARM to what the LAN switch reports, on\n"
        "other processors to notifications of links. As at each start of the application\n"
        "the device's own network settings are imported first, if it has any.\n\n"
        "Exit status: 128 plus the signal's number when interrupted, 2 if it could not\n"
        "begin.");

} // namespace

int runWatch(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    line.setText(watchText);
    if (!line.parse(&context, arguments, 0, 0))
        return line.status();
    if (!Configuration::choose(context.app, true))
        return notStarted;
    return Watch(&context).run();
}
