// dlsim: a stand-in for the datalogger on the serial line, so that the relay
// can run with no hardware. It holds a pseudo-terminal (or a given device),
// answers IPv4/UDP over SLIP as the datalogger's address, echoes what it
// receives, and can pace the line, add line noise and corrupt frames, send
// unsolicited datagrams and record everything as a pcap file.
//
// One thread, one ppoll loop: reading, writing, pacing and the timers share
// no state with anything else, and signals are taken only inside ppoll.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/time.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <getopt.h>
#include <random>
#include <string>
#include <vector>

#include "net/slip.h"
#include "support/elog.h"
#include "tools/dlframe.h"
#include "tools/toolargs.h"

namespace {

// Why an incoming frame was not answered.
enum Drop { kDropShort, kDropAbandoned, kDropHeader, kDropIpChecksum, kDropUdpChecksum, kDropAddress,
            kDropPort, kDropQueueFull, kDropCount };
constexpr const char *kDropNames[kDropCount] = {"short", "abandoned", "header", "ip-checksum", "udp-checksum",
                                                "address", "port", "queue-full"};
// A slow line must not let replies pile up without bound.
constexpr int kMaxQueuedFrames = 64;
constexpr std::uint32_t kDefaultAddress = 0xC0A80132;   // 192.168.1.50

struct Options {
    std::string device;                  // empty: a new pseudo-terminal
    std::uint32_t address = kDefaultAddress;
    std::vector<int> ports;              // empty: every port
    long baud = 0;                       // 0: unpaced
    bool echo = true;
    double noise = 0, corrupt = 0;       // chance per frame sent
    unsigned long seed = 0;
    bool seeded = false;
    std::vector<sockaddr_in> send_to;
    double every_ms = 1000;
    long from_port = 0;
    std::string pcap;
    int verbose = 0;
};

struct Counters {
    unsigned long long frames_in = 0, bytes_in = 0, accepted = 0;
    unsigned long long frames_out = 0, bytes_out = 0, unsolicited = 0, corrupt_out = 0, noise_bytes = 0;
    unsigned long long drops[kDropCount] = {};
};

// One queued write. packet is what a decoder on the line would see (empty
// for noise and for frames no decoder can finish), kept for the capture.
enum ItemKind { kFrame, kCorrupt, kNoise };
struct OutItem {
    ItemKind kind;
    std::vector<unsigned char> wire;
    std::vector<unsigned char> packet;
    bool unsolicited = false;
    size_t done = 0;
};

// Lets bytes through no faster than a line of byte_ns nanoseconds per byte;
// up to 10 ms (or one byte) of idle line may be caught up in one go.
struct Pacer {
    double byte_ns = 0;       // 0: unpaced
    double busy_until = 0;    // when the bytes already let through would have left the line
    double start(double now) const { return std::max(busy_until, now - std::max(byte_ns, 10e6)); }
    size_t allowance(double now, size_t want) const {
        if (byte_ns == 0) return want;
        double n = std::floor((now - start(now)) / byte_ns);
        return n <= 0 ? 0 : std::min(want, static_cast<size_t>(n));
    }
    void consume(double now, size_t n) {
        if (byte_ns != 0) busy_until = start(now) + static_cast<double>(n) * byte_ns;
    }
    double next_ready(double now) const { return start(now) + byte_ns; }
};

struct Sim {
    Options opt;
    int fd = -1;
    int slave = -1;         // held open so the master never sees a hang-up
    std::string line;
    SlipDecoder dec;
    std::deque<OutItem> out;
    int queued_frames = 0;
    Pacer rpace, wpace;
    std::mt19937 rng;
    std::uint16_t identification = 0;
    FILE *pcap = nullptr;
    Counters c;
    double next_unsolicited = 0;
    unsigned unsolicited_seq = 0;
};

volatile sig_atomic_t stop_signal = 0;
volatile sig_atomic_t report_wanted = 0;

void on_stop(int sig) { stop_signal = sig; }
void on_report(int) { report_wanted = 1; }

double mono_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

std::string ip_text(std::uint32_t a) {
    char s[20];
    std::snprintf(s, sizeof s, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return s;
}

// ---- command line ------------------------------------------------------------

void usage(FILE *out) {
    std::fprintf(out,
        "usage: dlsim [options]\n"
        "Plays the datalogger on a serial line: IPv4/UDP over SLIP, echoing every datagram.\n"
        "  -d, --device PATH      use this serial device instead of a new pseudo-terminal\n"
        "  -a, --address A.B.C.D  the datalogger's address (default 192.168.1.50)\n"
        "  -p, --ports P[,P...]   UDP ports answered (default: every port)\n"
        "  -b, --baud N           pace the pseudo-terminal like a line of N bit/s, 10 bits a byte,\n"
        "                         both ways; on a device, set its speed (default 0: unpaced)\n"
        "      --sink             count datagrams but send no echo\n"
        "      --noise P          chance (0..1) of 1-16 random bytes before each frame sent\n"
        "      --corrupt P        chance (0..1) of a corrupt copy (bad checksum, bad escape or\n"
        "                         truncated) before each frame sent\n"
        "      --seed N           seed of the noise and corruption (default: from the clock)\n"
        "      --send-to A.B.C.D:PORT  also send an unsolicited datagram there every period;\n"
        "                         repeatable; PORT goes on the wire as given\n"
        "      --every MS         period of --send-to (default 1000)\n"
        "      --from-port N      source port of unsolicited datagrams (default: first of -p, else 5330)\n"
        "      --pcap FILE        record every frame crossing the line (raw IPv4 link type)\n"
        "  -v, --verbose          log every frame and every drop\n"
        "  -h, --help             this text\n"
        "Prints \"dlsim: line PATH\" on standard output once the line is ready. SIGUSR1 logs the\n"
        "counters; SIGINT or SIGTERM logs them and ends with status 0.\n");
}

bool parse_ports(const char *text, std::vector<int> *ports) {
    std::string s(text);
    size_t pos = 0;
    while (pos <= s.size()) {
        size_t comma = std::min(s.find(',', pos), s.size());
        long port = 0;
        if (!toolargs::parse_long(s.substr(pos, comma - pos).c_str(), 0, 65535, &port)) return false;
        ports->push_back(static_cast<int>(port));
        pos = comma + 1;
    }
    return !ports->empty();
}

bool parse_address(const char *text, std::uint32_t *addr) {
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) return false;
    *addr = ntohl(a.s_addr);
    return true;
}

enum LongOnly { kOptSink = 256, kOptNoise, kOptCorrupt, kOptSeed, kOptSendTo, kOptEvery, kOptFromPort, kOptPcap };

bool apply_option(int c, const char *arg, Options *o) {
    long v = 0;
    sockaddr_in to{};
    switch (c) {
    case 'd': o->device = arg; return true;
    case 'a': return parse_address(arg, &o->address);
    case 'p': return parse_ports(arg, &o->ports);
    case 'b': return toolargs::parse_long(arg, 0, 4000000, &o->baud);
    case 'v': o->verbose++; return true;
    case kOptSink: o->echo = false; return true;
    case kOptNoise: return toolargs::parse_double(arg, 0, 1, &o->noise);
    case kOptCorrupt: return toolargs::parse_double(arg, 0, 1, &o->corrupt);
    case kOptSeed: o->seeded = toolargs::parse_long(arg, 0, 2147483647L, &v); o->seed = static_cast<unsigned long>(v);
        return o->seeded;
    case kOptSendTo: if (!toolargs::parse_hostport(arg, &to)) return false; o->send_to.push_back(to); return true;
    case kOptEvery: return toolargs::parse_double(arg, 1, 3600e3, &o->every_ms);
    case kOptFromPort: return toolargs::parse_long(arg, 0, 65535, &o->from_port);
    case kOptPcap: o->pcap = arg; return true;
    default: return false;
    }
}

bool parse_options(int argc, char **argv, Options *o) {
    static const option longs[] = {
        {"device", required_argument, nullptr, 'd'}, {"address", required_argument, nullptr, 'a'},
        {"ports", required_argument, nullptr, 'p'}, {"baud", required_argument, nullptr, 'b'},
        {"verbose", no_argument, nullptr, 'v'}, {"help", no_argument, nullptr, 'h'},
        {"sink", no_argument, nullptr, kOptSink}, {"noise", required_argument, nullptr, kOptNoise},
        {"corrupt", required_argument, nullptr, kOptCorrupt}, {"seed", required_argument, nullptr, kOptSeed},
        {"send-to", required_argument, nullptr, kOptSendTo}, {"every", required_argument, nullptr, kOptEvery},
        {"from-port", required_argument, nullptr, kOptFromPort}, {"pcap", required_argument, nullptr, kOptPcap},
        {nullptr, 0, nullptr, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "d:a:p:b:vh", longs, nullptr)) != -1) {
        if (c == 'h') { usage(stdout); std::exit(0); }
        if (!apply_option(c, optarg, o)) {
            if (optarg) std::fprintf(stderr, "dlsim: bad value '%s' for %s\n", optarg, argv[optind - 1]);
            return false;
        }
    }
    if (!o->from_port) o->from_port = o->ports.empty() ? 5330 : o->ports.front();
    return optind == argc;
}

// ---- the line -------------------------------------------------------------------

bool open_pty(Sim *s) {
    char name[256];
    if (openpty(&s->fd, &s->slave, name, nullptr, nullptr) != 0) {
        elog_complain(1, "openpty() error.\n");
        return false;
    }
    termios t;
    if (tcgetattr(s->slave, &t) == 0) {
        cfmakeraw(&t);
        tcsetattr(s->slave, TCSANOW, &t);
    }
    s->line = name;
    // The line's own speed is what a pseudo-terminal lacks, so pace it here.
    if (s->opt.baud > 0) s->rpace.byte_ns = s->wpace.byte_ns = 10e9 / static_cast<double>(s->opt.baud);
    return true;
}

speed_t speed_of(long baud) {
    constexpr struct { long baud; speed_t speed; } table[] = {
        {1200, B1200}, {2400, B2400}, {4800, B4800}, {9600, B9600}, {19200, B19200},
        {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400}};
    for (const auto &row : table)
        if (row.baud == baud) return row.speed;
    return B0;
}

// A real line paces itself; only its speed and raw mode are set here.
bool open_device(Sim *s) {
    s->fd = open(s->opt.device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);   // no wait for carrier
    if (s->fd < 0) {
        elog_complain(1, "open(%s) error.\n", s->opt.device.c_str());
        return false;
    }
    s->line = s->opt.device;
    termios t;
    if (tcgetattr(s->fd, &t) != 0) return true;   // not a terminal (a FIFO, a socket): use as is
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    if (s->opt.baud > 0) {
        if (speed_of(s->opt.baud) == B0) {
            elog_complain(0, "%ld bit/s is not a speed this device can be set to.\n", s->opt.baud);
            return false;
        }
        cfsetspeed(&t, speed_of(s->opt.baud));
    }
    if (tcsetattr(s->fd, TCSANOW, &t) != 0) elog_complain(1, "tcsetattr(%s) error.\n", s->line.c_str());
    return true;
}

bool open_line(Sim *s) {
    if (!(s->opt.device.empty() ? open_pty(s) : open_device(s))) return false;
    fcntl(s->fd, F_SETFL, fcntl(s->fd, F_GETFL) | O_NONBLOCK);
    return true;
}

// ---- capture ----------------------------------------------------------------------

template <typename T> void put_native(FILE *f, T v) { std::fwrite(&v, sizeof v, 1, f); }

bool pcap_open(Sim *s) {
    if (s->opt.pcap.empty()) return true;
    s->pcap = std::fopen(s->opt.pcap.c_str(), "wb");
    if (!s->pcap) {
        elog_complain(1, "fopen(%s) error.\n", s->opt.pcap.c_str());
        return false;
    }
    put_native<std::uint32_t>(s->pcap, 0xa1b2c3d4);   // microsecond time stamps, our byte order
    put_native<std::uint16_t>(s->pcap, 2);
    put_native<std::uint16_t>(s->pcap, 4);
    put_native<std::int32_t>(s->pcap, 0);
    put_native<std::uint32_t>(s->pcap, 0);
    put_native<std::uint32_t>(s->pcap, 65535);
    put_native<std::uint32_t>(s->pcap, 101);           // raw IPv4, no link header
    std::fflush(s->pcap);
    return true;
}

// Flushed per record so that the file can be read while dlsim runs.
void pcap_record(Sim *s, const unsigned char *packet, size_t n) {
    if (!s->pcap || n == 0) return;
    timeval tv;
    gettimeofday(&tv, nullptr);
    put_native<std::uint32_t>(s->pcap, static_cast<std::uint32_t>(tv.tv_sec));
    put_native<std::uint32_t>(s->pcap, static_cast<std::uint32_t>(tv.tv_usec));
    put_native<std::uint32_t>(s->pcap, static_cast<std::uint32_t>(n));
    put_native<std::uint32_t>(s->pcap, static_cast<std::uint32_t>(n));
    std::fwrite(packet, 1, n, s->pcap);
    std::fflush(s->pcap);
}

// ---- frames out ---------------------------------------------------------------------

std::vector<unsigned char> encode(const unsigned char *packet, size_t n) {
    std::vector<unsigned char> wire(2 * n + 2);
    wire.resize(static_cast<size_t>(slip_encode(packet, static_cast<int>(n), wire.data())));
    return wire;
}

bool chance(Sim *s, double p) { return p > 0 && std::uniform_real_distribution<double>(0, 1)(s->rng) < p; }

size_t pick(Sim *s, size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(s->rng); }

// Whether a receiver that checks only the checksums (not the length fields)
// would take these bytes for a good packet.
bool lenient_accepts(std::vector<unsigned char> bytes) {
    unsigned short ip_sum = 0, udp_sum = 0;
    IPHdr ip{};
    UDPHdr udp{};
    unsigned char *cur = bytes.data();
    int left = static_cast<int>(bytes.size());
    if (left < SLIP_MIN_PACKET || udp_checksum(bytes.data(), left, &ip_sum, &udp_sum) < 0) return false;
    if (unstuff_ip(&cur, &left, &ip) < 0 || unstuff_udp(&cur, &left, &udp) < 0) return false;
    return ip.chksum == ip_sum && (udp.chksum == 0 || (udp.chksum == 0xFFFF && udp_sum == 0) || udp.chksum == udp_sum);
}

// A copy of packet spoiled one of three ways. Each must be refused by the
// receiver, or the client would get a duplicate, so a truncation or an
// escape cut that happens to leave a passable packet becomes a bit flip,
// which a one's-complement sum always notices.
OutItem corrupt_copy(Sim *s, const std::vector<unsigned char> &packet) {
    OutItem it{kCorrupt, {}, packet};
    const size_t n = packet.size();
    size_t kind = pick(s, 0, 2);
    if (kind == 1) {   // bad escape: the receiver abandons, then reads the rest as a frame
        size_t k = pick(s, 1, IP_HDR_MIN - 1);
        std::vector<unsigned char> rest(packet.begin() + static_cast<long>(k), packet.end());
        if (lenient_accepts(rest)) kind = 0;
        it.wire = encode(packet.data(), k);
        it.wire.back() = SLIP_ESC;
        it.wire.push_back(0x41);
        std::vector<unsigned char> tail = encode(rest.data(), rest.size());
        it.wire.insert(it.wire.end(), tail.begin() + 1, tail.end());
        it.packet.clear();
    } else if (kind == 2) {   // truncated
        it.packet.resize(pick(s, 1, n - 1));
        if (lenient_accepts(it.packet)) kind = 0;
        it.wire = encode(it.packet.data(), it.packet.size());
    }
    if (kind == 0) {   // one flipped bit: in the payload, else in the IP checksum
        it.packet = packet;
        size_t at = n > dlframe::kHeaders ? pick(s, dlframe::kHeaders, n - 1) : 10;
        it.packet[at] ^= static_cast<unsigned char>(1u << pick(s, 0, 7));
        it.wire = encode(it.packet.data(), n);
    }
    return it;
}

void drop(Sim *s, Drop why, int nbytes) {
    s->c.drops[why]++;
    if (s->opt.verbose) elog_complain(0, "dropped a frame of %d bytes: %s\n", nbytes, kDropNames[why]);
}

// Queues one packet, preceded by the noise and corrupt copy that chance picks.
void queue_packet(Sim *s, const dlframe::Addressing &a, const unsigned char *payload, int n, bool unsolicited) {
    if (s->queued_frames >= kMaxQueuedFrames) return drop(s, kDropQueueFull, n);
    std::vector<unsigned char> packet(dlframe::kMaxPacket);
    int len = dlframe::build(a, payload, n, packet.data(), static_cast<int>(packet.size()));
    if (len < 0) return drop(s, kDropHeader, n);
    packet.resize(static_cast<size_t>(len));
    if (chance(s, s->opt.noise)) {
        OutItem noise{kNoise, std::vector<unsigned char>(pick(s, 1, 16)), {}};
        for (unsigned char &b : noise.wire) b = static_cast<unsigned char>(pick(s, 0, 255));
        s->out.push_back(std::move(noise));
    }
    if (chance(s, s->opt.corrupt)) s->out.push_back(corrupt_copy(s, packet));
    OutItem frame{kFrame, encode(packet.data(), packet.size()), packet, unsolicited};
    s->out.push_back(std::move(frame));
    s->queued_frames++;
}

void send_unsolicited(Sim *s, double now) {
    if (s->opt.send_to.empty() || now < s->next_unsolicited) return;
    s->next_unsolicited += s->opt.every_ms * 1e6;
    if (s->next_unsolicited < now) s->next_unsolicited = now + s->opt.every_ms * 1e6;
    std::string text = "dlsim unsolicited " + std::to_string(++s->unsolicited_seq);
    for (const sockaddr_in &to : s->opt.send_to) {
        dlframe::Addressing a{s->opt.address, ntohl(to.sin_addr.s_addr), static_cast<std::uint16_t>(s->opt.from_port),
                              ntohs(to.sin_port), s->identification++};
        queue_packet(s, a, reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()), true);
    }
}

// Counts a queued item once its last byte is on the line.
void item_written(Sim *s, const OutItem &it) {
    if (it.kind == kNoise) s->c.noise_bytes += it.wire.size();
    if (it.kind == kCorrupt) s->c.corrupt_out++;
    if (it.kind == kFrame) {
        s->c.frames_out++;
        s->c.unsolicited += it.unsolicited;
        s->queued_frames--;
    }
    pcap_record(s, it.packet.data(), it.packet.size());
}

int write_line(Sim *s, double now, size_t can) {
    OutItem &it = s->out.front();
    ssize_t w = write(s->fd, it.wire.data() + it.done, std::min(can, it.wire.size() - it.done));
    if (w < 0) {
        if (errno == EAGAIN || errno == EINTR) return 0;
        elog_complain(1, "write(%s) error.\n", s->line.c_str());
        return -1;
    }
    s->wpace.consume(now, static_cast<size_t>(w));
    s->c.bytes_out += static_cast<unsigned long long>(w);
    it.done += static_cast<size_t>(w);
    if (it.done == it.wire.size()) {
        item_written(s, it);
        s->out.pop_front();
    }
    return 0;
}

// ---- frames in -------------------------------------------------------------------------

void handle_packet(Sim *s, unsigned char *packet, int n) {
    static constexpr Drop verdict_drop[] = {kDropCount, kDropShort, kDropHeader, kDropIpChecksum, kDropUdpChecksum};
    dlframe::Parsed p{};
    dlframe::Verdict v = dlframe::check(packet, n, &p);
    if (v != dlframe::kAccepted) return drop(s, verdict_drop[v], n);
    if (p.ip.ipaddr_dst != s->opt.address) return drop(s, kDropAddress, n);
    if (!s->opt.ports.empty() && std::find(s->opt.ports.begin(), s->opt.ports.end(), p.udp.port_dst) == s->opt.ports.end())
        return drop(s, kDropPort, n);
    s->c.accepted++;
    if (s->opt.verbose)
        elog_debug(0, "%d bytes from %s:%d to port %d\n", p.nbytes, ip_text(p.ip.ipaddr_src).c_str(), p.udp.port_src,
                   p.udp.port_dst);
    if (!s->opt.echo) return;
    // Back to the source address and port exactly as they stood on the wire:
    // the relay sends its client's port byte-swapped and swaps it back itself.
    dlframe::Addressing a{s->opt.address, p.ip.ipaddr_src, p.udp.port_dst, p.udp.port_src, s->identification++};
    queue_packet(s, a, p.payload, p.nbytes, false);
}

void feed(Sim *s, unsigned char byte) {
    int r = slip_decoder_feed(&s->dec, byte);
    if (r == -1) drop(s, kDropAbandoned, s->dec.count);
    if (r != 1) return;
    s->c.frames_in++;
    pcap_record(s, s->dec.bytes, static_cast<size_t>(s->dec.count));
    handle_packet(s, s->dec.bytes, s->dec.count);
}

int read_line(Sim *s, double now, size_t can) {
    unsigned char buf[4096];
    ssize_t n = read(s->fd, buf, std::min(can, sizeof buf));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
    if (n <= 0) {
        elog_complain(n < 0, "read(%s): the line is gone.\n", s->line.c_str());
        return -1;
    }
    s->rpace.consume(now, static_cast<size_t>(n));
    s->c.bytes_in += static_cast<unsigned long long>(n);
    for (ssize_t i = 0; i < n; i++) feed(s, buf[i]);
    return 0;
}

// ---- main loop -------------------------------------------------------------------------

void print_counters(const Sim *s) {
    const Counters &c = s->c;
    elog_notify(0, "counters: frames in %llu, bytes in %llu, accepted %llu; frames out %llu, bytes out %llu, "
                "unsolicited %llu, corrupt %llu, noise bytes %llu\n", c.frames_in, c.bytes_in, c.accepted,
                c.frames_out, c.bytes_out, c.unsolicited, c.corrupt_out, c.noise_bytes);
    std::string drops;
    unsigned long long total = 0;
    for (int i = 0; i < kDropCount; i++) {
        drops += std::string(i ? ", " : "") + kDropNames[i] + " " + std::to_string(c.drops[i]);
        total += c.drops[i];
    }
    elog_notify(0, "drops: %s; total %llu\n", drops.c_str(), total);
}

timespec until(double now, double wake) {
    double ns = std::max(0.0, wake - now);
    return timespec{static_cast<time_t>(ns / 1e9), static_cast<long>(std::fmod(ns, 1e9))};
}

// Returns the exit status: 0 after a stop signal, 1 when the line failed.
int run(Sim *s, const sigset_t *waitmask) {
    while (!stop_signal) {
        if (report_wanted) {
            report_wanted = 0;
            print_counters(s);
        }
        double now = mono_ns();
        send_unsolicited(s, now);
        size_t can_read = s->rpace.allowance(now, 4096);
        size_t can_write = s->out.empty() ? 0 : s->wpace.allowance(now, s->out.front().wire.size() - s->out.front().done);
        double wake = now + 1e9;
        if (!s->opt.send_to.empty()) wake = std::min(wake, s->next_unsolicited);
        if (!can_read) wake = std::min(wake, s->rpace.next_ready(now));
        if (!s->out.empty() && !can_write) wake = std::min(wake, s->wpace.next_ready(now));
        pollfd p = {s->fd, static_cast<short>((can_read ? POLLIN : 0) | (can_write ? POLLOUT : 0)), 0};
        timespec ts = until(now, wake);
        if (ppoll(&p, 1, &ts, waitmask) < 0) continue;   // a signal; the loop head looks at it
        // Bytes move now, after the wait: charging them to the time before it
        // would let an idle line pass twice its rate in one burst.
        now = mono_ns();
        if ((p.revents & POLLIN) && read_line(s, now, can_read) < 0) return 1;
        if ((p.revents & POLLOUT) && write_line(s, now, can_write) < 0) return 1;
        if ((p.revents & (POLLERR | POLLHUP | POLLNVAL)) && !(p.revents & POLLIN)) {
            elog_complain(0, "%s hung up.\n", s->line.c_str());
            return 1;
        }
    }
    return 0;
}

// Our signals stay blocked except inside ppoll, so a flag set by a handler
// is never missed between the check at the loop head and the wait.
void setup_signals(sigset_t *waitmask) {
    sigset_t ours;
    sigemptyset(&ours);
    struct sigaction sa{};
    sa.sa_handler = on_stop;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(sig, &sa, nullptr);
        sigaddset(&ours, sig);
    }
    sa.sa_handler = on_report;
    sigaction(SIGUSR1, &sa, nullptr);
    sigaddset(&ours, SIGUSR1);
    signal(SIGPIPE, SIG_IGN);
    sigprocmask(SIG_BLOCK, &ours, waitmask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigdelset(waitmask, sig);
}

std::string ports_text(const Options &o) {
    if (o.ports.empty()) return "every port";
    std::string t = "ports";
    for (size_t i = 0; i < o.ports.size(); i++) t += (i ? "," : " ") + std::to_string(o.ports[i]);
    return t;
}

}  // namespace

int main(int argc, char **argv) {
    elog_init(argc, argv);
    Sim s;
    if (!parse_options(argc, argv, &s.opt)) {
        usage(stderr);
        return 2;
    }
    if (!s.opt.seeded) s.opt.seed = static_cast<unsigned long>(time(nullptr)) ^ static_cast<unsigned long>(getpid());
    s.rng.seed(static_cast<std::mt19937::result_type>(s.opt.seed));
    slip_decoder_reset(&s.dec);
    sigset_t waitmask;
    setup_signals(&waitmask);
    if (!pcap_open(&s) || !open_line(&s)) return 1;
    s.next_unsolicited = mono_ns();
    std::printf("dlsim: line %s\n", s.line.c_str());
    std::fflush(stdout);
    elog_notify(0, "answering as %s on %s, %s, %s, seed %lu\n", ip_text(s.opt.address).c_str(),
                ports_text(s.opt).c_str(), s.opt.echo ? "echo" : "sink",
                s.rpace.byte_ns ? ("paced at " + std::to_string(s.opt.baud) + " bit/s").c_str() : "unpaced",
                s.opt.seed);
    int status = run(&s, &waitmask);
    print_counters(&s);
    if (s.pcap) std::fclose(s.pcap);
    return status;
}
