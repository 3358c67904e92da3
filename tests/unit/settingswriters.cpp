// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class SettingsWritersTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(SettingsWritersTest)
#include "settingswriters.moc"
