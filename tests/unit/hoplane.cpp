// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class HoplaneTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(HoplaneTest)
#include "hoplane.moc"
