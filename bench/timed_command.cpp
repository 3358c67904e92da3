// SPDX-License-Identifier: MIT
//
// What the programs that the library is compared with are told to run: writes when it began, and
// its last argument, to the file "reactions" beside itself, for it inherits nothing from some of
// them.

#include "stamp.h"

#include <fcntl.h>
#include <string>

int main(int argc, char **argv)
{
    const long long now = nowNs();
    char own[4096];
    const ssize_t length = readlink("/proc/self/exe", own, sizeof own);
    if (length <= 0 || length == ssize_t(sizeof own))
        return 1;
    const std::string path(own, size_t(length));
    const std::string file = path.substr(0, path.rfind('/')) + "/reactions";
    const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return 1;
    writeStamp(fd, now, argc > 1 ? argv[argc - 1] : "-");
    return 0;
}
