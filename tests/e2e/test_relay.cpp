// The real korvane binary between loopback UDP clients and a pseudo-terminal on which
// this test plays the datalogger with the project's frame builder and a strict checker.
#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "testutil.h"
#include "tools/dlframe.h"

using namespace testutil;

namespace {

constexpr std::uint32_t kDatalogger = 0xC0A80132;  // 192.168.1.50
constexpr std::uint32_t kLoopback = 0x7F000001;
const std::string kBin = KORVANE_BUILD_DIR "/korvane";
const std::string kBanner = "korvane : $Revision: 1.12 $ $Date: 2006/10/19 17:36:59 $";

std::vector<int> two_ports() { return {free_udp_port(), free_udp_port()}; }

// korvane running in a temporary directory on a pseudo-terminal line, its
// host ports translated to the datalogger's 5330 and then 6330.
struct Relay {
    TempDir dir;
    PtyPair line;
    std::unique_ptr<Child> proc;

    Relay(const std::vector<int> &ports, const std::string &flag, const std::string &device = "") {
        std::ostringstream pf;
        pf << "default {\n  mode slip\n  device " << (device.empty() ? line.slave_path : device)
           << "\n  baud 115200\n  q330_ip_address 192.168.1.50\n  port_translations {\n";
        for (size_t i = 0; i < ports.size(); i++) pf << ports[i] << " " << 5330 + 1000 * i << "\n";
        dir.write("korvane.pf", pf.str() + "  }\n}\n");
        std::vector<std::string> argv = {kBin};
        if (!flag.empty()) argv.push_back(flag);
        proc = std::make_unique<Child>(argv, dir.path);
        // Host ports are bound by the first poll of their reader.
        for (int port : ports) EXPECT_TRUE(wait_udp_bound(port, 10000)) << "port " << port;
    }
    bool alive() { return proc->wait_exit(0) < 0; }
};

// A loopback UDP client, closed at the end of its scope.
struct Client {
    int port = 0;
    int fd = udp_socket_loopback(&port);
    ~Client() { close(fd); }
};

// The datalogger end of the line.
struct Datalogger {
    int fd;
    SlipDecoder dec;
    std::string pending;

    explicit Datalogger(int master) : fd(master) { slip_decoder_reset(&dec); }

    // The payload of the next frame off the line, its headers in *p: "<refused>"
    // when a strict receiver would drop it, "<none>" when none came in time.
    std::string next(dlframe::Parsed *p, int timeout_ms = 10000) {
        for (long long end = now_ms() + timeout_ms; now_ms() < end || !pending.empty();) {
            if (pending.empty()) pending = read_for(fd, 50, static_cast<int>(end - now_ms()));
            if (pending.empty()) continue;
            int complete = slip_decoder_feed(&dec, static_cast<unsigned char>(pending[0]));
            pending.erase(0, 1);
            if (complete != 1) continue;
            if (dlframe::check(dec.bytes, dec.count, p) != dlframe::kAccepted) return "<refused>";
            return std::string(reinterpret_cast<const char *>(p->payload),
                               static_cast<size_t>(p->nbytes));
        }
        return "<none>";
    }

    void send(std::uint32_t dst, std::uint16_t dst_port, std::uint16_t src_port,
              const std::string &payload) {
        alignas(4) unsigned char packet[dlframe::kMaxPacket];
        dlframe::Addressing a{kDatalogger, dst, src_port, dst_port, 7};
        int n = dlframe::build(a, reinterpret_cast<const unsigned char *>(payload.data()),
                               static_cast<int>(payload.size()), packet, sizeof packet);
        ASSERT_GT(n, 0);
        std::vector<unsigned char> frame(2 * static_cast<size_t>(n) + 2);
        write_all(fd, frame.data(), static_cast<size_t>(slip_encode(packet, n, frame.data())));
    }
};

// The source port a client's datagram carries on the line: its two network
// bytes taken as a host-order number (exchanged on a little-endian host).
std::uint16_t line_port(int client_port) { return htons(static_cast<std::uint16_t>(client_port)); }

// Sends payload from a client and checks that the datalogger gets it whole.
void relay_to_datalogger(Datalogger &dl, int client, int host_port, const std::string &payload,
                         dlframe::Parsed *p) {
    udp_send_to(client, host_port, payload);
    EXPECT_EQ(dl.next(p), payload);
}

// The first of parts that text lacks in this order, or "" when it has them all.
std::string missing_in_order(const std::string &text, const std::vector<std::string> &parts) {
    size_t at = 0;
    for (const std::string &part : parts)
        if ((at = text.find(part, at)) == std::string::npos) return part;
    return "";
}

}  // namespace

TEST(Relay, StartUpLines) {
    auto ports = two_ports();
    Relay r(ports, "-v");
    std::vector<std::string> threads = {"q330_read_thread", "q330_write_thread"};
    for (int port : ports)
        for (std::string kind : {"read", "write"})
            threads.push_back("udp_" + kind + "_thread(" + std::to_string(port) + ")");
    ASSERT_TRUE(r.proc->wait_for_err("korvane_run_" + threads.back() + ": Starting...", 10000));
    // The banner, the summary, then each thread's start.
    for (const std::string &thread : threads)
        EXPECT_EQ(missing_in_order(r.proc->err(), {kBanner, "q330_ip_address   = 192.168.1.50",
                                                   "korvane_run_" + thread + ": Starting..."}),
                  "");

    // At verbosity 0 a healthy start writes the banner and nothing else.
    Relay quiet(two_ports(), "");
    usleep(800000);
    EXPECT_TRUE(quiet.alive());
    std::string q = quiet.proc->err();
    EXPECT_EQ(std::count(q.begin(), q.end(), '\n'), 1) << q;
}

TEST(Relay, FramesBothWaysFollowEachClientsLastPort) {
    auto ports = two_ports();
    Relay r(ports, "-vv");
    Datalogger dl(r.line.master);
    Client c1, c2;
    dlframe::Parsed p{};
    std::string got;
    int from = 0;

    // Two clients behind one host port each get their own reply from it.
    for (Client *c : {&c1, &c2}) {
        relay_to_datalogger(dl, c->fd, ports[0], "ask", &p);
        dl.send(p.ip.ipaddr_src, p.udp.port_src, 5330, "reply " + std::to_string(c->port));
    }
    for (Client *c : {&c1, &c2}) {
        ASSERT_TRUE(udp_recv(c->fd, &got, 5000, &from));
        EXPECT_EQ(got, "reply " + std::to_string(c->port));
        EXPECT_EQ(from, ports[0]);
    }

    // Frames on the line: END and ESC escaped, 1024 bytes whole, the client's
    // address and port bytes as source, identification rising by one.
    std::string big(1024, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>(i * 7);
    const std::string sent[] = {"hello", std::string("\xC0\xDB\xC0 x \xDB", 6), big, "to B"};
    std::uint16_t first_id = 0;
    for (size_t i = 0; i < 4; i++) {
        relay_to_datalogger(dl, c1.fd, ports[i < 3 ? 0 : 1], sent[i], &p);
        EXPECT_EQ(p.ip.ipaddr_src, kLoopback);
        EXPECT_EQ(p.ip.ipaddr_dst, kDatalogger);
        EXPECT_EQ(p.ip.time_to_live, 255);
        EXPECT_EQ(p.ip.fragment_offset, 0x4000);
        EXPECT_EQ(p.udp.port_src, line_port(c1.port));
        EXPECT_EQ(p.udp.port_dst, i < 3 ? 5330 : 6330);
        if (i == 0) first_id = p.ip.identification;
        EXPECT_EQ(p.ip.identification, static_cast<std::uint16_t>(first_id + i));
    }

    // The client, moved to the second port, gets later replies from there,
    // even with line noise, a bad escape and a frame with a bad sum ahead of it.
    std::string noise = "\x01\x02garbage\xC0\xC0\xDB\x41junk\xC0" + std::string(39, 'z') + "\xC0";
    write_all(dl.fd, noise.data(), noise.size());
    dl.send(p.ip.ipaddr_src, p.udp.port_src, 6330, "after noise");
    ASSERT_TRUE(udp_recv(c1.fd, &got, 5000, &from));
    EXPECT_EQ(got, "after noise");
    EXPECT_EQ(from, ports[1]);

    // A reply to an address no client used is dropped, but dumped at -vv.
    dl.send(0x0A010203, line_port(999), 5330, "nobody");
    EXPECT_TRUE(r.proc->wait_for_err("QRD:192.168.1.50:5330->10.1.2.3:999:", 5000));
    EXPECT_FALSE(udp_recv(c1.fd, &got, 300));
    EXPECT_FALSE(udp_recv(c2.fd, &got, 300));
    EXPECT_TRUE(r.alive());
}

TEST(Relay, HeaderAndDumpLines) {
    auto ports = two_ports();
    char host[6];
    snprintf(host, sizeof host, "%05d", ports[0]);
    std::string payload(33, '\xab'), full;
    payload[32] = '\x01';
    for (int i = 0; i < 32; i++) full += " ab";
    for (std::string flag : {"-vv", "-vvv"}) {
        Relay r(ports, flag);
        Datalogger dl(r.line.master);
        Client c;
        dlframe::Parsed p{};
        relay_to_datalogger(dl, c.fd, ports[0], payload, &p);
        dl.send(p.ip.ipaddr_src, p.udp.port_src, 5330, "\x10");
        std::string got, cl = "127.0.0.1:" + std::to_string(c.port);
        ASSERT_TRUE(udp_recv(c.fd, &got, 5000));
        ASSERT_TRUE(r.proc->wait_for_err("UWR: 10", 5000));
        std::string err = r.proc->err();
        for (const std::string &line : std::vector<std::string>{
                 "URD:" + cl + "->" + host + ":\n", "URD:" + full + "\n", "URD: 01\n", "URD:\n",
                 "QWR:" + cl + "->192.168.1.50:5330:\n", "QRD:192.168.1.50:5330->" + cl + ":\n",
                 "QRD: 10\n", "UWR:" + std::string(host) + "->" + cl + ":\n", "UWR:\n"})
            EXPECT_NE(err.find(line), std::string::npos) << flag << " lacks " << line;
        // Only -vvv raises the endpoints to their own dumps.
        EXPECT_EQ(err.find("UDP_DEBUG: ") != std::string::npos, flag == "-vvv");
        EXPECT_EQ(err.find("SLS:") != std::string::npos, flag == "-vvv");
    }
}

TEST(Relay, NoTranslationsAndSignals) {
    Relay r({}, "-vv");
    Datalogger dl(r.line.master);
    ASSERT_TRUE(r.proc->wait_for_err("korvane_run_q330_write_thread: Starting...", 10000));
    usleep(200000);
    dl.send(kLoopback, 4000, 5330, "unrouted");
    EXPECT_TRUE(r.proc->wait_for_err("QRD: 75 6e 72 6f 75 74 65 64", 5000));
    for (int sig : {SIGPIPE, SIGALRM}) kill(r.proc->pid, sig);
    usleep(300000);
    EXPECT_TRUE(r.alive());
    EXPECT_EQ(r.proc->err().find("Return from pause"), std::string::npos);

    for (int sig : {SIGINT, SIGTERM}) {
        Relay s(two_ports(), "-v");
        ASSERT_TRUE(s.proc->wait_for_err("Starting...", 10000));
        EXPECT_EQ(s.proc->stop(sig), 128 + sig);
        EXPECT_EQ(s.proc->err().find("haltbysignal"), std::string::npos);
    }
}

TEST(Relay, MissingDeviceEndsWithTheWholeChain) {
    Relay r({}, "", "/nonexistent/ttyQ330");
    ASSERT_EQ(r.proc->wait_exit(20000), 1);
    EXPECT_EQ(missing_in_order(r.proc->err(),
                               {"serialbuf_open: open('/nonexistent/ttyQ330') error. (No such file",
                                "udp_open: serialbuf_open() error.", "udp_read: udp_open(0) error.",
                                "fatal: korvane_run_q330_read_thread: udp_read() error."}),
              "")
        << r.proc->err();
}

// A burst from clients that the line cannot carry at once waits in the
// queues instead of being lost.
TEST(Relay, BurstOverASlowLineLosesNothing) {
    Child sim({KORVANE_BUILD_DIR "/dlsim", "--baud", "1200"}, "/tmp");
    ASSERT_TRUE(sim.wait_for_out("\n", 10000));
    std::string out = sim.out();  // "dlsim: line PATH"
    auto ports = two_ports();
    Relay r(ports, "", out.substr(12, out.find('\n') - 12));
    RunResult ping = run_program({KORVANE_BUILD_DIR "/dlping", "-c", "40", "-s", "16", "-i", "0",
                                  "-W", "60000", "127.0.0.1:" + std::to_string(ports[0])},
                                 "/tmp", 120000);
    EXPECT_EQ(ping.status, 0) << ping.out << ping.err;
    // Replies came back in the order sent.
    int last = -1;
    const std::regex seq_re("seq=([0-9]+)");
    for (std::sregex_iterator it(ping.out.begin(), ping.out.end(), seq_re), end; it != end; ++it)
        EXPECT_EQ(std::stoi((*it)[1]), ++last);
    EXPECT_EQ(last, 39);
    EXPECT_TRUE(r.alive());
}
