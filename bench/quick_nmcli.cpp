// SPDX-License-Identifier: MIT
//
// An nmcli that has done all at once, so that what a search adds to its commands can be seen.

#include <cstring>
#include <unistd.h>

int main(int argc, char **argv)
{
    static const char uuid[] = "f1e5a2c0-6d0b-4a34-9f43-3c6c5e1a7d42\n";
    if (argc > 1 && std::strcmp(argv[1], "-g") == 0)
        return write(STDOUT_FILENO, uuid, sizeof uuid - 1) > 0 ? 0 : 1;
    return 0;
}
