// SPDX-License-Identifier: MIT
#ifndef PROBELINES_H
#define PROBELINES_H

#include "logcapture.h"
#include "loopbackserver.h"

/** What the probe of a server logs. */
namespace ProbeLines {

inline QVector<Expected> failures(const QString &address, const QString &port, int count)
{
    const QString text = QStringLiteral("[ tryConnectRemote ] connect to host fail:  \"%1\"    %2"
                                        "  locak address: \"\"")
                                 .arg(address, port);
    return QVector<Expected>(count, { QtDebugMsg, text });
}

inline QVector<Expected> failures(const LoopbackServer &server, int count)
{
    return failures(server.address(), server.port(), count);
}

inline QVector<Expected> success(const LoopbackServer &server, const QString &localAddress)
{
    return { { QtInfoMsg,
               QStringLiteral("[ tryConnectRemote ] local IP =  \"%1\"").arg(localAddress) },
             { QtInfoMsg,
               QStringLiteral("[ tryConnectRemote ] host is available,  \"%1\" ,  %2")
                       .arg(server.address(), server.port()) } };
}

inline QVector<Expected> refusedPort(const QString &port)
{
    return {
        { QtInfoMsg,
          QStringLiteral("[ tryConnectRemote ] 783 trans failed, port is  \"%1\"").arg(port) }
    };
}

/** The look-up of the connection "lan", which gives @p uuid. */
inline QVector<Expected> lookup(const QString &uuid)
{
    return { { QtInfoMsg,
               QStringLiteral("[ getNetWorkUuid ] \"nmcli -g connection.uuid c s 'lan' \"") },
             { QtInfoMsg, QStringLiteral("[ getNetWorkUuid ] \"%1\"").arg(uuid) } };
}

/** The re-activation of the connection "lan", for which nmcli prints @p output. */
inline QVector<Expected> reactivation(const QString &uuid, const QString &output)
{
    return lookup(uuid)
            + QVector<Expected>{
                  { QtInfoMsg,
                    QStringLiteral("[ tryConnectRemote ]  cmd:  \"nmcli connection up uuid %1 \""
                                   " bb  result:    %2")
                            .arg(uuid, output) }
              };
}

} // namespace ProbeLines

#endif
