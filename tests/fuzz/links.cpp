// SPDX-License-Identifier: MIT
// Any bytes as one read of the link notifications, up to the 20480 of the watcher's buffer.

#include "caddresswatcher.h"
#include "fuzzing.h"

#include <QtCore/QObject>

#include <cstring>
#include <memory>

namespace {

constexpr std::size_t mostBytes = 20480;

using Walk = bool (CAddressWatcher::*)(const char *, int);

template<Walk walk>
struct Grant
{
    // An explicit instantiation may name a private member; its friend hands the pointer out.
    friend Walk granted() { return walk; }
};
Walk granted();
template struct Grant<&CAddressWatcher::handleLinkMessages>;

/** What a read has to lead to: what is printed, and the signals in their order. */
struct Outcome
{
    std::string printed;
    std::string signals_; // 'u' for up, 'd' for down
    bool goesOn = true;
};

/** The bytes, each read of which is looked at first. */
class Memory
{
public:
    explicit Memory(const std::string &bytes)
        : m_bytes(bytes)
    {
    }

    unsigned long number(unsigned long at, unsigned size) const
    {
        unsigned long value = 0;
        for (unsigned i = 0; i < size; ++i)
            value |= (unsigned long)(unsigned char)(m_bytes.at(at + i)) << (8 * i);
        return value;
    }
    std::string text(unsigned long begin, unsigned long end) const
    {
        std::string text;
        for (unsigned long at = begin; at < end && m_bytes.at(at) != '\0'; ++at)
            text += m_bytes[at];
        return text;
    }
    unsigned long size() const { return m_bytes.size(); }

private:
    const std::string &m_bytes;
};

unsigned long rounded(unsigned long length)
{
    while (length % 4 != 0)
        ++length;
    return length;
}

/** The attributes from `at` to `end`: the first name. */
std::string nameIn(const Memory &memory, unsigned long at, unsigned long end)
{
    while (at + 4 <= end) {
        const unsigned long length = memory.number(at, 2);
        if (length < 4 || at + length > end)
            break;
        if (memory.number(at + 2, 2) == 3)
            return ' ' + memory.text(at + 4, at + length);
        at += rounded(length);
    }
    return std::string();
}

Outcome expect(const Memory &memory)
{
    Outcome outcome;
    unsigned long at = 0;
    while (at + 16 <= memory.size()) {
        const unsigned long length = memory.number(at, 4);
        const unsigned long type = memory.number(at + 4, 2);
        if (length < 16 || at + length > memory.size() || type == 3)
            break;
        if (type == 2) {
            outcome.goesOn = false;
            break;
        }
        if (type == 16 && length >= 32) {
            const bool up = (memory.number(at + 24, 4) & 0x10000) != 0;
            outcome.printed += std::to_string(memory.number(at + 20, 4)) + ": "
                    + (up ? "up" : "down") + nameIn(memory, at + 32, at + length) + '\n';
            outcome.signals_ += up ? 'u' : 'd';
        }
        at += rounded(length);
    }
    return outcome;
}

/** Standard output's text since it was made. */
class Printed
{
public:
    Printed()
        : m_kept(stdout)
    {
        stdout = open_memstream(&m_text, &m_size);
    }
    ~Printed()
    {
        std::fclose(stdout);
        stdout = m_kept;
        std::free(m_text);
    }
    Q_DISABLE_COPY(Printed)

    std::string text() const
    {
        std::fflush(stdout);
        return std::string(m_text, m_size);
    }

private:
    FILE *m_kept;
    char *m_text = nullptr;
    std::size_t m_size = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size > mostBytes)
        return -1;
    static CAddressWatcher watcher(nullptr);
    static std::string emitted;
    static const bool connected = [] {
        QObject::connect(&watcher, &CAddressWatcher::addressChanged, [] { emitted += 'u'; });
        QObject::connect(&watcher, &CAddressWatcher::netWorkdown, [] { emitted += 'd'; });
        return true;
    }();
    Q_UNUSED(connected)
    emitted.clear();
    Fuzzing::takeLog();

    // Of exactly this size, so that a byte read behind it is found out.
    const std::unique_ptr<char[]> bytes(new char[size]);
    std::copy_n(data, size, bytes.get());
    const Printed printed;
    const bool goesOn = (watcher.*granted())(bytes.get(), int(size));

    const std::string copy(data, data + size);
    const Outcome expected = expect(Memory(copy));
    Fuzzing::requireEqual("what is printed", QString::fromLatin1(printed.text().c_str()),
                          QString::fromLatin1(expected.printed.c_str()));
    Fuzzing::require("the signals", emitted == expected.signals_);
    Fuzzing::require("only an error ends it", goesOn == expected.goesOn);
    Fuzzing::require("nothing is logged", Fuzzing::takeLog().isEmpty());
    return 0;
}
