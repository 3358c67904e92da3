// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class CAddressWatcherTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(CAddressWatcherTest)
#include "caddresswatcher.moc"
