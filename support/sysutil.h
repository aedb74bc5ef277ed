// Small system services: waiting for a readable descriptor, hexadecimal
// dumps, a table of signal names and descriptions, random numbers.
#pragma once

#include <stdio.h>

// --- Descriptors ---

// Waits up to msec milliseconds (< 0: without limit) for fd to become
// readable. > 0 readable (a hang-up or a pending error counts as readable,
// so that the read which follows reports it); 0 the time passed first;
// < 0 error (a bad descriptor, or a signal: errno EINTR), with errno set.
int fdwait(int fd, int msec);

// --- Dumps ---

// Writes nbytes of buf to out, 16 bytes a line: the offset in 8 hex digits,
// the bytes in hex in two groups of 8, and the printable ASCII between bars:
//   00000000  45 00 00 1c 00 01 40 00  ff 11 7c c6 c0 a8 01 32  |E.....@...|....2|
// The dump is written in one call and out is flushed. 0, or -1 on a bad
// argument or a write error.
int hexdump(FILE *out, const void *buf, int nbytes);

// --- Signals ---

// One row of the signal table.
struct Signal_info {
    int sig;                  // signal number; 0 in the row for unknown numbers
    const char *name;         // "SIGINT", "SIGRTMIN+3", "SIGRTMAX-2", ...
    const char *description;  // "Interrupt", "Real-time signal 3", ...
};

// The row of sig; never nullptr: a number that is no signal of this system
// gets a generic row. Safe from any thread.
const Signal_info *signal_bysig(int sig);

// --- Random numbers ---

// A pseudo-random number uniform on [0, 1]; each thread has its own
// generator, seeded from the system's entropy source.
double disordered(void);
