// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtTest/QtTest>

class SettingsImportTest : public QObject
{
    Q_OBJECT
};

HOPLANE_TEST_MAIN(SettingsImportTest)
#include "settingsimport.moc"
