// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class ProbeTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(ProbeTest)
#include "probe.moc"
