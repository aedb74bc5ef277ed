// The IPv4/UDP codec and SLIP framing, judged by a packet builder and a SLIP
// escaper written here from RFC 791, 768, 1071 and 1055 (no product code),
// and the SLIP endpoint over a pseudo-terminal playing the datalogger's line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include "link/serialbuf.h"
#include "net/slip.h"
#include "net/udp.h"
#include "stats/taverage.h"
#include "support/elog.h"
#include "support/host.h"
#include "support/sysutil.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;

// RFC 1071: the one's-complement sum of big-endian words, folded, not complemented.
unsigned fold(const Bytes &b, unsigned s = 0) {
    for (size_t i = 0; i < b.size(); i += 2) s += b[i] << 8 | (i + 1 < b.size() ? b[i + 1] : 0);
    while (s > 0xFFFF) s = (s & 0xFFFF) + (s >> 16);
    return s;
}

// A packet's fields; a checksum left at -1 is computed (a UDP sum of 0 is sent as FFFF).
struct P {
    std::string payload;
    unsigned src = 0x0A000009, sport = 6330, dst = 0x0A000001, dport = 4242, id = 0, ttl = 64,
             frag = 0;
    int ipsum = -1, udpsum = -1;
    Bytes opts = {};
};

Bytes packet(const P &k) {
    size_t hl = 20 + k.opts.size(), n = hl + 8 + k.payload.size();
    Bytes p(n);
    auto put = [&](size_t at, unsigned v, int len) {
        for (int i = len; i-- > 0; v >>= 8) p[at + i] = v & 0xFF;
    };
    for (auto [at, v, len] : {std::tuple{0, 0x40 | hl / 4, 1}, {2, n, 2}, {4, k.id, 2},
                              {6, k.frag, 2}, {8, k.ttl, 1}, {9, 17, 1}, {12, k.src, 4},
                              {16, k.dst, 4}, {hl, k.sport, 2}, {hl + 2, k.dport, 2},
                              {hl + 4, n - hl, 2}})
        put(at, v, len);
    std::copy(k.opts.begin(), k.opts.end(), p.begin() + 20);
    std::copy(k.payload.begin(), k.payload.end(), p.begin() + hl + 8);
    Bytes pseudo(p.begin() + 12, p.begin() + 20);
    pseudo.insert(pseudo.end(), {0, 17, p[hl + 4], p[hl + 5]});
    unsigned u = ~fold(Bytes(p.begin() + hl, p.end()), fold(pseudo)) & 0xFFFF;
    put(hl + 6, k.udpsum >= 0 ? k.udpsum : u ? u : 0xFFFF, 2);
    put(10, k.ipsum >= 0 ? k.ipsum : ~fold(Bytes(p.begin(), p.begin() + hl)) & 0xFFFF, 2);
    return p;
}

// RFC 1055: END, the bytes with END and ESC escaped, END.
Bytes slip(const Bytes &p) {
    Bytes f = {0xC0};
    for (unsigned char c : p) {
        if (c == 0xC0 || c == 0xDB) f.push_back(0xDB);
        f.push_back(c == 0xC0 ? 0xDC : c == 0xDB ? 0xDD : c);
    }
    f.push_back(0xC0);
    return f;
}

// A payload whose UDP sum computes to 0, sent with FFFF; stored is its raw 16-bit word.
P zero_sum(std::string payload) {
    payload[payload.size() - 2] = payload.back() = 0;
    unsigned u = 0;
    for (int i = 0; i < 2; i++) u = u << 8 | packet({payload})[26 + i];
    payload[payload.size() - 2] = static_cast<char>(u >> 8), payload.back() = static_cast<char>(u);
    return {payload};
}

// Lines as the dumps write them: the prefix, up to 32 bytes as " %02x", and the prefix alone.
std::string dump(const std::string &prefix, const Bytes &b) {
    std::string out;
    char hex[4];
    for (size_t i = 0; i < b.size(); i++) {
        snprintf(hex, sizeof hex, " %02x", b[i]);
        out += (i % 32 ? "" : prefix) + hex + (i % 32 == 31 || i + 1 == b.size() ? "\n" : "");
    }
    return out + prefix + "\n";
}

// The log written while f runs, without time stamps and program name.
template <class F> std::string logged(F f) {
    testing::internal::CaptureStderr();
    f();
    std::istringstream in(testing::internal::GetCapturedStderr());
    std::string out;
    for (std::string l; std::getline(in, l);) out += l.substr(l.find(": ") + 2) + "\n";
    return out;
}

Bytes mem(const void *p, size_t n) { return Bytes((unsigned char *)p, (unsigned char *)p + n); }

std::string raw_word(const Bytes &b, size_t at) {  // a checksum as a host word holds it
    unsigned short w;
    std::memcpy(&w, &b[at], 2);
    char s[8];
    snprintf(s, sizeof s, "0x%4.4x", w);
    return s;
}

double sum(TAverage *avg) {  // what an average summed over the last 50 s
    double t = std_now() + 1, twin = 50, s = 0, ave = 0;
    taverage_get(avg, &t, &twin, &s, &ave);
    return s;
}

// A SLIP endpoint with averages on the slave side of a pseudo-terminal.
struct Line {
    testutil::PtyPair pty;
    UDP *udp = nullptr;
    Line(int verbose, double timeout) {
        udp_new(&udp);
        EXPECT_EQ(udp_setup_slip(udp, pty.slave_path.c_str(), 19200, timeout), 0);
        udp_setup_averages(udp, std_now() - 1, 1, 100, 1, 100, 1, 100);
        udp->verbose = verbose;
    }
    ~Line() { udp_free(udp); }
    std::string read(char *buf, int *n) {  // udp_read's result, source and payload
        char from[256] = "";
        int r = udp_read(udp, 4242, nullptr, from, buf, n, -1.0);
        return std::to_string(r) + " " + from + " " + std::string(buf, r == 0 ? *n : 0);
    }
};

}  // namespace

TEST(NetCodec, PacketsMatchAnIndependentBuilder) {
    // RFC 1071's example words fold to 0xddf2: checksum 22 0d; odd length pads with zero.
    unsigned char w[9] = {0, 0, 1, 0xf2, 3, 0xf4, 0xf5, 0xf6, 0xf7}, *odd = w + 1;
    for (auto [n, want] : {std::pair{8, Bytes{0x22, 0x0d}}, {3, Bytes{0x0d, 0xfe}}}) {
        unsigned short sum = in_cksum(reinterpret_cast<unsigned short *>(odd), n);
        EXPECT_EQ(mem(&sum, 2), want);
    }
    for (const P &k : {P{""}, P{"x", 1, 2, 3, 4, 65535, 255, 0x4000}, P{std::string(33, '\xC0')},
                       zero_sum("even"), P{.payload = "opt", .opts = {1, 1, 1, 0}}}) {
        Bytes want = packet(k);
        int n = static_cast<int>(want.size()), hl = 20 + static_cast<int>(k.opts.size());
        IPHdr ip{std::uint8_t(0x40 | hl / 4), 0, std::uint16_t(n), std::uint16_t(k.id),
                 std::uint16_t(k.frag), std::uint8_t(k.ttl), 17, 0, k.src, k.dst, {}};
        std::copy(k.opts.begin(), k.opts.end(), ip.options);
        UDPHdr u{std::uint16_t(k.sport), std::uint16_t(k.dport), std::uint16_t(n - hl), 0};
        auto *pay = reinterpret_cast<const unsigned char *>(k.payload.data());
        int len = static_cast<int>(k.payload.size());
        Bytes got(n);
        EXPECT_EQ(ip_udp_packet(&ip, &u, pay, len, got.data(), n - 1), -1);
        EXPECT_EQ(ip_udp_packet(&ip, &u, pay, len, got.data(), n), n);
        EXPECT_EQ(got, want) << k.payload;
        unsigned short sums[2];
        ASSERT_EQ(udp_checksum(want.data(), n, &sums[0], &sums[1]), 0);
        if (want[hl + 6] == 0xFF && want[hl + 7] == 0xFF) want[hl + 6] = want[hl + 7] = 0;
        EXPECT_EQ(mem(sums, 4), (Bytes{want[10], want[11], want[hl + 6], want[hl + 7]}));
    }
}

// slip_print and print_eth dump whole headers, stored checksums beside computed ones.
TEST(NetCodec, DumpsAndProtocolErrors) {
    Bytes good = packet({"dumped", 0x7F000001, 5331, 0x7F000001, 5330, 7, 255, 0x4000}), bad = good;
    bad[11] ^= 1, bad[27] ^= 1;
    ETHHdr e{{1, 2, 3, 4, 5, 6}, {0xa, 0xb, 0xc, 0xd, 0xe, 0xf}, 0x0800}, back{};
    unsigned char out[14], *p = out, *q = out;
    int room = 14, left = 14;
    ASSERT_EQ(stuff_eth(&e, &p, &room) + unstuff_eth(&q, &left, &back), 0);
    EXPECT_EQ(mem(out, 14), Bytes({1, 2, 3, 4, 5, 6, 10, 11, 12, 13, 14, 15, 8, 0}));
    EXPECT_EQ(std::memcmp(&e, &back, sizeof e) + room + left, 0);
    Bytes esc_last = slip(good), big = slip(packet({std::string(2021, 'x')}));
    esc_last.back() = 0xDB;
    Bytes frame = slip(bad);
    std::string out_text;
    EXPECT_EQ(logged([&] {
        testing::internal::CaptureStdout();
        EXPECT_EQ(slip_print(frame.data(), int(frame.size())), 0);
        out_text = testing::internal::GetCapturedStdout();
        for (Bytes f : {slip(Bytes(23, 0x45)), Bytes{0xC0, 0xDB, 0x41, 0xC0}, esc_last, big})
            EXPECT_EQ(slip_print(f.data(), int(f.size())), 0);
        print_eth(&e);
    }), "IP Header-----------------------------------\n    version_length = 0x45\n"
        "              type = 0x00\n            length = 34\n    identification = 7\n"
        "   fragment_offset = 0x4000\n      time_to_live = 255\n          protocol = 17\n"
        "            chksum = " + raw_word(bad, 10) + "(" + raw_word(good, 10) + ")\n"
        "        ipaddr_src = 0x7f000001 (127.0.0.1 localhost)\n"
        "        ipaddr_dst = 0x7f000001 (127.0.0.1 localhost)\n"
        "UDP Header----------------------------------\n          port_src = 5331\n"
        "          port_dst = 5330\n            length = 14\n"
        "            chksum = " + raw_word(bad, 26) + "(" + raw_word(good, 26) + ")\n"
        "Payload 34 bytes.\n"
        "protocol error.\nprotocol error.\nprotocol error.\nprotocol error.\n"
        "Ethernet Header-----------------------------\n"
        "           mac_dst = 01:02:03:04:05:06\n           mac_src = 0a:0b:0c:0d:0e:0f\n"
        "              type = 0800\n");
    EXPECT_NE(out_text.find("64 75 6d 70"), std::string::npos) << out_text;  // "dumped"
}

// Frames written through the endpoint: exact bytes, identification wrapping,
// the source as the forwarding thread sets it, dumps, and the bytes counted.
TEST(NetSlip, SendWritesExactFramesDumpsAndCountsThem) {
    Line line(2, 0.0026);  // the link's time-out rounds to 3 ms
    SerialBuf *sb = line.udp->slip_buf;
    EXPECT_EQ(std::to_string(sb->timeout) + " " + std::to_string(sb->slip_port_src) + " " +
                  std::to_string(sb->slip_ipaddr_src), "3 65535 4294967295");
    std::string log = logged([&] { udp_write(line.udp, 4242, nullptr, "10.0.0.1:5330", "op", 2); });
    Bytes want = slip(packet({"op", 0xFFFFFFFF, 4242, 0x0A000001, 5330, 0, 255, 0x4000}));
    EXPECT_EQ(log, "debug: UDP_DEBUG: udpw: 2 bytes to 10.0.0.1:5330:\n"
                   "debug: UDP_DEBUG: udpw:  6F 70\n" + dump("SLS:", want));
    // The client's address bytes as they lie; its port taken as a host-order number.
    const unsigned char client[4] = {192, 168, 1, 7};
    std::memcpy(&sb->slip_ipaddr_src, client, 4);
    sb->slip_port_src = 5331, sb->slip_identification = 65535, line.udp->verbose = 0;
    const std::string payload("\xC0" "a\xDB" "b", 4);
    for (unsigned id : {65535, 0}) {
        ASSERT_EQ(udp_write(line.udp, 4242, nullptr, "10.0.0.1:5330", payload.data(), 4), 1);
        Bytes f = slip(packet({payload, 0xC0A80107, 5331, 0x0A000001, 5330, id, 255, 0x4000}));
        want.insert(want.end(), f.begin(), f.end());
    }
    std::string wire = testutil::read_at_least(line.pty.master, want.size(), 5000);
    EXPECT_EQ(Bytes(wire.begin(), wire.end()), want);
    EXPECT_EQ(sum(line.udp->bytes_written), want.size());
    EXPECT_EQ(sum(line.udp->datarate), want.size());
    // A payload over 2020 bytes is refused; the failure borrows no stale error text.
    errno = EAGAIN;
    std::string big(2021, 'b');
    EXPECT_EQ(udp_write(line.udp, 4242, nullptr, "10.0.0.1:5330", big.data(), 2021), -1);
    EXPECT_EQ(logged([] { elog_clear_register(1); }),
              "slip_sendto: payload of 2021 bytes exceeds 2020.\n"
              "udp_write: sendto(10.0.0.1:5330) error.\n");
    // A silent line: the link's 3 ms time-out, a half-second pause, nothing registered.
    char buf[64];
    int n = 64;
    long long t = testutil::now_ms();
    EXPECT_EQ(line.read(buf, &n), "1  ");
    EXPECT_GE(testutil::now_ms() - t, 500);
    UDP *flow = nullptr;
    udp_new(&flow);
    ASSERT_EQ(udp_setup_slip_with_flow(flow, "/dev/null", 9600, -1.0), 0);
    EXPECT_EQ(std::to_string(flow->slip_buf->timeout) + std::to_string(flow->slip_buf->flow), "-11");
    udp_free(flow);
}

// One stream of good frames among hostile bytes, fed whole at verbosity 0, byte
// by byte at 1 and in random chunks at 2: the same payloads come out, only the
// complaints and dumps differ, and every byte of a frame not abandoned counts.
TEST(NetSlip, ReceivesThroughHostileStream) {
    Bytes first = packet({"first"}), bad_ip = first, bad_udp = packet({"bad udp"});
    bad_ip[11] ^= 1, bad_udp[27] ^= 1;
    Bytes ffff_bad = packet({.payload = "ffff bad", .udpsum = 0xFFFF}), hdr60 = packet({"hdr60"});
    hdr60[0] = 0x4F;  // says 60 header bytes: unparsable
    Bytes abandoned = {'x', 0xDB, 0x41}, zero = packet(zero_sum("zero")), big = packet({std::string(2021, 'x')});
    Bytes s = {'n', 'o', 'i', 's', 'e', 0xC0, 0xC0, 0xC0};
    std::vector<Bytes> frames = {first, Bytes(23, 0x45), bad_ip, bad_udp, ffff_bad,
                                 packet({.payload = "", .udpsum = 0}), zero, hdr60,
                                 packet({std::string(2020, 'y')}), packet({"last", 0x7F000001})};
    for (const Bytes &f : frames) {
        Bytes e = slip(f);
        s.insert(s.end(), e.begin(), e.end());
        if (f == zero) s.insert(s.end(), abandoned.begin(), abandoned.end());
        if (f == hdr60) e = slip(big), s.insert(s.end(), e.begin(), e.end());
    }
    const std::string src = "0 10.0.0.9:6330 ";
    const std::vector<std::string> want = {src + "first", src, src + std::string(zero.begin() + 28, zero.end()),
                                           src + std::string(1024, 'y'), "0 127.0.0.1:6330 last"};
    auto complaint = [&](const char *what, const Bytes &f, size_t at, const Bytes &good) {
        return "warning: " + std::string(what) + " header checksum, " + raw_word(f, at) +
               ", does not match computed checksum, " + raw_word(good, at) + ".\n" + dump("SLR:", f);
    };
    Bytes ffff_good = packet({"ffff bad"}), udp_good = packet({"bad udp"});
    const std::string kept = "kept until a drop at verbosity 0 clears it, or a dump writes it\n";
    std::string complaints = complaint("ip", bad_ip, 10, first) +
                                   complaint("udp", bad_udp, 26, udp_good) +
                                   complaint("udp", ffff_bad, 26, ffff_good) +
                                   "warning: slip_recvfrom: udp_checksum() error.\n";
    complaints.insert(complaints.find('\n') + 1, kept);
    size_t dump_lines = 2;  // "noise", then every frame that completes, then the three rejected
    for (const Bytes &f : frames) dump_lines += (f.size() + 31) / 32 + 1;
    for (const Bytes *f : {&bad_ip, &bad_udp, &ffff_bad}) dump_lines += (f->size() + 31) / 32 + 1;
    std::mt19937 rng(1055);
    for (int mode = 0; mode < 3; mode++) {
        Line line(mode, 5.0);
        std::jthread writer([&] {
            for (size_t i = 0, n; i < s.size(); i += n) {
                n = std::min(s.size() - i, mode == 0 ? s.size() : mode == 1 ? 1 : 1 + rng() % 300);
                testutil::write_all(line.pty.master, s.data() + i, n);
                if (n < 64) usleep(200);
            }
        });
        elog_log(0, "%s", kept.c_str());
        std::vector<std::string> got;
        std::string log = logged([&] {
            for (char buf[1024]; got.size() < want.size();) {
                int n = 1024;
                got.push_back(line.read(buf, &n));
                if (got.back()[0] != '0') break;
            }
        });
        EXPECT_EQ(got, want) << "mode " << mode;
        EXPECT_EQ(logged([] { elog_clear_register(1); }), "");
        std::istringstream lines(log);
        size_t slr = 0;
        for (std::string l; std::getline(lines, l);) slr += l.rfind("SLR:", 0) == 0;
        EXPECT_EQ(mode == 2 ? std::to_string(slr) : log,
                  mode == 2 ? std::to_string(dump_lines) : mode ? complaints : "");
        EXPECT_EQ(sum(line.udp->bytes_read), s.size() - abandoned.size() - (slip(big).size() - 1));
    }
}
