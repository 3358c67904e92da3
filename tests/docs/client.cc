// SPDX-License-Identifier: MIT
// Lets the guide's Client meet the library's signals, emitted here: integration.py puts the guide's
// code in front of this, with its private members made public and its main() renamed. The library
// is there and has no configuration, so that its searches end at once and signal nothing.
//
//   client REACTION_MS     the longest reaction; the processor is the one that ARCHITECTURE names
//   client levels          logs one line of each level

#include <QTcpServer>
#include <QtTest/QTest>

#include <cstdlib>

namespace {

constexpr int limitMs = 15000;

int failures = 0;
int starts = 0;
QByteArray warnings;

void check(bool right, const char *what, int line)
{
    if (!right) {
        ++failures;
        std::fprintf(stderr, "FAIL: line %d: %s\n", line, what);
    }
}

#define CHECK(condition) check(condition, #condition, __LINE__)
#define REACHES(condition) \
    check(QTest::qWaitFor([&] { return condition; }, limitMs), #condition, __LINE__)

// The time of a timer need not be waited for.
void expire(QTimer *timer)
{
    CHECK(timer->isActive());
    timer->setInterval(0);
    REACHES(!timer->isActive());
}

class Rehearsal
{
public:
    Rehearsal()
    {
        m_server.listen(QHostAddress::LocalHost);
        QObject::connect(hoplane, &Hoplane::start, [] { ++starts; });
    }

    void run(bool onArm, int longestReaction)
    {
        searchOnce();
        failedSearch();
        reachedServer();
        lostConnection();
        refusedConnection();
        if (onArm) {
            reaction(longestReaction);
            reactionWithoutOutcome();
            reactionDuringPause();
        } else {
            linkDown();
        }
    }

private:
    void searchOnce()
    {
        client.search();
        CHECK(starts == 1);
        client.search();
        CHECK(starts == 1);
        // The library's own request, after a link event.
        succeed();
        emit hoplane->start();
        client.search();
        CHECK(starts == 2);
    }

    void failedSearch()
    {
        fail();
        CHECK(warnings.contains("no server: over"));
        const int before = starts;
        CHECK(client.m_later.interval() == 30000);
        expire(&client.m_later);
        CHECK(starts == before + 1);
    }

    void reachedServer()
    {
        fail();
        succeed();
        CHECK(!client.m_later.isActive());
        QTcpSocket *old = m_accepted;
        // The same server once more: a new connection, and the old one's end is no loss.
        succeed();
        CHECK(m_accepted != old);
        REACHES(old->state() == QAbstractSocket::UnconnectedState);
        CHECK(!client.m_later.isActive());
    }

    void lostConnection()
    {
        const int before = starts;
        lose();
        CHECK(client.m_later.isActive());
        CHECK(client.m_later.interval() == 5000);
        CHECK(starts == before);
        expire(&client.m_later);
        CHECK(starts == before + 1);
    }

    void refusedConnection()
    {
        QTcpServer nobody;
        nobody.listen(QHostAddress::LocalHost);
        const QString port = QString::number(nobody.serverPort());
        nobody.close();
        emit hoplane->switchSuccess("127.0.0.1", port);
        REACHES(client.m_later.isActive());
        CHECK(client.m_later.interval() == 5000);
    }

    void reaction(int longest)
    {
        succeed();
        const int before = starts;
        emit hoplane->switchBegin();
        CHECK(client.m_reaction.isActive());
        CHECK(client.m_reaction.interval() > longest);
        // Its network goes away, with the connection.
        lose();
        CHECK(!client.m_later.isActive());
        // Each event begins anew.
        const int interval = client.m_reaction.interval();
        client.m_reaction.setInterval(10 * interval);
        emit hoplane->switchBegin();
        CHECK(client.m_reaction.interval() == interval);
        CHECK(starts == before);
        succeed();
        CHECK(!client.m_reaction.isActive());
        CHECK(!client.m_later.isActive());
        // The loss of this one is a loss again.
        lose();
        CHECK(client.m_later.isActive());
    }

    void reactionWithoutOutcome()
    {
        succeed();
        const int before = starts;
        emit hoplane->switchBegin();
        expire(&client.m_reaction);
        CHECK(starts == before + 1);
    }

    void reactionDuringPause()
    {
        fail();
        CHECK(client.m_later.isActive());
        const int before = starts;
        emit hoplane->switchBegin();
        CHECK(!client.m_later.isActive());
        CHECK(starts == before);
        // A search that had been asked for before runs behind it: its outcome is the last word.
        fail();
        CHECK(!client.m_reaction.isActive());
        CHECK(client.m_later.isActive());
    }

    void linkDown()
    {
        fail();
        client.m_later.setInterval(29999);
        emit hoplane->switchBegin();
        CHECK(client.m_later.isActive());
        CHECK(client.m_later.interval() == 29999);
        CHECK(!client.m_reaction.isActive());
        succeed();
        emit hoplane->switchBegin();
        lose();
        CHECK(client.m_later.isActive());
        CHECK(client.m_later.interval() == 5000);
    }

    void succeed()
    {
        emit hoplane->switchSuccess("127.0.0.1", QString::number(m_server.serverPort()));
        REACHES(m_server.hasPendingConnections());
        m_accepted = m_server.nextPendingConnection();
        REACHES(client.m_socket->state() == QAbstractSocket::ConnectedState);
    }

    void fail() { emit hoplane->switchFailed("over", -1); }

    void lose()
    {
        m_accepted->close();
        REACHES(client.m_socket->state() == QAbstractSocket::UnconnectedState);
    }

    Hoplane *hoplane = Hoplane::instance();
    QTcpServer m_server;
    QTcpSocket *m_accepted = nullptr;
    Client client;
};

void logEachLevel()
{
    qDebug("debug");
    qInfo("info");
    qWarning("warning");
    qCritical("critical");
    qFatal("fatal");
}

void keepWarnings(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtWarningMsg)
        warnings += text.toUtf8() + '\n';
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2)
        return 64;
    if (qstrcmp(argv[1], "levels") == 0)
        logEachLevel();
    qInstallMessageHandler(keepWarnings);
    const bool onArm = QSysInfo::currentCpuArchitecture() == "arm64";
    Rehearsal().run(onArm, std::atoi(argv[1]));
    return failures == 0 ? 0 : 1;
}
