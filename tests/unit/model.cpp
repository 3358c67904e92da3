// SPDX-License-Identifier: MIT
// The worker against a model of it, by random walks through starts, events and configurations, on
// ARM and on another processor. Commands, servers, addresses and time are made up; each step
// compares the commands, the attempts, the signals with what a slot sees at them, the log's lines,
// all in their order, and then the state.
//
//   unit_model [-seed N] [-events N]

#include "fixtures.h"
#include "peek.h"
#include "testmain.h"
#include "watching.h"

#include <QtCore/QProcess>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <cstdio>
#include <dlfcn.h>
#include <random>

namespace {

constexpr qint64 limitMs = 119999;

/** When a link changes although the worker is at something, as a slot may let it know directly. */
enum class LinkAt { NoTime, LookUp, Success, Finished };

/** What may differ from one step to the next, and does so by events of their own. */
struct Surroundings
{
    struct Network
    {
        bool isStatic = false;
        int answersAfter = 0; // failed attempts; more than any probe has: never
        bool hasBadPort = false;
    };
    bool hasFile = true;
    bool isEnabled = true;
    Network networks[2]; // in the file's order
    int deviceAddress = 0; // none, the first network's, the second one's, another
    bool hasUuid = true;
    int commandMs = 20;
    LinkAt linkAt = LinkAt::NoTime;
};

enum class Kind { Start, AddressChanged, NetworkDown, SwitchMoved, Change };

struct Event
{
    Kind kind = Kind::Start;
    int position = 0; // of the switch
    Surroundings surroundings; // from a Change on
};

const QString failureText = QString::fromUtf8("网络切换超时，请检查双网配置信息或网络线路");
const QString localAddresses[] = { "10.1.0.2", "10.2.0.2" };
const QString servers[] = { "10.1.0.1", "10.2.0.1" };
const QString ports[] = { "9001", "9002" };

QString portOf(const Surroundings &surroundings, int network)
{
    return surroundings.networks[network].hasBadPort ? "none" : ports[network];
}

QString addressOf(const Surroundings &surroundings)
{
    // The last is the beginning of the first network's: it counts as the same.
    const QString addresses[] = { QString(), localAddresses[0], localAddresses[1], "10.9.0.9",
                                  "10.1.0." };
    return addresses[surroundings.deviceAddress];
}

QByteArray fileOf(const Surroundings &surroundings)
{
    QString text = "[General]\nSwitchEnable=%1\nconnectionName=lan\n";
    text = text.arg(surroundings.isEnabled ? "true" : "false");
    const QString names[] = { "First", "Second" };
    for (int i = 0; i < 2; ++i) {
        const Surroundings::Network &network = surroundings.networks[i];
        text += QString("%1ServerIp=%2\n%1ServerPort=%3\n%1IsAutomatically=%4\n%1LocalIp=%5\n"
                        "%1LocalMask=255.255.255.0\n")
                        .arg(names[i], servers[i], portOf(surroundings, i),
                             network.isStatic ? "true" : "false", localAddresses[i]);
    }
    return text.toUtf8();
}

/** Time, which passes only by what is done. */
class Clock
{
public:
    qint64 now = 0;

    /** Somebody looks at it. */
    qint64 look()
    {
        constexpr qint64 lookMs = 700;
        return now += lookMs;
    }
};

struct State
{
    int switchState = 0; // idle, searching, server reached
    int connections = 1; // of addressChanged() to its slot
    QString currentServer;
    QString staticAddress;
};

/** What a step does, in its order. */
struct Trace
{
    QStringList steps;

    void command(const QString &text) { steps.append("run " + text); }
    void attempt(const QString &ip, const QString &port) { steps.append("try " + ip + ':' + port); }
    void signal(const QString &text, int switchState, const QString &currentServer)
    {
        steps.append(QString("emit %1, in state %2 with \"%3\"")
                             .arg(text)
                             .arg(switchState)
                             .arg(currentServer));
    }
    void line(QtMsgType level, const QString &text)
    {
        static const QString levels[] = { "debug ", "warning ", "critical ", "fatal ", "info " };
        steps.append(levels[level] + text);
    }
};

// The model.

class Model
{
public:
    explicit Model(bool isArm)
        : m_isArm(isArm)
    {
    }

    QStringList step(const Event &event);
    static QStringList rowsNotMet();

    State state;

private:
    /** What happens to the worker, from outside and within a search. */
    enum Happening {
        Start,
        AddressChanged,
        NetworkDown,
        SwitchMoved,
        ServerAnswers,
        TimeIsUp,
        SearchEnds
    };

    static constexpr int idle = 0;
    static constexpr int searching = 1;
    static constexpr int reached = 2;
    static constexpr int any = -1;
    static constexpr int same = -1;

    /** What the file says of switching. */
    enum File { Enables, Disables, Either };

    // In the order in which one reads a row.
    struct Row // NOLINT(clang-analyzer-optin.performance.Padding)
    {
        int state;
        Happening happening;
        File file;
        void (Model::*before)(); // what comes out
        int next;
        void (Model::*after)(); // what comes out in the next state
        int met = 0; // how often, in all walks
    };
    static Row table[];

    void happen(Happening happening);
    void linkChanges(LinkAt at);

    // What comes out.
    void nothing() { }
    void readFile();
    void listenAgain();
    void findServer();
    void tellChange();
    void askForSearch();
    void tellBusy();
    void begin() { signal("mySwitchBegin"); }
    void reopen();
    void succeed();
    void settle();
    void fail();
    void finish();

    /** The file's network that the worker has in this place. */
    int inPlace(int place) const
    {
        const bool isExchanged =
                !m_isArm && !m_now.networks[0].isStatic && m_now.networks[1].isStatic;
        return isExchanged ? 1 - place : place;
    }
    void search();
    bool connectTo(int place);
    void apply(int place);
    bool probe(int network, int tries);
    QString lookUp();
    void run(const QString &command);

    void signal(const QString &text)
    {
        m_trace.signal(text, state.switchState, state.currentServer);
    }
    void info(const QString &text) { m_trace.line(QtInfoMsg, text); }

    const bool m_isArm;
    Surroundings m_now;
    Clock m_clock;
    Trace m_trace;
    int m_network = 0; // which one is at its turn, in the file's order
    int m_place = 0; // and in the worker's
};

// State, event, what the file says; what comes out, the next state, what comes out in that.
// clang-format off
Model::Row Model::table[] = {
    { any,       Start,          Disables, &Model::readFile,   searching, &Model::listenAgain  },
    { any,       Start,          Enables,  &Model::readFile,   searching, &Model::findServer   },
    { idle,      AddressChanged, Either,   &Model::tellChange, searching, &Model::askForSearch },
    { searching, AddressChanged, Either,   &Model::tellBusy,   same,      &Model::nothing      },
    { reached,   AddressChanged, Either,   &Model::tellBusy,   same,      &Model::nothing      },
    { any,       NetworkDown,    Disables, &Model::readFile,   same,      &Model::nothing      },
    { any,       NetworkDown,    Enables,  &Model::readFile,   same,      &Model::begin        },
    { any,       SwitchMoved,    Disables, &Model::readFile,   same,      &Model::nothing      },
    { any,       SwitchMoved,    Enables,  &Model::readFile,   same,      &Model::reopen       },
    { searching, ServerAnswers,  Either,   &Model::succeed,    reached,   &Model::settle       },
    { searching, TimeIsUp,       Either,   &Model::fail,       same,      &Model::finish       },
    { searching, SearchEnds,     Either,   &Model::nothing,    idle,      &Model::nothing      },
    { reached,   SearchEnds,     Either,   &Model::nothing,    idle,      &Model::nothing      },
};
// clang-format on

QStringList Model::rowsNotMet()
{
    QStringList numbers;
    for (const Row &row : table) {
        if (row.met == 0)
            numbers.append(QString::number(&row - table));
    }
    return numbers;
}

void Model::happen(Happening happening)
{
    const File file = m_now.hasFile && m_now.isEnabled ? Enables : Disables;
    for (Row &row : table) {
        if (row.happening == happening && (row.state == any || row.state == state.switchState)
            && (row.file == Either || row.file == file)) {
            ++row.met;
            (this->*row.before)();
            if (row.next != same)
                state.switchState = row.next;
            (this->*row.after)();
            return;
        }
    }
    qFatal("the table has no such row");
}

QStringList Model::step(const Event &event)
{
    m_trace.steps.clear();
    switch (event.kind) {
    case Kind::Start:
        happen(Start);
        break;
    case Kind::AddressChanged:
        linkChanges(LinkAt::NoTime);
        break;
    case Kind::NetworkDown:
        happen(NetworkDown);
        break;
    case Kind::SwitchMoved: {
        const Expected line = LanSwitch::changeLine("lan-switch", "change", event.position);
        if (m_isArm)
            m_trace.line(line.level, line.text);
        m_place = event.position != 0 ? 1 : 0;
        m_network = inPlace(m_place);
        happen(SwitchMoved);
        break;
    }
    case Kind::Change:
        m_now = event.surroundings;
        break;
    }
    return m_trace.steps;
}

/** Once for each connection, until the slot has none. */
void Model::linkChanges(LinkAt at)
{
    if (at != LinkAt::NoTime && at != m_now.linkAt)
        return;
    for (int left = state.connections; left > 0 && state.connections > 0; --left)
        happen(AddressChanged);
}

void Model::readFile()
{
    if (!m_now.hasFile) {
        info("[ loadConfig ]  switch congif file: \"" + SwitchIni::path()
             + "\" not exist,can not do net switc.");
        return;
    }
    const char *const names[] = { "first", "second " };
    for (const int place : { 0, 1 }) {
        const int network = inPlace(place);
        info(QString("[ loadConfig ]  switch info:%1 serverIp: \"%2\" ,serverPort: \"%3\"")
                     .arg(names[place], servers[network], portOf(m_now, network)));
    }
}

void Model::listenAgain()
{
    ++state.connections;
}

void Model::findServer()
{
    search();
    ++state.connections;
}

void Model::tellChange()
{
    info("[ slotAddressChanged ] \"slotAddressChanged 116: ip changed\"");
}

void Model::askForSearch()
{
    state.connections = 0;
    signal("ipChanged");
}

void Model::tellBusy()
{
    tellChange();
    info("[ slotAddressChanged ]  it's doing net switch.");
}

void Model::reopen()
{
    begin();
    state.staticAddress.clear();
    apply(m_place);
    if (probe(m_network, 20))
        succeed();
}

void Model::search()
{
    const qint64 begin = m_clock.look();
    bool isReached = false;
    while (!isReached && m_clock.look() - begin <= limitMs)
        isReached = connectTo(0) || connectTo(1);
    happen(isReached ? ServerAnswers : TimeIsUp);
    happen(SearchEnds);
}

void Model::succeed()
{
    signal("mySwitchSuccess " + servers[m_network] + ':' + ports[m_network]);
    linkChanges(LinkAt::Success);
}

void Model::settle()
{
    state.currentServer = servers[m_network];
    finish();
}

void Model::fail()
{
    info("[ findAvailableIp ]  switch time out");
    signal("mySwitchFailed " + failureText + " -1");
}

void Model::finish()
{
    m_trace.line(QtWarningMsg, "[ slotFinish ] \"slotFinish 71: addressChanged :0\"");
    signal("finished");
    linkChanges(LinkAt::Finished);
}

bool Model::connectTo(int place)
{
    m_network = inPlace(place);
    const bool bothStatic = m_now.networks[0].isStatic && m_now.networks[1].isStatic;
    if (bothStatic) {
        const QString address = addressOf(m_now);
        const QString function =
                place == 0 ? "[ doConnetFirstServer ] " : "[ doConnetSecondServer ] ";
        const QString &local = localAddresses[m_network];
        info(function + "the net ip adddr: \"" + address + "\" ,the switch local ip addr: \""
             + local + '"');
        if (local.contains(address)) {
            info(function + "it is the same net ip adddr  \"" + local + '"');
            return false;
        }
    }
    apply(place);
    return probe(m_network, bothStatic ? 20 : 10);
}

void Model::run(const QString &command)
{
    m_clock.now += m_now.commandMs;
    m_trace.command(command);
}

QString Model::lookUp()
{
    const QString command = "nmcli -g connection.uuid c s 'lan' ";
    run(command);
    linkChanges(LinkAt::LookUp);
    QString uuid = m_now.hasUuid ? "5e6c" : "";
    info("[ getNetWorkUuid ] \"" + command + '"');
    info("[ getNetWorkUuid ] \"" + uuid + '"');
    return uuid;
}

void Model::apply(int place)
{
    const int network = inPlace(place);
    const bool isStatic = m_now.networks[network].isStatic;
    const QString function = isStatic ? "[ setStaticIpAddr ] " : "[ setLocalIpAuto ] ";
    const QString outcome =
            place == 0 ? "[ setFirstStaticIpAddr ] run " : "[ setSecondStaticIpAddr ] run ";
    const auto execute = [&](const QString &command) {
        run(command);
        info(function + " execute the cmd: \"" + command + "\" result ");
    };
    if (lookUp().isEmpty()) {
        m_trace.line(QtCriticalMsg, function + "get uuid is empty,d->strConnectionName= \"lan\"");
        info(outcome + "failed");
        return;
    }
    if (isStatic) {
        execute("nmcli connection modify uuid 5e6c ipv4.addresses " + localAddresses[network]
                + "/24    connection.autoconnect yes ipv4.method manual");
        state.staticAddress = localAddresses[network] + "/24 ";
    } else {
        execute("nmcli connection modify uuid 5e6c ipv4.address '' ipv4.gateway '' ipv4.dns ''  "
                "ipv4.method auto ");
    }
    execute("nmcli connection up uuid 5e6c ");
    info(outcome + "successful");
}

bool Model::probe(int network, int tries)
{
    const QString function = "[ tryConnectRemote ] ";
    const QString &ip = servers[network];
    const QString &port = ports[network];
    if (m_now.networks[network].hasBadPort) {
        info(function + "783 trans failed, port is  \"none\"");
        return false;
    }
    for (int attempt = 1; attempt <= tries; ++attempt) {
        m_trace.attempt(ip, port);
        m_clock.now += 500;
        if (attempt > m_now.networks[network].answersAfter) {
            info(function + "local IP =  \"\"");
            info(function + "host is available,  \"" + ip + "\" ,  " + port);
            return true;
        }
        m_trace.line(QtDebugMsg,
                     function + "connect to host fail:  \"" + ip + "\"    " + port
                             + "  locak address: \"\"");
        if (attempt == 11 && attempt < tries) {
            const QString command = "nmcli connection up uuid " + lookUp() + ' ';
            run(command);
            info(function + " cmd:  \"" + command + "\" bb  result:    ");
        }
    }
    return false;
}

// The real worker.

class Reality;
Reality *theReality = nullptr;

class Reality
{
public:
    explicit Reality(bool isArm)
        : m_isArm(isArm)
        , m_worker(hooks())
    {
        theReality = this;
        m_handler = qInstallMessageHandler(noteLine);
        SwitchIni::setContent(fileOf(m_now));
        using Worker = NetworkSwitchWorker;
        Worker *const worker = m_worker.get();
        QObject::connect(worker, &Worker::mySwitchBegin, [this] { signal("mySwitchBegin"); });
        QObject::connect(worker, &Worker::mySwitchSuccess,
                         [this](const QString &ip, const QString &port) {
                             signal("mySwitchSuccess " + ip + ':' + port);
                             linkChanges(LinkAt::Success);
                         });
        QObject::connect(worker, &Worker::mySwitchFailed, [this](const QString &text, int code) {
            signal("mySwitchFailed " + text + ' ' + QString::number(code));
        });
        QObject::connect(worker, &Worker::finished, [this] {
            signal("finished");
            linkChanges(LinkAt::Finished);
        });
        QObject::connect(worker, &Worker::ipChanged, [this] { signal("ipChanged"); });
    }
    ~Reality()
    {
        qInstallMessageHandler(m_handler);
        theReality = nullptr;
    }
    Q_DISABLE_COPY(Reality)

    QStringList step(const Event &event)
    {
        m_trace.steps.clear();
        switch (event.kind) {
        case Kind::Start:
            m_worker->start();
            break;
        case Kind::AddressChanged:
            Q_EMIT watcher().addressChanged();
            break;
        case Kind::NetworkDown:
            Q_EMIT watcher().netWorkdown();
            break;
        case Kind::SwitchMoved:
            moveSwitch(event.position);
            break;
        case Kind::Change:
            change(event.surroundings);
            break;
        }
        return m_trace.steps;
    }

    State state()
    {
        return { Peek::switchState(*m_worker), Peek::receivers(watcher(), SIGNAL(addressChanged())),
                 Peek::currentServerIp(*m_worker), Peek::staticAddress(*m_worker) };
    }

    // What stands in for the rest of the world.

    QString deviceAddress() const { return addressOf(m_now); }

    void beginProbe() { m_attempts = 0; }

    void beginAttempt(const QString &ip, quint16 port)
    {
        m_trace.attempt(ip, QString::number(port));
        ++m_attempts;
        m_target = ip;
    }

    bool isConnected() const
    {
        const int network = m_target == servers[0] ? 0 : 1;
        return m_attempts > m_now.networks[network].answersAfter;
    }

private:
    static void noteLine(QtMsgType level, const QMessageLogContext &, const QString &text)
    {
        theReality->m_trace.line(level, text);
    }

    CAddressWatcher &watcher() { return *Peek::watcher(*m_worker); }

    void signal(const QString &text)
    {
        m_trace.signal(text, Peek::switchState(*m_worker), Peek::currentServerIp(*m_worker));
    }

    void linkChanges(LinkAt at)
    {
        if (at == m_now.linkAt)
            Q_EMIT watcher().addressChanged();
    }

    /** On ARM as the watcher does it that has received an event. */
    void moveSwitch(int position)
    {
        if (!m_isArm) {
            Q_EMIT watcher().reopen_network(position);
            return;
        }
        QByteArray message;
        for (const QByteArray &string :
             { QByteArray("ACTION=change"), LanSwitch::devpath(),
               QByteArray("SWITCH_NAME=lan-switch"), "SWITCH_STATE=" + QByteArray::number(position),
               QByteArray() })
            message += string + '\0';
        lan_switch record = {};
        watcher().parse_uevent(message.constData(), &record);
    }

    void change(const Surroundings &surroundings)
    {
        const bool hadFile = m_now.hasFile;
        m_now = surroundings;
        if (!m_now.hasFile)
            SwitchIni::remove();
        else if (hadFile)
            writeSettingsFile(SwitchIni::path(), fileOf(m_now));
        else
            SwitchIni::setContent(fileOf(m_now));
    }

    FILE *answer(const QByteArray &command)
    {
        m_clock.now += m_now.commandMs;
        m_trace.command(QString::fromUtf8(command));
        static char uuid[] = "5e6c\n";
        const bool isLookUp = command.startsWith("nmcli -g");
        if (isLookUp)
            linkChanges(LinkAt::LookUp);
        return fmemopen(uuid, isLookUp && m_now.hasUuid ? sizeof uuid - 1 : 0, "r");
    }

    Interpose::Hooks hooks()
    {
        Interpose::Hooks hooks;
        // The watcher's thread is never told of ARM: it could not be ended then.
        hooks.currentCpuArchitecture = [isArm = m_isArm, thread = QThread::currentThreadId()] {
            const bool isTold = isArm && QThread::currentThreadId() == thread;
            return QString(isTold ? "arm" : "x86_64");
        };
        hooks.popen = [this](const char *command, const char *) { return answer(command); };
        hooks.msleep = [this](unsigned long milliseconds) { m_clock.now += qint64(milliseconds); };
        hooks.waitForConnected = [this] { return isConnected(); };
        hooks.currentDateTime = [this] { return QDateTime::fromMSecsSinceEpoch(m_clock.look()); };
        return hooks;
    }

    const bool m_isArm;
    QtMessageHandler m_handler = nullptr;
    Surroundings m_now;
    Clock m_clock;
    Trace m_trace;
    QString m_target;
    int m_attempts = 0;
    WorkerFixture m_worker;
};

// The walk.

QString text(const State &state)
{
    return QString("state %1, %2 connections, current server \"%3\", static address \"%4\"")
            .arg(state.switchState)
            .arg(state.connections)
            .arg(state.currentServer, state.staticAddress);
}

QString text(const Event &event)
{
    const Surroundings &now = event.surroundings;
    const auto network = [&now](int i) {
        return QString("%1%2, answers after %3")
                .arg(now.networks[i].isStatic ? "static" : "automatic",
                     now.networks[i].hasBadPort ? ", bad port" : "")
                .arg(now.networks[i].answersAfter);
    };
    switch (event.kind) {
    case Kind::Start:
        return "start";
    case Kind::AddressChanged:
        return "address changed";
    case Kind::NetworkDown:
        return "network down";
    case Kind::SwitchMoved:
        return QString("switch at %1").arg(event.position);
    case Kind::Change:
        break;
    }
    const char *const times[] = { "no time", "a look-up", "a success", "the end of a search" };
    return QString("from now on: %1, %2; network 1 %3; network 2 %4; address \"%5\"; %6, commands "
                   "of %7 ms; a link changes at %8")
            .arg(now.hasFile ? "a file" : "no file", now.isEnabled ? "enabled" : "disabled",
                 network(0), network(1), addressOf(now), now.hasUuid ? "UUID" : "no UUID")
            .arg(now.commandMs)
            .arg(times[int(now.linkAt)]);
}

/** The first difference between the worker and the model; nothing if there is none. */
QString difference(const QVector<Event> &events, bool isArm, int *at = nullptr)
{
    Model model(isArm);
    Reality reality(isArm);
    for (int i = 0; i < events.size(); ++i) {
        const QStringList expected = model.step(events[i]);
        const QStringList found = reality.step(events[i]);
        const QString state = text(reality.state());
        if (at)
            *at = i;
        if (found != expected)
            return QString("step %1, %2:\n  expected %3\n  found    %4")
                    .arg(i)
                    .arg(text(events[i]), expected.join("\n           "),
                         found.join("\n           "));
        if (state != text(model.state))
            return QString("step %1, %2: expected %3, found %4")
                    .arg(i)
                    .arg(text(events[i]), text(model.state), state);
    }
    return QString();
}

/** The fewest events that still differ: from the end, and then one by one. */
QVector<Event> shrunk(QVector<Event> events, bool isArm)
{
    for (int length = 1; length < events.size(); length *= 2) {
        const QVector<Event> last = events.mid(events.size() - length);
        if (!difference(last, isArm).isEmpty()) {
            events = last;
            break;
        }
    }
    for (int i = 0; i < events.size();) {
        QVector<Event> fewer = events;
        fewer.remove(i);
        if (difference(fewer, isArm).isEmpty())
            ++i;
        else
            events = fewer;
    }
    return events;
}

class Walk
{
public:
    Walk(unsigned seed, bool isArm)
        : m_random(seed)
        , m_isArm(isArm)
    {
    }

    Event next()
    {
        Event event;
        // Starts are rare, as they take long, and changes are frequent. On ARM nothing tells of
        // links.
        const Kind kinds[] = { Kind::Start,       Kind::AddressChanged, Kind::AddressChanged,
                               Kind::NetworkDown, Kind::SwitchMoved,    Kind::SwitchMoved,
                               Kind::Change,      Kind::Change,         Kind::Change,
                               Kind::Change };
        const Kind armsKinds[] = { Kind::Start,       Kind::SwitchMoved, Kind::SwitchMoved,
                                   Kind::SwitchMoved, Kind::SwitchMoved, Kind::Change,
                                   Kind::Change,      Kind::Change,      Kind::Change,
                                   Kind::Change };
        event.kind = m_isArm ? armsKinds[below(10)] : kinds[below(10)];
        event.position = below(4) - 1;
        if (event.kind == Kind::Change)
            event.surroundings = surroundings();
        return event;
    }

private:
    int below(int limit) { return int(m_random() % unsigned(limit)); }
    bool oneIn(int limit) { return below(limit) == 0; }

    Surroundings surroundings()
    {
        Surroundings some;
        some.hasFile = !oneIn(12);
        some.isEnabled = !oneIn(6);
        for (Surroundings::Network &network : some.networks) {
            network.isStatic = oneIn(2);
            const int failures[] = { 0, 0, 0, 1, 9, 10, 11, 12, 19, 20, 99 };
            network.answersAfter = failures[below(11)];
            network.hasBadPort = oneIn(10);
        }
        some.deviceAddress = below(5);
        some.hasUuid = !oneIn(8);
        const int times[] = { 0, 20, 20, 2000, 25000, 90000 };
        some.commandMs = times[below(6)];
        if (!m_isArm && oneIn(2))
            some.linkAt = LinkAt(below(4));
        return some;
    }

    std::mt19937 m_random;
    const bool m_isArm;
};

unsigned seed = 1;
unsigned events = 50000; // of each walk
constexpr unsigned mostEvents = 10000000;
constexpr unsigned enoughEvents = 2000; // to come by each row of the table

class ModelTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void randomWalk_data();
    void randomWalk();
    void everyRowOfTheTableWasMet();
    void options_data();
    void options();
};

void ModelTest::randomWalk_data()
{
    QTest::addColumn<bool>("isArm");
    QTest::newRow("another processor") << false;
    QTest::newRow("ARM") << true;
}

void ModelTest::randomWalk()
{
    QFETCH(bool, isArm);
    std::printf("seed %u, %u events\n", seed, events);
    Walk walk(seed, isArm);
    QVector<Event> all;
    for (unsigned i = 0; i < events; ++i)
        all.append(walk.next());

    int at = 0;
    const QString found = difference(all, isArm, &at);
    if (found.isEmpty())
        return;
    const QVector<Event> fewest = shrunk(all.mid(0, at + 1), isArm);
    QString steps;
    for (const Event &event : fewest)
        steps += "  " + text(event) + '\n';
    QFAIL(qPrintable(QString("seed %1, %2\nthe same by\n%3%4")
                             .arg(seed)
                             .arg(found, steps, difference(fewest, isArm))));
}

void ModelTest::everyRowOfTheTableWasMet()
{
    if (events >= enoughEvents)
        QCOMPARE(Model::rowsNotMet(), QStringList());
}

void ModelTest::options_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("answer");
    using Words = QStringList;
    for (const char *number : { "0", "x", "-5", "10x", "", "99999999999", "1.5" })
        QTest::addRow("events '%s'", number) << Words{ "-events", number } << QByteArray();
    for (const char *number : { "x", "-1", "7x", "", "99999999999" })
        QTest::addRow("seed '%s'", number) << Words{ "-seed", number } << QByteArray();
    QTest::newRow("events, no number") << Words{ "-events" } << QByteArray();
    QTest::newRow("seed, no number") << Words{ "-events", "5", "-seed" } << QByteArray();
    QTest::newRow("both") << Words{ "-seed", "7", "-events", "10" }
                          << QByteArray("seed 7, 10 events\n");
    QTest::newRow("seed 0") << Words{ "-events", "1", "-seed", "0" }
                            << QByteArray("seed 0, 1 events\n");
}

/** What is no number of events is no walk without any, which would pass. */
void ModelTest::options()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, answer);
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    // An option that waits for its value is the last.
    process.start(QCoreApplication::applicationFilePath(),
                  answer.isEmpty() ? options : options + QStringList("randomWalk"));
    QVERIFY(process.waitForFinished(-1));
    const QByteArray output = process.readAll();
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QVERIFY2((process.exitCode() == 0) == !answer.isEmpty(), output);
    QCOMPARE(output.contains("PASS"), !answer.isEmpty());
    QVERIFY2(answer.isEmpty() || output.count(answer) == 2, output);
}

} // namespace

// In place of what the worker does below itself.

extern "C" int pclose(FILE *stream)
{
    return fclose(stream);
}

QString NetworkSwitchWorker::getIPAddress()
{
    return theReality->deviceAddress();
}

bool NetworkSwitchWorker::tryConnectRemote(QString ip, QString port, int sleepMs, int maxTries)
{
    theReality->beginProbe();
    using Probe = bool (*)(NetworkSwitchWorker *, QString, QString, int, int);
    static const auto real = reinterpret_cast<Probe>(
            dlsym(RTLD_NEXT, "_ZN19NetworkSwitchWorker16tryConnectRemoteE7QStringS0_ii"));
    return real(this, ip, port, sleepMs, maxTries);
}

void QAbstractSocket::connectToHost(const QString &host, quint16 port, OpenMode,
                                    NetworkLayerProtocol)
{
    theReality->beginAttempt(host, port);
}

int main(int argc, char **argv)
{
    // The test's own options come first; a walk can be repeated, or made longer.
    int own = 1;
    for (; own < argc; own += 2) {
        const bool isSeed = qstrcmp(argv[own], "-seed") == 0;
        if (!isSeed && qstrcmp(argv[own], "-events") != 0)
            break;
        bool isNumber = false;
        const unsigned number =
                own + 1 < argc ? QByteArray(argv[own + 1]).toUInt(&isNumber, 10) : 0;
        if (!isNumber || (!isSeed && (number == 0 || number > mostEvents))) {
            std::fprintf(stderr, "usage: unit_model [-seed N] [-events N]\n");
            return EXIT_FAILURE;
        }
        (isSeed ? seed : events) = number;
    }
    argv[own - 1] = argv[0];
    ModelTest test;
    return runTest(argc - own + 1, argv + own - 1, &test);
}
#include "model.moc"
