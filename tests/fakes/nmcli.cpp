// SPDX-License-Identifier: MIT
//
// Stands in for nmcli in the unit tests. The environment variable FAKE_NMCLI names a folder:
//
//   scenario   what to do, one line a verb: VERB BEHAVIOUR [ARGUMENT]
//   calls      receives each call: every argument followed by \x1f, the call ended by \x1e
//   released   when it appears, "slow" commands go on
//
// Verbs: lookup (the UUID of a named connection), active (the UUIDs of the active ones), modify,
// up. A verb without a line prints nothing and exits 0. Several lines for one verb are done in
// their order.
//
// Behaviours:
//   print TEXT   prints TEXT; \n in it is a line break, \0 a NUL byte
//   error TEXT   prints TEXT and a line break to standard error
//   bytes N      prints one line of N bytes, the line break included
//   unended N    prints N bytes without a line break
//   lines N      prints lines of 100 bytes, N bytes in all
//   slow         waits until the folder holds "released"
//   exit N       exits with status N
//   kill         ends by SIGKILL

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

std::string verbOf(int argc, char **argv)
{
    const std::string first = argc > 1 ? argv[1] : "";
    if (first == "-g")
        return "lookup";
    if (first == "-f")
        return "active";
    const std::string second = argc > 2 ? argv[2] : "";
    return second == "modify" || second == "up" ? second : "unknown";
}

void recordCall(const std::string &folder, int argc, char **argv)
{
    std::string record;
    for (int i = 1; i < argc; ++i)
        record += std::string(argv[i]) + '\x1f';
    record += '\x1e';
    const int fd =
            open((folder + "/calls").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, record.data(), record.size()) != ssize_t(record.size())) {
        std::perror("fake nmcli: cannot record the call");
        std::exit(70);
    }
    close(fd);
}

std::string unescaped(const std::string &text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char next = i + 1 < text.size() ? text[i + 1] : ' ';
        if (text[i] == '\\' && (next == 'n' || next == '0')) {
            result += next == 'n' ? '\n' : '\0';
            ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}

void waitForRelease(const std::string &folder)
{
    while (access((folder + "/released").c_str(), F_OK) != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

void behave(const std::string &folder, const std::string &behaviour, const std::string &argument)
{
    const auto number = [&] { return std::size_t(std::stoul(argument)); };
    if (behaviour == "print") {
        std::cout << unescaped(argument) << std::flush;
    } else if (behaviour == "error") {
        std::cerr << argument << '\n';
    } else if (behaviour == "bytes") {
        std::cout << std::string(number() - 1, 'x') << '\n' << std::flush;
    } else if (behaviour == "unended") {
        std::cout << std::string(number(), 'x') << std::flush;
    } else if (behaviour == "lines") {
        for (std::size_t left = number(); left > 0; left -= std::min<std::size_t>(left, 100))
            std::cout << std::string(std::min<std::size_t>(left, 100) - 1, 'x') << '\n';
        std::cout << std::flush;
    } else if (behaviour == "slow") {
        waitForRelease(folder);
    } else if (behaviour == "exit") {
        std::exit(int(number()));
    } else if (behaviour == "kill") {
        raise(SIGKILL);
    } else {
        std::cerr << "fake nmcli: unknown behaviour " << behaviour << '\n';
        std::exit(70);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const char *folder = std::getenv("FAKE_NMCLI");
    if (!folder) {
        std::cerr << "fake nmcli: FAKE_NMCLI is not set\n";
        return 70;
    }
    recordCall(folder, argc, argv);
    const std::string verb = verbOf(argc, argv);
    std::ifstream scenario(std::string(folder) + "/scenario");
    std::string line;
    while (std::getline(scenario, line)) {
        std::istringstream words(line);
        std::string lineVerb;
        std::string behaviour;
        std::string argument;
        words >> lineVerb >> behaviour;
        std::getline(words >> std::ws, argument);
        if (lineVerb == verb)
            behave(folder, behaviour, argument);
    }
    return 0;
}
