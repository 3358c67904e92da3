// SPDX-License-Identifier: MIT
#include "commandline.h"

CommandLine::CommandLine(const Command &command)
    : m_command(command)
{
    m_parser.addOption({ QStringLiteral("app"),
                         QStringLiteral("The application whose configuration is meant, as it calls "
                                        "itself. Default: the only one that has one."),
                         QStringLiteral("NAME") });
    m_parser.addOption(
            { QStringLiteral("json"), QStringLiteral("Results as JSON, one object a line.") });
    m_parser.addOption(
            { { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help.") });
}

bool CommandLine::parse(Context *context, const QStringList &arguments, int least, int most)
{
    const QString name = QLatin1String(m_command.name);
    if (!m_parser.parse(QStringList{ name } + arguments)) {
        usageError(m_parser.errorText(), name);
        return stop(ExitUsage);
    }
    if (m_parser.isSet(QStringLiteral("help"))) {
        context->out.setJson(false);
        context->out.line(help());
        return stop(ExitGood);
    }
    if (m_parser.isSet(QStringLiteral("app")))
        context->app = m_parser.value(QStringLiteral("app"));
    if (m_parser.isSet(QStringLiteral("json")))
        context->out.setJson(true);
    const QStringList given = m_parser.positionalArguments();
    if (given.size() < least) {
        usageError(QStringLiteral("%1: an argument is missing").arg(name), name);
        return stop(ExitUsage);
    }
    if (most >= 0 && given.size() > most) {
        usageError(QStringLiteral("%1: \"%2\" is one argument too many").arg(name, given[most]),
                   name);
        return stop(ExitUsage);
    }
    return true;
}

bool CommandLine::stop(int status)
{
    m_status = status;
    return false;
}

QString CommandLine::help() const
{
    // From the parser only its table of options.
    const QString parsers = m_parser.helpText();
    const QString options = parsers.mid(parsers.indexOf(QLatin1String("Options:"))).trimmed();
    QString arguments = QLatin1String(m_command.arguments);
    if (!arguments.isEmpty())
        arguments.prepend(QLatin1Char(' '));
    return QStringLiteral("Usage: hoplanectl %1 [OPTION...]%2\n\n%3.\n%4\n%5")
            .arg(QLatin1String(m_command.name), arguments, QLatin1String(m_command.summary),
                 m_text.isEmpty() ? QString() : QLatin1Char('\n') + m_text + QLatin1Char('\n'),
                 options);
}

int usageError(const QString &text, const QString &helpOf)
{
    Output::message(text);
    Output::message(helpOf.isEmpty() ? QStringLiteral("see hoplanectl --help")
                                     : QStringLiteral("see hoplanectl %1 --help").arg(helpOf));
    return ExitUsage;
}
