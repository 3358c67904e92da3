// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class Hoplane;

// Writes the line "fence NAME" from the main thread, once the library's worker thread has handled
// all that was queued to it before, and the main thread what those handlers queued to it.
void passWorkerFence(Hoplane *hoplane, const QString &name);
