// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class FailoverTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(FailoverTest)
#include "failover.moc"
