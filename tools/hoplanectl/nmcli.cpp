// SPDX-License-Identifier: MIT
#include "nmcli.h"

#include <QProcess>
#include <QStandardPaths>

namespace Nmcli {

namespace {

QProcessEnvironment environment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // In English, with the letters of names as they are. LANGUAGE goes before LC_ALL.
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    environment.remove(QStringLiteral("LANGUAGE"));
    return environment;
}

QString lastLine(const QByteArray &messages)
{
    return QString::fromUtf8(messages).trimmed().section(QLatin1Char('\n'), -1).trimmed();
}

} // namespace

QString program()
{
    return QStandardPaths::findExecutable(QStringLiteral("nmcli"));
}

QStringList columns(const QString &line)
{
    QStringList columns{ QString() };
    bool escaped = false;
    for (const QChar character : line) {
        const bool escapes = !escaped && character == QLatin1Char('\\');
        if (!escaped && character == QLatin1Char(':'))
            columns.append(QString());
        else if (!escapes)
            columns.last().append(character);
        escaped = escapes;
    }
    return columns;
}

Answer ask(const QStringList &arguments)
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program(), arguments, QIODevice::ReadOnly);
    Answer answer;
    if (!process.waitForStarted(patienceMs)) {
        answer.outcome = Answer::NotStarted;
        answer.message = process.errorString();
        return answer;
    }
    if (!process.waitForFinished(patienceMs)) {
        process.kill();
        process.waitForFinished();
        answer.outcome = Answer::Silent;
        answer.message = QStringLiteral("nmcli has no answer after %1 s").arg(patienceMs / 1000);
        return answer;
    }
    answer.status = process.exitCode();
    if (process.exitStatus() != QProcess::NormalExit || answer.status != Done) {
        answer.outcome = Answer::Refused;
        answer.message = lastLine(process.readAllStandardError());
        if (answer.message.isEmpty())
            answer.message = QStringLiteral("nmcli ends with status %1").arg(answer.status);
        return answer;
    }
    answer.outcome = Answer::Answered;
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    for (const QString &line : output.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        answer.rows.append(columns(line));
    return answer;
}

Answer list(const QString &fields, const QStringList &arguments)
{
    return ask(QStringList{ QStringLiteral("-t"), QStringLiteral("-f"), fields } + arguments);
}

} // namespace Nmcli
