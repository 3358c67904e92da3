// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class ConfigurationTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(ConfigurationTest)
#include "configuration.moc"
