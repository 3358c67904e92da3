// SPDX-License-Identifier: MIT
#ifndef HOPLANE_LOGLINE_P_H
#define HOPLANE_LOGLINE_P_H

#include <QtCore/QDebug>

/** The three pieces that begin a log line: "[", the bare name of the member function, "]". */
struct From
{
    explicit From(const char *name)
        : function(name)
    {
    }

    const char *function;
};

inline QDebug operator<<(QDebug stream, From from)
{
    return stream << "[" << from.function << "]";
}

#endif
