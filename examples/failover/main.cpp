#include <hoplane.h>

#include <QCoreApplication>
#include <QDebug>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("failover");

    Hoplane *hoplane = Hoplane::instance();
    QObject::connect(hoplane, &Hoplane::switchSuccess,
                     [](QString ip, QString port) { qInfo() << "use server" << ip << port; });
    QObject::connect(hoplane, &Hoplane::switchFailed,
                     [](QString text, int code) { qInfo() << "no server:" << text << code; });
    emit hoplane->start();
    return QCoreApplication::exec();
}
