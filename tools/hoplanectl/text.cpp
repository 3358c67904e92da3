// SPDX-License-Identifier: MIT
#include "text.h"

#include <QTextCodec>
#include <QVector>

#include <cstring>

QString Text::visible(const QString &text)
{
    QString shown;
    for (const uint character : text.toUcs4())
        shown += QChar::isPrint(character)
                ? QString::fromUcs4(&character, 1)
                : QStringLiteral("\\u%1").arg(character, 4, 16, QLatin1Char('0'));
    return shown;
}

bool Text::isUtf8(const QByteArray &bytes)
{
    QTextCodec::ConverterState state;
    QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
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
