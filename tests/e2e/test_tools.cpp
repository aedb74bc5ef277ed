// The datalogger simulator and the ping client, run as real programs; the test
// plays the relay on dlsim's pseudo-terminal and judges with the strict checker.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "testutil.h"
#include "tools/dlframe.h"

using namespace testutil;

namespace {

const std::string kDlsim = KORVANE_BUILD_DIR "/dlsim", kDlping = KORVANE_BUILD_DIR "/dlping";
constexpr std::uint32_t kLogger = 0xC0A80132;  // 192.168.1.50
constexpr std::uint32_t kClient = 0x0A010203;  // 10.1.2.3

// dlsim on a pseudo-terminal whose slave (kept raw by dlsim) is opened here as the relay would.
struct Sim {
    Child child;
    int fd = -1;
    explicit Sim(const std::vector<std::string> &argv) : child(argv, "/tmp") {
        std::string out = child.wait_for_out("\n", 10000) ? child.out() : "";
        if (out.rfind("dlsim: line ", 0) == 0)
            fd = open(out.substr(12, out.find('\n') - 12).c_str(), O_RDWR | O_NOCTTY);
    }
    ~Sim() { close(fd); }
};

std::string frame(std::uint32_t dst, std::uint16_t port_dst, const std::string &payload) {
    alignas(4) unsigned char packet[dlframe::kMaxPacket];
    dlframe::Addressing a{kClient, dst, 0x3412, port_dst, 1};
    int n = dlframe::build(a, reinterpret_cast<const unsigned char *>(payload.data()),
                           static_cast<int>(payload.size()), packet, sizeof packet);
    return std::string(reinterpret_cast<char *>(packet), static_cast<size_t>(n));
}

std::string slip(const std::string &packet) {
    std::vector<unsigned char> wire(2 * packet.size() + 2);
    int m = slip_encode(reinterpret_cast<const unsigned char *>(packet.data()),
                        static_cast<int>(packet.size()), wire.data());
    return std::string(wire.begin(), wire.begin() + m);
}

// Decoded frames from the line until `want` of them arrived or timeout_ms passed.
std::vector<std::string> read_frames(int fd, size_t want, int timeout_ms) {
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    std::vector<std::string> frames;
    for (long long end = now_ms() + timeout_ms; frames.size() < want && now_ms() < end;)
        for (unsigned char b : read_at_least(fd, 1, 200))
            if (slip_decoder_feed(&dec, b) == 1)
                frames.emplace_back(reinterpret_cast<char *>(dec.bytes), dec.count);
    return frames;
}

// The payload of a packet that passes every strict check (headers in *p), else "<refused>".
std::string accepted_payload(std::string packet, dlframe::Parsed *p) {
    auto *bytes = reinterpret_cast<unsigned char *>(packet.data());
    if (dlframe::check(bytes, static_cast<int>(packet.size()), p) != dlframe::kAccepted)
        return "<refused>";
    return std::string(reinterpret_cast<const char *>(p->payload), static_cast<size_t>(p->nbytes));
}

}  // namespace

// Leading ENDs, a frame fed byte by byte and one in 7-byte chunks all decode;
// every byte value (END and ESC among them) comes back in a sound reply.
TEST(Dlsim, EchoesFedWholeByteByByteAndInChunksAtTheLinePace) {
    Sim sim({kDlsim, "-p", "5330", "-b", "9600"});
    ASSERT_GE(sim.fd, 0) << sim.child.err();
    std::string payload, w[3];
    for (int i = 0; i < 256; i++) payload += static_cast<char>(i);
    for (int i = 0; i < 3; i++) w[i] = slip(frame(kLogger, 5330, "ABC"[i] + payload));
    long long start = now_ms();
    write_all(sim.fd, ("\xC0\xC0" + w[0]).data(), w[0].size() + 2);
    for (char ch : w[1]) write_all(sim.fd, &ch, 1);
    for (size_t at = 0; at < w[2].size(); at += 7)
        write_all(sim.fd, w[2].data() + at, std::min<size_t>(7, w[2].size() - at));
    auto replies = read_frames(sim.fd, 3, 10000);
    // The last reply ends after all ~880 bytes in and its ~290 out crossed a
    // 9600 bit/s line at 10 bits a byte (about 1200 ms); a wide margin below.
    EXPECT_GE(now_ms() - start, 800);
    ASSERT_EQ(3u, replies.size());
    for (size_t i = 0; i < 3; i++) {
        dlframe::Parsed p{};
        EXPECT_EQ("ABC"[i] + payload, accepted_payload(replies[i], &p)) << "reply " << i;
        EXPECT_EQ(kLogger, p.ip.ipaddr_src);
        EXPECT_EQ(kClient, p.ip.ipaddr_dst);
        EXPECT_EQ(5330, p.udp.port_src);
        EXPECT_EQ(0x3412, p.udp.port_dst);  // the port as it stood on the wire, not swapped back
    }
}

// Each kind of bad frame is dropped without an answer and counted under its own name.
TEST(Dlsim, CountsAndDropsBadFrames) {
    Sim sim({kDlsim, "-p", "5330"});
    ASSERT_GE(sim.fd, 0) << sim.child.err();
    std::string bad_ip = frame(kLogger, 5330, "ip"), bad_udp = frame(kLogger, 5330, "udp");
    std::string options = frame(kLogger, 5330, "");
    bad_ip[10] = static_cast<char>(bad_ip[10] ^ 0x01);
    bad_udp[30] = static_cast<char>(bad_udp[30] ^ 0x40);
    options[0] = 0x46;  // claims 4 option bytes, so no room is left for the UDP header
    std::string line = slip(bad_ip) + slip(bad_udp) + slip(frame(kLogger + 1, 5330, "other host")) +
                       slip(frame(kLogger, 6000, "other port")) + slip(std::string(10, 'x')) +
                       slip(frame(kLogger, 5330, "truncated").substr(0, 25)) + slip(options) +
                       "\xC0\xDB\x41\xC0" + slip(frame(kLogger, 5330, "good"));
    write_all(sim.fd, line.data(), line.size());
    auto replies = read_frames(sim.fd, 2, 3000);  // waits out any second reply
    ASSERT_EQ(1u, replies.size());
    dlframe::Parsed p{};
    EXPECT_EQ("good", accepted_payload(replies[0], &p));
    EXPECT_EQ(0, sim.child.stop(SIGTERM));
    std::string err = sim.child.err();
    EXPECT_NE(std::string::npos, err.find("counters: frames in 8, bytes in ")) << err;
    EXPECT_NE(std::string::npos, err.find("accepted 1; frames out 1")) << err;
    const char *drops = "drops: short 2, abandoned 1, header 1, ip-checksum 1, udp-checksum 1, "
                        "address 1, port 1, queue-full 0; total 8";
    EXPECT_NE(std::string::npos, err.find(drops)) << err;
}

// dlping's exit status says whether every datagram came back: 0 all, 1 loss, 2 usage.
TEST(Dlping, ExitStatusTellsLoss) {
    // Bound to the port it sends to, dlping gets every datagram back intact.
    std::string self = std::to_string(free_udp_port()), target = "127.0.0.1:" + self;
    auto r = run_program({kDlping, "-c", "5", "-i", "10", "-s", "300", "-b", self, target}, "/tmp");
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("5 datagrams sent, 5 received, 0 lost")) << r.out;
    int port = 0;
    int silent = udp_socket_loopback(&port);
    std::string silent_target = "127.0.0.1:" + std::to_string(port);
    r = run_program({kDlping, "-c", "3", "-i", "10", "-W", "200", silent_target}, "/tmp");
    close(silent);
    EXPECT_EQ(1, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("3 datagrams sent, 0 received, 3 lost")) << r.out;
    EXPECT_EQ(2, run_program({kDlping, "-s", "8", "127.0.0.1:1"}, "/tmp").status);
}
