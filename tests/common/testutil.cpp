#include "testutil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testutil {

long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Asks done() every 10 ms until it says true or timeout_ms pass; false then.
template <class Done>
static bool poll_until(int timeout_ms, Done done) {
    for (long long end = now_ms() + timeout_ms;; usleep(10000)) {
        if (done()) return true;
        if (now_ms() >= end) return false;
    }
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/korvane-test-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    path = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

void TempDir::write(const std::string &name, const std::string &content) const {
    std::ofstream(file(name), std::ios::binary) << content;
}

PtyPair::PtyPair() {
    char name[256];
    if (openpty(&master, &slave, name, nullptr, nullptr) != 0)
        throw std::runtime_error("openpty failed");
    slave_path = name;
    // The master side carries raw bytes both ways: no echo, no line editing.
    struct termios t;
    if (tcgetattr(slave, &t) == 0) {
        cfmakeraw(&t);
        tcsetattr(slave, TCSANOW, &t);
    }
}

PtyPair::~PtyPair() {
    if (master >= 0) close(master);
    if (slave >= 0) close(slave);
}

void write_all(int fd, const void *data, size_t n) {
    const char *p = static_cast<const char *>(data);
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            throw std::runtime_error(std::string("write failed: ") + strerror(errno));
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
}

// Appends what one read gives once fd is readable within wait_ms; false when nothing came.
static bool read_some(int fd, std::string *out, int wait_ms) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, wait_ms) <= 0 || !(p.revents & POLLIN)) return false;
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    out->append(buf, static_cast<size_t>(n));
    return true;
}

std::string read_for(int fd, int quiet_ms, int total_ms) {
    std::string out;
    for (long long end = now_ms() + total_ms; now_ms() < end;)
        if (!read_some(fd, &out, static_cast<int>(std::min<long long>(quiet_ms, end - now_ms()))))
            break;
    return out;
}

std::string read_at_least(int fd, size_t n, int total_ms) {
    std::string out;
    long long end = now_ms() + total_ms;
    while (out.size() < n && now_ms() < end) read_some(fd, &out, std::max(1LL, end - now_ms()));
    return out;
}

static std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

Child::Child(const std::vector<std::string> &argv, const std::string &cwd) {
    // Everything the child needs is made before fork: only async-signal-safe
    // calls are sure to work in the child of a process with threads.
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    std::string out_path = io.file("out"), err_path = io.file("err");
    if ((pid = fork()) != 0) return;
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    // Children start with default signal dispositions whatever the test did.
    signal(SIGPIPE, SIG_DFL);
    signal(SIGALRM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(args[0], args.data());
    _exit(127);
}

Child::~Child() {
    if (pid > 0) stop(SIGKILL);
}

std::string Child::err() const { return slurp(io.file("err")); }
std::string Child::out() const { return slurp(io.file("out")); }

bool Child::wait_for_err(const std::string &text, int timeout_ms) const {
    return poll_until(timeout_ms, [&] { return err().find(text) != std::string::npos; });
}
bool Child::wait_for_out(const std::string &text, int timeout_ms) const {
    return poll_until(timeout_ms, [&] { return out().find(text) != std::string::npos; });
}

// Reaps pid within timeout_ms: its exit status, 128 + the signal that ended it, or -1.
static int wait_pid(pid_t pid, int timeout_ms) {
    int st = 0;
    if (!poll_until(timeout_ms, [&] { return waitpid(pid, &st, WNOHANG) == pid; })) return -1;
    return WIFSIGNALED(st) ? 128 + WTERMSIG(st) : WEXITSTATUS(st);
}

int Child::stop(int sig) {
    if (pid <= 0) return -1;
    kill(pid, sig);
    int st = wait_pid(pid, 10000);
    if (st < 0) {
        kill(pid, SIGKILL);
        st = wait_pid(pid, 10000);
    }
    pid = -1;
    return st;
}

int Child::wait_exit(int timeout_ms) {
    int st = pid > 0 ? wait_pid(pid, timeout_ms) : -1;
    if (st >= 0) pid = -1;
    return st;
}

RunResult run_program(const std::vector<std::string> &argv, const std::string &cwd,
                      int timeout_ms) {
    Child c(argv, cwd);
    RunResult r;
    r.status = c.wait_exit(timeout_ms);
    if (r.status < 0) r.status = c.stop(SIGKILL);
    r.out = c.out();
    r.err = c.err();
    return r;
}

static sockaddr_in loopback(int port) {
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

// A socket of type bound to an ephemeral port of 127.0.0.1; stores the port.
static int bound_loopback(int type, int *port) {
    int fd = socket(AF_INET, type, 0);
    struct sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        throw std::runtime_error("bind to 127.0.0.1 failed");
    if (port) *port = ntohs(a.sin_port);
    return fd;
}

static int free_port(int type) {
    int port = 0;
    close(bound_loopback(type, &port));
    return port;
}

int free_udp_port() { return free_port(SOCK_DGRAM); }
int free_tcp_port() { return free_port(SOCK_STREAM); }
int udp_socket_loopback(int *port) { return bound_loopback(SOCK_DGRAM, port); }

void udp_send_to(int fd, int port, const std::string &payload) {
    struct sockaddr_in a = loopback(port);
    if (sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&a),
               sizeof a) != static_cast<ssize_t>(payload.size()))
        throw std::runtime_error("sendto failed");
}

bool udp_recv(int fd, std::string *payload, int timeout_ms, int *from_port) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    char buf[65536];
    struct sockaddr_in a {};
    socklen_t len = sizeof a;
    ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&a), &len);
    if (n < 0) return false;
    payload->assign(buf, static_cast<size_t>(n));
    if (from_port) *from_port = ntohs(a.sin_port);
    return true;
}

bool wait_udp_bound(int port, int timeout_ms, pid_t pid) {
    char suffix[8];
    snprintf(suffix, sizeof suffix, ":%04X", port);
    std::string table = "/proc/" + (pid ? std::to_string(pid) : std::string("self")) + "/net/udp";
    return poll_until(timeout_ms, [&] {
        std::ifstream f(table);
        for (std::string row, slot, local; std::getline(f, row);) {
            std::istringstream(row) >> slot >> local;  // only the local address counts
            if (local.ends_with(suffix)) return true;
        }
        return false;
    });
}

}  // namespace testutil
