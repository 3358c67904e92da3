// SPDX-License-Identifier: MIT
#pragma once

#include "logline.h"
#include "nmclicommand.h"
#include "output.h"
#include "searchaccount.h"

#include <QHash>
#include <QJsonObject>
#include <QList>

#include <functional>

// A line of the log, without what a journal puts before it.
struct LogEntry
{
    QString text;
    Moment when;
    QString program; // that wrote it, empty if that is not known
    QString process; // the program with its number
};

// Something that the library did, or met, in words.
struct Step
{
    enum Kind {
        Begin,
        Correction,
        Lookup,
        NoConnection,
        Netmask,
        CannotStart,
        Oversized,
        Message,
        Set,
        Activate,
        Reactivate,
        Addressing,
        Address,
        Skip,
        Port,
        Attempt,
        Probe,
        Reached,
        TimeLimit,
        Refresh,
        Configuration,
        Started,
        Import,
        Online,
        Network,
        Socket,
        SwitchEvent,
        Link,
        AddressChange,
        Busy,
        Clock,
        Ended,
        UnknownLine,
    };
    Kind kind = UnknownLine;
    QString text;
    Output::Style style = Output::Plain;
    bool detail = false; // of interest only to whoever wants everything
    int search = 0; // the number of the search, or of the re-opening; 0 outside
    SearchAccount::Kind searchKind = SearchAccount::Search;
    int pass = 0; // of a search, over both networks
    Moment when;
    std::optional<double> elapsed; // since the search's beginning
    std::optional<double> duration;
    QJsonObject fields; // what else belongs to the kind

    QJsonObject object() const;
};

// Reads the library's log of one process and tells what it means. Does no input or output.
class Narrator
{
public:
    using OnStep = std::function<void(const Step &)>;
    using OnEnd = std::function<void(const SearchAccount &)>;

    Narrator(OnStep onStep, OnEnd onEnd);

    void feed(const LogEntry &entry, const LogLine &line);
    // There is nothing more to come after the last line, or after `when`; `why` of a search that
    // has not ended.
    void finish(const QString &why, const std::optional<Moment> &when = std::nullopt);

    // For whoever reads along with a process that runs: what leads the library to do something is
    // all announced, by link notifications, events of the LAN switch and this: start() is emitted.
    void readAlong() { m_alongside = true; }
    void announceSearch() { ++m_starts; }
    // Whether the configuration that is read next has switching enabled; `unusable`: why not all
    // of it is understood, empty if it is.
    void setEnabled(bool enabled, const QString &unusable)
    {
        m_enabled = enabled;
        m_unusable = unusable;
    }

    // The search or re-opening that is under way; null if there is none.
    const SearchAccount *current() const { return m_account ? &*m_account : nullptr; }
    // Whether one that was announced has not begun yet.
    bool awaitsSearch() const { return m_starts > 0; }
    // What the library is doing now.
    QString activity() const;

    // Without characters that a terminal might obey.
    static QString printable(QString text);

private:
    enum Phase { Resting, LookingUp, Setting, Activating, Probing, Reactivating, Ending };
    struct Turn
    {
        int network = 0; // 0 if the log does not tell
        bool over = true;
        int attempts = 0;
        QString server; // that is tried
        Moment probed; // when the attempts began
        Moment tried; // when the latest ended
        QString printed; // by the commands so far
        QString trouble;
        bool isRefused = false; // the addressing, by nmcli
    };
    static constexpr double secondsOfAttempt = 0.5;
    using Handler = void (Narrator::*)(const LogLine &);
    static const QHash<int, Handler> handlers; // by the kind of line

    // One a line of the log.
    void newFacade(const LogLine &line);
    void importMissing(const LogLine &line);
    void online(const LogLine &line);
    void networkEvent(const LogLine &line);
    void socket(const LogLine &line);
    void switchEvent(const LogLine &line);
    void eventWithoutAction(const LogLine &line);
    void linkNotification(const LogLine &line);
    void commandMessage(const LogLine &line);
    void unknown(const LogLine &line);
    void fileMissing(const LogLine &line);
    void server(const LogLine &line);
    void addressCompared(const LogLine &line);
    void sameAddress(const LogLine &line);
    void netmaskError(const LogLine &line);
    void lookupCommand(const LogLine &line);
    void connectionFound(const LogLine &line);
    void noConnection(const LogLine &line);
    void cannotStart(const LogLine &line);
    void oversized(const LogLine &line);
    void commandRun(const LogLine &line);
    void addressing(const LogLine &line);
    void portUnusable(const LogLine &line);
    void attemptFailed(const LogLine &line);
    void localAddress(const LogLine &line);
    void hostAvailable(const LogLine &line);
    void reactivated(const LogLine &line);
    void timeLimit(const LogLine &line);
    void searchFinished(const LogLine &line);
    void addressChanged(const LogLine &line);
    void busy(const LogLine &line);
    void refresh(const LogLine &line);

    // What the worker is at.
    void noteClock(const LogLine &line);
    void decide();
    void ignoreConfiguration();
    void rest(const QString &why);
    void begin(bool ofSearch);
    void work(bool ofSearch);
    void takeBackPresumption();
    void startTurn();
    void openTurn(int network);
    void newTurn();
    void closeProbe();
    void endRepeatedSkips();
    void end(const Moment &when);
    int nextNetwork() const;
    NetworkAccount *network();
    void inferNetwork(const QString &server);
    void noteTrouble(const QString &trouble);
    std::optional<double> spentOnAttempts(int count, const Moment &until) const;
    void spendOnAttempt();
    bool isProbeOpen() const;

    // Telling.
    Step step(Step::Kind kind, const QString &text, Output::Style style = Output::Plain) const;
    Step ofNetwork(Step::Kind kind, const QString &text, Output::Style style = Output::Plain) const;
    void tell(const Step &step);
    void tellBeginning();
    void tellWaiting();
    void tellLookup(Step step);
    void tellHeldLookup();
    void tellSetting(const QString &command, const QString &output, const NmcliCommand &parsed);
    void tellActivation(Step::Kind kind, const QString &command, const QString &output);
    void tellCommand(Step told, const QString &command, const QString &output,
                     const QString &message);
    std::optional<double> sinceLast() const { return between(m_last, m_now.when); }
    QString takeMessages();

    OnStep m_onStep;
    OnEnd m_onEnd;
    bool m_alongside = false;
    std::optional<bool> m_enabled;
    QString m_unusable;

    LogEntry m_now; // the line that is looked at
    double m_clockSet = 0; // seconds by which the clock was set in this search
    Moment m_last; // of the worker's latest line
    std::optional<Moment> m_configured; // the configuration has been read, and not yet what for
    QString m_servers[2];
    std::optional<SearchAccount> m_account; // of the search that is under way
    int m_numbers[2] = {}; // of searches and re-openings so far
    QList<Step> m_waiting; // until it is known what the configuration has been read for
    Phase m_phase = Resting;
    Turn m_turn;
    // What waits to be handled by the worker.
    int m_starts = 0;
    int m_linksDown = 0;
    QList<int> m_switchStates;

    std::optional<Step> m_heldLookup; // of which the next line tells what it is for
    QString m_connection; // looked up by its name; null for the active one
    bool m_notFound = false; // has been told
    QString m_messages; // of commands, since the last line of one
    QString m_localAddress;
    QString m_deviceAddress; // that was compared
    QString m_compared[2]; // of each network, what was told last
    QString m_skipped[2];
    int m_repeatedSkips = 0;
};
