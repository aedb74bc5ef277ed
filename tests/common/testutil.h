// Helpers shared by the test programs: real pseudo-terminals, temporary
// directories, child processes, loopback UDP sockets, and judges of the
// serial line written from the RFCs alone. Nothing here mocks the code under
// test, and nothing here shares code with it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace testutil {

// A directory under /tmp removed with its contents on destruction.
struct TempDir {
    std::string path;
    TempDir();
    ~TempDir();
    std::string file(const std::string &name) const { return path + "/" + name; }
    void write(const std::string &name, const std::string &content) const;
};

// A raw pseudo-terminal pair; the slave stays open here, so the master sees
// no hang-up when the code under test closes and re-opens slave_path.
struct PtyPair {
    int master = -1, slave = -1;
    std::string slave_path;
    PtyPair();
    ~PtyPair();
};

void write_all(int fd, const void *data, size_t n);
// What arrives on fd until quiet_ms pass with nothing new, total_ms pass, or there are enough bytes.
std::string read_for(int fd, int quiet_ms, int total_ms, size_t enough = SIZE_MAX);
inline std::string read_at_least(int fd, size_t n, int total_ms) { return read_for(fd, total_ms, total_ms, n); }

// A program in the background, in a session of its own (as under a service
// manager) and with none of the test's descriptors, its output in files;
// killed and reaped on destruction.
struct Child {
    pid_t pid = -1;
    TempDir io;
    Child(const std::vector<std::string> &argv, const std::string &cwd);
    ~Child();
    std::string err() const;
    std::string out() const;
    // True once err() holds text, false when timeout_ms pass first.
    bool wait_for_err(const std::string &text, int timeout_ms) const;
    // The exit status (128 + signal when ended by one) after sig, or on its
    // own within timeout_ms (-1 if it did not end).
    int stop(int sig);
    int wait_exit(int timeout_ms);
    long rss_kib() const;  // resident memory (VmRSS), -1 when unknown
};

// A program run to completion (killed after timeout_ms) with its output captured.
struct RunResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out, err;
};
RunResult run_program(const std::vector<std::string> &argv, const std::string &cwd,
                      int timeout_ms = 30000);
// The lines of a log with each "YYYY-MM-DD HH:MM:SS.mmm " time stamp removed.
std::vector<std::string> log_lines(const std::string &log);

// For code that binds a given port: one in [lo, hi] free a moment ago, below
// the kernel's ephemeral range so that no client socket takes it meanwhile,
// never the same twice in a process, its search starting at a point set by
// the pid. The default range leaves 25000-32767 to tests that bind many ports.
int fixed_udp_port(int lo = 10000, int hi = 24999);
int fixed_tcp_port(int lo = 10000, int hi = 24999);
// A UDP socket bound to host:*port (a host-order address; port 0: an ephemeral
// one, stored in *port); -1 when taken.
int udp_socket(int *port, std::uint32_t host = 0x7F000001);
// Sends one datagram to 127.0.0.1:port.
void udp_send_to(int fd, int port, const std::string &payload);
// One datagram within timeout_ms (false on time-out), and its sender's port.
bool udp_recv(int fd, std::string *payload, int timeout_ms, int *from_port = nullptr);
// Waits until a UDP socket is bound to port in pid's (0: this process's)
// network namespace; read from /proc, so the check never takes the port.
bool wait_udp_bound(int port, int timeout_ms, pid_t pid = 0);
long long now_ms();  // milliseconds on a monotonic clock

// ---- The serial line, judged from RFC 1071, 768, 791 and 1055 alone.

// One IPv4/UDP datagram; addresses and ports are host-order numbers.
struct Datagram {
    std::uint32_t src = 0, dst = 0;
    std::uint16_t sport = 0, dport = 0, id = 0, frag = 0x4000;
    std::uint8_t ttl = 64;
    std::string payload = {}, options = {};  // options: whole 32-bit words of IP options
};
// The packet: the IPv4 header and the UDP header, both sums in place (a UDP
// sum that comes to 0 goes as FFFF).
std::string datagram_packet(const Datagram &d);
// True only for IPv4 UDP with a 20-byte header, lengths that agree with the
// size, and both checksums present and right.
bool datagram_parse(const std::string &packet, Datagram *d);
// The relay's dump of bytes: lines of the prefix and up to 32 bytes in fmt,
// then (when closing) the prefix alone.
std::string dump(const std::string &prefix, const std::string &bytes, const char *fmt = " %02x",
                 bool closing = true);
// END, the packet with END and ESC escaped, END.
std::string slip_frame(const std::string &packet);
// Splits the bytes of a line into the frames between END bytes.
struct SlipReader {
    std::string partial;
    bool escaped = false;
    std::vector<std::string> feed(const std::string &bytes);
};

}  // namespace testutil
