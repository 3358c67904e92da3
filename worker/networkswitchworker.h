// SPDX-License-Identifier: MIT
#ifndef HOPLANE_NETWORKSWITCHWORKER_H
#define HOPLANE_NETWORKSWITCHWORKER_H

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>

QT_BEGIN_NAMESPACE
class QHostAddress;
class QNetworkInterface;
QT_END_NAMESPACE

class CAddressWatcher;

/**
 * Does the failover work: holds the configuration, applies addressing through nmcli, probes the
 * servers, runs the search and reacts to link events.
 *
 * Applications use Hoplane, which makes the one worker and moves it into the worker thread. The
 * class is exported for embedding code and for tests.
 *
 * Thread: every function and slot runs in the thread that the worker lives in and blocks it, up
 * to some 120 seconds plus one pass for a search. No function is safe to call from another thread
 * while the worker lives there. Queued events wait meanwhile and are delivered afterwards.
 *
 * Lifetime: the worker owns the link watcher, whose thread its constructor starts. Destroying the
 * worker while that thread runs ends the process, and nothing in the library stops the thread;
 * that is the design.
 *
 * Errors: nothing throws. Texts (addresses, netmasks, ports, the connection name) are not
 * validated; a wrong one shows as a failed command or a failed probe. They reach the shell as they
 * are: never let them come from somebody who is not trusted to run commands.
 */
class Q_DECL_EXPORT NetworkSwitchWorker : public QObject
{
    Q_OBJECT

public:
    /** The configuration as loaded last; fields and sense as in switch.ini. */
    struct PrivateData;

    /**
     * Starts the 3000 ms statistics timer and the link watcher's thread in the calling thread,
     * and connects the watcher. Searches nothing.
     */
    explicit NetworkSwitchWorker(QObject *parent);

    /** Stops the timer. Neither ends nor waits for the watcher's thread, see Lifetime above. */
    ~NetworkSwitchWorker() override;

    /** Starts the 3000 ms timer unless it runs. */
    void startStatisticsTimer();

    /** Stops the timer if it runs. */
    void stopStatisticsTimer();

    /** The statistics timer's tick; does nothing. */
    void timerEvent(QTimerEvent *event) override;

    /** Always true; looks at nothing. */
    bool IsSameAsCurConfig();

    /** False for a loopback or link-local address, true for any other, a null one included. */
    bool filterInvalidIP(const QHostAddress &addr);

    /**
     * Fills the record from switch.ini and logs both servers. A missing file disables switching
     * and leaves the rest of the record as it was; a missing key gives false or empty text.
     *
     * On a processor whose architecture name does not contain "arm", a first network with its
     * flag false beside a second one with its flag true are exchanged in the record.
     */
    void loadConfig();

    /**
     * Tests whether a server completes a TCP handshake; sends and reads nothing.
     *
     * @param ip the server's address
     * @param port its port in decimal; false and one log line if it does not convert (0 does)
     * @param sleepMs milliseconds given to each attempt, 0 or more, always slept in full
     * @param maxTries number of attempts; below 1 gives false at once
     * @return true after the first attempt that connects
     *
     * After the eleventh failure of a longer run the wired connection is activated once more.
     * Blocks for up to maxTries * (sleepMs + 1) ms plus its two commands.
     */
    bool tryConnectRemote(QString ip, QString port, int sleepMs, int maxTries);

    /**
     * Returns the first usable address of the last interface that has one and whose flags are
     * exactly up, running, broadcast and multicast; null when there is none.
     */
    QString getIPAddress();

    /**
     * Finds the running interface that carries the IPv4 address @p ip; the last one wins.
     *
     * @param[out] humanName its human readable name
     * @param[out] adapter a copy of it
     * @return its system name; empty, with both parameters untouched, when there is none
     */
    QString getCurrentAdapterName(const QString &ip, QString &humanName,
                                  QNetworkInterface &adapter);

    /**
     * Runs one whole search: loads the configuration, then alternates between the two networks.
     * Ends with mySwitchSuccess() or mySwitchFailed(), then finished().
     *
     * With switching disabled it ends at once and signals nothing. The worker then counts as busy:
     * address changes are only logged until a later search finds switching enabled.
     */
    void findAvailableIp();

    /**
     * A step of findAvailableIp(), which loads the configuration before and resets the state after
     * it: alternates until a server answers; begins no new pass after 119999 ms of wall clock.
     */
    void doConnetServer();

    /**
     * A step of findAvailableIp(), as doConnetServer(): applies the first network's addressing and
     * probes its server, with 10 attempts of 500 ms, or 20 when both networks are static. With both
     * static, there is no command and no probe if this network's address contains the text of
     * getIPAddress(), an empty one included.
     *
     * @return true if the server answered; mySwitchSuccess() and finished() have been emitted
     */
    bool doConnetFirstServer();

    /** The same for the second network. */
    bool doConnetSecondServer();

    /**
     * Runs @p cmd through the shell and appends what it prints to the text in @p result.
     *
     * @param cmd at most 4095 bytes; a longer one is not run
     * @param result 4096 bytes, zero-terminated; what does not fit is dropped. Reading stops, with
     *        a warning, after the line with which the text would have passed 4096 bytes.
     * @return false if the command could not be started; its exit status is not looked at
     */
    bool excuCmd(const char *cmd, char *result);

    /**
     * Returns the UUID of the named NetworkManager connection; those of the active connections,
     * joined by blanks, if @p connectionName is empty; an empty text if nmcli prints none.
     */
    QString getNetWorkUuid(QString &connectionName);

    /**
     * Sets the configured connection to automatic addressing and activates it.
     *
     * @return false if no UUID was found, and the connection was not touched; true otherwise, also
     *         when a command failed
     */
    bool setLocalIpAuto();

    /**
     * Gives the configured connection a static address and activates it.
     *
     * @param ip IPv4 address, dotted
     * @param mask netmask, dotted; the prefix length is the count of its leading one bits, 6 for
     *        255.0.0.0, and 0 when it has not four parts. A part that is no number counts as 0, one
     *        above 255 spills into the part before it.
     * @param gateway left out of the command when empty
     * @param dns1 name server, left out of the command when empty
     * @param dns2 name server, left out of the command when empty
     * @return as setLocalIpAuto()
     */
    bool setStaticIpAddr(QString ip, QString mask, QString gateway, QString dns1, QString dns2);

    /** Applies the first network's addressing: static if its flag is true, else automatic. */
    void setFirstStaticIpAddr();

    /** Applies the second network's addressing: static if its flag is true, else automatic. */
    void setSecondStaticIpAddr();

Q_SIGNALS:
    /** With switching enabled: the LAN switch reported its state, or a link is notified as down. */
    void mySwitchBegin();

    /** The server answered; both texts are the configured ones. */
    void mySwitchSuccess(QString serverIP, QString serverPort);

    /** A search found no server in time; @p errorCode is always -1. */
    void mySwitchFailed(QString errorStr, int errorCode);

    /** A search with switching enabled ended; its outcome has been signalled. */
    void finished();

    /** An address change was seen while the worker was idle; asks for a search. */
    void ipChanged();

public Q_SLOTS:
    /** Runs findAvailableIp() and connects the watcher's addressChanged() once more. */
    void start();

    /** Starts the statistics timer unless it runs. */
    void resume();

    /** Does nothing; the timer goes on. */
    void pause();

    /** Remembers that it was called; @p serverIP is not looked at. */
    void onSendCurrentServerip(QString serverIP);

    /** While idle: disconnects itself from the watcher and emits ipChanged(). Else only logs. */
    void slotAddressChanged();

    /** Loads the configuration and emits mySwitchBegin() if switching is enabled. */
    void slotNetWorkDown();

    /**
     * Applies the addressing of the network that @p state selects (0 the first, any other value
     * the second) and probes its server with 20 attempts of 500 ms. Emits mySwitchBegin(), then
     * mySwitchSuccess() if the server answers and nothing if it does not. Does nothing when
     * switching is disabled.
     */
    void slotReopen_network(int state);

    /**
     * Insists on automatic addressing: activates up to 21 times until nmcli prints something.
     * Only logs unless a refresh is due, and nothing in the library makes it due.
     */
    void slotTryRefreshNetwork();

private:
    struct Network;

    Q_DECL_HIDDEN QString configuredUuid(const char *function);
    Q_DECL_HIDDEN void executeAndLog(const char *function, const char *label,
                                     const QString &command, char *result);
    Q_DECL_HIDDEN void insistOnActivation(const char *function, const QString &command,
                                          char *result);
    Q_DECL_HIDDEN void applyLocalAddressing(const char *function, const Network &network);
    Q_DECL_HIDDEN void reactivateConnection();
    Q_DECL_HIDDEN bool isOnLocalAddress(const char *function, const Network &network);
    Q_DECL_HIDDEN bool connectNetwork(const char *function, const Network &network);
    Q_DECL_HIDDEN void reopenNetwork(const Network &network);

    QSharedPointer<CAddressWatcher> m_watcher;
    int m_nTimerId;
    int m_nSwitchState;
    QScopedPointer<PrivateData> d;
    QString m_strStaticAddress;
    QString m_strCurrentServerIp;
    bool m_bSendCurrentServerIp;
    bool m_bNeedRefresh;
};

#endif
