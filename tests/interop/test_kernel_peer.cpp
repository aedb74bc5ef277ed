// korvane against software nobody here wrote: the Linux IP stack plays the
// datalogger, in a network namespace of its own behind a TUN device. A thread
// of this test joins that device to a pseudo-terminal with SLIP framing only
// (headers are neither checked nor fixed) and serves a UDP echo on the
// datalogger's ports 5330 and 6330 from sockets of that namespace. The kernel
// judges every frame korvane puts on the line (a refused one gets no echo and
// moves an error counter); korvane's log, every frame it takes. The test
// thread itself moves on to a second new namespace, where korvane and its
// clients run.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <cerrno>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "testutil.h"

using namespace testutil;

namespace {

const char *const kIp = "/bin/ip";
constexpr std::uint32_t kDatalogger = 0xC0A84D32, kClient = 0x0A4D0001;  // 192.168.77.50, 10.77.0.1

// Runs ip with the blank-separated args in this thread's network namespace: its status and complaints.
std::string ip(const std::string &args) {
    std::vector<std::string> argv = {kIp};
    std::istringstream words(args);
    for (std::string w; words >> w;) argv.push_back(w);
    RunResult r = run_program(argv, "", 20000);
    return std::to_string(r.status) + r.err;
}

class KernelPeer : public ::testing::Test {
protected:
    PtyPair line;
    int dl_ns = -1, tun = -1, echo[2] = {-1, -1};
    std::atomic<bool> stop{false};
    std::thread bridge;

    void SetUp() override {
        if (geteuid() != 0 || access("/dev/net/tun", R_OK | W_OK) != 0 || access(kIp, X_OK) != 0)
            GTEST_SKIP() << "needs root, /dev/net/tun and " << kIp << " for namespaces and a TUN device";
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        dl_ns = open("/proc/thread-self/ns/net", O_RDONLY);
        // No IPv6: its solicitations would cross the line as frames nobody asked for.
        std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1;
        ifreq ifr{};
        ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
        std::strcpy(ifr.ifr_name, "kvline0");
        tun = open("/dev/net/tun", O_RDWR);
        ASSERT_EQ(ioctl(tun, TUNSETIFF, &ifr), 0) << strerror(errno);
        // The datalogger answers whatever source korvane writes: the clients'
        // address is reached back over the line.
        for (const char *cmd : {"link set lo up", "addr add 192.168.77.50/24 dev kvline0", "link set kvline0 up",
                                 "route add 10.77.0.1/32 dev kvline0"})
            ASSERT_EQ(ip(cmd), "0") << cmd;
        for (int i = 0; i < 2; i++) {
            int port = 5330 + 1000 * i;
            ASSERT_GE(echo[i] = udp_socket(&port, kDatalogger), 0) << strerror(errno);
        }
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        // The clients live at 10.77.0.1: the datalogger's kernel drops what comes from 127.0.0.1.
        for (const char *cmd : {"link set lo up", "addr add 10.77.0.1/32 dev lo"}) ASSERT_EQ(ip(cmd), "0") << cmd;
        bridge = std::thread([this] { serve(); });
    }

    void TearDown() override {
        stop = true;
        if (bridge.joinable()) bridge.join();
        for (int fd : {dl_ns, tun, echo[0], echo[1]})
            if (fd >= 0) close(fd);
    }

    // Line to kernel (a TUN device refuses what is not IP at all), kernel to
    // line, and the echo: each datagram back to its sender from the port it came to.
    void serve() {
        SlipReader dec;
        char buf[65536];
        while (!stop) {
            pollfd p[4] = {{line.master, POLLIN, 0}, {tun, POLLIN, 0}, {echo[0], POLLIN, 0}, {echo[1], POLLIN, 0}};
            if (poll(p, 4, 50) <= 0) continue;
            ssize_t n = p[0].revents ? read(line.master, buf, sizeof buf) : 0;
            for (const std::string &f : dec.feed(std::string(buf, static_cast<std::size_t>(std::max<ssize_t>(n, 0)))))
                if (write(tun, f.data(), f.size()) < 0) ADD_FAILURE() << strerror(errno);
            if (p[1].revents && (n = read(tun, buf, sizeof buf)) > 0) {
                std::string f = slip_frame(std::string(buf, static_cast<std::size_t>(n)));
                write_all(line.master, f.data(), f.size());
            }
            for (int i = 0; i < 2; i++) {
                sockaddr_in from;
                socklen_t len = sizeof from;
                if (p[2 + i].revents && (n = recvfrom(echo[i], buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len)) >= 0)
                    sendto(echo[i], buf, static_cast<std::size_t>(n), 0, reinterpret_cast<sockaddr *>(&from), len);
            }
        }
    }
};

}  // namespace

TEST_F(KernelPeer, EchoThroughRelay) {
    // Host ports 5330 and 15330 lead to the datalogger's 5330, 6330 to its 6330.
    TempDir dir;
    dir.write("korvane.pf", "default {\n  mode slip\n  device " + line.slave_path + "\n  baud 115200\n" +
                                "  q330_ip_address 192.168.77.50\n  port_translations {\n" +
                                "    5330 5330\n    6330 6330\n    15330 5330\n  }\n}\n");
    Child relay({KORVANE_BUILD_DIR "/korvane", "-v"}, dir.path);
    for (int port : {5330, 6330, 15330}) ASSERT_TRUE(wait_udp_bound(port, 10000, relay.pid)) << relay.err();
    // Two clients share host port 5330; with their two bytes exchanged (as the
    // datalogger sees them) the ports are other numbers.
    struct Client {
        int port, host_port, fd;
    } clients[] = {{40001, 5330, -1}, {40002, 6330, -1}, {40003, 15330, -1}, {40004, 5330, -1}};
    for (auto &c : clients) ASSERT_GE(c.fd = udp_socket(&c.port, kClient), 0) << strerror(errno);
    std::mt19937 rng(1055);
    auto random = [&](std::size_t n) { std::string s(n, '\0'); for (char &c : s) c = char(rng()); return s; };
    // A burst from every client at once fills the queues, and each reply still
    // reaches its own client through its own host port. Among random sizes,
    // what a line is likeliest to get wrong: one byte, sizes around the 28
    // header bytes, the largest payload, runs of the bytes SLIP escapes and of
    // the bytes that follow an escape.
    std::string mix(1021, '\0');
    for (std::size_t i = 0; i < mix.size(); i++) mix[i] = "\xC0\xDB\xDC\xDB\xDD\xC0\xDD\xDC"[i % 8];
    std::vector<std::string> payloads = {"x", std::string(1024, '\xC0'), std::string(1024, '\xDB'), mix};
    for (std::size_t n : {27, 28, 29, 1023, 1024}) payloads.push_back(random(n));
    for (int i = 0; i < 12; i++) payloads.push_back(random(1 + rng() % 1024));
    std::map<int, std::multiset<std::string>> expected, received;
    std::string got;
    int from = 0, sent = 0;
    for (const std::string &p : payloads)
        for (const auto &c : clients) {
            udp_send_to(c.fd, c.host_port, p);
            expected[c.port].insert(p);
            sent++;
        }
    for (const auto &c : clients) {
        for (std::size_t i = 0; i < expected[c.port].size(); i++) {
            ASSERT_TRUE(udp_recv(c.fd, &got, 10000, &from)) << c.port << " reply " << i << relay.err();
            EXPECT_EQ(from, c.host_port);
            received[c.port].insert(got);
        }
        close(c.fd);
    }
    EXPECT_EQ(received, expected);

    // The kernel refused nothing korvane framed and took each datagram once;
    // every reply has come, so its counters are final. Korvane took every
    // frame the kernel sent (at -v a refused one is a warning), and sanitizer
    // reports share the log and count even when they let it run on.
    ASSERT_EQ(setns(dl_ns, CLONE_NEWNET), 0);
    std::stringstream text;  // pairs of lines: "Group: Name..." then "Group: value..."
    text << std::ifstream("/proc/thread-self/net/snmp").rdbuf() << std::ifstream("/proc/thread-self/net/netstat").rdbuf();
    std::map<std::string, long long> count;
    for (std::string names, values; getline(text, names) && getline(text, values);) {
        std::istringstream n(names), v(values);
        std::string group, name;
        n >> group, v >> group;
        for (long long value; n >> name && v >> value;) count[group + name] = value;
    }
    for (const char *error : {"Ip:InHdrErrors", "Ip:InAddrErrors", "Ip:InUnknownProtos", "Ip:InDiscards", "Udp:InErrors",
                              "Udp:InCsumErrors", "Udp:NoPorts", "IpExt:InTruncatedPkts", "IpExt:InCsumErrors"})
        EXPECT_EQ(count[error], 0) << error;
    EXPECT_EQ(count["Udp:InDatagrams"], sent);
    EXPECT_EQ(count["Udp:OutDatagrams"], sent);
    for (const char *bad : {"warning:", "fatal:", "Sanitizer", "runtime error:"})
        EXPECT_EQ(relay.err().find(bad), std::string::npos) << relay.err();
}
