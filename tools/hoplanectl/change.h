// SPDX-License-Identifier: MIT
#pragma once

#include "commandline.h"
#include "configuration.h"

// Makes the changes to the chosen application's file and tells them, one line or object a value
// that is different; with `dryRun` only tells them. Returns the exit status.
int makeChanges(Output *out, const Changes &changes, bool dryRun);
