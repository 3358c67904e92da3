// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class TimeLimitTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(TimeLimitTest)
#include "timelimit.moc"
