// SPDX-License-Identifier: MIT
#ifndef LEFTOVERS_H
#define LEFTOVERS_H

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QStringList>

#include <cerrno>
#include <sys/wait.h>

/** What a command may leave behind. */
namespace Leftovers {

/** Each descriptor of this process, of whatever kind, and what it leads to. */
inline QStringList descriptors()
{
    const QString folder = QStringLiteral("/proc/self/fd");
    QStringList list;
    const QStringList names =
            QDir(folder).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System);
    for (const QString &name : names) {
        QString target = QFileInfo(folder + QLatin1Char('/') + name).symLinkTarget();
        // Whoever runs the test may delete a log meanwhile that the test has inherited.
        target.remove(QStringLiteral(" (deleted)"));
        // The one that reads the folder is closed by now.
        if (!target.isEmpty())
            list.append(name + QLatin1String(" -> ") + target);
    }
    return list;
}

/** Neither one that runs nor one whose end nobody has looked at. */
inline bool isChildless()
{
    siginfo_t child = {};
    return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
}

} // namespace Leftovers

#endif
