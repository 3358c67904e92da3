// SPDX-License-Identifier: MIT
#ifndef HOPLANE_H
#define HOPLANE_H

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QThread>
#include <QtNetwork/QNetworkConfiguration>

QT_BEGIN_NAMESPACE
class QNetworkConfigurationManager;
QT_END_NAMESPACE

// Qt 5.15 marks its network configurations as deprecated, without a successor in Qt 5.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED

/**
 * The one object through which an application uses the failover between its two servers.
 *
 * Take it with instance(), connect to its signals, emit start(). A search then applies the local
 * addressing of each network in turn to the wired connection, tests by TCP whether that network's
 * server accepts, and goes on until one does or 120 seconds are over.
 *
 * Thread: the object belongs to the thread of the first instance() call, here called the
 * application thread. That thread has to run a Qt event loop: switchBegin(), switchSuccess(),
 * switchFailed() and the reaction to a link change are delivered through it. All blocking work
 * (shell commands, probes, sleeps, the kernel socket) is done in two threads that the object starts
 * at construction.
 *
 * Lifetime: from the first instance() call until the process ends. Nothing stops the two threads,
 * and deleting the object while they run ends the process (QThread's "Destroyed while thread is
 * still running"). That is the design: leave the object alone.
 *
 * Configuration: the file "switch.ini" in a folder named after
 * QCoreApplication::applicationName() in the user's documents folder
 * (QStandardPaths::DocumentsLocation). It is read at the beginning of each search and of each
 * reaction to a link event, so a value that a function below has stored is in force from the next
 * one on. Set the application's name before the first call. Nothing validates the values: a wrong
 * one shows as a failed command or a failed probe. They become parts of shell commands: never store
 * a text from somebody who is not trusted to run commands as the application.
 *
 * Binary interface: as long as the library is libhoplane.so.1, an application that was built with
 * an earlier version of it runs with this one unchanged.
 *
 * Errors: nothing here throws. A failed search arrives as switchFailed(). Of the other failures
 * some are reported in the log (Qt's message logger, category "default"), the rest, such as a file
 * that cannot be read or written, not at all.
 */
class Q_DECL_EXPORT Hoplane : public QObject
{
    Q_OBJECT

public:
    /**
     * Returns the object; the first call makes it. Never null.
     *
     * The first call imports the device's network settings (loadSwitchLocalConfig()) and starts
     * the two threads; it starts no search. It needs a QCoreApplication. Not synchronised: make
     * the first call in the application thread, before any other thread calls.
     */
    static Hoplane *instance();

    /** Used by instance(), which passes null. An application has no need to call it. */
    explicit Hoplane(QObject *parent);

    /** Ends the process if the threads still run, see Lifetime above. */
    ~Hoplane() override;

    /**
     * Stores whether failover is enabled (@p switchEnable) and both servers' IPv4 addresses and
     * TCP ports, as text, the port in decimal.
     *
     * Keys: SwitchEnable, FirstServerIp, FirstServerPort, SecondServerIp, SecondServerPort; all
     * others keep their values. The values are stored unchanged and unchecked, an empty text
     * replaces what was there, a missing file is made. May be called without an instance and in
     * any thread that does not race with another writer. With @p switchEnable false, a search
     * ends at once and signals nothing at all.
     *
     * @return always true, also when the file cannot be written.
     */
    static bool saveSwitchInfoToFile(bool switchEnable, QString firstServerIp,
                                     QString firstServerPort, QString secondServerIp,
                                     QString secondServerPort);

    /**
     * Stores the name of the wired NetworkManager connection that is reconfigured (key
     * connectionName). Empty means the active connection, of which there has to be one only.
     * Otherwise as saveSwitchInfoToFile(). instance() replaces the value when the device has a
     * network settings file.
     */
    bool saveConnectionName(QString connectionName);

    /**
     * Stores the local addressing that the device uses to reach the first server.
     *
     * @param isAutomatically against its name: true applies the static addressing of the other
     *        parameters, false applies automatic addressing (DHCP)
     * @param localIp IPv4 address, dotted
     * @param localMask IPv4 netmask, dotted; 255.0.0.0 is applied as prefix length 6, anything
     *        that has not four parts as prefix length 0
     * @param localGateWay IPv4 address of the gateway; empty leaves the connection's gateway alone
     * @param preferredDns first name server; may be empty
     * @param spareDns second name server; may be empty; both empty leave the connection's alone
     *
     * Keys: FirstIsAutomatically, FirstLocalIp, FirstLocalMask, FirstLocalGateWay,
     * FirstPreferredDNS, FirstSpareDNS. Otherwise as saveSwitchInfoToFile(). instance() replaces
     * the values when the device has a network settings file.
     *
     * "Ino" in the name is part of the interface.
     */
    bool saveFirstLocalInoToFile(bool isAutomatically, QString localIp, QString localMask,
                                 QString localGateWay, QString preferredDns, QString spareDns);

    /**
     * The same for the second server: keys SecondIsAutomatically, SecondLocalIp, SecondLocalMask,
     * SecondLocalGateWay, SecondPreferredDNS, SecondSpareDNS.
     */
    bool saveSecondLocalInfoToFile(bool isAutomatically, QString localIp, QString localMask,
                                   QString localGateWay, QString preferredDns, QString spareDns);

    /**
     * Copies the connection name and the local addressing of both networks from the device's own
     * "/userdata/netSettings.ini" into the configuration file; its main network becomes the first
     * server's, its spare network the second server's. Missing texts are stored as empty. Each flag
     * is stored as the negation of the network's bDhcpEnabled, or else of the common one, or else
     * of true.
     *
     * Runs once in the constructor, in the constructing thread. Without that file it logs one
     * warning and changes nothing. The enable flag and the servers are never touched.
     */
    void loadSwitchLocalConfig();

Q_SIGNALS:
    /**
     * With switching enabled: the LAN switch reported its state (ARM), or the kernel notified of a
     * link that is down, whichever interface it is (other processors). In the first case
     * switchSuccess() follows if the selected server answers, and nothing if it does not; in the
     * second nothing follows from it. A search begun with start() does not emit it.
     */
    void switchBegin();

    /**
     * The server @p serverIP accepted a TCP connection on @p serverPort, after the library ran the
     * commands for its network's local addressing (one that failed shows in the log only). Both are
     * the configured texts, unchanged.
     */
    void switchSuccess(QString serverIP, QString serverPort);

    /**
     * A search found no server. It begins no new pass over both networks after 120 seconds, and
     * finishes the one it is in, so this comes at most one pass later. @p errorCode is always -1,
     * @p errorStr always the same text for a person to read.
     */
    void switchFailed(QString errorStr, int errorCode);

    /**
     * Emitted by the application to say which server it uses. Accepted and without any effect on
     * the failover; @p serverIP is not looked at.
     */
    void sendCurrentServerip(QString serverIP);

    /**
     * Emitted by the application to ask for a search. Exactly one switchSuccess() or
     * switchFailed() follows, unless switching is disabled or the configuration file is missing:
     * then nothing follows. A request made during a search runs after it.
     *
     * On processors other than ARM, a notification of a link that is up makes the object emit it
     * too: one that comes during a search that the application asked for does so after that search,
     * one that comes during a search begun this way is lost. None does so while the last search
     * found switching disabled.
     */
    void start();

public Q_SLOTS:
    /** Receives the platform's online state; logs it and does nothing else. */
    void networkOnline(bool online);

    /** Receives a changed network configuration; logs its name and does nothing else. */
    void networkChanged(const QNetworkConfiguration &config);

    /** Receives an added network configuration; logs its name and does nothing else. */
    void networkAdd(const QNetworkConfiguration &config);

    /** Receives a removed network configuration; logs its name and does nothing else. */
    void networkRemove(const QNetworkConfiguration &config);

    /** Receives the worker's notice of a link change: emits start(). */
    void onIpChanged();

private:
    QNetworkConfigurationManager *m_pConfigManager = nullptr;
    QThread m_workerThread;
};

QT_WARNING_POP

#endif
