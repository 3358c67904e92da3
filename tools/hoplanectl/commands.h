// SPDX-License-Identifier: MIT
#pragma once

#include "commandline.h"

// Each in the source of its name.
int runShow(Context &context, const Command &command, const QStringList &arguments);
int runSet(Context &context, const Command &command, const QStringList &arguments);
int runImport(Context &context, const Command &command, const QStringList &arguments);
int runCheck(Context &context, const Command &command, const QStringList &arguments);
int runPlan(Context &context, const Command &command, const QStringList &arguments);
int runProbe(Context &context, const Command &command, const QStringList &arguments);
int runSearch(Context &context, const Command &command, const QStringList &arguments);
int runWatch(Context &context, const Command &command, const QStringList &arguments);
int runLog(Context &context, const Command &command, const QStringList &arguments);
