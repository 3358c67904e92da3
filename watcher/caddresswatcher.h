// SPDX-License-Identifier: MIT
#ifndef HOPLANE_CADDRESSWATCHER_H
#define HOPLANE_CADDRESSWATCHER_H

#include <QtCore/QThread>

/**
 * The decoded view of one uevent. Its pointers point into the message and are valid as long as
 * that is; null stands for an absent key.
 */
struct lan_switch
{
    const char *name; /**< SWITCH_NAME */
    const char *action; /**< ACTION */
    const char *path; /**< DEVPATH */
    qint32 state; /**< SWITCH_STATE, decimal; 0 when absent */
};

/**
 * A thread that blocks on a netlink socket and turns link events into signals.
 *
 * On a processor whose architecture name (QSysInfo::currentCpuArchitecture()) contains "arm" it
 * listens to the uevents of the LAN switch "/devices/virtual/switch/lan-switch" and emits
 * reopen_network(). On any other it listens to the kernel's link notifications of all interfaces,
 * prints each that tells of a link's state (RTM_NEWLINK) to standard output, and emits
 * addressChanged() or netWorkdown() for it.
 *
 * Thread: run() emits the signals from the thread that it runs in, parse_uevent() from its
 * caller's; the object itself belongs to the thread of its owner, where slotFinish() and goToEnd()
 * are called.
 *
 * Lifetime: nothing ends the uevent loop. The link loop ends, and with it the thread, after a
 * failed or empty read or an error message of the kernel; it is not started again. Destroying the
 * object while its thread runs ends the process (QThread).
 */
class Q_DECL_EXPORT CAddressWatcher : public QThread
{
    Q_OBJECT

public:
    /** Makes the thread object; start() runs it. */
    explicit CAddressWatcher(QObject *parent);

    /** Neither stops the thread nor closes its socket. */
    ~CAddressWatcher() override;

    /** Notes that the end is wanted. The loops do not look at it. */
    void goToEnd();

    /**
     * Opens the kernel's uevent socket, bound to all groups, with a receive buffer of 65536 bytes
     * if the process may force it (CAP_NET_ADMIN).
     *
     * @return the descriptor, owned by the caller; -1 on failure
     */
    int open_uevent_socket();

    /**
     * Decodes one uevent. One of the LAN switch whose action begins with "change" is logged and
     * emitted as reopen_network(), one of the LAN switch without an action is logged, and any other
     * is ignored.
     *
     * @param msg NUL-terminated strings, ended by an empty one
     * @param cdev receives what is found; its fields are set to null and 0 by the caller. Keys
     *        after the path of another device are not read.
     */
    void parse_uevent(const char *msg, lan_switch *cdev);

    /** The listening loop of the thread. */
    void run() override;

Q_SIGNALS:
    /** A link notification with IFF_LOWER_UP set; of any interface, the loopback included. */
    void addressChanged();

    /** A link notification with IFF_LOWER_UP clear. */
    void netWorkdown();

    /**
     * The LAN switch reported @p state, whether or not it differs from the one before; 0 when the
     * event carries none.
     */
    void reopen_network(int state);

public Q_SLOTS:
    /** The worker's notice that a search ended; logs one line. */
    void slotFinish();

private:
    Q_DECL_HIDDEN void listenToUevents(char *buffer, lan_switch *cdev);
    Q_DECL_HIDDEN void listenToLinks(char *buffer);
    Q_DECL_HIDDEN bool handleLinkMessages(const char *data, int length);
    Q_DECL_HIDDEN void handleNewLink(const char *message, int length);

    bool bRunning = true;
    bool bAddressChanged = false;
    bool bFinishPending = false;
};

#endif
