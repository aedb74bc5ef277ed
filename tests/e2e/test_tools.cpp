// The datalogger simulator and the ping client, run as real programs. The
// test plays the relay on dlsim's pseudo-terminal, framing with the codec and
// judging replies with the codec's receiving side.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "net/slip.h"
#include "testutil.h"
#include "tools/dlframe.h"

using testutil::Child;

namespace {

const std::string kBin = KORVANE_BUILD_DIR;
constexpr std::uint32_t kLogger = 0xC0A80132;   // 192.168.1.50
constexpr std::uint32_t kClient = 0x0A010203;   // 10.1.2.3

// dlsim on its own pseudo-terminal, with the slave opened here as the relay would.
struct Sim {
    Child child;
    int fd = -1;
    explicit Sim(std::vector<std::string> args) : child(with_bin(std::move(args)), "/tmp") {
        if (!child.wait_for_out("\n", 10000)) return;
        std::string out = child.out();
        if (out.find("dlsim: line ") == std::string::npos) return;
        std::string path = out.substr(out.find("dlsim: line ") + 12);
        fd = open(path.substr(0, path.find('\n')).c_str(), O_RDWR | O_NOCTTY);
        termios t;
        tcgetattr(fd, &t);
        cfmakeraw(&t);
        tcsetattr(fd, TCSANOW, &t);
    }
    ~Sim() { if (fd >= 0) close(fd); }
    static std::vector<std::string> with_bin(std::vector<std::string> args) {
        args.insert(args.begin(), kBin + "/dlsim");
        return args;
    }
};

std::string frame(std::uint32_t dst, std::uint16_t port_dst, const std::string &payload, std::uint16_t port_src = 0x3412) {
    alignas(4) unsigned char packet[dlframe::kMaxPacket];
    dlframe::Addressing a{kClient, dst, port_src, port_dst, 1};
    int n = dlframe::build(a, reinterpret_cast<const unsigned char *>(payload.data()), static_cast<int>(payload.size()),
                           packet, sizeof packet);
    return std::string(reinterpret_cast<char *>(packet), static_cast<size_t>(n));
}

std::string slip(const std::string &packet) {
    std::vector<unsigned char> wire(2 * packet.size() + 2);
    int m = slip_encode(reinterpret_cast<const unsigned char *>(packet.data()), static_cast<int>(packet.size()), wire.data());
    return std::string(wire.begin(), wire.begin() + m);
}

struct Seen;
Seen judge(const std::string &packet);

// Decoded frames from the line until `want` of them (or, with good_only, of
// those that pass the relay's checks) arrived or timeout_ms passed.
std::vector<std::string> read_frames(int fd, size_t want, int timeout_ms, bool good_only = false);

// A packet as the relay would judge it: both checksums only.
struct Seen {
    bool good = false;
    IPHdr ip{};
    UDPHdr udp{};
    std::string payload;
};

Seen judge(const std::string &packet) {
    Seen s;
    std::vector<unsigned char> b(packet.begin(), packet.end());
    unsigned short ip_sum = 0, udp_sum = 0;
    unsigned char *cur = b.data();
    int left = static_cast<int>(b.size());
    if (left < SLIP_MIN_PACKET || udp_checksum(b.data(), left, &ip_sum, &udp_sum) != 0) return s;
    if (unstuff_ip(&cur, &left, &s.ip) != 0 || unstuff_udp(&cur, &left, &s.udp) != 0) return s;
    s.good = s.ip.chksum == ip_sum && (s.udp.chksum == udp_sum || (s.udp.chksum == 0xFFFF && udp_sum == 0));
    s.payload.assign(reinterpret_cast<char *>(cur), static_cast<size_t>(left));
    return s;
}

std::vector<std::string> read_frames(int fd, size_t want, int timeout_ms, bool good_only) {
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    std::vector<std::string> frames;
    size_t counted = 0;
    long long end = testutil::now_ms() + timeout_ms;
    while (counted < want && testutil::now_ms() < end) {
        for (unsigned char b : testutil::read_at_least(fd, 1, 200)) {
            if (slip_decoder_feed(&dec, b) != 1) continue;
            frames.emplace_back(reinterpret_cast<char *>(dec.bytes), static_cast<size_t>(dec.count));
            counted += !good_only || judge(frames.back()).good;
        }
    }
    return frames;
}

std::string all_bytes() {
    std::string s;
    for (int i = 0; i < 256; i++) s += static_cast<char>(i);   // holds END and ESC
    return s;
}

}  // namespace

TEST(Dlsim, EchoesFedWholeByteByByteAndInChunks) {
    Sim sim({"-p", "5330"});
    ASSERT_GE(sim.fd, 0) << sim.child.err();
    const std::string payload = all_bytes();
    std::string a = slip(frame(kLogger, 5330, "A" + payload)), b = slip(frame(kLogger, 5330, "B" + payload)),
                c = slip(frame(kLogger, 5330, "C" + payload));
    testutil::write_all(sim.fd, ("\xC0\xC0" + a).data(), a.size() + 2);   // leading ENDs are ignored
    for (char ch : b) testutil::write_all(sim.fd, &ch, 1);
    for (size_t at = 0; at < c.size(); at += 7) testutil::write_all(sim.fd, c.data() + at, std::min<size_t>(7, c.size() - at));
    auto replies = read_frames(sim.fd, 3, 10000);
    ASSERT_EQ(3u, replies.size());
    for (size_t i = 0; i < 3; i++) {
        Seen s = judge(replies[i]);
        ASSERT_TRUE(s.good) << "reply " << i;
        EXPECT_EQ(kLogger, s.ip.ipaddr_src);
        EXPECT_EQ(kClient, s.ip.ipaddr_dst);
        EXPECT_EQ(5330, s.udp.port_src);
        EXPECT_EQ(0x3412, s.udp.port_dst);   // the port as it stood on the wire, not swapped back
        EXPECT_EQ(replies[i].size(), s.ip.length);
        EXPECT_EQ(std::string(1, "ABC"[i]) + payload, s.payload);
    }
    EXPECT_EQ(judge(replies[0]).ip.identification + 1, judge(replies[1]).ip.identification);
}

TEST(Dlsim, CountsAndDropsBadFramesThenReportsOnSignals) {
    Sim sim({"-p", "5330"});
    ASSERT_GE(sim.fd, 0) << sim.child.err();
    std::string bad_ip = frame(kLogger, 5330, "bad ip sum"), bad_udp = frame(kLogger, 5330, "bad udp sum");
    bad_ip[10] = static_cast<char>(bad_ip[10] ^ 0x01);
    bad_udp[30] = static_cast<char>(bad_udp[30] ^ 0x40);
    std::string options = frame(kLogger, 5330, "");
    options[0] = 0x46;   // claims 4 option bytes, so no room is left for the UDP header
    std::string line = slip(bad_ip) + slip(bad_udp) + slip(frame(kLogger + 1, 5330, "other host")) +
                       slip(frame(kLogger, 6000, "other port")) + slip(std::string(10, 'x')) +
                       slip(frame(kLogger, 5330, "truncated").substr(0, 25)) + slip(options) + "\xC0\xDB\x41\xC0" +
                       slip(frame(kLogger, 5330, "good"));
    testutil::write_all(sim.fd, line.data(), line.size());
    auto replies = read_frames(sim.fd, 2, 3000);   // waits out any second reply
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ("good", judge(replies[0]).payload);
    kill(sim.child.pid, SIGUSR1);
    EXPECT_TRUE(sim.child.wait_for_err("counters: frames in 8, bytes in ", 10000));
    EXPECT_EQ(0, sim.child.stop(SIGTERM));
    std::string err = sim.child.err();
    EXPECT_NE(std::string::npos, err.find("accepted 1; frames out 1")) << err;
    EXPECT_NE(std::string::npos, err.find("drops: short 2, abandoned 1, header 1, ip-checksum 1, udp-checksum 1, "
                                          "address 1, port 1, queue-full 0; total 8")) << err;
}

TEST(Dlsim, PacedLineTakesAtLeastTheLineTime) {
    Sim sim({"-b", "1200"});
    ASSERT_GE(sim.fd, 0) << sim.child.err();
    std::string wire = slip(frame(kLogger, 5330, std::string(100, 'a')));   // 130 bytes, no escapes
    long long start = testutil::now_ms();
    testutil::write_all(sim.fd, wire.data(), wire.size());
    auto replies = read_frames(sim.fd, 1, 20000);
    long long took = testutil::now_ms() - start;
    ASSERT_EQ(1u, replies.size());
    // 2 x 130 bytes of 10 bits at 1200 bit/s is 2167 ms; a wide margin below it.
    EXPECT_GE(took, 1500);
}

TEST(Dlsim, NoiseAndCorruptCopiesNeverPassAsPackets) {
    Sim sim({"--noise", "1", "--corrupt", "1", "--seed", "7"});
    ASSERT_GE(sim.fd, 0) << sim.child.err();
    std::string line;
    auto tag = [](int i) { return std::string(i < 10 ? "n0" : "n") + std::to_string(i); };
    // A tail of zeros is what a careless truncation could cut without
    // changing the sum, so it must not leave a passable packet.
    for (int i = 0; i < 40; i++) line += slip(frame(kLogger, 5330, tag(i) + all_bytes() + std::string(200, '\0')));
    testutil::write_all(sim.fd, line.data(), line.size());
    auto frames = read_frames(sim.fd, 40, 20000, true);
    std::multiset<std::string> good;
    for (const std::string &f : frames)
        if (judge(f).good) good.insert(judge(f).payload.substr(0, 3));
    EXPECT_EQ(40u, good.size());
    for (int i = 0; i < 40; i++) EXPECT_EQ(1u, good.count(tag(i))) << i;
    EXPECT_GE(frames.size(), 80u);   // every echo had a corrupt copy ahead of it
    EXPECT_EQ(0, sim.child.stop(SIGTERM));
    EXPECT_NE(std::string::npos, sim.child.err().find("frames out 40, bytes out ")) << sim.child.err();
    EXPECT_TRUE(std::regex_search(sim.child.err(), std::regex("corrupt 40, noise bytes [1-9]"))) << sim.child.err();
}

TEST(Dlsim, SendsUnsolicitedDatagramsAndRecordsThem) {
    testutil::TempDir dir;
    Sim sim({"--send-to", "10.9.8.7:4321", "--every", "50", "--pcap", dir.file("line.pcap")});
    ASSERT_GE(sim.fd, 0) << sim.child.err();
    auto frames = read_frames(sim.fd, 2, 10000);
    ASSERT_EQ(2u, frames.size());
    Seen s = judge(frames[1]);
    ASSERT_TRUE(s.good);
    EXPECT_EQ(0x0A090807u, s.ip.ipaddr_dst);
    EXPECT_EQ(4321, s.udp.port_dst);
    EXPECT_EQ(5330, s.udp.port_src);
    EXPECT_EQ("dlsim unsolicited 2", s.payload);
    EXPECT_EQ(0, sim.child.stop(SIGTERM));
    std::ifstream f(dir.file("line.pcap"), std::ios::binary);
    std::string pcap((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_GE(pcap.size(), 24u + 16u + frames[0].size());
    std::uint32_t magic, linktype, incl;
    std::memcpy(&magic, pcap.data(), 4);
    std::memcpy(&linktype, pcap.data() + 20, 4);
    std::memcpy(&incl, pcap.data() + 24 + 8, 4);
    EXPECT_EQ(0xa1b2c3d4u, magic);
    EXPECT_EQ(101u, linktype);
    ASSERT_EQ(frames[0].size(), incl);
    EXPECT_EQ(frames[0], pcap.substr(40, incl));
}

namespace {

// A loopback UDP echo in a thread, for dlping.
struct Echo {
    int fd = -1, port = 0;
    std::atomic<bool> stop{false};
    std::thread worker;
    Echo() {
        fd = testutil::udp_socket_loopback(&port);
        worker = std::thread([this] {
            char buf[65536];
            while (!stop) {
                pollfd p = {fd, POLLIN, 0};
                if (poll(&p, 1, 50) <= 0) continue;
                sockaddr_in from{};
                socklen_t len = sizeof from;
                ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
                if (n > 0) sendto(fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&from), len);
            }
        });
    }
    ~Echo() {
        stop = true;
        worker.join();
        close(fd);
    }
};

}  // namespace

TEST(Dlping, EveryReplyBackMeansNoLossAndStatusZero) {
    Echo echo;
    std::string target = "127.0.0.1:" + std::to_string(echo.port);
    auto r = testutil::run_program({kBin + "/dlping", "-c", "5", "-i", "10", "-s", "300", target}, "/tmp");
    EXPECT_EQ(0, r.status) << r.out << r.err;
    std::regex line("^300 bytes from 127\\.0\\.0\\.1:" + std::to_string(echo.port) + ": seq=[0-4] time=[0-9]+\\.[0-9]{3} ms$");
    int lines = 0;
    for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1)
        lines += std::regex_match(r.out.substr(at, nl - at), line);
    EXPECT_EQ(5, lines) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("5 datagrams sent, 5 received, 0 lost, 0.0% loss")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("rtt min/median/p99/max = ")) << r.out;

    r = testutil::run_program({kBin + "/dlping", "-q", "-c", "20", "-i", "0", "-P", "3", target}, "/tmp");
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("60 datagrams sent, 60 received, 0 lost")) << r.out;
}

TEST(Dlping, SilentPortMeansLossAndStatusOne) {
    int port = 0;
    int silent = testutil::udp_socket_loopback(&port);
    auto r = testutil::run_program({kBin + "/dlping", "-c", "3", "-i", "10", "-W", "200",
                                    "127.0.0.1:" + std::to_string(port)}, "/tmp");
    close(silent);
    EXPECT_EQ(1, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("3 datagrams sent, 0 received, 3 lost, 100.0% loss")) << r.out;
    EXPECT_EQ(2, testutil::run_program({kBin + "/dlping", "-s", "8", "127.0.0.1:1"}, "/tmp").status);
}
