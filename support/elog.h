// Logging with a register of messages per thread.
//
// Every line goes to standard error whole, as
//   "YYYY-MM-DD HH:MM:SS.mmm <program>: [warning: |fatal: |debug: ]<text>"
// (UTC). A function that fails registers its message with elog_log and
// returns; the caller that gives up calls elog_die, which writes the thread's
// registered messages (oldest first) ahead of its own and ends the process.
// With flag 1, " (<strerror(errno)>)" is appended when errno was not 0 at
// the call. errno is the reported call's only right after that call failed,
// so a caller reporting with flag 1:
//   - sets errno = 0 just before the call whose failure it reports (a call
//     that returns a wrong count, zero bytes or bad data then adds no text);
//   - uses flag 1 only on the path where that call returned its failure
//     value; every other condition (a short or empty read, a bad value, a
//     time-out) is reported with flag 0;
//   - logs before any clean-up call (close, free), or saves errno across it.
#pragma once

// Registered messages kept per thread: older ones are dropped beyond this.
#define ELOG_REGISTER_MAX 32

#define ELOG_PRINTF(a, b) __attribute__((format(printf, a, b)))

// Sets the program name used on every line (basename of argv[0]).
void elog_init(int argc, char **argv);

// An informational line.
void elog_notify(int flag, const char *fmt, ...) ELOG_PRINTF(2, 3);
// A warning; the process goes on.
void elog_complain(int flag, const char *fmt, ...) ELOG_PRINTF(2, 3);
// Registers an error message for the calling thread; writes nothing yet.
void elog_log(int flag, const char *fmt, ...) ELOG_PRINTF(2, 3);
// Writes the registered messages, then this one, and exits with status 1.
[[noreturn]] void elog_die(int flag, const char *fmt, ...) ELOG_PRINTF(2, 3);
// A debugging line.
void elog_debug(int flag, const char *fmt, ...) ELOG_PRINTF(2, 3);
// Empties the calling thread's register; with print 1 writes it out first.
void elog_clear_register(int print);
