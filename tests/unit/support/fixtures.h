// SPDX-License-Identifier: MIT
#ifndef FIXTURES_H
#define FIXTURES_H

#include "hoplane.h"
#include "interpose.h"
#include "networkswitchworker.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QTemporaryDir>
#include <QtCore/QVector>

#include <atomic>
#include <memory>

/**
 * Writes a whole file that QSettings is to read. Gives it a modification time that no earlier one
 * had: QSettings keeps what it read last and tells by size and time whether to read again.
 */
void writeSettingsFile(const QString &path, const QByteArray &content);

/** switch.ini of the test's application; each test begins with setContent() or remove(). */
namespace SwitchIni {
QString path();
/** Replaces the whole file, its folder included. */
void setContent(const QByteArray &content);
QByteArray content();
void remove();
} // namespace SwitchIni

/**
 * What the thread that made it does with settings, in order, each as one line:
 *   "exists PATH", "contains KEY",
 *   "value KEY" (with an invalid default value), "value KEY or DEFAULT",
 *   "set KEY TYPE VALUE"
 */
class SettingsTrace
{
public:
    SettingsTrace();

    /** Sets the hooks settingsValue, settingsSetValue, settingsContains and step. */
    void addTo(Interpose::Hooks *hooks) const;

    QStringList lines() const { return *m_lines; }

private:
    std::shared_ptr<QStringList> m_lines;
};

/**
 * Gives the library's watcher one end of a socket pair in place of its netlink socket: each send()
 * is one read() (or recv()) of the watcher. Makes the hooks that do so; combine them with others
 * through addTo().
 */
class FakeNetlink
{
public:
    FakeNetlink();
    ~FakeNetlink();
    Q_DISABLE_COPY(FakeNetlink)

    /** Sets the hooks socket, setsockopt and bind. */
    void addTo(Interpose::Hooks *hooks) const;

    void send(const QByteArray &bytes);
    /** The watcher's next read returns 0, which ends a link-notification loop. */
    void end();

private:
    int m_watcherEnd = -1;
    int m_testEnd = -1;
};

/**
 * A worker in the test's own thread, with its watcher in link-notification mode on a FakeNetlink.
 * Ends the watcher's thread before the worker is destroyed. The worker's hooks are @p hooks plus
 * those of the FakeNetlink and an architecture of "x86_64" where the hooks set none.
 */
class WorkerFixture
{
public:
    explicit WorkerFixture(Interpose::Hooks hooks = Interpose::Hooks());
    ~WorkerFixture();
    Q_DISABLE_COPY(WorkerFixture)

    /** Changes hooks while the worker lives; keeps those of the FakeNetlink. */
    void setHooks(Interpose::Hooks hooks);

    /** Until the watcher's thread reads: it opens descriptors of its own before that. */
    void waitUntilItListens() const;

    NetworkSwitchWorker &operator*() { return *m_worker; }
    NetworkSwitchWorker *operator->() { return m_worker.get(); }
    NetworkSwitchWorker *get() { return m_worker.get(); }
    FakeNetlink &netlink() { return m_netlink; }

private:
    FakeNetlink m_netlink;
    const std::shared_ptr<std::atomic<bool>> m_listens = std::make_shared<std::atomic<bool>>(false);
    std::unique_ptr<NetworkSwitchWorker> m_worker;
};

/**
 * Hoplane::instance(), made by the first call with a watcher in link-notification mode on any
 * processor. Returns once the watcher has taken that mode, without any hooks.
 */
Hoplane *lastingFacade();

/**
 * Puts the fake nmcli (tests/fakes/nmcli.cpp) first on PATH and plays a scenario: a file of
 * tests/fakes/scenarios by name, or lines given directly.
 */
class FakeNmcli
{
public:
    explicit FakeNmcli(const QString &scenario = QStringLiteral("lan"));
    ~FakeNmcli();
    Q_DISABLE_COPY(FakeNmcli)

    void play(const QString &scenario);
    /** Lines as in a scenario file, see tests/fakes/nmcli.cpp. */
    void playLines(const QByteArray &lines);

    /** The arguments of each call so far, as the shell made them. */
    QVector<QStringList> calls() const;
    void clearCalls();

    /** Lets a "slow" command go on; see the behaviours. */
    void release();

private:
    QTemporaryDir m_folder;
    QByteArray m_path;
};

/** Sets PATH to a folder that holds awk and whatever the test puts there; puts it back after. */
class PrivatePath
{
public:
    PrivatePath();
    ~PrivatePath();
    Q_DISABLE_COPY(PrivatePath)

    QString folder() const { return m_folder.path(); }

private:
    QTemporaryDir m_folder;
    QByteArray m_path;
};

/** While it lives, this thread may not override file permissions, even as root. */
class WithoutFileOverride
{
public:
    WithoutFileOverride();
    ~WithoutFileOverride();
    Q_DISABLE_COPY(WithoutFileOverride)
};

#endif
