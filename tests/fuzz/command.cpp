// SPDX-License-Identifier: MIT
// Any output of a command, appended to any text that the caller's buffer has already.

#include "fuzzing.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr std::size_t bufferSize = 4096;
constexpr std::size_t lineSize = 4095;
constexpr std::size_t mostBytes = 40000;
constexpr std::size_t guardSize = 64;
constexpr char guard = 0x5A;

/** What the buffer's text becomes, read in the simplest way. */
std::string append(std::string text, const std::string &output, bool *tooLarge)
{
    std::size_t length = text.size();
    std::size_t at = 0;
    *tooLarge = false;
    while (at < output.size() && !*tooLarge) {
        std::string piece;
        while (at < output.size() && piece.size() < lineSize) {
            piece += output[at];
            if (output[at++] == '\n')
                break;
        }
        // What stands behind a zero is not seen.
        piece.resize(std::min(piece.find('\0'), piece.size()));
        length += piece.size();
        text += piece;
        text.resize(std::min(text.size(), bufferSize - 1));
        *tooLarge = length > bufferSize;
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size > mostBytes)
        return -1;
    Fuzzing::Bytes bytes(data, size);
    const bool starts = bytes.byte() != 0;
    const std::size_t before =
            std::min<std::size_t>((bytes.byte() << 8 | bytes.byte()) & 0x1FFF, bufferSize - 1);
    const std::string output = bytes.rest();
    Fuzzing::setAnswer([&](const char *) { return starts ? &output : nullptr; });
    Fuzzing::takeLog();

    std::string memory(guardSize + bufferSize + guardSize, guard);
    char *const result = &memory[guardSize];
    std::memset(result, 0, bufferSize);
    std::memset(result, 'b', before);
    const bool run = Fuzzing::worker().excuCmd("nmcli", result);

    bool tooLarge = false;
    const std::string expected =
            append(std::string(before, 'b'), starts ? output : std::string(), &tooLarge);
    Fuzzing::require("whether it could be started", run == starts);
    Fuzzing::require("the guards",
                     std::string(guardSize, guard) == memory.substr(0, guardSize)
                             && std::string(guardSize, guard)
                                     == memory.substr(guardSize + bufferSize));
    Fuzzing::require("a zero within the buffer", std::memchr(result, 0, bufferSize) != nullptr);
    Fuzzing::require("the text", expected == result);
    QVector<Fuzzing::Line> lines;
    if (!starts)
        lines.append({ QtWarningMsg, QStringLiteral("[ excuCmd ] \"popen nmcli  error.\"") });
    if (tooLarge)
        lines.append({ QtWarningMsg,
                       QStringLiteral("[ excuCmd ] Get Disk data error bacause data memery is too "
                                      "large.") });
    Fuzzing::requireEqual("the log", Fuzzing::takeLog(), lines);
    return 0;
}
