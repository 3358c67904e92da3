// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

// A line of the library's log, or of what else stands between such lines, taken apart.
struct LogLine
{
    enum Kind {
        Foreign, // of somebody else
        Unknown, // looks like the library's, and is none of those below
        Withheld, // journalctl names its size instead of showing it
        CommandMessage, // what a command of the library says on standard error
        LinkNotification, // number, "up" or "down", name; printed, not logged
        // The facade's thread.
        NewFacade,
        ImportMissing,
        OnlineBegins,
        OnlineEnds,
        Offline,
        NetworkEvent, // name
        // The watcher's thread.
        SocketOpened, // descriptor
        SocketReady, // descriptor
        SwitchEvent, // name, action, path, state
        EventWithoutAction,
        // The worker's thread, which does one thing after the other.
        FileMissing, // path
        FirstServer, // address, port
        SecondServer, // address, port
        AddressCompared, // the device's, the network's
        SameAddress, // the network's
        NetmaskError, // netmask
        LookupCommand, // command
        NamedConnection, // UUID
        ActiveConnections, // UUIDs
        NoConnection, // name
        CannotStart, // command
        Oversized,
        CommandRun, // command, output
        Applied,
        NotApplied,
        PortUnusable, // port
        AttemptFailed, // address, port, local address
        LocalAddress, // address
        HostAvailable, // address, port
        Reactivated, // command, output
        TimeLimit,
        SearchFinished,
        AddressChanged,
        Busy,
        NoRefreshDue,
        RefreshTakenBack,
        RefreshedAgain, // command, output
    };
    Kind kind = Foreign;
    QString function; // that logged it
    QStringList texts; // as commented above

    // Of the library for certain, or as good as.
    bool isLibrarys() const { return kind >= LinkNotification; }
    bool isWorkers() const { return kind >= FileMissing; }
    // Of what stands between the beginning and the end of a search.
    bool isOfSearch() const;
    // Whether the lines that follow may still belong to this one, being printed by a command.
    bool mayGoOn() const;

    static LogLine parse(const QString &text);
    static bool isLibraryFunction(const QString &function);
    // Where a line of the library begins in the text, after whatever stands before it; -1 if none.
    static int beginning(const QString &text);
};
