// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

// Writes "@SECONDS KIND TEXT" to standard output at once and as a whole, with the seconds of the
// monotonic clock. May be called from any thread. A text of several lines becomes one line, with
// "\n" for its line breaks.
void writeLine(const char *kind, const QString &text);
