// The datagram endpoint: host sockets on loopback, and SLIP over a pseudo-terminal playing the
// datalogger's line. Frames are judged by a builder and an escaper written here from RFC 791,
// 768, 1071 and 1055, never by the product's codec. poll and sendto are wrapped so that what no
// real socket shows in a test's time (300 s wait slices, interrupted and short sends) is scripted.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "link/serialbuf.h"
#include "net/slip.h"
#include "net/udp.h"
#include "stats/taverage.h"
#include "support/elog.h"
#include "support/host.h"
#include "testutil.h"

std::function<int(pollfd *, int)> fake_poll;  // unset: the real call
std::function<long(size_t)> fake_sendto;
template <class F> F real(const char *name) { return reinterpret_cast<F>(dlsym(RTLD_NEXT, name)); }
extern "C" int poll(pollfd *fds, nfds_t n, int msec) {
    return fake_poll ? fake_poll(fds, msec) : real<int (*)(pollfd *, nfds_t, int)>("poll")(fds, n, msec);
}
extern "C" ssize_t sendto(int fd, const void *b, size_t n, int f, const sockaddr *to, socklen_t tl) {
    using Sendto = ssize_t (*)(int, const void *, size_t, int, const sockaddr *, socklen_t);
    return fake_sendto ? fake_sendto(n) : real<Sendto>("sendto")(fd, b, n, f, to, tl);
}

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;

unsigned fold(const Bytes &b, unsigned s = 0) {  // RFC 1071: sum of big-endian words, folded
    for (size_t i = 0; i < b.size(); i += 2) s += b[i] << 8 | (i + 1 < b.size() ? b[i + 1] : 0);
    return s > 0xFFFF ? fold({}, (s & 0xFFFF) + (s >> 16)) : s;
}

struct P {  // a test packet's fields
    std::string payload;
    unsigned src = 0x0A000009, sport = 6330, dst = 0x0A000001, dport = 4242, id = 0, ttl = 64;
    unsigned frag = 0;
    Bytes opts = {};
};

Bytes packet(const P &k) {  // RFC 791 and 768, both checksums computed; a UDP sum 0 goes as FFFF
    size_t hl = 20 + k.opts.size(), n = hl + 8 + k.payload.size();
    Bytes p(n);
    auto put = [&](size_t at, unsigned v, int len) { while (len--) p[at + len] = v & 0xFF, v >>= 8; };
    for (auto [at, v, len] : {std::tuple{0, 0x40 | hl / 4, 1}, {2, n, 2}, {4, k.id, 2}, {6, k.frag, 2},
                              {8, k.ttl, 1}, {9, 17, 1}, {12, k.src, 4}, {16, k.dst, 4},
                              {hl, k.sport, 2}, {hl + 2, k.dport, 2}, {hl + 4, n - hl, 2}})
        put(at, v, len);
    std::copy(k.opts.begin(), k.opts.end(), p.begin() + 20);
    std::copy(k.payload.begin(), k.payload.end(), p.begin() + hl + 8);
    Bytes pseudo(p.begin() + 12, p.begin() + 20);
    pseudo.insert(pseudo.end(), {0, 17, p[hl + 4], p[hl + 5]});
    unsigned u = ~fold(Bytes(p.begin() + hl, p.end()), fold(pseudo)) & 0xFFFF;
    put(hl + 6, u ? u : 0xFFFF, 2);
    put(10, ~fold(Bytes(p.begin(), p.begin() + hl)) & 0xFFFF, 2);
    return p;
}

P zero_sum(P k) {  // a payload whose last word makes the UDP sum compute to 0
    k.payload = std::string("ze\0\0", 4);
    Bytes p = packet(k);
    return k.payload = std::string("ze") + char(p[26]) + char(p[27]), k;
}

Bytes slip(const Bytes &p) {  // RFC 1055: END, the bytes with END and ESC escaped, END
    Bytes f = {0xC0};
    for (unsigned char c : p)
        c == 0xC0 || c == 0xDB ? f.insert(f.end(), {0xDB, (unsigned char)(c == 0xC0 ? 0xDC : 0xDD)}) : f.insert(f.end(), c);
    return f.push_back(0xC0), f;
}

// Dump lines: the prefix and up to 32 bytes each, then (closing) the prefix alone.
std::string dump(const std::string &prefix, const Bytes &b, const char *fmt = " %02x", bool closing = true) {
    std::string out;
    char hex[4];
    for (size_t i = 0; i < b.size(); i++) {
        snprintf(hex, sizeof hex, fmt, b[i]);
        out += (i % 32 ? "" : prefix) + hex + (i % 32 == 31 || i + 1 == b.size() ? "\n" : "");
    }
    return closing ? out + prefix + "\n" : out;
}

std::string word(const Bytes &b, size_t at) {  // a checksum printed as a host word holds it
    char s[8];
    snprintf(s, sizeof s, "0x%4.4x", unsigned(*reinterpret_cast<const std::uint16_t *>(&b[at])));
    return s;
}

template <class F> std::string logged(F f) {  // the log f writes, without time and program name
    testing::internal::CaptureStderr();
    f();
    std::istringstream in(testing::internal::GetCapturedStderr());
    std::string out;
    for (std::string l; std::getline(in, l);) out += l.substr(l.find(": ") + 2) + "\n";
    return out;
}
std::string registered() { return logged([] { elog_clear_register(1); }); }

double sum(TAverage *avg) {  // what an average summed over the last 50 s
    double t = std_now() + 1, twin = 50, s = 0, ave = 0;
    taverage_get(avg, &t, &twin, &s, &ave);
    return s;
}

int resolutions = 0;
Texts lines;  // verbose lines; the pause lets another thread's dump cut in, were it not locked out
std::mutex lines_guard;
void collect(void *, const char *line) {
    std::lock_guard lock(lines_guard);
    lines.push_back(line), usleep(100);
}

// An endpoint with averages; on a free loopback port with a client socket, or on a SLIP line.
struct NetUdp : testing::Test {
    UDP *udp = nullptr;
    int port = testutil::free_udp_port(), cport = 0, client = testutil::udp_socket_loopback(&cport);
    std::string got, from, me = "127.0.0.1:" + std::to_string(cport);
    std::unique_ptr<testutil::PtyPair> pty;
    void SetUp() override {
        ASSERT_EQ(udp_new(&udp), 0);
        udp_setup_averages(udp, std_now() - 1, 1, 100, 1, 100, 1, 100);
        udp_set_resolver([](const char *h, std::uint32_t *ip, char *c) { return resolutions++, name2ip(h, ip, c); });
        resolutions = 0, lines.clear();
    }
    void TearDown() override {
        fake_poll = nullptr, fake_sendto = nullptr;
        udp_free(udp), close(client);
    }
    void line(int verbose, double timeout) {  // makes the endpoint a SLIP one on a fresh line
        pty = std::make_unique<testutil::PtyPair>();
        ASSERT_EQ(udp_setup_slip(udp, pty->slave_path.c_str(), 19200, timeout), 0);
        udp_setup_averages(udp, std_now() - 1, 1, 100, 1, 100, 1, 100);  // afresh
        udp->verbose = verbose;
    }
    int read(int local_port, double timeout, int cap = 1024) {  // into got and from
        char buf[2048], text[256] = "";
        int n = cap, r = udp_read(udp, local_port, nullptr, text, buf, &n, timeout);
        if (r == 0) got.assign(buf, n), from = text;
        return r;
    }
    int write(int local_port, const std::string &to, const std::string &data) {
        return udp_write(udp, local_port, nullptr, to.c_str(), data.data(), int(data.size()));
    }
};

}  // namespace

// slip_print dumps whole headers, stored checksums beside computed ones.
TEST(NetCodec, DumpsAndProtocolErrors) {
    Bytes good = packet({"dumped", 0x7F000001, 5331, 0x7F000001, 5330, 7, 255, 0x4000}), bad = good;
    bad[11] ^= 1, bad[27] ^= 1;
    Bytes frame = slip(bad), esc_last = slip(good), big = slip(packet({std::string(2021, 'x')}));
    esc_last.back() = 0xDB;
    std::string out;
    EXPECT_EQ(logged([&] {
        testing::internal::CaptureStdout();
        for (Bytes f : {frame, slip(Bytes(23, 0x45)), Bytes{0xC0, 0xDB, 0x41, 0xC0}, esc_last, big})
            EXPECT_EQ(slip_print(f.data(), int(f.size())), 0);
        out = testing::internal::GetCapturedStdout();
    }), "IP Header-----------------------------------\n    version_length = 0x45\n"
        "              type = 0x00\n            length = 34\n    identification = 7\n"
        "   fragment_offset = 0x4000\n      time_to_live = 255\n          protocol = 17\n"
        "            chksum = " + word(bad, 10) + "(" + word(good, 10) + ")\n"
        "        ipaddr_src = 0x7f000001 (127.0.0.1 localhost)\n"
        "        ipaddr_dst = 0x7f000001 (127.0.0.1 localhost)\n"
        "UDP Header----------------------------------\n          port_src = 5331\n"
        "          port_dst = 5330\n            length = 14\n"
        "            chksum = " + word(bad, 26) + "(" + word(good, 26) + ")\n"
        "Payload 34 bytes.\nprotocol error.\nprotocol error.\nprotocol error.\nprotocol error.\n");
    EXPECT_NE(out.find("64 75 6d 70"), std::string::npos) << out;  // the hexdump holds "dump"
}

// Frames written through a SLIP endpoint: exact bytes, the identification wrapping, the source
// as set up, opened and then set by the forwarding thread, the dumps, and the bytes counted.
TEST_F(NetUdp, SlipSendWritesExactFramesDumpsAndCountsThem) {
    line(2, 0.0026);  // the link's time-out rounds to 3 ms
    SerialBuf *sb = udp->slip_buf;
    EXPECT_EQ(Texts({std::to_string(sb->timeout), std::to_string(sb->slip_port_src),
                     std::to_string(sb->slip_ipaddr_src)}), Texts({"3", "65535", "4294967295"}));
    const std::string op = "0123456789:;<=>?@ABCDEFGHIJKLMNOP";
    Bytes want = slip(packet({op, 0xFFFFFFFF, 4242, 0x0A000001, 5330, 0, 255, 0x4000}));
    EXPECT_EQ(logged([&] { write(4242, "10.0.0.1:5330", op); }),
              "debug: UDP_DEBUG: udpw: 33 bytes to 10.0.0.1:5330:\n" +
                  dump("debug: UDP_DEBUG: udpw: ", Bytes(op.begin(), op.end()), " %02X", false) +
                  dump("SLS:", want));
    const unsigned char client[4] = {192, 168, 1, 7};  // address bytes as they lie
    std::memcpy(&sb->slip_ipaddr_src, client, 4);
    sb->slip_port_src = 5331, sb->slip_identification = 65535, udp->verbose = 0;
    for (P k : {P{std::string("\xC0" "a\xDB" "b", 4), 0xC0A80107, 5331, 0x0A000001, 5330, 65535, 255,
                  0x4000}, zero_sum({"", 0xC0A80107, 5331, 0x0A000001, 5330, 0, 255, 0x4000})}) {
        ASSERT_EQ(write(4242, "10.0.0.1:5330", k.payload), 1);  // the id wraps; a UDP sum 0 goes as FFFF
        Bytes f = slip(packet(k));
        want.insert(want.end(), f.begin(), f.end());
    }
    std::string wire = testutil::read_at_least(pty->master, want.size(), 5000);
    EXPECT_EQ(Bytes(wire.begin(), wire.end()), want);
    EXPECT_EQ(sum(udp->bytes_written) + sum(udp->datarate), 2 * want.size());
    errno = EAGAIN;  // stale: the failure below must not carry it
    EXPECT_EQ(write(4242, "10.0.0.1:5330", std::string(2021, 'b')), -1);
    EXPECT_EQ(registered(), "slip_sendto: payload of 2021 bytes exceeds 2020.\n"
                            "udp_write: sendto(10.0.0.1:5330) error.\n");
    long long t = testutil::now_ms();  // a silent line: 3 ms, a half-second pause, nothing kept
    elog_log(0, "dropped by the time-out\n");
    EXPECT_EQ(read(4242, -1.0), UDP_READ_TIMEOUT);
    EXPECT_GE(testutil::now_ms() - t, 500);
    EXPECT_EQ(registered(), "");
    ASSERT_EQ(udp_setup_slip_with_flow(udp, "/dev/null", 9600, -1.0), 0);
    EXPECT_EQ(std::to_string(udp->slip_buf->timeout) + std::to_string(udp->slip_buf->flow), "-11");
}

// One stream of good frames among hostile bytes, fed whole at verbosity 0, byte by byte at 1
// and in random chunks at 2: the same datagrams come out, only complaints and dumps differ,
// and every byte of a frame that was not abandoned counts.
TEST_F(NetUdp, SlipReceivesThroughHostileStream) {
    Bytes first = packet({"first"}), bad_ip = first, bad_udp = first, ffff = first, no_sum = first;
    bad_ip[11] ^= 1, bad_udp[27] ^= 1, ffff[26] = ffff[27] = 0xFF, no_sum[26] = no_sum[27] = 0;
    Bytes zero = packet(zero_sum({})), hdr60 = packet({"hdr60"}), big = packet({std::string(2021, 'x')});
    hdr60[0] = 0x4F;  // says 60 header bytes: unparsable
    Bytes s = {'n', 'o', 'i', 's', 'e', 0xC0, 0xC0, 0xC0}, abandoned = {'x', 0xDB, 0x41};
    for (const Bytes &f : {first, Bytes(23, 0x45), bad_ip, bad_udp, ffff, no_sum, zero, abandoned,
                           packet({.payload = "opt", .opts = {1, 1, 1, 0}}),
                           hdr60, big, packet({std::string(2020, 'y')}), packet({"last", 0x7F000001})}) {
        Bytes e = f == abandoned ? f : slip(f);
        s.insert(s.end(), e.begin(), e.end());
    }
    const std::string src = "0 10.0.0.9:6330 ", kept = "kept till a dump writes it or a drop at 0\n";
    const Texts want = {src + "first", src + "first", src + zero_sum({}).payload, src + "opt",
                        src + std::string(1024, 'y'), "0 127.0.0.1:6330 last"};
    auto complaint = [&](const char *what, const Bytes &f, size_t at) {
        return "warning: " + std::string(what) + " header checksum, " + word(f, at) +
               ", does not match computed checksum, " + word(first, at) + ".\n" + dump("SLR:", f);
    };
    std::string complaints = complaint("ip", bad_ip, 10) + complaint("udp", bad_udp, 26) +
                             complaint("udp", ffff, 26) + "warning: slip_recvfrom: udp_checksum() error.\n";
    complaints.insert(complaints.find('\n') + 1, kept);  // the first dump writes what was registered
    for (int mode = 0; mode < 3; mode++) {
        line(mode, 5.0);
        std::jthread writer([&] {
            for (size_t i = 0, n; i < s.size(); i += n) {
                n = std::min(s.size() - i, mode == 0 ? s.size() : mode == 1 ? 1 : 1 + i * 7919 % 300);
                testutil::write_all(pty->master, s.data() + i, n);
                if (n < 64) usleep(200);
            }
        });
        elog_log(0, "%s", kept.c_str());
        Texts got_all;
        std::string log = logged([&] {
            while (got_all.size() < want.size() && (got_all.empty() || got_all.back()[0] == '0'))
                got_all.push_back(std::to_string(read(0, -1.0)) + " " + from + " " + got);
        });
        EXPECT_EQ(got_all, want) << "mode " << mode;
        EXPECT_EQ(registered(), "");
        EXPECT_EQ(mode < 2 ? log : "", mode == 1 ? complaints : "");
        EXPECT_TRUE(mode < 2 || log.find(dump("SLR:", first)) != std::string::npos);
        EXPECT_EQ(sum(udp->bytes_read), s.size() - abandoned.size() - (slip(big).size() - 1));
    }
}

TEST_F(NetUdp, OpensLazilyReopensResolvesOnceAndReportsFailures) {
    EXPECT_EQ(read(port, -1.0), UDP_READ_NOTHING);  // opens, bound before anything is sent
    int on[3] = {0, 0, (fcntl(udp->fd, F_GETFL) & O_NONBLOCK) != 0};
    socklen_t len = sizeof(int);
    for (int opt : {SO_KEEPALIVE, SO_BROADCAST}) getsockopt(udp->fd, SOL_SOCKET, opt, &on[opt == SO_BROADCAST], &len);
    EXPECT_EQ(std::vector<int>(on, on + 3), std::vector<int>({1, 1, 1}));
    testutil::udp_send_to(client, port, "to port");
    ASSERT_EQ(read(port, 5.0), UDP_READ_OK);
    EXPECT_EQ(got + " " + from, "to port " + me);
    // Re-opened on p2; a destination is resolved once per new text, and a text that
    // fails leaves the cached one as it was.
    int p2 = testutil::free_udp_port(), reply_from = 0;
    std::string by_name = "localhost:" + std::to_string(cport), huge(256, '1'), all;
    std::vector<int> results;
    for (std::string to : {me, me, by_name, std::string("x.invalid:5000"), by_name, huge, std::string("nopo")})
        results.push_back(write(p2, to, to == me ? "a" : "b"));
    EXPECT_EQ(results, std::vector<int>({1, 1, 1, -1, 1, -1, -1}));
    EXPECT_EQ(resolutions, 3);
    EXPECT_EQ(registered(), "udp_setup_ipaddr: Can't locate server by name of 'x.invalid:5000'\n"
                            "udp_write: udp_setup_ipaddr(x.invalid:5000) error.\n"
                            "udp_write: destination '" + huge + "' longer than 255 characters.\n"
                            "udp_setup_ipaddr: no port number in hostport argument 'nopo'.\n"
                            "udp_write: udp_setup_ipaddr(nopo) error.\n");
    while (testutil::udp_recv(client, &got, 300, &reply_from)) all += got;
    EXPECT_EQ(all + " " + std::to_string(reply_from), "aabb " + std::to_string(p2));
    udp_close(udp);
    EXPECT_EQ(read(cport, -1.0), -2);  // the client's port is taken
    EXPECT_EQ(registered(), "udp_open: bind() error. (Address already in use)\n"
                            "udp_read: udp_open(" + std::to_string(cport) + ") error.\n");
    char dev[64], to[256];  // setup_mode splits a device form and passes other text through
    for (const char *arg : {"/dev/ttyS1:19200:q330:5330", "q330:5330", "/dev/ttyS1", "/dev/ttyS1:9600"})
        all += std::to_string(setup_mode(arg, dev, 0, to)) + " " + dev + " " + to + "|";
    EXPECT_EQ(all, "aabb0 /dev/ttyS1 q330:5330|0  q330:5330|-1  q330:5330|-1  q330:5330|");
    EXPECT_EQ(registered(), "setup_mode: no baudrate number in hostport argument '/dev/ttyS1'.\n"
                            "setup_mode: no hostport in argument '/dev/ttyS1:9600'.\n");
}

// Empty and oversize datagrams are dropped with a warning naming the sender, and reading goes
// on; random drops both ways; every host datagram counts its bytes plus 42.
TEST_F(NetUdp, DropsEmptyOversizeAndRandomDatagramsAndReadsOn) {
    udp_set_verbose(udp, 1);
    long long t = testutil::now_ms();
    EXPECT_EQ(read(port, 0.3), UDP_READ_TIMEOUT);
    EXPECT_GE(testutil::now_ms() - t, 250);
    for (const char *d : {"", "xxxxxxxxxxxxxxxxx", "", "yyyyyyyyyyyyyyyy", ""}) testutil::udp_send_to(client, port, d);
    std::vector<int> results;
    std::string log = logged([&] { errno = EAGAIN, results = {read(port, 5.0, 16), read(port, -1.0)}; });
    EXPECT_EQ(results, std::vector<int>({UDP_READ_OK, UDP_READ_NOTHING}));
    const std::string empty = "warning: udp_read: dropped an empty datagram from " + me + ".\n";
    EXPECT_EQ(got + "\n" + log, "yyyyyyyyyyyyyyyy\n" + empty + "warning: udp_read: dropped a 17-byte datagram from " +
                                    me + ", larger than the 16-byte buffer.\n" + empty + empty);
    EXPECT_EQ(registered(), "");
    udp->drop_packet_pcnt = 100;
    udp->verbose_callback = collect;
    EXPECT_EQ(write(port, me, std::string(10, 'w')), 1);
    EXPECT_FALSE(testutil::udp_recv(client, &got, 300));
    testutil::udp_send_to(client, port, std::string(7, 'r'));
    EXPECT_EQ(read(port, 0.5), UDP_READ_TIMEOUT);
    EXPECT_EQ(lines, Texts({"Random drop packet on send", "Random drop packet on receive"}));
    EXPECT_EQ(sum(udp->bytes_read), 17 + 16 + 7 + 6 * 42);
    EXPECT_EQ(sum(udp->bytes_written), 10 + 42);
    EXPECT_EQ(sum(udp->datarate), 40 + 10 + 7 * 42);
}

// The wait's slices (at most 300 s, 0.1 s shorter each round), what poll's answers mean, and
// send failures: each message carries only the error text of its own call.
TEST_F(NetUdp, WaitSlicesPollAnswersAndSendFailures) {
    std::vector<int> slices;
    fake_poll = [&](pollfd *, int msec) { return slices.push_back(msec), errno = EINTR, slices.size() < 3 ? 0 : -1; };
    EXPECT_EQ(read(port, 1000.0), UDP_READ_INTR);
    EXPECT_EQ(slices, std::vector<int>({300001, 299901, 299801}));
    std::string answers;
    for (auto [r, revents, err] : {std::tuple{1, POLLIN, 0}, {1, POLLRDNORM, 0}, {1, POLLRDBAND, 0},
                                   {1, POLLPRI, 0}, {1, POLLHUP, EAGAIN}, {1, POLLNVAL, EAGAIN},
                                   {0, 0, 0}, {-1, 0, EINTR}, {-1, 0, EAGAIN}, {-1, 0, ENOMEM}}) {
        fake_poll = [=](pollfd *p, int) { return p->revents = short(revents), errno = err, r; };
        int w = myfdwait(0, 5);
        answers += std::to_string(w) + (errno ? "e " : " ");
    }
    EXPECT_EQ(answers, "0 0 0 0 -1 -1 1 2e 1e -1e ");
    EXPECT_EQ(read(port, 1.0), -1);  // a failed poll, with its own error text
    fake_poll = [](pollfd *p, int) { return p->revents = POLLHUP, errno = EAGAIN, 1; };
    EXPECT_EQ(read(port, 1.0), -1);  // a hang-up: no failed call, no error text
    EXPECT_EQ(registered(), "udp_read: myfdwait() error. (Cannot allocate memory)\nudp_read: myfdwait() error.\n");
    for (auto [sent, err] : {std::pair{-1L, EINTR}, {-1L, EPERM}, {4L, EAGAIN}}) {
        fake_sendto = [=](size_t) { return errno = err, sent; };
        EXPECT_EQ(write(0, me, "seven b"), -1);
    }
    EXPECT_EQ(registered(), "udp_write: sendto(" + me + ") interrupted. (Interrupted system call)\n"
                            "udp_write: sendto(" + me + ") error. (Operation not permitted)\n"
                            "udp_write: sendto(" + me + ") short by 3 bytes.\n");
}

// Two threads dumping on one endpoint: each dump's header and three lines stay together.
TEST_F(NetUdp, VerboseDumpsNeverInterleave) {
    udp->verbose = 2, udp->verbose_callback = collect;
    auto writer = [&](char fill) { for (int i = 0; i < 50; i++) write(0, me, std::string(70, fill)); };
    { std::jthread a(writer, 'A'), b(writer, 'B'); }
    ASSERT_EQ(lines.size(), 100u * 4);
    for (size_t i = 0; i < lines.size(); i += 4)
        EXPECT_EQ(lines[i] + lines[i + 2].substr(6, 3) + lines[i + 3].substr(6, 3),
                  "udpw: 70 bytes to " + me + ":" + lines[i + 1].substr(6, 3) + lines[i + 1].substr(6, 3));
}
