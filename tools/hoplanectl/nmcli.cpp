// SPDX-License-Identifier: MIT
#include "nmcli.h"

#include "text.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QStandardPaths>
#include <QThread>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

namespace Nmcli {

namespace {

// A program that runs, with the ends of the pipes to its results and its messages. Not QProcess:
// where the processor is emulated, it does not learn its child's number, and kills others instead.
struct Child
{
    pid_t id = -1;
    std::array<int, 2> pipes = { -1, -1 };
    std::array<QByteArray, 2> printed;
};

std::vector<QByteArray> environment()
{
    std::vector<QByteArray> variables;
    for (char **variable = environ; *variable; ++variable) {
        const QByteArray text = *variable;
        if (!text.startsWith("LC_ALL=") && !text.startsWith("LANGUAGE="))
            variables.push_back(text);
    }
    // In English, with the letters of names as they are. LANGUAGE would go before LC_ALL.
    variables.push_back("LC_ALL=C.UTF-8");
    return variables;
}

// As exec() takes them; they belong to `texts`.
std::vector<char *> pointers(std::vector<QByteArray> *texts)
{
    std::vector<char *> result;
    for (QByteArray &text : *texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

// Starts nmcli. Returns 0, or the error's number.
int start(const QStringList &arguments, Child *child)
{
    const QByteArray path = QFile::encodeName(program());
    std::vector<QByteArray> words{ path };
    for (const QString &argument : arguments)
        words.push_back(argument.toUtf8());
    std::vector<QByteArray> variables = environment();

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::array<int, 2> theirs = { -1, -1 };
    int error = 0;
    for (std::size_t index = 0; index < theirs.size() && error == 0; ++index) {
        int ends[2];
        error = pipe2(ends, O_CLOEXEC) == 0 ? 0 : errno;
        if (error == 0) {
            child->pipes[index] = ends[0];
            theirs[index] = ends[1];
            posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO + int(index));
        }
    }
    if (error == 0)
        error = posix_spawn(&child->id, path.constData(), &actions, nullptr,
                            pointers(&words).data(), pointers(&variables).data());
    posix_spawn_file_actions_destroy(&actions);
    for (const int end : theirs) {
        if (end >= 0)
            close(end);
    }
    return error;
}

void closePipe(int *pipe)
{
    if (*pipe >= 0)
        close(*pipe);
    *pipe = -1;
}

// Reads what there is of one pipe, and closes it behind the last byte.
void readPipe(Child *child, std::size_t index)
{
    char bytes[4096];
    const ssize_t count = read(child->pipes[index], bytes, sizeof bytes);
    if (count > 0)
        child->printed[index].append(bytes, int(count));
    else if (count == 0 || errno != EINTR)
        closePipe(&child->pipes[index]);
}

// Reads both pipes to their ends. False if that takes too long.
bool readAll(Child *child, const QDeadlineTimer &deadline)
{
    while (child->pipes[0] >= 0 || child->pipes[1] >= 0) {
        // poll() leaves out a descriptor that is negative.
        pollfd waiting[2] = { { child->pipes[0], POLLIN, 0 }, { child->pipes[1], POLLIN, 0 } };
        if (poll(waiting, 2, int(deadline.remainingTime())) == 0 || deadline.hasExpired())
            return false;
        for (std::size_t index = 0; index < 2; ++index) {
            if (waiting[index].revents != 0)
                readPipe(child, index);
        }
    }
    return true;
}

// Waits for the end of a program that has closed its pipes. False if that takes too long.
bool waitForEnd(const Child &child, int *status, const QDeadlineTimer &deadline)
{
    while (waitpid(child.id, status, WNOHANG) == 0) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}

// Lets it run to its end, or ends it. False if it had to be ended.
bool finish(Child *child, int *status)
{
    const QDeadlineTimer deadline(patienceMs);
    const bool ended = readAll(child, deadline) && waitForEnd(*child, status, deadline);
    for (int &pipe : child->pipes)
        closePipe(&pipe);
    if (ended)
        return true;
    kill(child->id, SIGKILL);
    waitpid(child->id, status, 0);
    return false;
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
    Child child;
    Answer answer;
    const int error = start(arguments, &child);
    if (error != 0) {
        for (int &pipe : child.pipes)
            closePipe(&pipe);
        answer.outcome = Answer::NotStarted;
        answer.message = Text::ofError(error);
        return answer;
    }
    int status = 0;
    if (!finish(&child, &status)) {
        answer.outcome = Answer::Silent;
        answer.message = QStringLiteral("nmcli has no answer after %1 s").arg(patienceMs / 1000);
        return answer;
    }
    answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (answer.status != Done) {
        answer.outcome = Answer::Refused;
        answer.message = lastLine(child.printed[1]);
        if (answer.message.isEmpty())
            answer.message = WIFEXITED(status)
                    ? QStringLiteral("nmcli ends with status %1").arg(answer.status)
                    : QStringLiteral("nmcli is ended by signal %1").arg(WTERMSIG(status));
        return answer;
    }
    answer.outcome = Answer::Answered;
    const QString output = QString::fromUtf8(child.printed[0]);
    for (const QString &line : output.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        answer.rows.append(columns(line));
    return answer;
}

Answer list(const QString &fields, const QStringList &arguments)
{
    return ask(QStringList{ QStringLiteral("-t"), QStringLiteral("-f"), fields } + arguments);
}

} // namespace Nmcli
