#include "support/elog.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <string>

namespace {

std::string program_name = program_invocation_short_name;

// Messages registered by elog_log, per thread, oldest first. A thread that
// registers and never dies or clears (a reader logging every time-out) must
// not grow without bound, so only the newest ELOG_REGISTER_MAX are kept: they
// are the chain of failures that leads to the elog_die that prints them.
thread_local std::deque<std::string> message_register;

std::string format_message(int flag, int saved_errno, const char *fmt, va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) vsnprintf(text.data(), text.size() + 1, fmt, ap);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (flag == 1 && saved_errno != 0) {
        text += " (";
        text += strerror(saved_errno);
        text += ")";
    }
    return text;
}

std::string timestamp() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    gmtime_r(&tv.tv_sec, &tm);
    char buf[64];
    size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    snprintf(buf + n, sizeof buf - n, ".%03ld", static_cast<long>(tv.tv_usec / 1000));
    return buf;
}

// One write per line, so lines of two threads never mix.
void write_line(const char *kind, const std::string &text) {
    std::string line = timestamp() + " " + program_name + ": " + kind + text + "\n";
    const char *p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t w = write(STDERR_FILENO, p, left);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return;
        p += w;
        left -= static_cast<size_t>(w);
    }
}

void flush_register(bool print) {
    if (print)
        for (const auto &m : message_register) write_line("", m);
    message_register.clear();
}

}  // namespace

#define ELOG_FORMAT(flag, fmt, text)                      \
    int saved_errno_ = errno;                             \
    va_list ap_;                                          \
    va_start(ap_, fmt);                                   \
    std::string text = format_message(flag, saved_errno_, fmt, ap_); \
    va_end(ap_)

void elog_init(int argc, char **argv) {
    if (argc > 0 && argv && argv[0]) {
        const char *slash = strrchr(argv[0], '/');
        program_name = slash ? slash + 1 : argv[0];
    }
}

void elog_notify(int flag, const char *fmt, ...) {
    ELOG_FORMAT(flag, fmt, text);
    write_line("", text);
    errno = saved_errno_;
}

void elog_complain(int flag, const char *fmt, ...) {
    ELOG_FORMAT(flag, fmt, text);
    write_line("warning: ", text);
    errno = saved_errno_;
}

void elog_debug(int flag, const char *fmt, ...) {
    ELOG_FORMAT(flag, fmt, text);
    write_line("debug: ", text);
    errno = saved_errno_;
}

void elog_log(int flag, const char *fmt, ...) {
    ELOG_FORMAT(flag, fmt, text);
    message_register.push_back(std::move(text));
    if (message_register.size() > ELOG_REGISTER_MAX) message_register.pop_front();
    errno = saved_errno_;
}

void elog_die(int flag, const char *fmt, ...) {
    ELOG_FORMAT(flag, fmt, text);
    flush_register(true);
    write_line("fatal: ", text);
    // Other threads are still running: skip static destructors and atexit
    // handlers, which they might be using, but keep what stdout holds.
    fflush(stdout);
    _exit(1);
}

void elog_clear_register(int print) {
    int saved = errno;
    flush_register(print == 1);
    errno = saved;
}
