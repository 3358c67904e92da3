// SPDX-License-Identifier: MIT
#ifndef ARGUMENTS_H
#define ARGUMENTS_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sysexits.h>

/** Tells how the program is called, and ends it. */
[[noreturn]] inline void endWithUsage(const char *usage)
{
    std::fprintf(stderr, "usage: %s\n", usage);
    std::exit(EX_USAGE);
}

/** The number from 1 to a million that all of @p text is; else 0. */
inline int countOf(const char *text)
{
    constexpr long most = 1000000;
    char *end = nullptr;
    const long count = std::strtol(text, &end, 10);
    return *end == '\0' && count >= 1 && count <= most ? int(count) : 0;
}

/** Whether the first argument is "links", not "uevents"; ends the program if it is neither. */
inline bool isOfLinksIn(int argc, char **argv, const char *usage)
{
    if (argc > 1 && std::strcmp(argv[1], "links") == 0)
        return true;
    if (argc > 1 && std::strcmp(argv[1], "uevents") == 0)
        return false;
    endWithUsage(usage);
}

#endif
