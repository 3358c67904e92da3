// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QString>

#include <cstdio>

// What a command writes: results to standard output, messages to standard error. Results are text
// for people, coloured on a terminal unless NO_COLOR is set, or with --json one object a line.
class Output
{
public:
    enum Style { Plain, Bold, Dim, Good, Warning, Fault };

    // `results` may be another stream than standard output where that is needed for something else.
    explicit Output(FILE *results = stdout);

    bool json() const { return m_json; }
    void setJson(bool json) { m_json = json; }
    bool onTerminal() const { return m_terminal; }

    // A line of results; nothing with --json.
    void line(const QString &text = QString(), Style style = Plain);
    // The text in the style, for a part of a line.
    QString styled(const QString &text, Style style) const;
    // An object of results; nothing without --json.
    void object(const QJsonObject &object);
    // Whether everything has reached its destination; a full disk is a failure.
    bool finish();

    // "hoplanectl: TEXT" on standard error.
    static void message(const QString &text);
    // As a message is written, whatever the text has in it.
    static QByteArray asMessage(const QString &text);

private:
    void write(const QByteArray &bytes);

    FILE *m_results;
    bool m_terminal;
    bool m_colours;
    bool m_json = false;
    bool m_failed = false;
};
