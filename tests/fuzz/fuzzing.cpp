// SPDX-License-Identifier: MIT
#include "fuzzing.h"

#include "caddresswatcher.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QSysInfo>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QVector<Fuzzing::Line> lines;
Fuzzing::Answer answer;
QString architecture = QStringLiteral("x86_64");

void capture(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    // Qt has its own about what it cannot make a value of.
    static const QRegularExpression ofQt(QStringLiteral("^(Q\\w+:|Trying to c)"));
    if (!ofQt.match(text).hasMatch())
        lines.append({ type, text });
}

QString shown(const QVector<Fuzzing::Line> &some)
{
    QString text;
    for (const Fuzzing::Line &line : some)
        text += QString::number(int(line.type)) + QLatin1Char(' ') + line.text + QLatin1Char('\n');
    return text;
}

/** A stream that gives the bytes, as a pipe would. */
struct Reading
{
    std::string bytes;
    std::size_t at = 0;
};

ssize_t give(void *cookie, char *buffer, std::size_t size)
{
    auto *const reading = static_cast<Reading *>(cookie);
    const std::size_t length = std::min(size, reading->bytes.size() - reading->at);
    std::copy_n(reading->bytes.data() + reading->at, length, buffer);
    reading->at += length;
    return ssize_t(length);
}

int end(void *cookie)
{
    delete static_cast<Reading *>(cookie);
    return 0;
}

} // namespace

// In place of the functions that would run a command or listen.

extern "C" FILE *popen(const char *command, const char *)
{
    const std::string *const output = answer ? answer(command) : nullptr;
    if (!output)
        return nullptr;
    return fopencookie(new Reading{ *output }, "r", { give, nullptr, nullptr, end });
}

extern "C" int pclose(FILE *stream)
{
    return fclose(stream);
}

void QThread::start(Priority priority)
{
    // The watcher would listen to the machine's links. A facade's other threads only wait.
    if (qobject_cast<CAddressWatcher *>(this))
        return;
    const auto real = reinterpret_cast<void (*)(QThread *, Priority)>(
            dlsym(RTLD_NEXT, "_ZN7QThread5startENS_8PriorityE"));
    real(this, priority);
}

QString QSysInfo::currentCpuArchitecture()
{
    return architecture;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    static int count = 1;
    static char name[] = "fuzz";
    static char *arguments[] = { name, nullptr };
    static const QCoreApplication application(count, arguments);
    qInstallMessageHandler(capture);
    return 0;
}

QVector<Fuzzing::Line> Fuzzing::takeLog()
{
    QVector<Line> taken;
    taken.swap(lines);
    return taken;
}

void Fuzzing::require(const char *property, bool holds)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
}

void Fuzzing::requireEqual(const char *property, const QString &found, const QString &expected)
{
    if (found == expected)
        return;
    std::fprintf(stderr, "%s\n--- expected\n%s\n--- found\n%s\n", property, qPrintable(expected),
                 qPrintable(found));
    std::abort();
}

void Fuzzing::requireEqual(const char *property, const QVector<Line> &found,
                           const QVector<Line> &expected)
{
    if (found != expected)
        requireEqual(property, shown(found), shown(expected) + QLatin1Char(' '));
}

bool Fuzzing::runsOutOfMemory(const std::function<void()> &action)
{
    try {
        action();
    } catch (const std::bad_alloc &) {
        return true;
    }
    return false;
}

void Fuzzing::setAnswer(const Answer &wanted)
{
    answer = wanted;
}

NetworkSwitchWorker &Fuzzing::worker()
{
    // Never destroyed, as in an application.
    static auto *const theWorker = new NetworkSwitchWorker(nullptr);
    return *theWorker;
}

void Fuzzing::setArchitecture(const QString &name)
{
    architecture = name;
}

void Fuzzing::writeFile(const QString &path, const std::string &content)
{
    // Settings are read again only from a file of another size or time.
    static time_t time = 1000000000;
    ++time;
    QDir().mkpath(QFileInfo(path).path());
    const QByteArray name = QFile::encodeName(path);
    const int fd = open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const timespec times[] = { { time, 0 }, { time, 0 } };
    const bool written = write(fd, content.data(), content.size()) == ssize_t(content.size())
            && futimens(fd, times) == 0;
    close(fd);
    require("the file can be written", written);
}

std::string Fuzzing::readFile(const QString &path)
{
    QFile file(path);
    require("the file can be read", file.open(QIODevice::ReadOnly));
    return file.readAll().toStdString();
}

unsigned Fuzzing::Bytes::byte()
{
    if (m_size == 0)
        return 0;
    --m_size;
    return static_cast<unsigned char>(*m_data++);
}

std::string Fuzzing::Bytes::text()
{
    const char *const last = std::find(m_data, m_data + m_size, char(0xFF));
    std::string taken(m_data, last);
    const std::size_t used = std::min(m_size, taken.size() + 1);
    m_data += used;
    m_size -= used;
    return taken;
}

std::string Fuzzing::Bytes::rest()
{
    std::string taken(m_data, m_size);
    m_data += m_size;
    m_size = 0;
    return taken;
}
