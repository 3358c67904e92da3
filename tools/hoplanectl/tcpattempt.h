// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

struct sockaddr_in;

// One try to connect, as short as the library's.
struct TcpAttempt
{
    // In the order of what they say about the server.
    enum Outcome { Accepted, Refused, NoAnswer, NotTried };

    Outcome outcome;
    int error; // of errno, 0 if accepted
    double milliseconds; // until the answer, or until it was no longer waited for
    QString localAddress; // if accepted

    // Asks for a connection, waits for the answer at most so long, and closes it at once.
    static TcpAttempt make(const sockaddr_in &address, int milliseconds);
};

// The address in four decimal parts.
QString dottedAddress(const sockaddr_in &address);
