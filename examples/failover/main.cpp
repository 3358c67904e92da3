#include <hoplane.h>

#include <QCoreApplication>
#include <QDebug>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("failover");

    Hoplane *hoplane = Hoplane::instance();
    QObject::connect(hoplane, &Hoplane::switchBegin, [] { qInfo("the link changed"); });
    QObject::connect(hoplane, &Hoplane::switchSuccess, [](QString ip, QString port) {
        qInfo("use server %s port %s", qUtf8Printable(ip), qUtf8Printable(port));
    });
    QObject::connect(hoplane, &Hoplane::switchFailed, [](QString text, int code) {
        qInfo("no server: %s (%d)", qUtf8Printable(text), code);
    });
    emit hoplane->start();
    return app.exec();
}
