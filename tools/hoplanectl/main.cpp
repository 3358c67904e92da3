// SPDX-License-Identifier: MIT
// hoplanectl: configures, checks, tries and watches the failover from a terminal.

#include "commandline.h"

#include "commands.h"
#include "devicesettings.h"

#include <QCoreApplication>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <new>

const Command commands[] = {
    { "show", "", "Shows the configuration", runShow },
    { "set", "server|network|connection|enabled ...", "Changes the configuration", runSet },
    { "import", "", "Takes over the device's own network settings", runImport },
    { "check", "", "Checks the configuration and the device, one line an item", runCheck },
    { "plan", "", "Shows what a search would do, without doing it", runPlan },
    { "probe", "HOST:PORT", "Tests whether a server accepts, as the library does", runProbe },
    { "search", "", "Runs a search and shows its progress", runSearch },
    { "watch", "", "Shows link and switch events, and what is done about them", runWatch },
    { "log", "[FILE]", "Explains the library's log lines, search by search", runLog },
};
const int commandCount = int(std::size(commands));

namespace {

QString overview()
{
    QString text =
            QStringLiteral("Usage: hoplanectl [--app NAME] [--json] COMMAND [ARGUMENT...]\n\n"
                           "Configures, checks, tries and watches the failover between two "
                           "servers.\n\nCommands:\n");
    for (const Command &command : commands)
        text += QStringLiteral("  %1 %2\n")
                        .arg(QLatin1String(command.name), -8)
                        .arg(QLatin1String(command.summary));
    return text
            + QStringLiteral("\nOptions:\n"
                             "  --app NAME     The application whose configuration is meant.\n"
                             "  --json         Results as JSON, one object a line.\n"
                             "  -h, --help     Show this help.\n"
                             "  -v, --version  Show the version.\n\n"
                             "hoplanectl COMMAND --help shows a command's own options.");
}

const Command *find(const QString &name)
{
    const auto *const end = commands + commandCount;
    const auto *const found = std::find_if(commands, end, [&name](const Command &command) {
        return name == QLatin1String(command.name);
    });
    return found == end ? nullptr : found;
}

// The exit status: results that could not be written are no success.
int end(Context *context, int status)
{
    if (context->out.finish())
        return status;
    Output::message(QStringLiteral("the results could not be written"));
    return status == ExitGood ? ExitFailed : status;
}

// Takes the options before the command; what is left begins with the command.
int takeOptions(Context *context, QStringList *arguments, bool *done)
{
    *done = true;
    while (!arguments->isEmpty() && arguments->first().startsWith(QLatin1Char('-'))) {
        const QString option = arguments->takeFirst();
        if (option == QLatin1String("-h") || option == QLatin1String("--help")) {
            context->out.setJson(false);
            context->out.line(overview());
            return end(context, ExitGood);
        }
        if (option == QLatin1String("-v") || option == QLatin1String("--version")) {
            context->out.setJson(false);
            context->out.line(QStringLiteral("hoplanectl " HOPLANE_VERSION));
            return end(context, ExitGood);
        }
        if (option == QLatin1String("--json")) {
            context->out.setJson(true);
        } else if (option == QLatin1String("--app") && !arguments->isEmpty()) {
            context->app = arguments->takeFirst();
        } else if (option.startsWith(QLatin1String("--app="))) {
            context->app = option.mid(int(qstrlen("--app=")));
        } else {
            return usageError(option == QLatin1String("--app")
                                      ? QStringLiteral("--app: the name is missing")
                                      : QStringLiteral("unknown option %1").arg(option));
        }
    }
    *done = false;
    return ExitGood;
}

// As QCoreApplication::arguments(), which takes a byte order mark away from a word's beginning.
QStringList words(int argc, char **argv)
{
    QStringList words;
    for (int index = 1; index < argc; ++index)
        words.append(QString::fromLocal8Bit(QByteArray(argv[index]).prepend('x')).mid(1));
    return words;
}

// Qt's reader has met a value in its binary form that asks for more memory than can be had. Nothing
// is changed: files are read before they are written.
[[noreturn]] void endWithoutMemory(const Command &command)
{
    Output::message(
            QStringLiteral("a value of switch.ini or of %1 asks for more memory than can be "
                           "had, which ends the application too; remove what begins with "
                           "@Variant(")
                    .arg(DeviceSettings::path()));
    const QLatin1String name(command.name);
    // A fault to check; and the others of these have not begun.
    const bool isTwo = name == QLatin1String("check") || name == QLatin1String("search")
            || name == QLatin1String("watch");
    // The library's threads may be there, and never end.
    std::_Exit(isTwo ? 2 : ExitFailed);
}

int run(QStringList arguments)
{
    Context context;
    bool done = false;
    const int status = takeOptions(&context, &arguments, &done);
    if (done)
        return status;
    if (arguments.isEmpty())
        return usageError(QStringLiteral("no command"));
    const QString name = arguments.takeFirst();
    const Command *const command = find(name);
    if (!command)
        return usageError(QStringLiteral("there is no command \"%1\"").arg(name));
    try {
        return end(&context, command->run(context, *command, arguments));
    } catch (const std::bad_alloc &) {
        context.out.finish();
        endWithoutMemory(*command);
    }
}

// What is opened later shall not take the place of a stream that was closed. To standard output
// nothing can be written then: results that nobody gets are no success.
bool openStreams()
{
    for (const int stream : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO }) {
        const int flags = stream == STDOUT_FILENO ? O_RDONLY : O_RDWR;
        if (fcntl(stream, F_GETFD) < 0 && open("/dev/null", flags) != stream)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (!openStreams())
        return ExitFailed;
    // Whoever has started the tool may have it ignored, and nobody learnt how a child has ended.
    std::signal(SIGCHLD, SIG_DFL);
    const QCoreApplication application(argc, argv);
    return run(words(argc, argv));
}
