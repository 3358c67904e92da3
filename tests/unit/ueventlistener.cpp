// SPDX-License-Identifier: MIT
#include "fixtures.h"
#include "interpose.h"
#include "logcapture.h"
#include "peek.h"
#include "testmain.h"
#include "watching.h"

#include <QtTest/QtTest>

#include <cstring>
#include <fcntl.h>
#include <limits>
#include <linux/netlink.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const QByteArray lanSwitch = LanSwitch::path();
const QByteArray ours = LanSwitch::devpath();
const QByteArray change = QByteArrayLiteral("ACTION=change");

const QString noAction = QStringLiteral("[ parse_uevent ] cdev->action is NULL");

using LanSwitch::changeLine;

/**
 * A message whose closing empty string is the last byte of a page that may not be written and
 * that is followed by one that may not be touched.
 */
class GuardedMessage
{
public:
    explicit GuardedMessage(const QByteArrayList &strings);
    ~GuardedMessage() { munmap(m_pages, m_size); }
    Q_DISABLE_COPY(GuardedMessage)

    const char *data() const { return m_data; }

private:
    std::size_t m_size;
    void *m_pages;
    const char *m_data;
};

GuardedMessage::GuardedMessage(const QByteArrayList &strings)
    : m_size(2 * std::size_t(sysconf(_SC_PAGESIZE)))
    , m_pages(mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
{
    QByteArray message;
    for (const QByteArray &string : strings)
        message += string + '\0';
    message += '\0';
    const std::size_t page = m_size / 2;
    if (m_pages == MAP_FAILED || std::size_t(message.size()) > page)
        qFatal("no page for the message");
    char *end = static_cast<char *>(m_pages) + page;
    m_data = end - message.size();
    std::memcpy(end - message.size(), message.constData(), std::size_t(message.size()));
    if (mprotect(m_pages, page, PROT_READ) != 0 || mprotect(end, page, PROT_NONE) != 0)
        qFatal("mprotect failed");
}

/** Parses messages, each into a zeroed record unless the test gives one. */
class Parser
{
public:
    Parser()
        : m_watcher(nullptr)
    {
        QObject::connect(&m_watcher, &CAddressWatcher::reopen_network, [this](int state) {
            states.append(state);
            linesBeforeSignal.append(log.lines().size());
        });
        const auto other = [this] { ++otherSignals; };
        QObject::connect(&m_watcher, &CAddressWatcher::addressChanged, other);
        QObject::connect(&m_watcher, &CAddressWatcher::netWorkdown, other);
    }

    lan_switch parse(const QByteArrayList &strings) { return parse(strings, lan_switch()); }

    lan_switch parse(const QByteArrayList &strings, lan_switch record)
    {
        const GuardedMessage message(strings);
        m_watcher.parse_uevent(message.data(), &record);
        const auto keep = [this](const char *text) {
            m_texts.append(QByteArray(text));
            return text ? m_texts.last().constData() : nullptr;
        };
        // The message ends with this block.
        return { keep(record.name), keep(record.action), keep(record.path), record.state };
    }

    LogCapture log;
    QVector<int> states;
    QVector<int> linesBeforeSignal;
    int otherSignals = 0;

private:
    CAddressWatcher m_watcher;
    QByteArrayList m_texts;
};

/** The three texts and the state of a record, "(null)" for an absent text. */
QByteArrayList fields(const lan_switch &record)
{
    const auto text = [](const char *value) { return QByteArray(value ? value : "(null)"); };
    return { text(record.name), text(record.action), text(record.path),
             QByteArray::number(record.state) };
}

/** Opens the socket with the calls answered by @p socket. */
int openSocket(SocketCalls *socket)
{
    Interpose::Hooks hooks;
    socket->addTo(&hooks);
    Interpose::install(hooks);
    CAddressWatcher watcher(nullptr);
    const int fd = watcher.open_uevent_socket();
    Interpose::install(Interpose::Hooks());
    return fd;
}

bool isOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// Descriptors are counted from the one that the socket call returned.
const QString socketCall = QStringLiteral("socket 16 2 15");
const QString optionCall = QStringLiteral("setsockopt 0 1 33 65536 of 4 bytes");
const QString bindCall = QStringLiteral("bind 0 family 16 port 0 groups ffffffff of 12 bytes");

} // namespace

/** The kernel's uevent socket and what is made of one uevent. */
class UeventListenerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void openedSocket_isUeventSocketWithForcedBufferBoundToAllGroups_data();
    void openedSocket_isUeventSocketWithForcedBufferBoundToAllGroups();
    void socketFails_returnsMinusOneWithoutFurtherCalls();
    void bindFails_closesTheDescriptor();
    void descriptorZero_isNoFailure();
    void kernelSocket_hasAPortOfItsOwnAndAllGroups();

    void changeOfTheLanSwitch_logsAndEmitsItsState_data();
    void changeOfTheLanSwitch_logsAndEmitsItsState();
    void actionThatBeginsWithChange_passes();
    void stateText_isConvertedLikeADecimalNumber_data();
    void stateText_isConvertedLikeADecimalNumber();
    void eventToIgnore_leavesNoTrace_data();
    void eventToIgnore_leavesNoTrace();
    void eventWithoutAction_logsOnlyThat();
    void pathOfAnotherDevice_endsTheParsing_data();
    void pathOfAnotherDevice_endsTheParsing();
    void stringThatOnlyResemblesAKey_isSkipped_data();
    void stringThatOnlyResemblesAKey_isSkipped();
    void recordPointsIntoTheMessage();
    void recordFilledBefore_isNotCleared();
    void pathOfAnotherDeviceFromBefore_isCheckedAfterTheAction();
    void sameEventTwice_isEmittedTwice();
    void lineIsLoggedBeforeTheSignal();
};

void UeventListenerTest::openedSocket_isUeventSocketWithForcedBufferBoundToAllGroups_data()
{
    QTest::addColumn<int>("optionFailures");
    QTest::newRow("buffer size forced") << 0;
    QTest::newRow("buffer size refused, which is ignored") << 1;
}

void UeventListenerTest::openedSocket_isUeventSocketWithForcedBufferBoundToAllGroups()
{
    SocketCalls socket;
    QFETCH(int, optionFailures);
    socket.optionFailures = optionFailures;
    const LogCapture log;
    const int fd = openSocket(&socket);
    QCOMPARE(fd, socket.descriptor);
    QCOMPARE(socket.calls, (QStringList{ socketCall, optionCall, bindCall }));
    QVERIFY(isOpen(fd));
    COMPARE_LOG(log, {});
}

void UeventListenerTest::socketFails_returnsMinusOneWithoutFurtherCalls()
{
    SocketCalls socket;
    socket.socketFailures = 1;
    const LogCapture log;
    QCOMPARE(openSocket(&socket), -1);
    QCOMPARE(socket.calls, QStringList{ socketCall });
    COMPARE_LOG(log, {});
}

void UeventListenerTest::bindFails_closesTheDescriptor()
{
    SocketCalls socket;
    socket.bindFailures = 1;
    const LogCapture log;
    QCOMPARE(openSocket(&socket), -1);
    QCOMPARE(socket.calls, (QStringList{ socketCall, optionCall, bindCall }));
    QVERIFY(!isOpen(socket.descriptor));
    COMPARE_LOG(log, {});
}

void UeventListenerTest::descriptorZero_isNoFailure()
{
    Interpose::Hooks hooks;
    hooks.socket = [](int, int, int) { return 0; };
    hooks.setsockopt = [](int, int, int, const void *, socklen_t) { return 0; };
    hooks.bind = [](int, const sockaddr *, socklen_t) { return 0; };
    Interpose::install(hooks);
    CAddressWatcher watcher(nullptr);
    const int fd = watcher.open_uevent_socket();
    Interpose::install(Interpose::Hooks());
    QCOMPARE(fd, 0);
}

void UeventListenerTest::kernelSocket_hasAPortOfItsOwnAndAllGroups()
{
    CAddressWatcher watcher(nullptr);
    const int first = watcher.open_uevent_socket();
    const int second = watcher.open_uevent_socket();
    sockaddr_nl addresses[2] = {};
    int index = 0;
    for (const int fd : { first, second }) {
        QVERIFY(fd >= 0);
        socklen_t length = sizeof addresses[0];
        auto *address = &addresses[index++];
        QCOMPARE(getsockname(fd, reinterpret_cast<sockaddr *>(address), &length), 0);
        QCOMPARE(int(address->nl_family), AF_NETLINK);
        QCOMPARE(address->nl_groups, 0xFFFFFFFFU);
        QVERIFY(address->nl_pid != 0);
        int protocol = -1;
        length = sizeof protocol;
        QCOMPARE(getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &length), 0);
        QCOMPARE(protocol, NETLINK_KOBJECT_UEVENT);
    }
    QVERIFY(addresses[0].nl_pid != addresses[1].nl_pid);
    close(first);
    close(second);
}

void UeventListenerTest::changeOfTheLanSwitch_logsAndEmitsItsState_data()
{
    QTest::addColumn<QByteArrayList>("strings");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("state");
    const auto row = [](const char *title, const QByteArrayList &strings, const QString &name,
                        int state) { QTest::newRow(title) << strings << name << state; };
    const QByteArray summary = "change@" + lanSwitch;
    const QByteArray name = "SWITCH_NAME=lan-switch";
    row("state 1",
        { summary, change, ours, "SUBSYSTEM=switch", name, "SWITCH_STATE=1", "SEQNUM=812" },
        "lan-switch", 1);
    row("state 0",
        { summary, change, ours, "SUBSYSTEM=switch", name, "SWITCH_STATE=0", "SEQNUM=812" },
        "lan-switch", 0);
    row("no SWITCH_STATE key", { summary, change, ours, name, "SEQNUM=812" }, "lan-switch", 0);
    row("opposite order", { "SWITCH_STATE=3", name, ours, change, summary }, "lan-switch", 3);
    row("no SWITCH_NAME key", { change, ours, "SWITCH_STATE=1" }, "", 1);
    row("SWITCH_NAME of another switch is not compared",
        { change, ours, "SWITCH_NAME=h2w", "SWITCH_STATE=1" }, "h2w", 1);
    row("empty SWITCH_NAME", { "SWITCH_NAME=", change, ours }, "", 0);
    row("name with an equals sign", { "SWITCH_NAME=a=b", change, ours }, "a=b", 0);
    row("later occurrences overwrite",
        { "SWITCH_NAME=first", "ACTION=add", ours, "SWITCH_STATE=1", "SWITCH_NAME=second", change,
          ours, "SWITCH_STATE=2" },
        "second", 2);
    row("later state that is no number overwrites",
        { change, ours, "SWITCH_STATE=1", "SWITCH_STATE=abc" }, "", 0);
    row("keys behind an empty string are not reached", { change, ours, "", "SWITCH_STATE=1", name },
        "", 0);
}

void UeventListenerTest::changeOfTheLanSwitch_logsAndEmitsItsState()
{
    QFETCH(QByteArrayList, strings);
    QFETCH(QString, name);
    QFETCH(int, state);
    Parser parser;
    const lan_switch record = parser.parse(strings);
    QCOMPARE(parser.states, QVector<int>{ state });
    QCOMPARE(parser.otherSignals, 0);
    COMPARE_LOG(parser.log, { changeLine(name, "change", state) });
    QCOMPARE(QString(record.name), name);
    QCOMPARE(QByteArray(record.action), QByteArray("change"));
    QCOMPARE(QByteArray(record.path), lanSwitch);
    QCOMPARE(record.state, state);
}

void UeventListenerTest::actionThatBeginsWithChange_passes()
{
    for (const char *action : { "changed", "changes-more", "change " }) {
        Parser parser;
        parser.parse({ ours, QByteArray("ACTION=") + action });
        QCOMPARE(parser.states, QVector<int>{ 0 });
        COMPARE_LOG(parser.log, { changeLine("", action, 0) });
    }
}

void UeventListenerTest::stateText_isConvertedLikeADecimalNumber_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("state");
    constexpr bool wide = sizeof(long) > sizeof(int);
    constexpr int most = std::numeric_limits<int>::max();
    QTest::newRow("letters") << QByteArray("abc") << 0;
    QTest::newRow("empty") << QByteArray() << 0;
    QTest::newRow("negative") << QByteArray("-5") << -5;
    QTest::newRow("plus sign") << QByteArray("+6") << 6;
    QTest::newRow("leading blanks") << QByteArray(" \t 7") << 7;
    QTest::newRow("number and letters") << QByteArray("12ab") << 12;
    QTest::newRow("leading zero is not octal") << QByteArray("010") << 10;
    QTest::newRow("hexadecimal") << QByteArray("0x1f") << 0;
    QTest::newRow("largest") << QByteArray("2147483647") << most;
    QTest::newRow("smallest") << QByteArray("-2147483648") << -most - 1;
    QTest::newRow("one above 32 bit") << QByteArray("2147483648") << (wide ? -most - 1 : most);
    QTest::newRow("two to the 32nd and one") << QByteArray("4294967297") << (wide ? 1 : most);
    QTest::newRow("above 64 bit") << QByteArray("99999999999999999999") << (wide ? -1 : most);
}

void UeventListenerTest::stateText_isConvertedLikeADecimalNumber()
{
    QFETCH(QByteArray, text);
    QFETCH(int, state);
    Parser parser;
    const lan_switch record = parser.parse({ change, ours, "SWITCH_STATE=" + text });
    QCOMPARE(record.state, state);
    QCOMPARE(parser.states, QVector<int>{ state });
    COMPARE_LOG(parser.log, { changeLine(QString(), "change", state) });
}

void UeventListenerTest::eventToIgnore_leavesNoTrace_data()
{
    QTest::addColumn<QByteArrayList>("strings");
    using Strings = QByteArrayList;
    QTest::newRow("no string at all") << Strings();
    QTest::newRow("summary only") << Strings{ "change@" + lanSwitch };
    QTest::newRow("no device path") << Strings{ change, "SWITCH_STATE=1" };
    QTest::newRow("neither device path nor action") << Strings{ "SWITCH_STATE=1" };
    QTest::newRow("device path behind an empty string") << Strings{ change, "", ours };
    for (const char *path : { "2", "/", "/state", " " })
        QTest::addRow("path with '%s' at its end", path) << Strings{ change, ours + path };
    QTest::newRow("path cut short") << Strings{ change, ours.chopped(7) };
    QTest::newRow("path less its last letter") << Strings{ change, ours.chopped(1) };
    QTest::newRow("path with another last letter") << Strings{ change, ours.chopped(1) + "H" };
    QTest::newRow("path in capitals") << Strings{ change, "DEVPATH=" + lanSwitch.toUpper() };
    QTest::newRow("path below /sys") << Strings{ change, "DEVPATH=/sys" + lanSwitch };
    QTest::newRow("empty path") << Strings{ change, "DEVPATH=" };
    QTest::newRow("other device without action") << Strings{ "DEVPATH=/devices/virtual/net/lo" };
    for (const char *action : { "add", "remove", "online", "offline", "move", "", "chang", "chan",
                                "Change", "CHANGE", " change", "exchange", "chance" }) {
        QTest::addRow("action '%s'", action)
                << Strings{ ours, QByteArray("ACTION=") + action, "SWITCH_STATE=1" };
        QTest::addRow("action '%s' at the end", action)
                << Strings{ "SWITCH_STATE=1", ours, QByteArray("ACTION=") + action };
    }
    QTest::newRow("action overwritten by another") << Strings{ change, ours, "ACTION=remove" };
}

void UeventListenerTest::eventToIgnore_leavesNoTrace()
{
    QFETCH(QByteArrayList, strings);
    Parser parser;
    parser.parse(strings);
    QCOMPARE(parser.states, QVector<int>());
    QCOMPARE(parser.otherSignals, 0);
    COMPARE_LOG(parser.log, {});
    // The same parser still knows an event of the LAN switch.
    parser.parse({ change, ours });
    QCOMPARE(parser.states, QVector<int>{ 0 });
}

void UeventListenerTest::eventWithoutAction_logsOnlyThat()
{
    Parser parser;
    const lan_switch record = parser.parse({ ours, "SWITCH_NAME=lan-switch", "SWITCH_STATE=1" });
    QCOMPARE(fields(record), (QByteArrayList{ "lan-switch", "(null)", lanSwitch, "1" }));
    QCOMPARE(parser.states, QVector<int>());
    QCOMPARE(parser.otherSignals, 0);
    COMPARE_LOG(parser.log, { { QtCriticalMsg, noAction } });
}

void UeventListenerTest::pathOfAnotherDevice_endsTheParsing_data()
{
    QTest::addColumn<QByteArrayList>("strings");
    QTest::addColumn<QByteArrayList>("record");
    using Strings = QByteArrayList;
    const QByteArray path = "/devices/virtual/switch/h2w";
    const QByteArray others = "DEVPATH=" + path;
    QTest::newRow("before all other keys")
            << Strings{ others, "SWITCH_NAME=h2w", change, "SWITCH_STATE=1" }
            << Strings{ "(null)", "(null)", path, "0" };
    QTest::newRow("before the state")
            << Strings{ change, "SWITCH_NAME=h2w", others, "SWITCH_STATE=1" }
            << Strings{ "h2w", "change", path, "0" };
    QTest::newRow("behind all other keys")
            << Strings{ change, "SWITCH_NAME=h2w", "SWITCH_STATE=1", others }
            << Strings{ "h2w", "change", path, "1" };
    QTest::newRow("before the path of the LAN switch")
            << Strings{ change, others, ours, "SWITCH_STATE=1" }
            << Strings{ "(null)", "change", path, "0" };
    QTest::newRow("behind the path of the LAN switch")
            << Strings{ change, ours, "SWITCH_STATE=1", others, "SWITCH_STATE=2" }
            << Strings{ "(null)", "change", path, "1" };
}

void UeventListenerTest::pathOfAnotherDevice_endsTheParsing()
{
    QFETCH(QByteArrayList, strings);
    QFETCH(QByteArrayList, record);
    Parser parser;
    QCOMPARE(fields(parser.parse(strings)), record);
    QCOMPARE(parser.states, QVector<int>());
    COMPARE_LOG(parser.log, {});
}

void UeventListenerTest::stringThatOnlyResemblesAKey_isSkipped_data()
{
    QTest::addColumn<QByteArray>("string");
    for (const char *key : { "SWITCH_NAME", "ACTION", "DEVPATH", "SWITCH_STATE" }) {
        QTest::addRow("%s without equals sign", key) << QByteArray(key);
        QTest::addRow("%s with another sign", key) << key + QByteArray(":9");
        QTest::addRow("%s with a longer key", key) << key + QByteArray("_OLD=9");
        QTest::addRow("%s less its last letter", key) << QByteArray(key).chopped(1) + "=9";
        QTest::addRow("%s less its first letter", key) << QByteArray(key).mid(1) + "=9";
        QTest::addRow("%s behind a blank", key) << ' ' + QByteArray(key) + "=9";
        QTest::addRow("%s behind another letter", key) << 'X' + QByteArray(key) + "=9";
        QTest::addRow("%s in small letters", key) << QByteArray(key).toLower() + "=9";
    }
    QTest::newRow("a lone letter") << QByteArray("S");
    QTest::newRow("a lone equals sign") << QByteArray("=9");
}

void UeventListenerTest::stringThatOnlyResemblesAKey_isSkipped()
{
    QFETCH(QByteArray, string);
    const QByteArrayList expected = { "lan-switch", "change", lanSwitch, "1" };
    const QByteArrayList event = { "SWITCH_NAME=lan-switch", change, ours, "SWITCH_STATE=1" };
    for (int place = 0; place <= event.size(); ++place) {
        QByteArrayList strings = event;
        strings.insert(place, string);
        Parser parser;
        QCOMPARE(fields(parser.parse(strings)), expected);
        QCOMPARE(parser.states, QVector<int>{ 1 });
        COMPARE_LOG(parser.log, { changeLine("lan-switch", "change", 1) });
    }
}

void UeventListenerTest::recordPointsIntoTheMessage()
{
    const LogCapture log;
    const GuardedMessage message({ "SWITCH_NAME=lan-switch", change, ours });
    CAddressWatcher watcher(nullptr);
    lan_switch record = {};
    watcher.parse_uevent(message.data(), &record);
    QCOMPARE(record.name - message.data(), std::ptrdiff_t(12));
    QCOMPARE(record.action - message.data(), std::ptrdiff_t(23 + 7));
    QCOMPARE(record.path - message.data(), std::ptrdiff_t(23 + 14 + 8));
}

void UeventListenerTest::recordFilledBefore_isNotCleared()
{
    Parser parser;
    const lan_switch before = { "earlier", "changed", lanSwitch.constData(), 7 };
    QCOMPARE(fields(parser.parse({ "SUBSYSTEM=switch" }, before)), fields(before));
    QCOMPARE(parser.states, QVector<int>{ 7 });
    parser.parse({ change }, before);
    COMPARE_LOG(parser.log,
                { changeLine("earlier", "changed", 7), changeLine("earlier", "change", 7) });
}

void UeventListenerTest::pathOfAnotherDeviceFromBefore_isCheckedAfterTheAction()
{
    Parser parser;
    const lan_switch before = { nullptr, nullptr, "/devices/virtual/switch/h2w", 0 };
    parser.parse({ change, "SWITCH_STATE=1" }, before);
    COMPARE_LOG(parser.log, {});
    parser.parse({ "SWITCH_STATE=1" }, before);
    COMPARE_LOG(parser.log, { { QtCriticalMsg, noAction } });
    QCOMPARE(parser.states, QVector<int>());
}

void UeventListenerTest::sameEventTwice_isEmittedTwice()
{
    Parser parser;
    parser.parse({ change, ours, "SWITCH_STATE=1" });
    parser.parse({ change, ours, "SWITCH_STATE=1" });
    QCOMPARE(parser.states, (QVector<int>{ 1, 1 }));
    COMPARE_LOG(parser.log, { changeLine("", "change", 1), changeLine("", "change", 1) });
}

void UeventListenerTest::lineIsLoggedBeforeTheSignal()
{
    Parser parser;
    parser.parse({ change, ours });
    QCOMPARE(parser.linesBeforeSignal, QVector<int>{ 1 });
}

HOPLANE_TEST_MAIN(UeventListenerTest)
#include "ueventlistener.moc"
