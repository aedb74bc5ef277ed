// Helpers shared by the test programs: real pseudo-terminals, temporary
// directories, child processes and loopback UDP sockets. Nothing here mocks
// the code under test; it only sets up the real parts around it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace testutil {

// A directory under /tmp removed with its contents on destruction.
struct TempDir {
    std::string path;
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string file(const std::string &name) const { return path + "/" + name; }
    void write(const std::string &name, const std::string &content) const;
};

// A raw pseudo-terminal pair. The test keeps both ends open: the code under
// test opens slave_path itself, and because the slave stays open here the
// master never sees a hang-up when that code closes and re-opens the device.
struct PtyPair {
    int master = -1;
    int slave = -1;
    std::string slave_path;
    PtyPair();
    ~PtyPair();
    PtyPair(const PtyPair &) = delete;
    PtyPair &operator=(const PtyPair &) = delete;
};

// Writes all of data to fd (loops over short writes).
void write_all(int fd, const void *data, size_t n);
// Reads what arrives on fd until quiet_ms pass with nothing new or total_ms pass.
std::string read_for(int fd, int quiet_ms, int total_ms);
// Reads until at least n bytes arrived or total_ms passed.
std::string read_at_least(int fd, size_t n, int total_ms);

// A program running in the background; its standard output and error go to
// files that the test can read at any time. Killed and reaped on destruction.
struct Child {
    pid_t pid = -1;
    TempDir io;
    Child(const std::vector<std::string> &argv, const std::string &cwd);
    ~Child();
    std::string err() const;
    std::string out() const;
    // Wait until err() (out()) contains text or timeout_ms pass; true when found.
    bool wait_for_err(const std::string &text, int timeout_ms) const;
    bool wait_for_out(const std::string &text, int timeout_ms) const;
    // Sends sig and waits for the exit; returns the exit status, or 128 + signal.
    int stop(int sig);
    // Waits up to timeout_ms for the process to end by itself; -1 if it did not.
    int wait_exit(int timeout_ms);
};

// A program run to completion (killed after timeout_ms) with its output captured.
struct RunResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};
RunResult run_program(const std::vector<std::string> &argv, const std::string &cwd,
                      int timeout_ms = 30000);

// A UDP or TCP port on 127.0.0.1 that was free a moment ago.
int free_udp_port();
int free_tcp_port();
// A UDP socket bound to an ephemeral port of 127.0.0.1; returns the fd and
// stores the port.
int udp_socket_loopback(int *port);
// Sends one datagram to 127.0.0.1:port.
void udp_send_to(int fd, int port, const std::string &payload);
// Receives one datagram within timeout_ms; false on time-out. Stores the
// sender's port when from_port is given.
bool udp_recv(int fd, std::string *payload, int timeout_ms, int *from_port = nullptr);
// Waits until some UDP socket is bound to port in the network namespace of
// pid (0: this process's); read from /proc, so the check never takes the port.
bool wait_udp_bound(int port, int timeout_ms, pid_t pid = 0);

// Milliseconds on a monotonic clock.
long long now_ms();

}  // namespace testutil
