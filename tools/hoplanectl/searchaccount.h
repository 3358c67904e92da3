// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

// A moment, as far as it is known.
struct Moment
{
    std::optional<double> seconds; // of a clock that only has to go on
    bool wholeSeconds = false; // it is not known more exactly
    QString text; // as people read it
};

// From one to the other in seconds; nothing if either is unknown, or a clock was set back.
std::optional<double> between(const Moment &from, const Moment &to);
// "3.2 s"
QString inWords(double seconds, bool whole);
// The same, with "20 ms" where it is short.
QString spent(double seconds, bool whole);

// A server in a sentence, also where the log does not tell which one it is.
QString orTheServer(const QString &server);

// What became of one network in a search.
struct NetworkAccount
{
    QString server; // "192.0.2.1:9000", as configured
    int turns = 0; // in which it was applied and its server tried
    int attempts = 0; // that failed
    bool attemptsMissing = false; // the log lacks some
    int skipped = 0; // turns in which nothing was done
    QString skipReason;
    int troubles = 0; // turns in which a command failed
    QString trouble; // the latest
    QString unusablePort;

    // Why no server was reached; nothing if it was never this network's turn.
    QString reason() const;
    QJsonObject object() const;
};

// A search from its beginning to its end, or the re-opening that follows from the LAN switch.
struct SearchAccount
{
    enum Kind { Search, Reopening };
    enum Outcome { Open, Reached, Failed, Unfinished };

    Kind kind = Search;
    bool presumed = false; // that it is a re-opening
    bool partial = false; // its beginning is not in the log
    bool bothStatic = false;
    bool estimated = false; // some duration of attempts is reckoned instead of measured
    int number = 0;
    int state = 0; // of the LAN switch
    int passes = 0;
    Moment begin;
    Moment end;
    Outcome outcome = Open;
    QString why; // it is unfinished
    QString clockSet; // "forward" or "back", if the clock was set meanwhile
    int network = 0; // 1 or 2, that reached its server
    QString server;
    NetworkAccount networks[2];
    double lookups = 0; // seconds spent on each
    double commands = 0;
    double attempts = 0;

    // Of how many attempts a turn is made; 0 if that is not known.
    int attemptsOfTurn() const;
    // Nothing if the clock was set meanwhile.
    std::optional<double> duration() const;

    QString text() const; // how it ended, in one line
    QStringList reasons() const; // a line a network: why its server was not reached
    QJsonObject object() const;

private:
    QString ending() const;
};
