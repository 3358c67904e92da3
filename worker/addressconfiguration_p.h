// SPDX-License-Identifier: MIT
#ifndef HOPLANE_ADDRESSCONFIGURATION_P_H
#define HOPLANE_ADDRESSCONFIGURATION_P_H

/** Bytes of the buffer that receives a command's output, the terminating zero included. */
constexpr int commandResultSize = 4096;

/** Templates of shell commands; the trailing blank is meant. */
namespace NmcliCommand {

extern const char activate[];

} // namespace NmcliCommand

#endif
