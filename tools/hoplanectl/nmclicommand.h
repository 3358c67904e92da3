// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

// A command line of the library, as its log has it, in words.
struct NmcliCommand
{
    enum Kind { Automatic, Static, Activation, Other };
    Kind kind = Other;
    QString addressing; // what the connection is given

    static NmcliCommand parse(const QString &command);
    // Whether what nmcli says on standard error tells of a failure; it may only warn.
    static bool isFailure(const QString &message);
};
