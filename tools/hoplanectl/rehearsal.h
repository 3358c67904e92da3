// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>

class NetworkSwitchWorker;
class QNetworkInterface;

// Has the library do its work without any effect. From the first play() on, until the process ends,
// what the library calls below itself only writes down what it was asked for and answers at once:
// commands are not run, nothing is connected to, no name is resolved, nothing sleeps, and the link
// watcher does not start.
namespace Rehearsal {

struct Step
{
    enum Kind { Command, Attempt };

    Kind kind;
    QString command; // exactly as it would be run
    int milliseconds; // what the attempt sleeps
};

struct Account
{
    QVector<Step> steps; // in their order
    QStringList targets; // what was to be connected to, "IP:PORT", each once
    QStringList names; // what was to be resolved, each once
    QStringList log; // the library's lines
};

// What the command prints when the library runs it; any other prints nothing.
void setAnswer(const QString &command, const QByteArray &output);

// The address that the library finds on the device, instead of the real one.
void setDeviceAddress(const QString &address);

// The interfaces that the library finds on the device, instead of the real ones.
void setInterfaces(const QList<QNetworkInterface> &interfaces);

// Calls `part` with a worker that has loaded the configuration.
Account play(const std::function<void(NetworkSwitchWorker &worker)> &part);

} // namespace Rehearsal
