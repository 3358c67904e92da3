// SPDX-License-Identifier: MIT
#pragma once

#include "configuration.h"
#include "rehearsal.h"

#include <QString>
#include <QStringList>
#include <QVector>

// What a search would do, as the library itself does it in a rehearsal.
namespace Planning {

// A search begins no pass later than this.
constexpr int limitMs = 120 * 1000;
// How long nmcli takes at worst.
constexpr int hangingMs = 25 * 1000; // any command, when NetworkManager hangs
constexpr int interruptedMs = 90 * 1000; // an activation that is interrupted
// An activation that waits for a DHCP server in vain, where the connection's profile has no time.
constexpr int usualDhcpMs = 45 * 1000;

// The look-up of the connection's UUID.
struct LookUp
{
    QString command; // empty if the library does not run it
    QString uuid; // what the library makes of its output
    QString placeholderFor; // why nmcli could not be asked; empty if it was
};

// One network's part of a pass.
struct Turn
{
    int network; // of the file, 0 or 1
    bool skipped;
    QString deviceAddress; // that the library compares with
    QVector<Rehearsal::Step> steps;
    QStringList targets;
    QStringList names;
    QStringList warnings;

    int attempts() const;
};

// A try of both networks, one after the other.
struct Pass
{
    enum When { Each, First, Later, OnceAddressed };

    When when;
    QVector<Turn> turns;
};

enum class Purpose { LookUp, Change, Activation };

struct Plan
{
    Settings settings;
    QString idleBecause; // why a search would do nothing; empty if it would run
    QString processor;
    bool exchanged; // against the file's order
    LookUp lookUp;
    // That the library finds on the interfaces before and behind the connection's.
    QString addressBefore;
    QString addressBehind;
    QVector<Pass> passes;
    QStringList warnings;
    int silentDhcpMs = usualDhcpMs; // an activation that waits for a DHCP server in vain

    Purpose purposeOf(const Rehearsal::Step &step) const;
};

// The file has to be there.
Plan make(const QString &path);

// What a pass spends its time with.
struct Effort
{
    int attemptsMs = 0;
    int lookUps = 0;
    int changes = 0;
    int activations = 0;
    int automaticActivations = 0;
    int silentDhcpMs = usualDhcpMs; // of each automatic one

    // At most.
    int passMs() const
    {
        return attemptsMs + (lookUps + changes) * hangingMs + activations * interruptedMs;
    }
    int worstCaseMs() const { return limitMs + passMs(); }
    // With all well but the DHCP server.
    int silentDhcpCaseMs() const
    {
        return limitMs + attemptsMs + automaticActivations * silentDhcpMs;
    }
};

// Of the pass that may take longest.
Effort effortOf(const Plan &plan);

} // namespace Planning
