// SPDX-License-Identifier: MIT
//
// The floor of a search whose first server answers at once: the same commands by the shell, the
// same sleep, one connection.
//
//   search_floor SEARCHES ADDRESS PORT

#include "arguments.h"
#include "stamp.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/socket.h>

namespace {

long long commandsNs = 0;

std::string run(const std::string &command)
{
    const long long begin = nowNs();
    FILE *stream = popen(command.c_str(), "r");
    if (!stream)
        return {};
    std::string output;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, stream))
        output += buffer;
    pclose(stream);
    commandsNs += nowNs() - begin;
    return output.substr(0, output.find('\n'));
}

bool connects(const char *address, uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    inet_pton(AF_INET, address, &server.sin_addr);
    (void)connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server);
    const timespec half = { 0, 500000000 };
    nanosleep(&half, nullptr);
    pollfd waiting = { fd, POLLOUT, 0 };
    int error = 0;
    socklen_t size = sizeof error;
    const bool connected = poll(&waiting, 1, 1) == 1
            && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
    close(fd);
    return connected;
}

} // namespace

int main(int argc, char **argv)
{
    const int count = argc == 4 ? countOf(argv[1]) : 0;
    const int port = count ? countOf(argv[3]) : 0;
    if (port == 0 || port > UINT16_MAX)
        endWithUsage("search_floor SEARCHES ADDRESS PORT");
    for (int left = count; left > 0; --left) {
        commandsNs = 0;
        const long long begin = nowNs();
        const std::string uuid = run("nmcli -g connection.uuid c s 'lan' ");
        run("nmcli connection modify uuid " + uuid
            + " ipv4.addresses 127.0.0.1/8   connection.autoconnect yes ipv4.method manual");
        run("nmcli connection up uuid " + uuid + " ");
        if (!connects(argv[2], uint16_t(port))) {
            std::perror("search_floor");
            return EXIT_FAILURE;
        }
        const long long end = nowNs();
        writeStamp(STDOUT_FILENO, begin, "begin");
        writeStamp(STDOUT_FILENO, end, "success");
        writeStamp(STDOUT_FILENO, commandsNs, "commands");
    }
    return EXIT_SUCCESS;
}
