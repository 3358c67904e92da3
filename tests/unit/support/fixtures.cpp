// SPDX-License-Identifier: MIT
#include "fixtures.h"

#include "peek.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSemaphore>
#include <QtCore/QStandardPaths>
#include <QtCore/QThread>

#include <chrono>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

void write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s: %s", qPrintable(path), qPrintable(file.errorString()));
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/** Sets or clears the two capabilities that override file permissions in the effective set. */
void setFileOverride(bool allowed)
{
    __user_cap_header_struct header = { _LINUX_CAPABILITY_VERSION_3, 0 };
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0)
        qFatal("capget failed");
    const quint32 mask = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
    data[0].effective =
            allowed ? data[0].effective | (mask & data[0].permitted) : data[0].effective & ~mask;
    if (syscall(SYS_capset, &header, data) != 0)
        qFatal("capset failed");
}

} // namespace

void writeSettingsFile(const QString &path, const QByteArray &content)
{
    // Past, so that no file that is written meanwhile has one of these times.
    static std::atomic<int> seconds{ 1000000000 };
    write(path, content);
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite)
        || !file.setFileTime(QDateTime::fromSecsSinceEpoch(++seconds),
                             QFileDevice::FileModificationTime))
        qFatal("cannot date %s: %s", qPrintable(path), qPrintable(file.errorString()));
}

QString SwitchIni::path()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + QLatin1Char('/')
            + QCoreApplication::applicationName() + QLatin1String("/switch.ini");
}

void SwitchIni::setContent(const QByteArray &content)
{
    remove();
    QDir().mkpath(QFileInfo(path()).path());
    writeSettingsFile(path(), content);
}

QByteArray SwitchIni::content()
{
    return readAll(path());
}

void SwitchIni::remove()
{
    QDir(QFileInfo(path()).path()).removeRecursively();
}

SettingsTrace::SettingsTrace()
    : m_lines(std::make_shared<QStringList>())
{
}

void SettingsTrace::addTo(Interpose::Hooks *hooks) const
{
    const auto add = [lines = m_lines, thread = QThread::currentThreadId()](const QString &line) {
        if (QThread::currentThreadId() == thread)
            lines->append(line);
    };
    hooks->settingsValue = [add](const QString &key, const QVariant &defaultValue) {
        add(QLatin1String("value ") + key
            + (defaultValue.isValid() ? QLatin1String(" or ") + defaultValue.toString()
                                      : QString()));
    };
    hooks->settingsSetValue = [add](const QString &key, const QVariant &value) {
        add(QStringLiteral("set %1 %2 ").arg(key, QLatin1String(value.typeName()))
            + value.toString());
    };
    hooks->settingsContains = [add](const QString &key) { add(QLatin1String("contains ") + key); };
    hooks->step = [add](const QString &step) {
        if (step.startsWith(QLatin1String("exists ")))
            add(step);
    };
}

FakeNetlink::FakeNetlink()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0)
        qFatal("socketpair failed");
    m_watcherEnd = ends[0];
    m_testEnd = ends[1];
}

FakeNetlink::~FakeNetlink()
{
    Interpose::forget(m_watcherEnd);
    close(m_watcherEnd);
    close(m_testEnd);
}

void FakeNetlink::addTo(Interpose::Hooks *hooks) const
{
    const int fd = m_watcherEnd;
    hooks->socket = [fd](int, int, int) { return fd; };
    hooks->setsockopt = [](int, int, int, const void *, socklen_t) { return 0; };
    hooks->bind = [](int, const sockaddr *, socklen_t) { return 0; };
}

void FakeNetlink::send(const QByteArray &bytes)
{
    if (::send(m_testEnd, bytes.constData(), size_t(bytes.size()), 0) != bytes.size())
        qFatal("cannot feed the watcher");
}

void FakeNetlink::end()
{
    shutdown(m_testEnd, SHUT_WR);
}

WorkerFixture::WorkerFixture(Interpose::Hooks hooks)
{
    setHooks(std::move(hooks));
    m_worker = std::make_unique<NetworkSwitchWorker>(nullptr);
}

WorkerFixture::~WorkerFixture()
{
    m_netlink.end();
    Peek::watcher(*m_worker)->wait();
    m_worker.reset();
    Interpose::install(Interpose::Hooks());
}

void WorkerFixture::setHooks(Interpose::Hooks hooks)
{
    m_netlink.addTo(&hooks);
    if (!hooks.currentCpuArchitecture)
        hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
    hooks.read = [listens = m_listens, read = hooks.read](int fd, void *buffer, size_t length) {
        *listens = true;
        return read ? read(fd, buffer, length) : Interpose::Real::read(fd, buffer, length);
    };
    Interpose::install(hooks);
}

void WorkerFixture::waitUntilItListens() const
{
    constexpr int patienceMs = 60000;
    for (int i = 0; !*m_listens; ++i) {
        if (i == patienceMs)
            qFatal("the watcher does not listen");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Hoplane *lastingFacade()
{
    static Hoplane *const facade = [] {
        const auto listening = std::make_shared<QSemaphore>();
        Interpose::Hooks hooks;
        hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
        hooks.socket = [listening](int domain, int type, int protocol) {
            listening->release();
            return Interpose::Real::socket(domain, type, protocol);
        };
        Interpose::install(hooks);
        Hoplane *made = Hoplane::instance();
        if (!listening->tryAcquire(1, 10000))
            qFatal("the watcher does not listen");
        Interpose::install(Interpose::Hooks());
        return made;
    }();
    return facade;
}

FakeNmcli::FakeNmcli(const QString &scenario)
    : m_path(qgetenv("PATH"))
{
    qputenv("PATH", QByteArray(FAKES_FOLDER ":/usr/bin:/bin"));
    qputenv("FAKE_NMCLI", m_folder.path().toLocal8Bit());
    play(scenario);
}

FakeNmcli::~FakeNmcli()
{
    release();
    qputenv("PATH", m_path);
    qunsetenv("FAKE_NMCLI");
}

void FakeNmcli::play(const QString &scenario)
{
    const QString file = QStringLiteral(SCENARIOS_FOLDER "/") + scenario;
    if (!QFile::exists(file))
        qFatal("no scenario %s", qPrintable(file));
    playLines(readAll(file));
}

void FakeNmcli::playLines(const QByteArray &lines)
{
    write(m_folder.filePath(QStringLiteral("scenario")), lines);
}

QVector<QStringList> FakeNmcli::calls() const
{
    QVector<QStringList> list;
    const QList<QByteArray> records =
            readAll(m_folder.filePath(QStringLiteral("calls"))).split('\x1e');
    for (const QByteArray &record : records) {
        // The last record is what follows the last separator: nothing.
        if (!record.isEmpty())
            list.append(QString::fromUtf8(record.chopped(1)).split(QChar(0x1f)));
    }
    return list;
}

void FakeNmcli::clearCalls()
{
    QFile::remove(m_folder.filePath(QStringLiteral("calls")));
}

void FakeNmcli::release()
{
    write(m_folder.filePath(QStringLiteral("released")), QByteArray());
}

PrivatePath::PrivatePath()
    : m_path(qgetenv("PATH"))
{
    QFile::link(QStringLiteral("/usr/bin/awk"), m_folder.filePath(QStringLiteral("awk")));
    qputenv("PATH", m_folder.path().toLocal8Bit());
}

PrivatePath::~PrivatePath()
{
    qputenv("PATH", m_path);
}

WithoutFileOverride::WithoutFileOverride()
{
    setFileOverride(false);
}

WithoutFileOverride::~WithoutFileOverride()
{
    setFileOverride(true);
}
