// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class AddressConfigurationTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(AddressConfigurationTest)
#include "addressconfiguration.moc"
