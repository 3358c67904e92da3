// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"
#include <QtTest/QtTest>
#include <QtNetwork/QNetworkConfigurationManager>
#include <mutex>
class HoplaneTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void dump();
};
void HoplaneTest::dump()
{
    static FakeNetlink netlink;
    Interpose::Hooks hooks;
    netlink.addTo(&hooks);
    hooks.currentCpuArchitecture = [] { return QStringLiteral("x86_64"); };
    hooks.step = [](const QString &s) { fprintf(stderr, "STEP %s\n", qPrintable(s)); };
    Interpose::install(hooks);
    auto *f = new Hoplane(nullptr);
    system("ip link add hp0 type veth peer name hp1; ip link set hp0 up; ip link set hp1 up; ip a");
    auto *m = Peek::configManager(*f);
    QSignalSpy spy(m, &QNetworkConfigurationManager::updateCompleted);
    m->updateConfigurations();
    qDebug() << spy.wait(3000);
    for (auto c : m->allConfigurations()) qDebug() << c.name() << c.type();
    Peek::workerThread(*f);
}
HOPLANE_TEST_MAIN(HoplaneTest)
#include "hoplane.moc"
