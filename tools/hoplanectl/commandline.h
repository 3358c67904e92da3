// SPDX-License-Identifier: MIT
#pragma once

#include "output.h"

#include <QCommandLineParser>
#include <QStringList>

// What the commands are told beside their own arguments.
struct Context
{
    QString app; // the application's name, empty if none was given
    Output out;
};

// Exit statuses that all commands share.
enum ExitStatus { ExitGood = 0, ExitFailed = 1, ExitUsage = 64 };

struct Command
{
    const char *name;
    const char *arguments; // as the usage shows them
    const char *summary; // one line
    int (*run)(Context &context, const Command &command, const QStringList &arguments);
};

// In the order of the help.
extern const Command commands[];
extern const int commandCount;

// A command's own options. Those that all commands have, --app, --json and --help, are among them.
class CommandLine
{
public:
    explicit CommandLine(const Command &command);

    // `text` is what follows the summary in the help.
    void setText(const QString &text) { m_text = text; }
    void add(const QCommandLineOption &option) { m_parser.addOption(option); }

    // Takes the arguments apart and the shared options to the context. False if the command has
    // nothing more to do: status() is its exit status then.
    bool parse(Context *context, const QStringList &arguments, int least, int most);
    int status() const { return m_status; }

    QStringList arguments() const { return m_parser.positionalArguments(); }
    bool isSet(const QString &option) const { return m_parser.isSet(option); }
    QString value(const QString &option) const { return m_parser.value(option); }
    QStringList values(const QString &option) const { return m_parser.values(option); }

private:
    QString help() const;
    bool stop(int status);

    const Command &m_command;
    QCommandLineParser m_parser;
    QString m_text;
    int m_status = ExitGood;
};

// Says what is wrong with how the tool was called; returns ExitUsage.
int usageError(const QString &text, const QString &helpOf = QString());
