// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class NetworkSwitchWorkerTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(NetworkSwitchWorkerTest)
#include "networkswitchworker.moc"
