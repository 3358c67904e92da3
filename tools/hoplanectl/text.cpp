// SPDX-License-Identifier: MIT
#include "text.h"

#include <cstring>

QString Text::visible(const QString &text)
{
    QString shown;
    for (const QChar character : text)
        shown += character.isPrint()
                ? QString(character)
                : QStringLiteral("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
    return shown;
}

QString Text::counted(int count, const QString &one, const QString &many)
{
    if (count == 1)
        return QStringLiteral("1 ") + one;
    return QStringLiteral("%1 %2").arg(count).arg(many.isEmpty() ? one + QLatin1Char('s') : many);
}

QString Text::ofError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}
