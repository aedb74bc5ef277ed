// The datagram endpoint on real loopback sockets, and in SLIP mode over a pseudo-terminal.
#include <gtest/gtest.h>

#include <unistd.h>

#include <mutex>
#include <thread>

#include "net/slip.h"
#include "net/udp.h"
#include "stats/taverage.h"
#include "support/elog.h"
#include "support/host.h"
#include "testutil.h"

namespace {

// Expects each part among the thread's registered messages; writes out, clears and returns them.
std::string registered(std::initializer_list<std::string> parts = {}) {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    std::string msgs = testing::internal::GetCapturedStderr();
    for (const auto &part : parts) EXPECT_NE(msgs.find(part), std::string::npos) << part;
    return msgs;
}

std::string local(int port) { return "127.0.0.1:" + std::to_string(port); }

int resolutions = 0;
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

// The bytes an average summed over the last 50 s.
double sum(TAverage *avg) {
    double t = std_now() + 1, twin = 50, s = 0, ave = 0;
    taverage_get(avg, &t, &twin, &s, &ave);
    return s;
}

// An endpoint, a free port for it, and a loopback client socket.
struct NetUdp : testing::Test {
    UDP *udp = nullptr;
    int port = testutil::free_udp_port(), client_port = 0;
    int client = testutil::udp_socket_loopback(&client_port);
    std::string got, from;
    long long took_ms = 0;
    UDPResolver previous = udp_set_resolver(counting_resolver);  // every test here counts
    void SetUp() override { ASSERT_EQ(udp_new(&udp), 0); }
    void TearDown() override {
        udp_free(udp);
        close(client);
    }
    // udp_read into got and from, timed.
    int read(int local_port, double timeout, int cap = 1024) {
        char buf[2048], text[256] = "";
        long long t = testutil::now_ms();
        int n = cap, r = udp_read(udp, local_port, nullptr, text, buf, &n, timeout);
        took_ms = testutil::now_ms() - t;
        if (r == 0) got.assign(buf, n), from = text;
        return r;
    }
    int write(int local_port, const std::string &to, const std::string &data) {
        return udp_write(udp, local_port, nullptr, to.c_str(), data.data(),
                         static_cast<int>(data.size()));
    }
};

}  // namespace

TEST_F(NetUdp, LazyOpenReopenResolveBindFailureAndSetupMode) {
    EXPECT_EQ(udp->fd, -1);
    EXPECT_EQ(read(port, -1.0), UDP_READ_NOTHING);  // opens, bound before anything is sent
    testutil::udp_send_to(client, port, "to port");
    ASSERT_EQ(read(port, 5.0), UDP_READ_OK);
    EXPECT_EQ(got + " " + from, "to port " + local(client_port));
    // Re-opened on p2; a destination is resolved once per new text, not cached when it fails.
    int p2 = testutil::free_udp_port(), reply_from = 0;
    std::string by_name = "localhost:" + std::to_string(client_port);
    resolutions = 0;
    EXPECT_EQ(write(p2, local(client_port), "a") + write(p2, local(client_port), "b"), 2);
    EXPECT_EQ(resolutions, 1);
    EXPECT_EQ(write(p2, by_name, "c"), 1);
    EXPECT_EQ(write(p2, "x.invalid:5000", "lost"), -1);
    registered({"udp_setup_ipaddr: Can't locate server by name of 'x.invalid:5000'",
                "udp_write: udp_setup_ipaddr(x.invalid:5000) error."});
    EXPECT_EQ(write(p2, by_name, "d"), 1);
    EXPECT_EQ(write(p2, "localhost", "e"), -1);
    EXPECT_EQ(resolutions, 3);
    registered({"no port number in hostport argument 'localhost'"});
    std::string all;
    while (testutil::udp_recv(client, &got, 300, &reply_from)) all += got;
    EXPECT_EQ(all + " " + std::to_string(reply_from), "abcd " + std::to_string(p2));
    udp_close(udp);
    EXPECT_EQ(read(client_port, -1.0), -2);  // the client's port is taken: bind fails
    registered({"udp_open: bind() error.",
                "udp_read: udp_open(" + std::to_string(client_port) + ") error."});
    char dev[64], to[256];  // setup_mode splits a device form and passes other text through
    EXPECT_EQ(setup_mode("/dev/ttyS1:19200:q330:5330", dev, 0, to), 0);
    EXPECT_EQ(std::string(dev) + " " + to, "/dev/ttyS1 q330:5330");
    EXPECT_EQ(setup_mode("q330:5330", dev, 0, to), 0);
    EXPECT_EQ(std::string(dev) + " " + to, " q330:5330");
    EXPECT_EQ(setup_mode("/dev/ttyS1", dev, 0, to) + setup_mode("/dev/ttyS1:9600", dev, 0, to), -2);
    registered({"setup_mode: no hostport in argument '/dev/ttyS1:9600'."});
}

TEST_F(NetUdp, TimeoutZeroLengthOversizeRandomDropAndAverages) {
    ASSERT_EQ(udp_setup_averages(udp, std_now() - 1, 1.0, 100.0, 1.0, 100.0, 1.0, 100.0), 0);
    udp_set_verbose(udp, 1);
    EXPECT_EQ(read(port, 0.3), UDP_READ_TIMEOUT);
    EXPECT_TRUE(took_ms >= 250 && took_ms < 5000) << took_ms;
    testutil::udp_send_to(client, port, "");
    EXPECT_EQ(read(port, 5.0), -1);
    registered({"udp_read: recvfrom() error."});
    // Longer than the capacity: dropped with a complaint, and the next one delivered.
    testutil::udp_send_to(client, port, std::string(17, 'x'));
    testutil::udp_send_to(client, port, std::string(16, 'y'));
    testing::internal::CaptureStderr();
    EXPECT_EQ(read(port, 5.0, 16), UDP_READ_OK);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("17-byte datagram from " + local(client_port) + ", larger than the 16-byte"),
              std::string::npos);
    EXPECT_EQ(got, std::string(16, 'y'));
    udp->drop_packet_pcnt = 100;
    udp->verbose_callback = collect;
    lines.clear();
    EXPECT_EQ(write(port, local(client_port), std::string(10, 'w')), 1);
    EXPECT_FALSE(testutil::udp_recv(client, &got, 300));
    testutil::udp_send_to(client, port, std::string(7, 'r'));
    EXPECT_EQ(read(port, 0.5), UDP_READ_TIMEOUT);
    EXPECT_EQ(lines, (std::vector<std::string>{"Random drop packet on send",
                                               "Random drop packet on receive"}));
    // Host datagrams, dropped or not, count their bytes plus 42 of headers.
    EXPECT_EQ(sum(udp->bytes_read), 17 + 16 + 7 + 3 * 42);
    EXPECT_EQ(sum(udp->bytes_written), 10 + 42);
    EXPECT_EQ(sum(udp->datarate), 40 + 10 + 4 * 42);
}

TEST_F(NetUdp, VerboseDumpsNeverInterleave) {
    udp->verbose = 2;
    udp->verbose_callback = collect;
    lines.clear();
    ASSERT_EQ(write(0, local(client_port), "0123456789:;<=>?@ABCDEFGHIJKLMNOP"), 1);
    ASSERT_EQ(lines.size(), 3u);  // header, bytes 0x30 to 0x4F, byte 0x50
    EXPECT_EQ(lines[0], "udpw: 33 bytes to " + local(client_port) + ":");
    EXPECT_EQ(lines[1].substr(0, 15) + lines[1].substr(33, 9), "udpw:  30 31 32 39 3A 3B");
    EXPECT_EQ(std::to_string(lines[1].size()) + lines[2], "102udpw:  50");
    auto writer = [&](char fill) {
        for (int i = 0; i < 50; i++) write(0, local(client_port), std::string(70, fill));
    };
    { std::jthread a(writer, 'A'), b(writer, 'B'); }
    ASSERT_EQ(lines.size(), 3 + 100u * 4);
    for (size_t i = 3; i < lines.size(); i += 4) {
        EXPECT_EQ(lines[i], "udpw: 70 bytes to " + local(client_port) + ":");
        for (int k = 2; k < 4; k++) EXPECT_EQ(lines[i + k].substr(6, 3), lines[i + 1].substr(6, 3));
    }
}

TEST_F(NetUdp, SlipEndpointOverPseudoTerminal) {
    testutil::PtyPair pty;
    ASSERT_EQ(udp_setup_slip(udp, pty.slave_path.c_str(), 19200, 1.0), 0);
    // Opening makes the local port the frame's source port; the address stays all ones.
    ASSERT_EQ(write(4242, "10.0.0.1:5330", "op"), 1);
    // These 12 bytes hold no END and no ESC: they stand on the line as they are.
    std::string addressing("\xFF\xFF\xFF\xFF\x0A\x00\x00\x01\x10\x92\x14\xD2", 12);
    EXPECT_NE(testutil::read_for(pty.master, 300, 5000).find(addressing), std::string::npos);
    // An empty payload is delivered, with its source text.
    IPHdr ip{0x45, 0, 28, 0, 0, 64, 17, 0, 0x0A000009, 0x0A000001, {}};
    UDPHdr u{6330, 4242, 8, 0};
    unsigned char p[28], f[58];
    ASSERT_EQ(ip_udp_packet(&ip, &u, nullptr, 0, p, 28), 28);
    testutil::write_all(pty.master, f, slip_encode(p, 28, f));
    got = "unset";
    ASSERT_EQ(read(4242, -1.0), UDP_READ_OK);
    EXPECT_EQ(got + " " + from, " 10.0.0.9:6330");
    // A silent link: its 1 s time-out, then the half-second pause.
    EXPECT_EQ(read(4242, -1.0), UDP_READ_TIMEOUT);
    EXPECT_TRUE(took_ms >= 1300 && took_ms < 10000) << took_ms;
    EXPECT_EQ(registered(), "");  // and leaves nothing registered
}
