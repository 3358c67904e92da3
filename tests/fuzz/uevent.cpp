// SPDX-License-Identifier: MIT
// Any bytes as one uevent, as the watcher receives them: up to 2047, and two zeros behind them.

#include "caddresswatcher.h"
#include "fuzzing.h"

#include <QtCore/QObject>

#include <memory>
#include <optional>
#include <vector>

namespace {

constexpr std::size_t mostBytes = 2047;
const std::string lanSwitch = "/devices/virtual/switch/lan-switch";

/** What is in one uevent, read in the simplest way. */
struct Reading
{
    std::optional<std::string> name;
    std::optional<std::string> action;
    std::optional<std::string> path;
    qint32 state = 0;
};

std::vector<std::string> strings(const std::string &bytes)
{
    std::vector<std::string> parts;
    std::string part;
    for (const char byte : bytes + std::string(2, '\0')) {
        if (byte != '\0') {
            part += byte;
            continue;
        }
        if (part.empty())
            break;
        parts.push_back(part);
        part.clear();
    }
    return parts;
}

/** A decimal number at the beginning, as the C library reads it; 0 without one. */
qint32 number(const std::string &text)
{
    std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
    if (at == std::string::npos)
        return 0;
    const bool negative = text[at] == '-';
    if (text[at] == '-' || text[at] == '+')
        ++at;
    // The largest and the smallest 64-bit number, for what is beyond them.
    constexpr __int128 most = std::numeric_limits<qint64>::max();
    __int128 value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
        value = std::min<__int128>(value * 10 + (text[at] - '0'), most + 1);
    value = negative ? -value : std::min(value, most);
    return qint32(quint32(quint64(qint64(value))));
}

Reading read(const std::string &bytes)
{
    Reading reading;
    for (const std::string &part : strings(bytes)) {
        const auto after = [&part](const std::string &key) {
            return part.substr(0, key.size()) == key
                    ? std::optional<std::string>(part.substr(key.size()))
                    : std::nullopt;
        };
        if (const auto name = after("SWITCH_NAME="))
            reading.name = name;
        if (const auto action = after("ACTION="))
            reading.action = action;
        if (const auto path = after("DEVPATH=")) {
            reading.path = path;
            if (*path != lanSwitch)
                break;
        }
        if (const auto state = after("SWITCH_STATE="))
            reading.state = number(*state);
    }
    return reading;
}

QString text(const std::optional<std::string> &bytes)
{
    return bytes ? QString::fromUtf8(bytes->c_str()) : QString();
}

/** What such an event has to lead to. */
QVector<Fuzzing::Line> log(const Reading &reading, bool *emitted)
{
    *emitted = false;
    if (reading.path != lanSwitch)
        return {};
    if (!reading.action)
        return { { QtCriticalMsg, QStringLiteral("[ parse_uevent ] cdev->action is NULL") } };
    if (reading.action->substr(0, 6) != "change")
        return {};
    *emitted = true;
    QString shown;
    // As the logger shows a text.
    QDebug(&shown) << QStringLiteral("parse_uevent event { name=") + text(reading.name)
                    + QStringLiteral(", action=") + text(reading.action) + QStringLiteral(", path=")
                    + text(reading.path) + QStringLiteral(", state=")
                    + QString::number(reading.state) + QStringLiteral("}");
    return { { QtWarningMsg, QStringLiteral("[ parse_uevent ] ") + shown.chopped(1) } };
}

void requireSame(const char *property, const char *found,
                 const std::optional<std::string> &expected)
{
    Fuzzing::require(property, expected ? found && *expected == found : !found);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size > mostBytes)
        return -1;
    static CAddressWatcher watcher(nullptr);
    static QVector<int> states;
    static const auto connection = QObject::connect(&watcher, &CAddressWatcher::reopen_network,
                                                    [](int state) { states.append(state); });
    Q_UNUSED(connection)
    states.clear();
    Fuzzing::takeLog();

    // Of exactly this size, so that a byte read behind it is found out.
    const std::unique_ptr<char[]> message(new char[size + 2]());
    std::copy_n(data, size, message.get());
    lan_switch device = {};
    watcher.parse_uevent(message.get(), &device);

    const Reading expected = read(std::string(data, data + size));
    bool emitted = false;
    Fuzzing::requireEqual("the log", Fuzzing::takeLog(), log(expected, &emitted));
    Fuzzing::require("at most one signal, for a change of the switch",
                     states == (emitted ? QVector<int>{ expected.state } : QVector<int>()));
    requireSame("the name", device.name, expected.name);
    requireSame("the action", device.action, expected.action);
    requireSame("the path", device.path, expected.path);
    Fuzzing::require("the state", device.state == expected.state);
    return 0;
}
