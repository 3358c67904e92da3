// SPDX-License-Identifier: MIT
#include "output.h"

#include "text.h"

#include <QJsonDocument>

#include <unistd.h>

Output::Output(FILE *results)
    : m_results(results)
    , m_terminal(isatty(fileno(results)) != 0)
    , m_colours(m_terminal && qEnvironmentVariableIsEmpty("NO_COLOR")
                && qgetenv("TERM") != QByteArrayLiteral("dumb"))
{
}

void Output::line(const QString &text, Style style)
{
    if (!m_json)
        write(styled(text, style).toUtf8() + '\n');
}

QString Output::styled(const QString &text, Style style) const
{
    static const char *const codes[] = { "", "1", "2", "32", "33", "31" };
    if (!m_colours || style == Plain)
        return text;
    return QStringLiteral("\x1b[%1m%2\x1b[0m").arg(QLatin1String(codes[style]), text);
}

void Output::object(const QJsonObject &object)
{
    if (m_json)
        write(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}

void Output::write(const QByteArray &bytes)
{
    // Each line at once, for whoever reads along.
    if (fwrite(bytes.constData(), 1, size_t(bytes.size()), m_results) != size_t(bytes.size())
        || fflush(m_results) != 0)
        m_failed = true;
}

bool Output::finish()
{
    // On a terminal fwrite() tells nothing of a failure.
    return fflush(m_results) == 0 && ferror(m_results) == 0 && !m_failed;
}

void Output::message(const QString &text)
{
    const QByteArray bytes = asMessage(text);
    fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
}

QByteArray Output::asMessage(const QString &text)
{
    return "hoplanectl: " + Text::visible(text).toUtf8() + '\n';
}
