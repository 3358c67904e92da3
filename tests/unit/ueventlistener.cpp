// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class UeventListenerTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(UeventListenerTest)
#include "ueventlistener.moc"
