// SPDX-License-Identifier: MIT
// Any text as a netmask: the prefix length in the command that the library builds.

#include "fuzzing.h"

#include <vector>

namespace {

constexpr std::size_t mostBytes = 200;

/** The prefix length, from a text of 32 digits. */
int prefixOf(const QString &mask)
{
    const QStringList parts = mask.split('.');
    if (parts.size() != 4)
        return 0;
    std::string digits(32, '0');
    for (int part = 0; part < 4; ++part) {
        // Its lowest bit stands at the end of its own eight; bits above the eighth are to the left.
        const quint64 value = parts[part].toUInt();
        for (int bit = 0; bit < 32; ++bit) {
            const int place = (part + 1) * 8 - 1 - bit;
            if (place >= 0 && (value >> bit & 1) != 0)
                digits[std::size_t(place)] = '1';
        }
    }
    if (digits == std::string(8, '1') + std::string(24, '0'))
        return 6;
    const std::size_t zero = digits.find('0');
    return zero == std::string::npos ? 32 : int(zero);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size > mostBytes)
        return -1;
    const QString mask = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    static const std::string uuid = "u\n";
    static const std::string nothing;
    std::vector<std::string> commands;
    Fuzzing::setAnswer([&](const char *command) {
        commands.emplace_back(command);
        return commands.size() == 1 ? &uuid : &nothing;
    });
    Fuzzing::takeLog();

    const bool applied = Fuzzing::worker().setStaticIpAddr(QStringLiteral("10.0.0.2"), mask,
                                                           QString(), QString(), QString());
    Fuzzing::require("it is applied whatever the netmask is", applied && commands.size() == 3);
    Fuzzing::requireEqual("the command", QString::fromStdString(commands[1]),
                          QStringLiteral("nmcli connection modify uuid u ipv4.addresses "
                                         "10.0.0.2/%1    connection.autoconnect yes ipv4.method "
                                         "manual")
                                  .arg(prefixOf(mask)));
    const QVector<Fuzzing::Line> log = Fuzzing::takeLog();
    const bool complains = !log.isEmpty()
            && log.first().text.startsWith(QStringLiteral("[ setStaticIpAddr ] LocalMask error: "));
    Fuzzing::require("an error for any but four parts", complains == (mask.count('.') != 3));
    return 0;
}
