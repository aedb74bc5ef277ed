#include "testutil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testutil {

long long now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
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
    std::ofstream f(file(name), std::ios::binary);
    f << content;
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
    long long end = now_ms() + total_ms;
    while (now_ms() < end) {
        int left = static_cast<int>(end - now_ms());
        if (!read_some(fd, &out, std::min(quiet_ms, left))) break;
    }
    return out;
}

std::string read_at_least(int fd, size_t n, int total_ms) {
    std::string out;
    long long end = now_ms() + total_ms;
    while (out.size() < n && now_ms() < end)
        read_some(fd, &out, static_cast<int>(std::max(1LL, end - now_ms())));
    return out;
}

static std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

static pid_t spawn(const std::vector<std::string> &argv, const std::string &cwd,
                   const std::string &out_path, const std::string &err_path) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    int in = open("/dev/null", O_RDONLY);
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    // Children start with default signal dispositions whatever the test did.
    signal(SIGPIPE, SIG_DFL);
    signal(SIGALRM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(args[0], args.data());
    _exit(127);
}

static int decode_status(int st) {
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
    return -1;
}

static int wait_pid(pid_t pid, int timeout_ms) {
    long long end = now_ms() + timeout_ms;
    for (;;) {
        int st;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid) return decode_status(st);
        if (now_ms() >= end) return -1;
        usleep(5000);
    }
}

RunResult run_program(const std::vector<std::string> &argv, const std::string &cwd,
                      int timeout_ms) {
    TempDir io;
    RunResult r;
    pid_t pid = spawn(argv, cwd, io.file("out"), io.file("err"));
    r.status = wait_pid(pid, timeout_ms);
    if (r.status < 0) {
        kill(pid, SIGKILL);
        r.status = wait_pid(pid, 10000);
    }
    r.out = slurp(io.file("out"));
    r.err = slurp(io.file("err"));
    return r;
}

Child::Child(const std::vector<std::string> &argv, const std::string &cwd) {
    char tmpl[] = "/tmp/korvane-child-XXXXXX";
    int fd = mkstemp(tmpl);
    close(fd);
    err_path = tmpl;
    out_path = err_path + ".out";
    pid = spawn(argv, cwd, out_path, err_path);
}

Child::~Child() {
    if (pid > 0) stop(SIGKILL);
    unlink(err_path.c_str());
    unlink(out_path.c_str());
}

std::string Child::err() const { return slurp(err_path); }
std::string Child::out() const { return slurp(out_path); }

static bool wait_text(const Child &c, bool err, const std::string &text, int timeout_ms) {
    long long end = now_ms() + timeout_ms;
    do {
        if ((err ? c.err() : c.out()).find(text) != std::string::npos) return true;
        usleep(10000);
    } while (now_ms() < end);
    return false;
}

bool Child::wait_for_err(const std::string &text, int timeout_ms) const {
    return wait_text(*this, true, text, timeout_ms);
}

bool Child::wait_for_out(const std::string &text, int timeout_ms) const {
    return wait_text(*this, false, text, timeout_ms);
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
    if (pid <= 0) return -1;
    int st = wait_pid(pid, timeout_ms);
    if (st >= 0) pid = -1;
    return st;
}

static int free_port(int type) {
    int fd = socket(AF_INET, type, 0);
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

int free_udp_port() { return free_port(SOCK_DGRAM); }
int free_tcp_port() { return free_port(SOCK_STREAM); }

int udp_socket_loopback(int *port) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        throw std::runtime_error("bind failed");
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    if (port) *port = ntohs(a.sin_port);
    return fd;
}

void udp_send_to(int fd, int port, const std::string &payload) {
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
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

bool wait_udp_bound(int port, int timeout_ms) {
    char needle[16];
    snprintf(needle, sizeof needle, ":%04X ", port);
    long long end = now_ms() + timeout_ms;
    do {
        std::string table = slurp("/proc/net/udp");
        // Only the local_address column (the second field) counts.
        std::istringstream lines(table);
        std::string line;
        while (std::getline(lines, line)) {
            std::istringstream fields(line);
            std::string slot, local;
            fields >> slot >> local;
            if ((local + " ").find(needle) != std::string::npos) return true;
        }
        usleep(10000);
    } while (now_ms() < end);
    return false;
}

}  // namespace testutil
