// SPDX-License-Identifier: MIT
#include "commands.h"

int runProbe(Context &context, const Command &command, const QStringList &arguments)
{
    CommandLine line(command);
    if (!line.parse(&context, arguments, 0, 0))
        return line.status();
    return ExitFailed;
}
