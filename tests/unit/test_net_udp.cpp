// The datagram endpoint: host sockets on loopback, SLIP over a pseudo-terminal as the datalogger's
// line. Frames are judged by code written here from RFC 791, 768, 1071 and 1055, never by the
// product's codec; poll and sendto are wrapped to script 300 s waits and failed sends.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <regex>
#include <thread>

#include "link/serialbuf.h"
#include "net/slip.h"
#include "net/udp.h"
#include "stats/taverage.h"
#include "support/elog.h"
#include "support/host.h"
#include "testutil.h"

using namespace testutil;

std::function<int(pollfd *, int)> fake_poll;  // unset: the real call
std::function<long(size_t)> fake_sendto;
template <class F> F real(const char *name) { return reinterpret_cast<F>(dlsym(RTLD_NEXT, name)); }
extern "C" int poll(pollfd *p, nfds_t n, int ms) {
    return fake_poll ? fake_poll(p, ms) : real<decltype(&poll)>("poll")(p, n, ms);
}
extern "C" ssize_t sendto(int fd, const void *b, size_t n, int f, const sockaddr *a, socklen_t l) {
    return fake_sendto ? fake_sendto(n) : real<decltype(&sendto)>("sendto")(fd, b, n, f, a, l);
}

namespace {

using Bytes = std::string;  // frames and packets as the byte strings they are

// A datagram from the datalogger's side (10.0.0.9:6330 to 10.0.0.1:4242), no flags; its packet.
Datagram dg(const Bytes &payload, std::uint32_t src = 0x0A000009, const Bytes &options = "") {
    return {src, 0x0A000001, 6330, 4242, 0, 0, 64, payload, options};
}
Bytes packet(const Bytes &payload, std::uint32_t src = 0x0A000009, const Bytes &options = "") {
    return datagram_packet(dg(payload, src, options));
}

Datagram zero_sum(Datagram k) {  // a payload whose last word makes the UDP sum compute to 0
    k.payload = Bytes("ze\0\0", 4);
    return k.payload = "ze" + datagram_packet(k).substr(26, 2), k;
}

std::string word(const Bytes &b, size_t at) {  // a checksum printed as a host word holds it
    char s[8];
    std::uint16_t w;
    snprintf(s, sizeof s, "0x%4.4x", (std::memcpy(&w, &b[at], 2), unsigned(w)));
    return s;
}

template <class F> std::string logged(F f) {  // the log f writes, without time and program name
    testing::internal::CaptureStderr(), f();
    static const std::regex stamp("(^|\n)[^ ]+ [^ ]+ [^:]+: ");
    return std::regex_replace(testing::internal::GetCapturedStderr(), stamp, "$1");
}
std::string registered() { return logged([] { elog_clear_register(1); }); }

double sum(TAverage *avg) {  // what an average summed over the last 50 s
    double t = std_now() + 1, twin = 50, s = 0, ave = 0;
    return taverage_get(avg, &t, &twin, &s, &ave), s;
}

int resolutions = 0;
int count(const char *h, std::uint32_t *a, char *c) { return ++resolutions, name2ip(h, a, c); }

// An endpoint with averages; on a free loopback port with a client socket, or on a SLIP line.
struct NetUdp : testing::Test {
    UDP *udp = nullptr;
    int port = fixed_udp_port(), cport = 0, client = udp_socket(&cport);
    std::string got, from, me = "127.0.0.1:" + std::to_string(cport);
    std::unique_ptr<PtyPair> pty;
    void SetUp() override { udp_new(&udp), averages(), udp_set_resolver(count), resolutions = 0; }
    void averages() { udp_setup_averages(udp, std_now() - 1, 1, 100, 1, 100, 1, 100); }
    void TearDown() override {
        fake_poll = nullptr, fake_sendto = nullptr, udp_free(udp), close(client);
    }
    void line(int verbose, double timeout) {  // makes the endpoint a SLIP one on a fresh line
        pty = std::make_unique<PtyPair>();
        ASSERT_EQ(udp_setup_slip(udp, pty->slave_path.c_str(), 19200, timeout), 0);
        averages(), udp->verbose = verbose;
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

// slip_print dumps whole headers, stored checksums beside computed ones; print_eth its header.
TEST(NetCodec, SlipPrintDumpsHeadersOrProtocolError) {
    Bytes good = datagram_packet({0x7F000001, 0x7F000001, 5331, 5330, 7, 0x4000, 255, "dumped"});
    Bytes bad = good, esc_last = slip_frame(good), big = slip_frame(packet(Bytes(2021, 'x')));
    bad[11] ^= 1, bad[27] ^= 1;
    esc_last.back() = '\xDB';
    ETHHdr e{{0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6}, {10, 11, 12, 13, 14, 15}, 0x88cc};
    EXPECT_EQ(logged([&] {
        for (Bytes f : {slip_frame(bad), slip_frame(Bytes(23, 'E')), Bytes("\xC0\xDB\x41\xC0"),
                        esc_last, big})
            EXPECT_EQ(slip_print((unsigned char *)f.data(), int(f.size())), 0);
        print_eth(&e);
    }), "IP Header-----------------------------------\n    version_length = 0x45\n"
        "              type = 0x00\n            length = 34\n    identification = 7\n"
        "   fragment_offset = 0x4000\n      time_to_live = 255\n          protocol = 17\n"
        "            chksum = " + word(bad, 10) + "(" + word(good, 10) + ")\n"
        "        ipaddr_src = 0x7f000001 (127.0.0.1 localhost)\n"
        "        ipaddr_dst = 0x7f000001 (127.0.0.1 localhost)\n"
        "UDP Header----------------------------------\n          port_src = 5331\n"
        "          port_dst = 5330\n            length = 14\n"
        "            chksum = " + word(bad, 26) + "(" + word(good, 26) + ")\n"
        "Payload 34 bytes.\nprotocol error.\nprotocol error.\nprotocol error.\nprotocol error.\n"
        "Ethernet Header-----------------------------\n           mac_dst = a1:b2:c3:d4:e5:f6\n"
        "           mac_src = 0a:0b:0c:0d:0e:0f\n              type = 88cc\n");
}

// SLIP frames sent: exact bytes (the id wrapping, a UDP sum 0 as FFFF), source, dumps and counts.
TEST_F(NetUdp, SlipSendWritesExactFramesDumpsAndCountsThem) {
    line(2, 0.0026);  // the link's time-out rounds to 3 ms
    SerialBuf *sb = udp->slip_buf;
    EXPECT_EQ(std::to_string(sb->timeout) + " " + std::to_string(sb->slip_port_src), "3 65535");
    const Bytes op = "0123456789:;<=>?@ABCDEFGHIJKLMNOP";
    Bytes want = slip_frame(datagram_packet({0xFFFFFFFF, 0x0A000001, 4242, 5330, 0, 0x4000, 255,
                                             op}));
    EXPECT_EQ(logged([&] { write(4242, "10.0.0.1:5330", op); }),
              "debug: UDP_DEBUG: udpw: 33 bytes to 10.0.0.1:5330:\n" +
                  dump("debug: UDP_DEBUG: udpw: ", op, " %02X", false) + dump("SLS:", want));
    std::memcpy(&sb->slip_ipaddr_src, "\xC0\xA8\x01\x07", 4);  // address bytes as they lie
    sb->slip_port_src = 5331, sb->slip_identification = 65535, udp->verbose = 0;
    Datagram k{0xC0A80107, 0x0A000001, 5331, 5330, 65535, 0x4000, 255, "\xC0" "a\xDB" "b"};
    for (const Datagram &each : {k, zero_sum({k.src, k.dst, k.sport, k.dport, 0, 0x4000, 255})}) {
        ASSERT_EQ(write(4242, "10.0.0.1:5330", each.payload), 1);
        want += slip_frame(datagram_packet(each));
    }
    EXPECT_EQ(read_at_least(pty->master, want.size(), 5000), want);
    EXPECT_EQ(sum(udp->bytes_written) + sum(udp->datarate), 2 * want.size());
    errno = EAGAIN;  // stale: the failure below must not carry it
    EXPECT_EQ(write(4242, "10.0.0.1:5330", std::string(2021, 'b')), -1);
    EXPECT_EQ(registered(), "slip_sendto: payload of 2021 bytes exceeds 2020.\n"
                            "udp_write: sendto(10.0.0.1:5330) error.\n");
    long long t = now_ms();  // a silent line: 3 ms, a half-second pause, nothing kept
    elog_log(0, "dropped by the time-out\n");
    EXPECT_EQ(read(4242, -1.0), UDP_READ_TIMEOUT);
    EXPECT_GE(now_ms() - t, 500);
    EXPECT_EQ(registered(), "");
    close(std::exchange(sb->fd, open("/", O_RDONLY)));  // a failed read names its error all the way up
    EXPECT_EQ(read(4242, 5.0), -1);
    EXPECT_EQ(registered(), "serialbuf_get_byte: serialbuf_read() error. (Is a directory)\n"
                            "udp_read: slip_recvfrom() error. (Is a directory)\n");
}

// Good frames among hostile bytes, fed whole at verbosity 0, bytewise at 1, in chunks at 2: the
// same datagrams come out; every byte counts but those of abandoned frames (bad escape, 2049th).
TEST_F(NetUdp, SlipReceivesThroughHostileStream) {
    Bytes first = packet("first"), bad_ip = first, bad_udp = first, ffff = first, no_sum = first;
    bad_ip[11] ^= 1, bad_udp[27] ^= 1, ffff.replace(26, 2, "\xFF\xFF"), no_sum.replace(26, 2, 2, 0);
    const Datagram zero = zero_sum(dg(""));
    Bytes big = packet(Bytes(2021, 'x')), hdr60 = Bytes(24, 'O');  // 'O' says 60 header bytes
    Bytes s = "noise\xC0x\xDB\x41\xC0\xC0";  // line noise, then a bad escape
    for (Bytes f : {first, Bytes(23, 'E'), bad_ip, bad_udp, ffff, no_sum, datagram_packet(zero),
                    packet("opt", 0x0A000009, {"\1\1\1\0", 4}), hdr60, big,
                    packet(Bytes(2020, 'y')), packet("last", 0x7F000001)})
        s += slip_frame(f);
    const std::string src = "0 10.0.0.9:6330 ", kept = "kept till a dump writes it\n";
    const std::vector<std::string> want = {src + "first", src + "first", src + zero.payload,
                                           src + "opt", src + Bytes(1024, 'y'),
                                           "0 127.0.0.1:6330 last"};
    auto complaint = [&](const char *what, const Bytes &f, size_t at) {
        return "warning: " + std::string(what) + " header checksum, " + word(f, at) +
               ", does not match computed checksum, " + word(first, at) + ".\n" + dump("SLR:", f);
    };
    std::string complaints = complaint("ip", bad_ip, 10) + complaint("udp", bad_udp, 26) +
                             complaint("udp", ffff, 26) +
                             "warning: slip_recvfrom: udp_checksum() error.\n";
    complaints.insert(complaints.find('\n') + 1, kept);  // the first dump writes the register
    for (int mode = 0; mode < 3; mode++) {
        line(mode, 5.0);
        std::jthread writer([&] {
            for (size_t i = 0, n; i < s.size(); i += n, usleep(n < 64 ? 200 : 0)) {
                n = std::min(s.size() - i, mode == 0 ? s.size() : mode == 1 ? 1 : 1 + i * 79 % 300);
                write_all(pty->master, s.data() + i, n);
            }
        });
        elog_log(0, "%s", kept.c_str());  // a drop at verbosity 0 discards it
        std::vector<std::string> all;
        std::string log = logged([&] {
            while (all.size() < want.size() && (all.empty() || all.back()[0] == '0'))
                all.push_back(std::to_string(read(0, -1.0)) + " " + from + " " + got);
        });
        EXPECT_EQ(all, want) << "mode " << mode;
        EXPECT_EQ(registered(), "");
        EXPECT_EQ(mode < 2 ? log : "", mode == 1 ? complaints : "");
        EXPECT_TRUE(mode < 2 || log.find(dump("SLR:", first)) != std::string::npos);
        EXPECT_EQ(sum(udp->bytes_read), s.size() - 3 - (slip_frame(big).size() - 1));
    }
}

TEST_F(NetUdp, OpensLazilyReopensResolvesOnceAndReportsFailures) {
    EXPECT_EQ(read(port, -1.0), UDP_READ_NOTHING);  // opens, bound before anything is sent
    int on = 0;
    socklen_t len = sizeof on;
    getsockopt(udp->fd, SOL_SOCKET, SO_BROADCAST, &on, &len);
    EXPECT_EQ(on * 10 + ((fcntl(udp->fd, F_GETFL) & O_NONBLOCK) != 0), 11);
    // Re-opened on p2; each new text is resolved once; a failing one leaves the cache as it was.
    int p2 = fixed_udp_port(), reply_from = 0;
    std::string huge(256, '1'), results, all;
    for (std::string to : {me, me, std::string("x.invalid:5000"), me, huge, std::string("nopo")})
        results += std::to_string(write(p2, to, to == me ? "a" : "b"));
    EXPECT_EQ(results + " " + std::to_string(resolutions), "11-11-1-1 2");
    while (udp_recv(client, &got, 300, &reply_from)) all += got;
    EXPECT_EQ(all + " " + std::to_string(reply_from), "aaa " + std::to_string(p2));
    EXPECT_EQ(sum(udp->bytes_written), 3 * (1 + 42));
    EXPECT_EQ(slip_sendto(udp, "", 0, 0, nullptr, 0) + slip_recvfrom(udp, nullptr, 0, 0, 0, 0), -2);
    udp_close(udp);
    EXPECT_EQ(read(cport, -1.0), -2);  // the client's port is taken
    const int in = dup(0);  // standard input closed: descriptor 0 is refused, with no error text
    close(0), errno = EPERM;
    EXPECT_EQ(read(p2, -1.0), -1);
    dup2(in, 0), close(in);
    char dev[64], to[256];  // setup_mode splits a device form and passes other text through
    for (const char *arg : {"/dev/ttyS1:9600:q:5330", "q:5330", "/dev/ttyS1", "/dev/ttyS1:96"})
        all += std::to_string(setup_mode(arg, dev, 0, to)) + " " + dev + " " + to + "|";
    EXPECT_EQ(all, "aaa0 /dev/ttyS1 q:5330|0  q:5330|-1  q:5330|-1  q:5330|");
    // A resolver that cannot reach its name server fails with a text of its own (EAGAIN): the call
    // set it, so it may stand; what must never stand is a text the look-up did not set.
    const std::regex resolver_text("'x\\.invalid:5000' \\((Resource temporarily unavailable)\\)\n");
    EXPECT_EQ(std::regex_replace(registered(), resolver_text, "'x.invalid:5000'\n"),
              "udp_setup_ipaddr: Can't locate server by name of 'x.invalid:5000'\n"
                            "udp_write: udp_setup_ipaddr(x.invalid:5000) error.\n"
                            "udp_write: destination '" + huge + "' longer than 255 characters.\n"
                            "udp_setup_ipaddr: no port number in hostport argument 'nopo'.\n"
                            "udp_write: udp_setup_ipaddr(nopo) error.\n"
                            "slip_sendto: endpoint has no link.\n"
                            "slip_recvfrom: endpoint has no link.\n"
                            "udp_open: bind() error. (Address already in use)\n"
                            "udp_read: udp_open(" + std::to_string(cport) + ") error.\n"
                            "udp_open: socket() error.\nudp_read: udp_open(" + std::to_string(p2) + ") error.\n"
                            "setup_mode: no baudrate number in hostport argument '/dev/ttyS1'.\n"
                            "setup_mode: no hostport in argument '/dev/ttyS1:96'.\n");
}

// Empty and oversize datagrams are dropped with a warning naming the sender, and reading goes on.
TEST_F(NetUdp, DropsEmptyAndOversizeDatagramsAndReadsOn) {
    udp_set_verbose(udp, 1);
    ASSERT_EQ(read(port, -1.0), UDP_READ_NOTHING);  // opens the port
    for (const char *d : {"", "xxxxxxxxxxxxxxxxx", "", "yyyyyyyyyyyyyyyy", ""})
        udp_send_to(client, port, d);
    const std::string empty = "warning: udp_read: dropped an empty datagram from " + me + ".\n";
    EXPECT_EQ(logged([&] {
        errno = EAGAIN;
        EXPECT_EQ(read(port, 5.0, 16), UDP_READ_OK);
        EXPECT_EQ(read(port, -1.0), UDP_READ_NOTHING);  // the last empty one dropped too
    }), empty + "warning: udp_read: dropped a 17-byte datagram from " + me +
            ", larger than the 16-byte buffer.\n" + empty + empty);
    EXPECT_EQ(got + " " + from + registered(), "yyyyyyyyyyyyyyyy " + me);
    EXPECT_EQ(sum(udp->bytes_read) + sum(udp->datarate), 2 * (17 + 16 + 5 * 42));  // 42 per header
    sockaddr sa;  // a destination without a port; a line without its trailing blanks; a sleep rounded up
    EXPECT_EQ(udp_setup_ipaddr("nopo", &sa), -1);
    EXPECT_EQ(registered(), "udp_setup_ipaddr: no port number in hostport argument 'nopo'.\n");
    long long t = now_ms();
    EXPECT_EQ(logged([&] {
        EXPECT_EQ(udp_print_verbose(udp, 0, "trailing \t\n") + myusleep(0.9999999999), 0);
        EXPECT_EQ((udp->verbose = 0, udp_print_verbose(udp, 0, "unsaid at level 0")), 0);
        EXPECT_EQ((udp->verbose = 2, udp_print_verbose(udp, 1, 1, "\x7f", "p: ", "%d", 7)), 0);
    }), "debug: UDP_DEBUG: trailing\ndebug: UDP_DEBUG: p: 7\ndebug: UDP_DEBUG: p:  7F\n");
    udp->verbose = 1;
    EXPECT_GE(now_ms() - t, 900);
    // A zero window leaves an average as it was; the testing knob drops everything, and says so.
    udp_setup_averages(udp, std_now(), 1, 0, 1, 100, 1, 100);
    udp->drop_packet_pcnt = 100;
    udp_send_to(client, port, "z");
    EXPECT_EQ(logged([&] { read(port, 0.5), write(port, me, "w"); }),
              "debug: UDP_DEBUG: Random drop packet on receive\ndebug: UDP_DEBUG: Random drop packet on send\n");
    EXPECT_EQ(std::pair(udp->bytes_read->twin, udp_recv(client, &got, 100)), std::pair(100.0, false));
}

// Wait slices (300 s at most, 0.1 s less each round), poll's answers, send failures: each message
// carries only the error text of its own call.
TEST_F(NetUdp, WaitSlicesPollAnswersAndSendFailures) {
    std::vector<int> slices;
    fake_poll = [&](pollfd *, int ms) {  // nothing twice, then a signal
        return slices.push_back(ms), errno = EINTR, -(slices.size() > 2);
    };
    EXPECT_EQ(read(port, 1000.0), UDP_READ_INTR);
    EXPECT_EQ(slices, std::vector<int>({300001, 299901, 299801}));
    std::string answers;
    for (auto [r, revents, err] : {std::tuple{1, POLLIN, 0}, {1, POLLRDNORM, 0}, {1, POLLRDBAND, 0},
                                   {1, POLLPRI, 0}, {1, POLLHUP, 0}, {1, POLLNVAL, 0}, {0, 0, 0},
                                   {-1, 0, EINTR}, {-1, 0, EAGAIN}, {-1, 0, ENOMEM}}) {
        fake_poll = [=](pollfd *p, int) { return p->revents = short(revents), errno = err, r; };
        answers += std::to_string(myfdwait(0, 5)) + " ";
    }
    EXPECT_EQ(answers, "0 0 0 0 -1 -1 1 2 1 -1 ");
    EXPECT_EQ(read(port, 0.5), -1);  // a failed poll, with its own error text
    fake_poll = [](pollfd *p, int) { return p->revents = POLLHUP, errno = EAGAIN, 1; };
    EXPECT_EQ(read(port, 0.5), -1);  // a hang-up: no failed call, no error text
    for (auto [sent, err] : {std::pair{-1L, EINTR}, {-1L, EPERM}, {4L, EAGAIN}}) {
        fake_sendto = [=](size_t) { return errno = err, sent; };
        EXPECT_EQ(write(0, me, "seven b"), -1);
    }
    EXPECT_EQ(registered(), "udp_read: myfdwait() error. (Cannot allocate memory)\n"
                            "udp_read: myfdwait() error.\n"
                            "udp_write: sendto(" + me + ") interrupted. (Interrupted system call)\n"
                            "udp_write: sendto(" + me + ") error. (Operation not permitted)\n"
                            "udp_write: sendto(" + me + ") short by 3 bytes.\n");
}
