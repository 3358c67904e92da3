// SPDX-License-Identifier: MIT
#ifndef HOPLANE_LOGLINE_P_H
#define HOPLANE_LOGLINE_P_H

#include <QtCore/QDebug>

/** The three pieces that begin a log line: "[", the bare name of the member function, "]". */
struct Q_DECL_HIDDEN LogPrefix
{
    explicit LogPrefix(const char *name)
        : function(name)
    {
    }

    const char *function;
};

inline QDebug operator<<(QDebug stream, LogPrefix prefix)
{
    return stream << "[" << prefix.function << "]";
}

#endif
