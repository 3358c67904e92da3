// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What people type, and whether the library can do anything with it.
namespace Values {

// Why a text is not taken, in the terms of whoever typed it.
struct Refusal
{
    QString value;
    QString reason;
    QString example;

    QString text() const;
};
using Verdict = std::optional<Refusal>;

// A number without signs, blanks and leading zeros; nothing if it is none, or too large.
std::optional<int> number(const QString &text, int most);

// An IPv4 address in four decimal parts, each without leading zeros, as one machine can have it.
Verdict address(const QString &text, const QString &what, const QString &example);

// IP:PORT.
struct Server
{
    QString ip;
    QString port;
};
Verdict server(const QString &text, Server *server);

// The port of the server, which the text names.
Verdict port(const QString &text, const QString &port);

// ADDRESS/PREFIX of the device, its gateway (may be empty), its name servers (none to two).
struct Addressing
{
    QString ip;
    QString mask;
    QString gateway;
    QStringList dns;
};
Verdict addressing(const QString &address, const QString &gateway, const QStringList &dns,
                   Addressing *addressing);

// The name of a connection of NetworkManager. Empty is refused: `set connection` wants a name.
Verdict connectionName(const QString &name);

// Whether an INI file of Qt gives the text back: it loses each character beyond U+FFFF.
bool isKept(const QString &text);

// The prefix length that the library makes of a dotted netmask; nothing if it has not four parts
// from 0 to 255. And the one that the netmask has, nothing if its one bits have gaps.
std::optional<int> appliedPrefix(const QString &mask);
std::optional<int> truePrefix(const QString &mask);

// "255.255.255.0" of 24.
QString maskOf(int prefix);

// The 32 bits of an address in four decimal parts.
std::optional<quint32> bits(const QString &address);

// An addressing in the file's texts, which nobody has validated: the same rules.
Verdict storedAddressing(const QString &ip, const QString &mask, const QString &gateway,
                         const QStringList &dns);

} // namespace Values
