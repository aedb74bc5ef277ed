// The datagram endpoint on real loopback sockets, and in SLIP mode over a
// pseudo-terminal.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

#include "link/serialbuf.h"
#include "net/slip.h"
#include "net/udp.h"
#include "stats/taverage.h"
#include "support/elog.h"
#include "support/host.h"
#include "testutil.h"

namespace {

struct Endpoint {
    UDP *udp = nullptr;
    Endpoint() { EXPECT_EQ(udp_new(&udp), 0); }
    ~Endpoint() { udp_free(udp); }
    int read(int port, std::string *payload, std::string *from, double timeout, int cap = 1024) {
        char buf[2048], text[256] = "";
        int n = cap, r = udp_read(udp, port, nullptr, text, buf, &n, timeout);
        if (r == 0) payload->assign(buf, n), *from = text;
        return r;
    }
    int write(int port, const std::string &to, const std::string &data) {
        return udp_write(udp, port, nullptr, to.c_str(), data.data(), static_cast<int>(data.size()));
    }
};

// The calling thread's registered messages, written out and cleared.
std::string registered() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}

int bound_port(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

std::string local(int port) { return "127.0.0.1:" + std::to_string(port); }

std::atomic<int> resolutions{0};
int counting_resolver(const char *name, std::uint32_t *ip, char *ipc) {
    resolutions++;
    return name2ip(name, ip, ipc);
}

// Collects verbose lines. The pause gives another thread's dump every chance
// to cut in, were the endpoint's mutex not held from a dump's first line to its last.
std::vector<std::string> lines;
std::mutex lines_guard;
void collect(void *, const char *line) {
    std::lock_guard lock(lines_guard);
    lines.push_back(line);
    usleep(100);
}

}  // namespace

TEST(NetUdp, LazyOpenReopenAndBindFailure) {
    Endpoint ep;
    EXPECT_EQ(ep.udp->fd, -1);
    int p1 = testutil::free_udp_port(), p2 = testutil::free_udp_port(), client_port;
    int client = testutil::udp_socket_loopback(&client_port);
    std::string got, from;
    EXPECT_EQ(ep.read(p1, &got, &from, -1.0), UDP_READ_NOTHING);  // opened, nothing waiting
    EXPECT_EQ(ep.udp->local_port, p1);
    EXPECT_EQ(bound_port(ep.udp->fd), p1);
    testutil::udp_send_to(client, p1, "to p1");
    ASSERT_EQ(ep.read(p1, &got, &from, 5.0), UDP_READ_OK);
    EXPECT_EQ(got + " " + from, "to p1 " + local(client_port));
    ASSERT_EQ(ep.write(p2, local(client_port), "from p2"), 1);  // re-opens on p2
    int reply_from = 0;
    ASSERT_TRUE(testutil::udp_recv(client, &got, 5000, &reply_from));
    EXPECT_EQ(got + " " + std::to_string(reply_from), "from p2 " + std::to_string(p2));
    EXPECT_EQ(ep.udp->local_port, p2);
    udp_close(ep.udp);
    EXPECT_EQ(ep.udp->fd + ep.udp->local_port, -2);
    Endpoint other;  // the client's port is taken: bind fails with -2
    EXPECT_EQ(other.read(client_port, &got, &from, -1.0), -2);
    std::string msgs = registered();
    EXPECT_NE(msgs.find("udp_open: bind() error."), std::string::npos);
    EXPECT_NE(msgs.find("udp_read: udp_open(" + std::to_string(client_port) + ") error."), std::string::npos);
    close(client);
}

TEST(NetUdp, DestinationResolvedOncePerText) {
    udp_set_resolver(counting_resolver);
    Endpoint ep;
    int port, sink = testutil::udp_socket_loopback(&port);
    std::string by_name = "localhost:" + std::to_string(port);
    resolutions = 0;
    EXPECT_EQ(ep.write(0, local(port), "a") + ep.write(0, local(port), "b"), 2);
    EXPECT_EQ(resolutions, 1);
    EXPECT_EQ(ep.write(0, by_name, "c"), 1);
    EXPECT_EQ(ep.write(0, "x.invalid:5000", "lost"), -1);
    EXPECT_EQ(resolutions, 3);
    EXPECT_EQ(std::string(ep.udp->send_hostport), by_name);  // cache untouched
    std::string msgs = registered();
    EXPECT_NE(msgs.find("udp_setup_ipaddr: Can't locate server by name of 'x.invalid:5000'"), std::string::npos);
    EXPECT_NE(msgs.find("udp_write: udp_setup_ipaddr(x.invalid:5000) error."), std::string::npos);
    EXPECT_EQ(ep.write(0, by_name, "d"), 1);
    EXPECT_EQ(resolutions, 3);
    EXPECT_EQ(ep.write(0, "localhost", "e"), -1);
    EXPECT_NE(registered().find("no port number in hostport argument 'localhost'"), std::string::npos);
    std::string got, all;
    while (testutil::udp_recv(sink, &got, 300)) all += got;
    EXPECT_EQ(all, "abcd");
    udp_set_resolver(nullptr);
    close(sink);
}

TEST(NetUdp, TimeoutsZeroLengthAndOversize) {
    Endpoint ep;
    udp_set_verbose(ep.udp, 1);
    int port = testutil::free_udp_port(), client_port;
    int client = testutil::udp_socket_loopback(&client_port);
    std::string got, from;
    long long t = testutil::now_ms();
    EXPECT_EQ(ep.read(port, &got, &from, -1.0), UDP_READ_NOTHING);
    EXPECT_EQ(ep.read(port, &got, &from, 0.3), UDP_READ_TIMEOUT);
    long long waited = testutil::now_ms() - t;
    EXPECT_TRUE(waited >= 250 && waited < 5000) << waited;
    testutil::udp_send_to(client, port, "");
    EXPECT_EQ(ep.read(port, &got, &from, 5.0), -1);
    EXPECT_NE(registered().find("udp_read: recvfrom() error."), std::string::npos);
    // Longer than the capacity: dropped with a complaint, and the next one delivered.
    testutil::udp_send_to(client, port, std::string(17, 'x'));
    testutil::udp_send_to(client, port, std::string(16, 'y'));
    testing::internal::CaptureStderr();
    EXPECT_EQ(ep.read(port, &got, &from, 5.0, 16), UDP_READ_OK);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(got, std::string(16, 'y'));
    EXPECT_NE(err.find("dropped a 17-byte datagram from " + local(client_port) + ", larger than the 16-byte buffer"),
              std::string::npos);
    close(client);
}

TEST(NetUdp, RandomDropBothWaysAndAverages) {
    Endpoint ep;
    ASSERT_EQ(udp_setup_averages(ep.udp, std_now() - 1, 1.0, 100.0, 1.0, 100.0, 1.0, 100.0), 0);
    ep.udp->drop_packet_pcnt = 100;
    ep.udp->verbose = 1;
    ep.udp->verbose_callback = collect;
    lines.clear();
    int port = testutil::free_udp_port(), client_port;
    int client = testutil::udp_socket_loopback(&client_port);
    EXPECT_EQ(ep.write(port, local(client_port), std::string(10, 'w')), 1);
    std::string got, from;
    EXPECT_FALSE(testutil::udp_recv(client, &got, 300));
    testutil::udp_send_to(client, port, std::string(7, 'r'));
    EXPECT_EQ(ep.read(port, &got, &from, 0.5), UDP_READ_TIMEOUT);
    EXPECT_EQ(lines, (std::vector<std::string>{"Random drop packet on send", "Random drop packet on receive"}));
    // Dropped or not, host datagrams count their bytes plus 42 of headers.
    auto sum = [](TAverage *avg) {
        double t = std_now() + 1, twin = 50, s = 0, ave = 0;
        taverage_get(avg, &t, &twin, &s, &ave);
        return s;
    };
    EXPECT_EQ(sum(ep.udp->bytes_written), 52);
    EXPECT_EQ(sum(ep.udp->bytes_read), 49);
    EXPECT_EQ(sum(ep.udp->datarate), 101);
    close(client);
}

TEST(NetUdp, VerboseDumpsNeverInterleave) {
    Endpoint ep;
    ep.udp->verbose = 2;
    ep.udp->verbose_callback = collect;
    lines.clear();
    int port, sink = testutil::udp_socket_loopback(&port);
    std::string data(33, '\0');
    for (int i = 0; i < 33; i++) data[i] = static_cast<char>(i + 0xF0);
    ASSERT_EQ(ep.write(0, local(port), data), 1);
    ASSERT_EQ(lines.size(), 3u);  // header, 32 bytes, 1 byte
    EXPECT_EQ(lines[0], "udpw: 33 bytes to " + local(port) + ":");
    EXPECT_EQ(lines[1].substr(0, 21) + std::to_string(lines[1].size()), "udpw:  F0 F1 F2 F3 F4102");
    EXPECT_EQ(lines[2], "udpw:  10");
    lines.clear();
    auto writer = [&](char fill) {
        for (int i = 0; i < 50; i++) ep.write(0, local(port), std::string(70, fill));
    };
    std::thread a(writer, 'A'), b(writer, 'B');
    a.join();
    b.join();
    ASSERT_EQ(lines.size(), 100u * 4);
    for (size_t i = 0; i < lines.size(); i += 4) {
        EXPECT_EQ(lines[i], "udpw: 70 bytes to " + local(port) + ":");
        for (int k = 2; k < 4; k++) EXPECT_EQ(lines[i + k].substr(6, 3), lines[i + 1].substr(6, 3)) << i;
    }
    close(sink);
}

TEST(NetUdp, SetupModeSplitsDeviceForms) {
    char dev[64], out[256];
    EXPECT_EQ(setup_mode("/dev/ttyS1:19200:q330:5330", dev, 0, out), 0);
    EXPECT_EQ(std::string(dev) + " " + out, "/dev/ttyS1 q330:5330");
    EXPECT_EQ(setup_mode("q330:5330", dev, 0, out), 0);
    EXPECT_EQ(std::string(dev) + " " + out, " q330:5330");
    EXPECT_EQ(setup_mode("/dev/ttyS1", dev, 0, out) + setup_mode("/dev/ttyS1:9600", dev, 0, out), -2);
    EXPECT_NE(registered().find("setup_mode: no hostport in argument '/dev/ttyS1:9600'."), std::string::npos);
}

TEST(NetUdp, SlipEndpointOverPseudoTerminal) {
    testutil::PtyPair pty;
    Endpoint ep;
    ASSERT_EQ(udp_setup_slip(ep.udp, pty.slave_path.c_str(), 19200, 1.0), 0);
    SerialBuf *sb = ep.udp->slip_buf;
    EXPECT_TRUE(sb->slip_ipaddr_src == 0xFFFFFFFFu && sb->slip_port_src == 65535 && sb->timeout == 1000);
    auto sent = [&] {
        std::string raw = testutil::read_for(pty.master, 300, 5000);
        SlipDecoder dec;
        slip_decoder_reset(&dec);
        for (unsigned char c : raw) slip_decoder_feed(&dec, c);
        return std::vector<unsigned char>(dec.bytes, dec.bytes + dec.count);
    };
    ASSERT_EQ(ep.write(4242, "10.0.0.1:5330", "open"), 1);  // opens: source port = local port
    auto pkt = sent();
    ASSERT_EQ(pkt.size(), 32u);
    EXPECT_EQ(pkt[20] * 256 + pkt[21], 4242);
    const unsigned char client[4] = {192, 168, 1, 7};
    std::memcpy(&sb->slip_ipaddr_src, client, 4);
    sb->slip_port_src = 5331;
    ASSERT_EQ(ep.write(4242, "10.0.0.1:5330", "hello"), 1);
    pkt = sent();
    ASSERT_EQ(pkt.size(), 33u);
    EXPECT_EQ(std::vector<unsigned char>(pkt.begin() + 12, pkt.begin() + 24),
              (std::vector<unsigned char>{192, 168, 1, 7, 10, 0, 0, 1, 0x14, 0xD3, 0x14, 0xD2}));
    // Reading delivers payload and source text; an empty payload as well.
    for (std::string payload : {"reply", ""}) {
        IPHdr ip{0x45, 0, static_cast<std::uint16_t>(28 + payload.size()), 0, 0, 64, 17, 0, 0x0A000009, 0x0A000001, {}};
        UDPHdr u{6330, 4242, static_cast<std::uint16_t>(8 + payload.size()), 0};
        unsigned char p[64], f[130];
        int n = ip_udp_packet(&ip, &u, reinterpret_cast<const unsigned char *>(payload.data()),
                              static_cast<int>(payload.size()), p, sizeof p);
        testutil::write_all(pty.master, f, slip_encode(p, n, f));
        std::string got = "unset", from;
        ASSERT_EQ(ep.read(4242, &got, &from, -1.0), UDP_READ_OK);
        EXPECT_EQ(got + " " + from, payload + " 10.0.0.9:6330");
    }
    // A silent link: its 1 s time-out, then the half-second pause.
    long long t = testutil::now_ms();
    std::string got, from;
    EXPECT_EQ(ep.read(4242, &got, &from, -1.0), UDP_READ_TIMEOUT);
    long long waited = testutil::now_ms() - t;
    EXPECT_TRUE(waited >= 1300 && waited < 10000) << waited;
    EXPECT_EQ(registered(), "");  // and leaves nothing registered
}
