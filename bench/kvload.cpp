// kvload: runs the relay on a fresh pseudo-terminal and loads it from both
// ends at once, as the datalogger (the pseudo-terminal's master, paced like a
// serial line) and as a UDP client on loopback. Each run prints CSV rows
//   test,baud,size,ports,offered,name,value
// for bench/run to collect. Modes:
//   up      the client sends --rate datagrams/s for --seconds; the datalogger
//           side times their arrival (one-way latency, same clock)
//   down    the datalogger side sends --rate datagrams/s to the client
//   idle    no traffic; the relay's CPU time and wake-ups over --seconds
//   routes  --count clients, each from its own source port, send one
//           datagram each; the relay's resident set every 1000 clients
//   bareloop  no relay: --ports threads that each poll a socket and pause
//           1 ms, as the relay's idle host readers are designed to; their
//           CPU time is the floor of the relay's idle figure
// --baseline S measures the same relay idle for S seconds before the traffic.
// Every datagram carries a marker, a sequence number and its send time, and
// a fill that runs through every byte value (so SLIP escapes occur as in
// real traffic); arrivals are checked byte for byte.
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "net/slip.h"
#include "tools/dlframe.h"

namespace {

constexpr std::uint32_t kDataloggerAddress = 0xC0A80132;   // 192.168.1.50
constexpr int kFirstQ330Port = 5330;
constexpr unsigned char kMarker[4] = {'K', 'V', 'L', 'D'};
constexpr int kHeaderBytes = 16;
constexpr double kBacklogLimitMs = 500;   // growth of latency over a run that still passes

struct Options {
    std::string relay = "korvane";
    std::string mode;
    std::string label;
    long baud = 0;          // 0: unpaced
    int ports = 1;
    double rate = 100;      // datagrams per second
    int size = 512;
    double seconds = 10;
    int count = 10000;
    bool saturate = false;  // measure the delivered rate only; no pass/fail
    int recvs = 1;          // bareloop: receive attempts before each pause
    double baseline = 0;    // up, down: seconds of the same relay idle, measured first
};

double now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

void sleep_until(double t_ns) {
    timespec ts{static_cast<time_t>(t_ns / 1e9), static_cast<long>(std::fmod(t_ns, 1e9))};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

void sleep_ms(double ms) { sleep_until(now_ns() + ms * 1e6); }

// ---- payloads -------------------------------------------------------------------

void put_be(unsigned char *p, std::uint64_t v, int n) {
    for (int i = n - 1; i >= 0; i--, v >>= 8) p[i] = static_cast<unsigned char>(v & 0xff);
}

std::uint64_t get_be(const unsigned char *p, int n) {
    std::uint64_t v = 0;
    for (int i = 0; i < n; i++) v = (v << 8) | p[i];
    return v;
}

std::vector<unsigned char> make_payload(int size, std::uint32_t seq, double stamp_ns) {
    std::vector<unsigned char> p(static_cast<size_t>(size));
    std::copy(kMarker, kMarker + 4, p.begin());
    put_be(&p[4], seq, 4);
    put_be(&p[8], static_cast<std::uint64_t>(stamp_ns), 8);
    for (size_t i = kHeaderBytes; i < p.size(); i++) p[i] = static_cast<unsigned char>((seq + i) & 0xff);
    return p;
}

// What became of the datagrams of one direction, kept by the receiving side.
struct Tally {
    std::vector<double> latency_ms;   // by sequence number; NaN until it arrives
    std::vector<double> arrival_ns;
    // Read by the main thread while the receiving thread counts.
    std::atomic<long> received{0}, duplicates{0}, corrupt{0};
    void reset(size_t expected) {
        latency_ms.assign(expected, NAN);
        arrival_ns.assign(expected, NAN);
    }
    void take(const unsigned char *data, int n, int size, double now);
};

void Tally::take(const unsigned char *data, int n, int size, double now) {
    if (n != size || n < kHeaderBytes || !std::equal(kMarker, kMarker + 4, data)) {
        corrupt++;
        return;
    }
    std::uint32_t seq = static_cast<std::uint32_t>(get_be(data + 4, 4));
    double stamp = static_cast<double>(get_be(data + 8, 8));
    std::vector<unsigned char> expect = make_payload(size, seq, stamp);
    if (seq >= latency_ms.size() || !std::equal(expect.begin(), expect.end(), data)) {
        corrupt++;
        return;
    }
    if (!std::isnan(latency_ms[seq])) {
        duplicates++;
        return;
    }
    latency_ms[seq] = (now - stamp) / 1e6;
    arrival_ns[seq] = now;
    received++;
}

// ---- the relay's process ----------------------------------------------------------

struct Relay {
    std::string dir;
    pid_t pid = -1;
    std::vector<int> host_ports;
};

int free_udp_port() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

bool write_pf(const Relay &r, const std::string &line, long baud) {
    std::ofstream pf(r.dir + "/korvane.pf");
    // A pseudo-terminal has no speed; the relay still needs a valid one.
    pf << "default {\n    mode slip\n    device " << line << "\n    baud " << (baud ? baud : 115200)
       << "\n    flow none\n    q330_ip_address 192.168.1.50\n    port_translations {\n";
    for (size_t i = 0; i < r.host_ports.size(); i++)
        pf << "        " << r.host_ports[i] << " " << kFirstQ330Port + static_cast<int>(i) << "\n";
    pf << "    }\n}\n";
    return static_cast<bool>(pf);
}

bool start_relay(Relay *r, const Options &o, const std::string &line) {
    char tmpl[] = "/tmp/kvload-XXXXXX";
    if (!mkdtemp(tmpl)) return false;
    r->dir = tmpl;
    for (int i = 0; i < o.ports; i++) r->host_ports.push_back(free_udp_port());
    if (!write_pf(*r, line, o.baud)) return false;
    r->pid = fork();
    if (r->pid == 0) {
        int log = open((r->dir + "/korvane.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(log, 2);
        if (chdir(r->dir.c_str()) == 0) execl(o.relay.c_str(), "korvane", static_cast<char *>(nullptr));
        _exit(127);
    }
    return r->pid > 0;
}

// Reaps the relay if it has ended, so that its process id is never used again.
bool relay_alive(Relay *r) {
    if (r->pid <= 0) return false;
    if (waitpid(r->pid, nullptr, WNOHANG) == 0) return true;
    r->pid = -1;
    return false;
}

void stop_relay(Relay *r, bool keep_log) {
    if (r->pid > 0) {
        kill(r->pid, SIGTERM);
        waitpid(r->pid, nullptr, 0);
    }
    std::string log = r->dir + "/korvane.log";
    if (keep_log) std::fprintf(stderr, "kvload: the relay's log is %s\n", log.c_str());
    if (keep_log || r->dir.empty()) return;
    unlink(log.c_str());
    unlink((r->dir + "/korvane.pf").c_str());
    rmdir(r->dir.c_str());
}

// ---- what /proc says about the relay ------------------------------------------------

struct ProcSample {
    double cpu_s = 0;     // user + system time from /proc/PID/stat
    double run_s = 0;     // time on a CPU, summed over threads (schedstat, ns)
    double slices = 0;    // times a thread was put on a CPU, summed over threads
    int threads = 0;
};

double stat_cpu_seconds(pid_t pid) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    size_t close_paren = all.rfind(')');
    if (close_paren == std::string::npos) return NAN;
    std::istringstream rest(all.substr(close_paren + 2));
    std::string field;
    double utime = 0, stime = 0;
    // Fields 3.. follow the command name; utime and stime are fields 14 and 15.
    for (int i = 3; i <= 15 && rest >> field; i++) {
        if (i == 14) utime = std::atof(field.c_str());
        if (i == 15) stime = std::atof(field.c_str());
    }
    return (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

ProcSample sample(pid_t pid) {
    ProcSample s;
    s.cpu_s = stat_cpu_seconds(pid);
    std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR *d = opendir(tasks.c_str());
    while (dirent *e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] == '.') continue;
        std::ifstream f(tasks + "/" + e->d_name + "/schedstat");
        double run_ns = 0, wait_ns = 0, slices = 0;
        if (f >> run_ns >> wait_ns >> slices) {
            s.run_s += run_ns / 1e9;
            s.slices += slices;
            s.threads++;
        }
    }
    if (d) closedir(d);
    return s;
}

// A "Vm...:" line of /proc/PID/status, in kB.
long status_kb(pid_t pid, const char *key) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    size_t klen = std::strlen(key);
    while (std::getline(f, line))
        if (line.compare(0, klen, key) == 0 && line[klen] == ':') return std::atol(line.c_str() + klen + 1);
    return -1;
}

// ---- the datalogger's side: the pseudo-terminal master, paced ---------------------

// Lets bytes through no faster than a line of byte_ns per byte (10 bits a
// byte). Up to 2 ms of lateness of our own wake-ups may be caught up at once.
struct Pacer {
    double byte_ns = 0;   // 0: unpaced
    double clock = 0;     // when the bytes let through so far have left the line
    size_t allowance(double now, size_t want) {
        if (byte_ns == 0) return want;
        clock = std::max(clock, now - std::max(byte_ns, 2e6));
        double n = std::floor((now - clock) / byte_ns);
        return n <= 0 ? 0 : std::min(want, static_cast<size_t>(n));
    }
    void consume(size_t n) { clock += static_cast<double>(n) * byte_ns; }
    double next_ready() const { return clock + std::max(byte_ns, 1e6); }
};

struct Datalogger {
    int master = -1, slave = -1;
    std::string line;
    Pacer read_pace, write_pace;
    SlipDecoder dec;
    std::deque<unsigned char> out;
    std::uint16_t identification = 0;
    // Where the client is, as the first datagram through the relay showed it.
    std::atomic<bool> registered{false};
    std::uint32_t client_addr = 0;
    std::uint16_t client_wire_port = 0;
    Tally tally;   // datagrams toward the datalogger (up)
    std::atomic<long> frames{0};
    // Line bytes of the datagrams that were counted, both ENDs and escapes
    // included, and how many datagrams that was.
    long wire_bytes = 0, wire_frames = 0;
};

bool open_datalogger(Datalogger *dl, long baud) {
    char name[256];
    if (openpty(&dl->master, &dl->slave, name, nullptr, nullptr) != 0) return false;
    termios t;
    if (tcgetattr(dl->slave, &t) == 0) {
        cfmakeraw(&t);
        tcsetattr(dl->slave, TCSANOW, &t);
    }
    fcntl(dl->master, F_SETFL, fcntl(dl->master, F_GETFL) | O_NONBLOCK);
    dl->line = name;
    if (baud > 0) dl->read_pace.byte_ns = dl->write_pace.byte_ns = 10e9 / static_cast<double>(baud);
    slip_decoder_reset(&dl->dec);
    return true;
}

// Queues one packet from the datalogger to the registered client.
void dl_send(Datalogger *dl, const std::vector<unsigned char> &payload) {
    dlframe::Addressing a{kDataloggerAddress, dl->client_addr, kFirstQ330Port, dl->client_wire_port,
                          dl->identification++};
    std::vector<unsigned char> packet(dlframe::kMaxPacket);
    int n = dlframe::build(a, payload.data(), static_cast<int>(payload.size()), packet.data(),
                           static_cast<int>(packet.size()));
    std::vector<unsigned char> frame(2 * static_cast<size_t>(n) + 2);
    frame.resize(static_cast<size_t>(slip_encode(packet.data(), n, frame.data())));
    dl->wire_bytes += static_cast<long>(frame.size());
    dl->wire_frames++;
    dl->out.insert(dl->out.end(), frame.begin(), frame.end());
}

void dl_frame(Datalogger *dl, int size, double now) {
    dlframe::Parsed p{};
    if (dlframe::check(dl->dec.bytes, dl->dec.count, &p) != dlframe::kAccepted) return;
    dl->frames++;
    if (!dl->registered) {
        dl->client_addr = p.ip.ipaddr_src;
        dl->client_wire_port = p.udp.port_src;   // the relay's byte-exchanged port, answered as is
        dl->registered = true;
        return;
    }
    dl->tally.take(p.payload, p.nbytes, size, now);
    dl->wire_bytes += dl->dec.raw;
    dl->wire_frames++;
}

int dl_read(Datalogger *dl, size_t can, int size, double now) {
    unsigned char buf[4096];
    ssize_t n = read(dl->master, buf, std::min(can, sizeof buf));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
    if (n <= 0) return -1;
    dl->read_pace.consume(static_cast<size_t>(n));
    for (ssize_t i = 0; i < n; i++)
        if (slip_decoder_feed(&dl->dec, buf[i]) == 1) dl_frame(dl, size, now);
    return 0;
}

void dl_write(Datalogger *dl, size_t can) {
    unsigned char buf[4096];
    size_t n = std::min({can, dl->out.size(), sizeof buf});
    std::copy(dl->out.begin(), dl->out.begin() + static_cast<long>(n), buf);
    ssize_t w = write(dl->master, buf, n);
    if (w <= 0) return;   // the relay is not reading: the pseudo-terminal is full
    dl->write_pace.consume(static_cast<size_t>(w));
    dl->out.erase(dl->out.begin(), dl->out.begin() + w);
}

// ---- one run -------------------------------------------------------------------

struct Run {
    Options opt;
    Datalogger dl;
    Relay relay;
    int client = -1;
    Tally client_tally;            // datagrams toward the client (down)
    std::atomic<bool> stop{false};
    std::atomic<double> start_ns{0};   // the send schedule's origin, 0 until it starts
    std::atomic<long> sent{0};
    long planned = 0;
};

// The datalogger side's loop: reads (paced), answers nothing, and in down
// mode sends planned datagrams on schedule.
void datalogger_loop(Run *run) {
    Datalogger *dl = &run->dl;
    bool sending = run->opt.mode == "down";
    while (!run->stop) {
        double now = now_ns(), start = run->start_ns, wake = now + 5e6;
        while (sending && start > 0 && run->sent < run->planned &&
               start + static_cast<double>(run->sent) * 1e9 / run->opt.rate <= now) {
            double stamp = start + static_cast<double>(run->sent) * 1e9 / run->opt.rate;
            dl_send(dl, make_payload(run->opt.size, static_cast<std::uint32_t>(run->sent), stamp));
            run->sent++;
        }
        if (sending && start > 0 && run->sent < run->planned)
            wake = std::min(wake, start + static_cast<double>(run->sent) * 1e9 / run->opt.rate);
        size_t can_read = dl->read_pace.allowance(now, 4096);
        size_t can_write = dl->out.empty() ? 0 : dl->write_pace.allowance(now, dl->out.size());
        if (!can_read) wake = std::min(wake, dl->read_pace.next_ready());
        if (!dl->out.empty() && !can_write) wake = std::min(wake, dl->write_pace.next_ready());
        pollfd p = {dl->master, static_cast<short>((can_read ? POLLIN : 0) | (can_write ? POLLOUT : 0)), 0};
        int ms = static_cast<int>(std::ceil(std::max(0.0, wake - now) / 1e6));
        if (poll(&p, 1, ms) <= 0) continue;
        if ((p.revents & POLLIN) && dl_read(dl, can_read, run->opt.size, now_ns()) < 0) return;
        if (p.revents & POLLOUT) dl_write(dl, can_write);
    }
}

bool open_client(Run *run) {
    run->client = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int big = 4 << 20;   // the client must not be where datagrams are lost
    setsockopt(run->client, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    return run->client >= 0 && bind(run->client, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
}

sockaddr_in host_port_addr(const Run &run, int i) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<std::uint16_t>(run.relay.host_ports[static_cast<size_t>(i)]));
    return to;
}

// The client side's loop: in up mode sends on schedule; always receives.
void client_loop(Run *run) {
    bool sending = run->opt.mode == "up";
    sockaddr_in to = host_port_addr(*run, 0);
    std::vector<unsigned char> buf(65536);
    while (!run->stop) {
        double now = now_ns(), start = run->start_ns, wake = now + 5e6;
        if (sending && start > 0 && run->sent < run->planned) {
            double due = start + static_cast<double>(run->sent) * 1e9 / run->opt.rate;
            if (due <= now) {
                std::vector<unsigned char> p = make_payload(run->opt.size, static_cast<std::uint32_t>(run->sent), now);
                sendto(run->client, p.data(), p.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
                run->sent++;
                continue;
            }
            wake = std::min(wake, due);
        }
        pollfd p = {run->client, POLLIN, 0};
        timespec ts{0, static_cast<long>(std::max(0.0, wake - now))};
        if (ppoll(&p, 1, &ts, nullptr) <= 0) continue;
        ssize_t n = recv(run->client, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n > 0) run->client_tally.take(buf.data(), static_cast<int>(n), run->opt.size, now_ns());
    }
}

// Sends through the first host port until the datalogger side has seen the
// client (the relay also learns its route from this); false after 5 s.
bool register_client(Run *run) {
    sockaddr_in to = host_port_addr(*run, 0);
    const char hello[] = "kvload hello";
    for (int i = 0; i < 50 && !run->dl.registered; i++) {
        sendto(run->client, hello, sizeof hello, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        sleep_ms(100);
    }
    return run->dl.registered;
}

// ---- output -------------------------------------------------------------------

void row(const Options &o, const char *name, double value) {
    std::printf("%s,%ld,%d,%d,%g,%s,%.6g\n", o.label.c_str(), o.baud, o.size, o.ports,
                o.mode == "up" || o.mode == "down" ? o.rate : 0.0, name, value);
}

double percentile(std::vector<double> v, double q) {
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(v.size())));
    return v[std::clamp<size_t>(rank, 1, v.size()) - 1];
}

std::vector<double> arrived(const std::vector<double> &lat, size_t from, size_t to) {
    std::vector<double> out;
    for (size_t i = from; i < to && i < lat.size(); i++)
        if (!std::isnan(lat[i])) out.push_back(lat[i]);
    return out;
}

// The rate at which datagrams arrived between from and to, from the spacing
// of the first and last arrival in that span: with the bottleneck busy from
// the first datagram on, that is its capacity, and it does not depend on
// where the span's edges fall between two arrivals.
double delivered_rate(const Tally &t, double from, double to) {
    std::vector<double> in;
    for (double a : t.arrival_ns)
        if (a >= from && a < to) in.push_back(a);
    if (in.size() < 3) return static_cast<double>(in.size()) / ((to - from) / 1e9);
    std::sort(in.begin(), in.end());
    return static_cast<double>(in.size() - 1) / ((in.back() - in.front()) / 1e9);
}

// Rows for one direction's tally over a run whose schedule began at start.
void report_tally(const Run &run, const Tally &t, double start) {
    const Options &o = run.opt;
    size_t sent = static_cast<size_t>(run.sent);
    if (sent == 0) return;
    std::vector<double> all = arrived(t.latency_ms, 0, sent);
    size_t tenth = std::max<size_t>(1, sent / 10);
    double growth = percentile(arrived(t.latency_ms, sent - tenth, sent), 0.5) -
                    percentile(arrived(t.latency_ms, 0, tenth), 0.5);
    row(o, "delivered_per_s", delivered_rate(t, start + o.seconds * 0.1e9, start + o.seconds * 1e9));
    row(o, "sent", static_cast<double>(sent));
    row(o, "received", static_cast<double>(t.received));
    row(o, "lost", static_cast<double>(static_cast<long>(sent) - t.received));
    row(o, "duplicates", static_cast<double>(t.duplicates));
    row(o, "corrupt", static_cast<double>(t.corrupt));
    row(o, "latency_min_ms", percentile(all, 0));
    row(o, "latency_median_ms", percentile(all, 0.5));
    row(o, "latency_p99_ms", percentile(all, 0.99));
    row(o, "latency_max_ms", percentile(all, 1));
    row(o, "latency_growth_ms", growth);
    if (!o.saturate) row(o, "backlog_limit_ms", kBacklogLimitMs);
    if (!o.saturate)
        row(o, "pass", t.received == static_cast<long>(sent) && t.duplicates == 0 && t.corrupt == 0 &&
                           growth < kBacklogLimitMs);
}

void report_proc(const Options &o, const ProcSample &a, const ProcSample &b, double seconds, double datagrams) {
    row(o, "cpu_s", b.cpu_s - a.cpu_s);
    row(o, "cpu_pct", 100 * (b.cpu_s - a.cpu_s) / seconds);
    row(o, "run_pct", 100 * (b.run_s - a.run_s) / seconds);
    row(o, "wakeups_per_s", (b.slices - a.slices) / seconds);
    row(o, "threads", b.threads);
    if (datagrams > 0) {
        row(o, "cpu_ms_per_1000", 1e6 * (b.cpu_s - a.cpu_s) / datagrams);
        row(o, "run_ms_per_1000", 1e6 * (b.run_s - a.run_s) / datagrams);
    }
}

// ---- the modes -------------------------------------------------------------------

bool setup(Run *run) {
    if (!open_datalogger(&run->dl, run->opt.baud) || !open_client(run)) return false;
    if (!start_relay(&run->relay, run->opt, run->dl.line)) return false;
    sleep_ms(300);   // the relay binds its ports and opens the line
    return relay_alive(&run->relay);
}

int run_traffic(Run *run) {
    const Options &o = run->opt;
    run->planned = static_cast<long>(std::ceil(o.rate * o.seconds));
    run->dl.tally.reset(static_cast<size_t>(run->planned));
    run->client_tally.reset(static_cast<size_t>(run->planned));
    std::thread dl(datalogger_loop, run), cl(client_loop, run);
    bool ok = register_client(run);
    if (ok) {
        sleep_ms(200);
        // The same relay idle just before, so that the cost of the datagrams
        // can be told from the cost of polling in this machine's present state.
        if (o.baseline > 0) {
            ProcSample i0 = sample(run->relay.pid);
            sleep_ms(o.baseline * 1000);
            ProcSample i1 = sample(run->relay.pid);
            row(o, "idle_cpu_pct", 100 * (i1.cpu_s - i0.cpu_s) / o.baseline);
            row(o, "idle_run_pct", 100 * (i1.run_s - i0.run_s) / o.baseline);
        }
        ProcSample a = sample(run->relay.pid), self_a = sample(getpid());
        double start = now_ns();
        run->start_ns = start;
        sleep_until(start + o.seconds * 1e9);
        const Tally &t = o.mode == "up" ? run->dl.tally : run->client_tally;
        // Drain: what is still in the queues may arrive, for a while.
        double give_up = now_ns() + (o.saturate ? 1e9 : 5e9);
        while (now_ns() < give_up && t.received + t.corrupt < run->sent) sleep_ms(20);
        ProcSample b = sample(run->relay.pid), self_b = sample(getpid());
        long hwm = status_kb(run->relay.pid, "VmHWM"), rss = status_kb(run->relay.pid, "VmRSS");
        ok = relay_alive(&run->relay);
        run->stop = true;
        dl.join();
        cl.join();
        report_tally(*run, t, start);
        report_proc(o, a, b, (now_ns() - start) / 1e9, static_cast<double>(t.received));
        row(o, "vmhwm_kb", static_cast<double>(hwm));
        row(o, "vmrss_kb", static_cast<double>(rss));
        // Whether this program, rather than the relay, was what held a rate back.
        row(o, "bench_cpu_pct", 100 * (self_b.cpu_s - self_a.cpu_s) / ((now_ns() - start) / 1e9));
        if (run->dl.wire_frames)
            row(o, "wire_bytes_per_frame", static_cast<double>(run->dl.wire_bytes) / static_cast<double>(run->dl.wire_frames));
    } else {
        run->stop = true;
        dl.join();
        cl.join();
    }
    return ok ? 0 : 1;
}

int run_idle(Run *run) {
    const Options &o = run->opt;
    sleep_ms(1000);
    ProcSample a = sample(run->relay.pid);
    sleep_ms(o.seconds * 1000);
    ProcSample b = sample(run->relay.pid);
    report_proc(o, a, b, o.seconds, 0);
    row(o, "vmhwm_kb", static_cast<double>(status_kb(run->relay.pid, "VmHWM")));
    row(o, "vmrss_kb", static_cast<double>(status_kb(run->relay.pid, "VmRSS")));
    return relay_alive(&run->relay) ? 0 : 1;
}

// One datagram from a socket bound to its own source port; false when no
// port from next on could be bound.
bool send_from_new_port(Run *run, int *next) {
    sockaddr_in to = host_port_addr(*run, 0);
    for (; *next < 65536; (*next)++) {
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<std::uint16_t>(*next));
        bool bound = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
        if (bound) sendto(fd, "kvload route", 12, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        close(fd);
        if (bound) {
            (*next)++;
            return true;
        }
    }
    return false;
}

// Every client adds one entry to the relay's routing map; the resident set
// is read each 1000 clients, once the datalogger side has seen them all.
int run_routes(Run *run) {
    Options &o = run->opt;
    std::thread dl(datalogger_loop, run);
    bool ok = register_client(run);
    int next = 20000;
    long base = run->dl.frames;
    sleep_ms(200);
    row(o, "rss_kb_at_0", static_cast<double>(status_kb(run->relay.pid, "VmRSS")));
    for (int n = 1; ok && n <= o.count; n++) {
        ok = send_from_new_port(run, &next);
        // Small batches, each seen through before the next: a datagram lost
        // in a full socket buffer would be an entry never made.
        if (n % 50 == 0) {
            double give_up = now_ns() + 5e9;
            while (run->dl.frames - base < n && now_ns() < give_up) sleep_ms(1);
            ok = ok && run->dl.frames - base == n;
        }
        if (ok && n % 1000 == 0) {
            std::string name = "rss_kb_at_" + std::to_string(n);
            row(o, name.c_str(), static_cast<double>(status_kb(run->relay.pid, "VmRSS")));
        }
    }
    row(o, "clients_seen", static_cast<double>(run->dl.frames - base));
    row(o, "vmhwm_kb", static_cast<double>(status_kb(run->relay.pid, "VmHWM")));
    run->stop = true;
    dl.join();
    return ok && relay_alive(&run->relay) ? 0 : 1;
}

// The floor of the idle figures: threads that do only what the relay's
// host readers are designed to do when nothing comes (one non-blocking
// receive, then a 1 ms pause), measured on this process itself. With
// --recvs 2 each empty poll tries twice, to price a second attempt.
int run_bare_loop(const Options &o) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < o.ports; i++)
        threads.emplace_back([&stop, recvs = o.recvs] {
            int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
            unsigned char buf[1024];
            const timespec pause{0, 1000000};
            while (!stop) {
                long got = -1;
                for (int r = 0; r < recvs && got < 0; r++) got = recv(fd, buf, sizeof buf, MSG_TRUNC);
                if (got < 0) nanosleep(&pause, nullptr);
            }
            close(fd);
        });
    sleep_ms(1000);
    ProcSample a = sample(getpid());
    sleep_ms(o.seconds * 1000);
    ProcSample b = sample(getpid());
    stop = true;
    for (std::thread &t : threads) t.join();
    report_proc(o, a, b, o.seconds, 0);
    return 0;
}

// ---- command line --------------------------------------------------------------

void usage() {
    std::fprintf(stderr,
        "usage: kvload --relay PATH --mode up|down|idle|routes|bareloop [--label TEXT] [--baud N]\n"
        "              [--ports N] [--rate R] [--size S] [--seconds T] [--count N] [--saturate]\n"
        "              [--recvs N] [--baseline S]\n");
}

bool parse(int argc, char **argv, Options *o) {
    static const option longs[] = {
        {"relay", required_argument, nullptr, 'r'}, {"mode", required_argument, nullptr, 'm'},
        {"label", required_argument, nullptr, 'l'}, {"baud", required_argument, nullptr, 'b'},
        {"ports", required_argument, nullptr, 'p'}, {"rate", required_argument, nullptr, 'R'},
        {"size", required_argument, nullptr, 's'}, {"seconds", required_argument, nullptr, 't'},
        {"count", required_argument, nullptr, 'c'}, {"saturate", no_argument, nullptr, 'S'},
        {"recvs", required_argument, nullptr, 'n'}, {"baseline", required_argument, nullptr, 'B'},
        {nullptr, 0, nullptr, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "", longs, nullptr)) != -1) {
        switch (c) {
        case 'r': o->relay = optarg; break;
        case 'm': o->mode = optarg; break;
        case 'l': o->label = optarg; break;
        case 'b': o->baud = std::atol(optarg); break;
        case 'p': o->ports = std::atoi(optarg); break;
        case 'R': o->rate = std::atof(optarg); break;
        case 's': o->size = std::atoi(optarg); break;
        case 't': o->seconds = std::atof(optarg); break;
        case 'c': o->count = std::atoi(optarg); break;
        case 'S': o->saturate = true; break;
        case 'n': o->recvs = std::atoi(optarg); break;
        case 'B': o->baseline = std::atof(optarg); break;
        default: return false;
        }
    }
    if (o->label.empty()) o->label = o->mode;
    // The relay runs in a directory of its own, so its path must not be relative.
    char *absolute = realpath(o->relay.c_str(), nullptr);
    if (!absolute) return false;
    o->relay = absolute;
    free(absolute);
    bool known = o->mode == "up" || o->mode == "down" || o->mode == "idle" || o->mode == "routes" ||
                 o->mode == "bareloop";
    return known && optind == argc && o->ports >= 1 && o->rate > 0 && o->seconds > 0 &&
           o->size >= kHeaderBytes && o->size <= 1024 && o->recvs >= 1;
}

}  // namespace

int main(int argc, char **argv) {
    Run run;
    if (!parse(argc, argv, &run.opt)) {
        usage();
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    if (run.opt.mode == "bareloop") return run_bare_loop(run.opt);
    if (!setup(&run)) {
        std::fprintf(stderr, "kvload: could not start the relay on a pseudo-terminal\n");
        stop_relay(&run.relay, true);
        return 1;
    }
    const std::string &m = run.opt.mode;
    int status = m == "idle" ? run_idle(&run) : m == "routes" ? run_routes(&run) : run_traffic(&run);
    std::fflush(stdout);
    if (status != 0) std::fprintf(stderr, "kvload: %s run failed\n", m.c_str());
    stop_relay(&run.relay, status != 0);
    return status;
}
