// SPDX-License-Identifier: MIT
#ifndef FLOOD_H
#define FLOOD_H

#include <pthread.h>

/** Who receives the flood. */
struct Receiver
{
    int fd;
    pthread_t thread;
};

/**
 * Sends @p count uevents of another device as fast as the receiver takes them, so that none is
 * lost, and waits until it has come to rest. Returns the processor time that its thread took for
 * each, in nanoseconds; ends the process on failure.
 */
double flood(const Receiver &receiver, int count);

/** The COUNT of a command line; ends the process if it is none. */
int floodCount(int argc, char **argv);

#endif
