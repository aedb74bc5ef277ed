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
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

namespace testutil {

long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Asks done() every 10 ms until it says true or timeout_ms pass; false then.
template <class Done> static bool poll_until(int timeout_ms, Done done) {
    for (long long end = now_ms() + timeout_ms;; usleep(10000)) {
        if (done()) return true;
        if (now_ms() >= end) return false;
    }
}

static void require(bool ok, const char *what) {
    if (!ok) throw std::runtime_error(std::string(what) + ": " + strerror(errno));
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/korvane-test-XXXXXX";
    require(mkdtemp(tmpl) != nullptr, "mkdtemp");
    path = tmpl;
}
TempDir::~TempDir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
void TempDir::write(const std::string &name, const std::string &content) const {
    std::ofstream(file(name), std::ios::binary) << content;
}

PtyPair::PtyPair() {
    char name[256];
    require(openpty(&master, &slave, name, nullptr, nullptr) == 0, "openpty");
    slave_path = name;
    struct termios t;  // raw bytes both ways: no echo, no line editing
    if (tcgetattr(slave, &t) == 0) cfmakeraw(&t), tcsetattr(slave, TCSANOW, &t);
}
PtyPair::~PtyPair() {
    for (int fd : {master, slave})
        if (fd >= 0) close(fd);
}

void write_all(int fd, const void *data, size_t n) {
    for (const char *p = static_cast<const char *>(data); n > 0;) {
        ssize_t w = write(fd, p, n);
        require(w >= 0 || errno == EINTR || errno == EAGAIN, "write");
        if (w > 0) p += w, n -= static_cast<size_t>(w);
    }
}

// Appends what one read gives once fd is readable within wait_ms; false when nothing came.
static bool read_some(int fd, std::string *out, long long wait_ms) {
    struct pollfd p = {fd, POLLIN, 0};
    char buf[4096];
    ssize_t n = poll(&p, 1, static_cast<int>(wait_ms)) > 0 ? read(fd, buf, sizeof buf) : 0;
    if (n > 0) out->append(buf, static_cast<size_t>(n));
    return n > 0;
}
std::string read_for(int fd, int quiet_ms, int total_ms, size_t enough) {
    std::string out;
    for (long long end = now_ms() + total_ms; out.size() < enough && now_ms() < end;)
        if (!read_some(fd, &out, std::min<long long>(quiet_ms, end - now_ms()))) break;
    return out;
}

Child::Child(const std::vector<std::string> &argv, const std::string &cwd) {
    // Everything is made before fork: only async-signal-safe calls are sure
    // to work in the child of a process with threads.
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    std::string out_path = io.file("out"), err_path = io.file("err");
    if ((pid = fork()) != 0) return;
    setsid();
    close_range(3, ~0U, 0);  // a line's master end, say, stays the test's alone
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    signal(SIGPIPE, SIG_DFL), signal(SIGALRM, SIG_DFL);  // whatever the test did
    sigset_t none;
    sigemptyset(&none), sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(args[0], args.data());
    _exit(127);
}
Child::~Child() { stop(SIGKILL); }

static std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}
std::string Child::err() const { return slurp(io.file("err")); }
std::string Child::out() const { return slurp(io.file("out")); }
bool Child::wait_for_err(const std::string &text, int timeout_ms) const {
    return poll_until(timeout_ms, [&] { return err().find(text) != std::string::npos; });
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
    if (st < 0 && kill(pid, SIGKILL) == 0) st = wait_pid(pid, 10000);
    return pid = -1, st;
}
int Child::wait_exit(int timeout_ms) {
    int st = pid > 0 ? wait_pid(pid, timeout_ms) : -1;
    if (st >= 0) pid = -1;
    return st;
}
long Child::rss_kib() const {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    return -1;
}

RunResult run_program(const std::vector<std::string> &argv, const std::string &cwd,
                      int timeout_ms) {
    Child c(argv, cwd);
    int status = c.wait_exit(timeout_ms);
    return {status < 0 ? c.stop(SIGKILL) : status, c.out(), c.err()};
}

std::vector<std::string> log_lines(const std::string &log) {
    static const std::regex stamp("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} ");
    std::vector<std::string> lines;
    std::istringstream in(log);
    for (std::string l; std::getline(in, l);) lines.push_back(std::regex_replace(l, stamp, ""));
    return lines;
}

static sockaddr_in address(std::uint32_t host, int port) {
    return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(host)}, {}};
}

// A socket of type bound to host:port (0: an ephemeral one, stored); -1 when taken.
static int bound(int type, int *port, std::uint32_t host = INADDR_LOOPBACK) {
    int fd = socket(AF_INET, type, 0);
    struct sockaddr_in a = address(host, *port);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) return close(fd), -1;
    require(getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0, "getsockname");
    return *port = ntohs(a.sin_port), fd;
}
int udp_socket(int *port, std::uint32_t host) { return bound(SOCK_DGRAM, port, host); }

static int fixed_port(int type, int lo, int hi) {
    static std::set<int> given;
    for (int i = 0, span = hi - lo + 1, start = getpid() * 7919L % span; i < span; i++) {
        int port = lo + (start + i) % span, fd = bound(type, &port, INADDR_ANY);
        if (fd >= 0 && close(fd) == 0 && given.insert(port).second) return port;
    }
    throw std::runtime_error("no free port");
}
int fixed_udp_port(int lo, int hi) { return fixed_port(SOCK_DGRAM, lo, hi); }
int fixed_tcp_port(int lo, int hi) { return fixed_port(SOCK_STREAM, lo, hi); }

void udp_send_to(int fd, int port, const std::string &payload) {
    struct sockaddr_in a = address(INADDR_LOOPBACK, port);
    ssize_t n = sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
    require(n == static_cast<ssize_t>(payload.size()), "sendto");
}

bool udp_recv(int fd, std::string *payload, int timeout_ms, int *from_port) {
    struct pollfd p = {fd, POLLIN, 0};
    char buf[65536];
    struct sockaddr_in a {};
    socklen_t len = sizeof a;
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&a), &len);
    if (n >= 0) payload->assign(buf, static_cast<size_t>(n));
    if (n >= 0 && from_port) *from_port = ntohs(a.sin_port);
    return n >= 0;
}

bool wait_udp_bound(int port, int timeout_ms, pid_t pid) {
    char suffix[8];
    snprintf(suffix, sizeof suffix, ":%04X", port);
    std::string table = "/proc/" + (pid ? std::to_string(pid) : std::string("self")) + "/net/udp";
    return poll_until(timeout_ms, [&] {
        std::ifstream f(table);
        for (std::string row, slot, local; std::getline(f, row);)
            if (std::istringstream(row) >> slot >> local && local.ends_with(suffix)) return true;
        return false;  // only the local address counted
    });
}

static std::string be16(unsigned v) { return {static_cast<char>(v >> 8), static_cast<char>(v)}; }
static std::string be32(std::uint32_t v) { return be16(v >> 16) + be16(v & 0xffff); }
static unsigned get16(const std::string &b, size_t at) {
    return static_cast<unsigned char>(b[at]) << 8 | static_cast<unsigned char>(b[at + 1]);
}

static std::uint16_t inet_checksum(const std::string &bytes) {
    std::uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += i + 1 < bytes.size() ? get16(bytes, i) : static_cast<unsigned char>(bytes[i]) << 8;
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

// The UDP pseudo-header (RFC 768) and the segment it covers.
static std::string pseudo(std::uint32_t src, std::uint32_t dst, const std::string &segment) {
    return be32(src) + be32(dst) + be16(17) + be16(static_cast<unsigned>(segment.size())) + segment;
}

std::string datagram_packet(const Datagram &d) {
    unsigned n = static_cast<unsigned>(d.payload.size()), hl = 20 + d.options.size();
    std::string ip = be16(0x4000 | hl << 6) + be16(hl + 8 + n) + be16(d.id) + be16(d.frag) +
                     be16(d.ttl << 8 | 17) + be16(0) + be32(d.src) + be32(d.dst) + d.options;
    std::string udp = be16(d.sport) + be16(d.dport) + be16(8 + n) + be16(0) + d.payload;
    unsigned sum = inet_checksum(pseudo(d.src, d.dst, udp));
    return ip.replace(10, 2, be16(inet_checksum(ip))) + udp.replace(6, 2, be16(sum ? sum : 0xffff));
}

bool datagram_parse(const std::string &p, Datagram *d) {
    if (p.size() < 28 || p[0] != 0x45 || p[9] != 17 || get16(p, 2) != p.size() ||
        get16(p, 24) != p.size() - 20 || get16(p, 26) == 0 || inet_checksum(p.substr(0, 20)) != 0)
        return false;
    *d = {get16(p, 12) << 16 | get16(p, 14), get16(p, 16) << 16 | get16(p, 18),
          static_cast<std::uint16_t>(get16(p, 20)), static_cast<std::uint16_t>(get16(p, 22)),
          static_cast<std::uint16_t>(get16(p, 4)), static_cast<std::uint16_t>(get16(p, 6)),
          static_cast<std::uint8_t>(p[8]), p.substr(28)};
    return inet_checksum(pseudo(d->src, d->dst, p.substr(20))) == 0;
}

std::string dump(const std::string &prefix, const std::string &bytes, const char *fmt, bool closing) {
    std::string out;
    char hex[4];
    for (size_t i = 0; i < bytes.size(); i++) {
        snprintf(hex, sizeof hex, fmt, static_cast<unsigned char>(bytes[i]));
        out += (i % 32 ? "" : prefix) + hex + (i % 32 == 31 || i + 1 == bytes.size() ? "\n" : "");
    }
    return closing ? out + prefix + "\n" : out;
}

constexpr char kEnd = '\xC0', kEsc = '\xDB', kEscEnd = '\xDC', kEscEsc = '\xDD';

std::string slip_frame(const std::string &packet) {
    std::string out(1, kEnd);
    for (char c : packet) out += c == kEnd ? "\xDB\xDC" : c == kEsc ? "\xDB\xDD" : std::string(1, c);
    return out + kEnd;
}

std::vector<std::string> SlipReader::feed(const std::string &bytes) {
    std::vector<std::string> frames;
    for (char c : bytes) {
        if (c == kEnd && !partial.empty()) frames.push_back(partial);
        if (c == kEnd) partial.clear();
        // After ESC, a byte other than ESC_END or ESC_ESC is kept as it is (RFC 1055).
        else if (escaped) partial += c == kEscEnd ? kEnd : c == kEscEsc ? kEsc : c;
        else if (c != kEsc) partial += c;
        escaped = c == kEsc && !escaped;
    }
    return frames;
}

}  // namespace testutil
