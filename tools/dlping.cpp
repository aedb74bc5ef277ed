// dlping: a ping-like UDP client for trying the relay (or anything that echoes
// datagrams). Each datagram carries a marker, a sequence number and its send
// time; replies are matched by sequence number and checked byte for byte.
// Several clients can run side by side, each on its own socket (so each has
// its own source port), to load the relay the way several field clients do.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/toolargs.h"

namespace {

// Payload layout: marker (4), sequence number (4, big-endian), send time in
// nanoseconds of the monotonic clock (8, big-endian), then a fill pattern.
constexpr unsigned char kMarker[4] = {'D', 'L', 'P', 'G'};
constexpr int kHeaderBytes = 16;
constexpr int kMaxPayload = 65507;

struct Options {
    sockaddr_in target{};
    std::string target_text;
    long count = 10;
    long size = 64;
    double interval_ms = 1000.0;
    double timeout_ms = 2000.0;
    long local_port = 0;
    long clients = 1;
    bool quiet = false;
};

// One client: its socket and what became of each datagram it sent.
struct Client {
    int index = 0;
    int fd = -1;
    int port = 0;
    std::vector<std::uint64_t> sent_ns;   // 0: not sent yet
    std::vector<char> answered;
    std::vector<double> rtt_ms;
    long sent = 0, received = 0, duplicates = 0, corrupt = 0, late = 0, errors = 0;
};

std::atomic<bool> interrupted{false};
std::mutex output_mutex;   // keeps reply lines of parallel clients whole

void on_interrupt(int) { interrupted = true; }

std::uint64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

void put_be(unsigned char *p, std::uint64_t v, int n) {
    for (int i = n - 1; i >= 0; i--, v >>= 8) p[i] = static_cast<unsigned char>(v & 0xff);
}

std::uint64_t get_be(const unsigned char *p, int n) {
    std::uint64_t v = 0;
    for (int i = 0; i < n; i++) v = (v << 8) | p[i];
    return v;
}

// The exact payload of datagram seq sent at stamp; replies must match it.
void build_payload(std::vector<unsigned char> &buf, std::uint32_t seq, std::uint64_t stamp) {
    std::copy(kMarker, kMarker + 4, buf.begin());
    put_be(&buf[4], seq, 4);
    put_be(&buf[8], stamp, 8);
    // The pattern runs through every byte value, so SLIP END and ESC bytes
    // appear in any payload longer than a few hundred bytes.
    for (size_t i = kHeaderBytes; i < buf.size(); i++) buf[i] = static_cast<unsigned char>((seq + i) & 0xff);
}

void usage(FILE *out) {
    std::fprintf(out,
        "usage: dlping [-c count] [-s size] [-i interval_ms] [-W timeout_ms] [-b local_port]\n"
        "              [-P clients] [-q] host:port\n"
        "  -c count      datagrams per client (default 10)\n"
        "  -s size       payload bytes, %d to %d (default 64)\n"
        "  -i interval   milliseconds between sends, fractions allowed; 0 = burst (default 1000)\n"
        "  -W timeout    milliseconds a datagram may take to come back (default 2000)\n"
        "  -b port       local port to bind; client k binds port + k (default: any)\n"
        "  -P clients    parallel clients, each with its own source port (default 1)\n"
        "  -q            no per-reply lines, only the summary\n"
        "Exit status: 0 when every datagram came back intact, 1 otherwise, 2 on usage errors.\n",
        kHeaderBytes, kMaxPayload);
}

bool parse_options(int argc, char **argv, Options *o) {
    int c;
    while ((c = getopt(argc, argv, "c:s:i:W:b:P:qh")) != -1) {
        bool ok = true;
        switch (c) {
        case 'c': ok = toolargs::parse_long(optarg, 1, 100000000, &o->count); break;
        case 's': ok = toolargs::parse_long(optarg, kHeaderBytes, kMaxPayload, &o->size); break;
        case 'i': ok = toolargs::parse_double(optarg, 0, 3600e3, &o->interval_ms); break;
        case 'W': ok = toolargs::parse_double(optarg, 1, 3600e3, &o->timeout_ms); break;
        case 'b': ok = toolargs::parse_long(optarg, 1, 65535, &o->local_port); break;
        case 'P': ok = toolargs::parse_long(optarg, 1, 1000, &o->clients); break;
        case 'q': o->quiet = true; break;
        case 'h': usage(stdout); std::exit(0);
        default: ok = false;
        }
        if (!ok) {
            if (optarg) std::fprintf(stderr, "dlping: bad value '%s' for -%c\n", optarg, c);
            return false;
        }
    }
    if (optind != argc - 1) return false;
    o->target_text = argv[optind];
    if (!toolargs::parse_hostport(argv[optind], &o->target)) {
        std::fprintf(stderr, "dlping: cannot resolve '%s' (want host:port)\n", argv[optind]);
        return false;
    }
    if (o->local_port && o->local_port + o->clients - 1 > 65535) return false;
    return true;
}

// Opens the client's socket, bound to its local port (or any), connected to
// nothing so that replies from any address are seen and reported.
bool open_client(Client *c, const Options &o) {
    c->fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (c->fd < 0) { std::perror("dlping: socket"); return false; }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(o.local_port ? o.local_port + c->index : 0));
    if (bind(c->fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
        std::fprintf(stderr, "dlping: bind to port %d: %s\n", ntohs(local.sin_port), std::strerror(errno));
        return false;
    }
    socklen_t len = sizeof local;
    getsockname(c->fd, reinterpret_cast<sockaddr *>(&local), &len);
    c->port = ntohs(local.sin_port);
    c->sent_ns.assign(static_cast<size_t>(o.count), 0);
    c->answered.assign(static_cast<size_t>(o.count), 0);
    return true;
}

void send_one(Client *c, const Options &o, long k, std::vector<unsigned char> &buf) {
    std::uint32_t seq = static_cast<std::uint32_t>(k * o.clients + c->index);
    std::uint64_t stamp = now_ns();
    build_payload(buf, seq, stamp);
    ssize_t n = sendto(c->fd, buf.data(), buf.size(), 0, reinterpret_cast<const sockaddr *>(&o.target),
                       sizeof o.target);
    c->sent++;
    c->sent_ns[static_cast<size_t>(k)] = stamp;
    if (n != static_cast<ssize_t>(buf.size())) {
        c->errors++;
        std::fprintf(stderr, "dlping: sendto seq=%u: %s\n", seq, n < 0 ? std::strerror(errno) : "short write");
    }
}

// Judges one reply: counts it as received, late, duplicate or corrupt.
void take_reply(Client *c, const Options &o, const unsigned char *data, ssize_t n, const sockaddr_in &from) {
    std::uint64_t arrival = now_ns();
    if (n < kHeaderBytes || !std::equal(kMarker, kMarker + 4, data)) { c->corrupt++; return; }
    std::uint32_t seq = static_cast<std::uint32_t>(get_be(data + 4, 4));
    long k = static_cast<long>(seq / static_cast<std::uint32_t>(o.clients));
    if (static_cast<long>(seq % static_cast<std::uint32_t>(o.clients)) != c->index || k >= o.count ||
        c->sent_ns[static_cast<size_t>(k)] == 0) { c->corrupt++; return; }
    std::vector<unsigned char> expect(static_cast<size_t>(o.size));
    build_payload(expect, seq, c->sent_ns[static_cast<size_t>(k)]);
    if (n != o.size || !std::equal(expect.begin(), expect.end(), data)) { c->corrupt++; return; }
    if (c->answered[static_cast<size_t>(k)]) { c->duplicates++; return; }
    c->answered[static_cast<size_t>(k)] = 1;
    double ms = static_cast<double>(arrival - c->sent_ns[static_cast<size_t>(k)]) / 1e6;
    if (ms > o.timeout_ms) { c->late++; return; }
    c->received++;
    c->rtt_ms.push_back(ms);
    if (o.quiet) return;
    std::lock_guard<std::mutex> lock(output_mutex);
    std::printf("%d bytes from %s: seq=%d time=%.3f ms\n", static_cast<int>(n),
                toolargs::addr_text(from).c_str(), static_cast<int>(seq), ms);
    std::fflush(stdout);
}

void drain_replies(Client *c, const Options &o) {
    std::vector<unsigned char> buf(kMaxPayload + 1);
    for (;;) {
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(c->fd, buf.data(), buf.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &len);
        if (n < 0) return;
        take_reply(c, o, buf.data(), n, from);
    }
}

bool all_answered(const Client &c) { return c.received + c.late == c.sent; }

// Sends on schedule and reads replies in between; after the last send waits
// until every datagram came back or the time-out of the last one passed.
void run_client(Client *c, const Options &o) {
    std::vector<unsigned char> buf(static_cast<size_t>(o.size));
    const std::uint64_t step = static_cast<std::uint64_t>(o.interval_ms * 1e6);
    const std::uint64_t patience = static_cast<std::uint64_t>(o.timeout_ms * 1e6);
    std::uint64_t next_send = now_ns();
    long k = 0;
    while (!interrupted) {
        std::uint64_t now = now_ns();
        if (k < o.count && now >= next_send) {
            send_one(c, o, k++, buf);
            next_send += step;
            drain_replies(c, o);
            continue;
        }
        std::uint64_t wake = k < o.count ? next_send : c->sent_ns[static_cast<size_t>(k - 1)] + patience;
        if (k == o.count && (all_answered(*c) || now >= wake)) break;
        long wait_ms = static_cast<long>(std::min<std::uint64_t>((wake - std::min(wake, now)) / 1000000, 100));
        pollfd p = {c->fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(wait_ms)) > 0) drain_replies(c, o);
    }
}

double percentile(const std::vector<double> &sorted, double q) {
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

// The ping-like summary; returns true when every datagram came back intact.
bool print_summary(const std::vector<Client> &clients, const Options &o) {
    long sent = 0, received = 0, duplicates = 0, corrupt = 0, late = 0, errors = 0;
    std::vector<double> rtt;
    for (const Client &c : clients) {
        sent += c.sent; received += c.received; duplicates += c.duplicates;
        corrupt += c.corrupt; late += c.late; errors += c.errors;
        rtt.insert(rtt.end(), c.rtt_ms.begin(), c.rtt_ms.end());
        if (clients.size() > 1)
            std::printf("client %d (port %d): %ld sent, %ld received\n", c.index, c.port, c.sent, c.received);
    }
    long lost = sent - received;
    std::printf("--- %s dlping statistics ---\n", o.target_text.c_str());
    std::printf("%ld datagrams sent, %ld received, %ld lost, %.1f%% loss", sent, received, lost,
                sent ? 100.0 * static_cast<double>(lost) / static_cast<double>(sent) : 0.0);
    if (late) std::printf(", %ld late", late);
    if (duplicates) std::printf(", %ld duplicates", duplicates);
    if (corrupt) std::printf(", %ld corrupt", corrupt);
    if (errors) std::printf(", %ld send errors", errors);
    std::printf("\n");
    if (!rtt.empty()) {
        std::sort(rtt.begin(), rtt.end());
        std::printf("rtt min/median/p99/max = %.3f/%.3f/%.3f/%.3f ms\n", rtt.front(), percentile(rtt, 0.5),
                    percentile(rtt, 0.99), rtt.back());
    }
    std::fflush(stdout);
    return sent == o.count * o.clients && received == sent && duplicates == 0 && corrupt == 0 && errors == 0;
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    if (!parse_options(argc, argv, &o)) {
        usage(stderr);
        return 2;
    }
    struct sigaction sa{};
    sa.sa_handler = on_interrupt;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::vector<Client> clients(static_cast<size_t>(o.clients));
    for (size_t i = 0; i < clients.size(); i++) {
        clients[i].index = static_cast<int>(i);
        if (!open_client(&clients[i], o)) return 2;
    }
    std::vector<std::thread> threads;
    for (Client &c : clients) threads.emplace_back(run_client, &c, std::cref(o));
    for (std::thread &t : threads) t.join();
    bool whole = print_summary(clients, o);
    for (Client &c : clients) close(c.fd);
    return whole ? 0 : 1;
}
