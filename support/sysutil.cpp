#include "support/sysutil.h"

#include <poll.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

// --- Descriptors ---

int fdwait(int fd, int msec) {
    struct pollfd p = {fd, POLLIN | POLLPRI, 0};
    int n = poll(&p, 1, msec < 0 ? -1 : msec);
    // A signal ends the wait as an error (errno EINTR), not as silence: it is
    // how an orderly shutdown breaks a reader out of its wait on a quiet
    // line, which would otherwise wait for ever. The relay itself installs
    // no handler, so in normal running no signal gets here.
    if (n < 0) return -1;
    if (n == 0) return 0;
    // A hang-up or an error also ends the wait as "readable": the read that
    // follows returns 0 or the error, and the reader reports it. Calling it
    // quiet instead would have the reader wait for ever on a dead line.
    if (p.revents & POLLNVAL) {
        errno = EBADF;
        return -1;
    }
    return 1;
}

// --- Dumps ---

namespace {

constexpr char hex_digits[] = "0123456789abcdef";

// Appends one line of at most 16 bytes starting at offset.
void dump_line(std::string &out, const unsigned char *bytes, int offset, int count) {
    char head[16];
    snprintf(head, sizeof head, "%08x  ", static_cast<unsigned>(offset));
    out += head;
    for (int i = 0; i < 16; ++i) {
        if (i < count) {
            out += hex_digits[bytes[i] >> 4];
            out += hex_digits[bytes[i] & 0x0f];
            out += ' ';
        } else {
            out += "   ";
        }
        if (i == 7) out += ' ';
    }
    out += " |";
    for (int i = 0; i < count; ++i) out += (bytes[i] >= 0x20 && bytes[i] < 0x7f) ? char(bytes[i]) : '.';
    out += "|\n";
}

}  // namespace

int hexdump(FILE *out, const void *buf, int nbytes) {
    if (!out || nbytes < 0 || (!buf && nbytes > 0)) return -1;
    const unsigned char *bytes = static_cast<const unsigned char *>(buf);
    std::string text;
    for (int offset = 0; offset < nbytes; offset += 16)
        dump_line(text, bytes + offset, offset, nbytes - offset < 16 ? nbytes - offset : 16);
    // One write and a flush, so that the dump lands between the log lines
    // written before and after it, even when the stream is a pipe or a file.
    if (!text.empty() && fwrite(text.data(), 1, text.size(), out) != text.size()) return -1;
    return fflush(out) == 0 ? 0 : -1;
}

// --- Signals ---

namespace {

struct NamedSignal {
    int sig;
    const char *name;
    const char *description;
};

// The classic signals, by their macros so that the numbers are this
// system's.
constexpr NamedSignal classic_signals[] = {
    {SIGHUP, "SIGHUP", "Hangup"},
    {SIGINT, "SIGINT", "Interrupt"},
    {SIGQUIT, "SIGQUIT", "Quit"},
    {SIGILL, "SIGILL", "Illegal instruction"},
    {SIGTRAP, "SIGTRAP", "Trace/breakpoint trap"},
    {SIGABRT, "SIGABRT", "Aborted"},
    {SIGBUS, "SIGBUS", "Bus error"},
    {SIGFPE, "SIGFPE", "Floating point exception"},
    {SIGKILL, "SIGKILL", "Killed"},
    {SIGUSR1, "SIGUSR1", "User defined signal 1"},
    {SIGSEGV, "SIGSEGV", "Segmentation fault"},
    {SIGUSR2, "SIGUSR2", "User defined signal 2"},
    {SIGPIPE, "SIGPIPE", "Broken pipe"},
    {SIGALRM, "SIGALRM", "Alarm clock"},
    {SIGTERM, "SIGTERM", "Terminated"},
#ifdef SIGSTKFLT
    {SIGSTKFLT, "SIGSTKFLT", "Stack fault"},
#endif
    {SIGCHLD, "SIGCHLD", "Child exited"},
    {SIGCONT, "SIGCONT", "Continued"},
    {SIGSTOP, "SIGSTOP", "Stopped (signal)"},
    {SIGTSTP, "SIGTSTP", "Stopped"},
    {SIGTTIN, "SIGTTIN", "Stopped (tty input)"},
    {SIGTTOU, "SIGTTOU", "Stopped (tty output)"},
    {SIGURG, "SIGURG", "Urgent I/O condition"},
    {SIGXCPU, "SIGXCPU", "CPU time limit exceeded"},
    {SIGXFSZ, "SIGXFSZ", "File size limit exceeded"},
    {SIGVTALRM, "SIGVTALRM", "Virtual timer expired"},
    {SIGPROF, "SIGPROF", "Profiling timer expired"},
    {SIGWINCH, "SIGWINCH", "Window changed"},
    {SIGIO, "SIGIO", "I/O possible"},
#ifdef SIGPWR
    {SIGPWR, "SIGPWR", "Power failure"},
#endif
    {SIGSYS, "SIGSYS", "Bad system call"},
};

constexpr Signal_info unknown_signal = {0, "UNKNOWN", "Unknown signal"};

// Rows for every number from 0 to SIGRTMAX, with the texts they point to.
struct SignalTable {
    std::vector<std::string> names;
    std::vector<std::string> descriptions;
    std::vector<Signal_info> rows;
};

// The name of a real-time signal as the shell lists it: the lower half
// counted up from SIGRTMIN, the upper half down from SIGRTMAX.
std::string realtime_name(int sig, int lo, int hi) {
    if (sig == lo) return "SIGRTMIN";
    if (sig == hi) return "SIGRTMAX";
    if (sig - lo <= (hi - lo) / 2) return "SIGRTMIN+" + std::to_string(sig - lo);
    return "SIGRTMAX-" + std::to_string(hi - sig);
}

// The texts of sig when it is not a classic signal.
void other_texts(int sig, std::string *name, std::string *description) {
    int lo = SIGRTMIN, hi = SIGRTMAX;
    if (sig >= lo && sig <= hi) {
        *name = realtime_name(sig, lo, hi);
        *description = "Real-time signal " + std::to_string(sig - lo);
    } else if (sig > 0 && sig < lo) {
        // Between the classic signals and SIGRTMIN: real-time numbers that
        // the C library keeps for its own threads.
        *name = "SIG" + std::to_string(sig);
        *description = "Real-time signal reserved by the C library";
    }
}

SignalTable build_signal_table() {
    SignalTable t;
    size_t count = static_cast<size_t>(SIGRTMAX) + 1;
    t.names.resize(count);
    t.descriptions.resize(count);
    for (size_t sig = 1; sig < count; ++sig) other_texts(int(sig), &t.names[sig], &t.descriptions[sig]);
    for (const NamedSignal &s : classic_signals) {
        t.names[size_t(s.sig)] = s.name;
        t.descriptions[size_t(s.sig)] = s.description;
    }
    // The strings are final now, so the pointers into them stay valid.
    t.rows.resize(count, unknown_signal);
    for (size_t sig = 1; sig < count; ++sig) {
        if (t.names[sig].empty()) continue;
        t.rows[sig] = Signal_info{int(sig), t.names[sig].c_str(), t.descriptions[sig].c_str()};
    }
    return t;
}

}  // namespace

const Signal_info *signal_bysig(int sig) {
    // Built on the first call; a function-local static is initialised once
    // even when several threads make that first call together.
    static const SignalTable table = build_signal_table();
    if (sig <= 0 || size_t(sig) >= table.rows.size()) return &unknown_signal;
    return &table.rows[size_t(sig)];
}

// --- Random numbers ---

namespace {

std::mt19937_64 seeded_generator() {
    std::seed_seq::result_type seed[4];
    try {
        std::random_device device;
        for (auto &s : seed) s = device();
    } catch (...) {
        // No entropy source: the clock and the thread still give each
        // thread its own sequence.
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        seed[0] = std::seed_seq::result_type(ts.tv_nsec);
        seed[1] = std::seed_seq::result_type(ts.tv_sec);
        seed[2] = std::seed_seq::result_type(std::hash<std::thread::id>()(std::this_thread::get_id()));
        seed[3] = std::seed_seq::result_type(getpid());
    }
    std::seed_seq sequence(std::begin(seed), std::end(seed));
    return std::mt19937_64(sequence);
}

}  // namespace

double disordered(void) {
    thread_local std::mt19937_64 generator = seeded_generator();
    // 53 random bits over 2^53 - 1: every value is a multiple of the step,
    // and both 0 and 1 can come out.
    constexpr double top = double((1ULL << 53) - 1);
    return double(generator() >> 11) / top;
}
