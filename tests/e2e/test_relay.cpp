// The real korvane binary between loopback UDP clients and a pseudo-terminal
// on which this test plays the datalogger, byte for byte, with the project's
// frame builder and a strict frame checker.
#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
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

struct Translation {
    int host_port;
    int q330_port;
};

// korvane running in a temporary directory on a pseudo-terminal line.
struct Relay {
    TempDir dir;
    PtyPair line;
    std::unique_ptr<Child> proc;

    Relay(const std::vector<Translation> &xlat, const std::string &flag,
          const std::string &device = "", bool wait_bound = true) {
        std::ostringstream pf;
        pf << "default {\n  mode slip\n  device " << (device.empty() ? line.slave_path : device)
           << "\n  baud 115200\n  q330_ip_address 192.168.1.50\n  port_translations {\n";
        for (const auto &t : xlat) pf << "    " << t.host_port << " " << t.q330_port << "\n";
        pf << "  }\n}\n";
        dir.write("korvane.pf", pf.str());
        std::vector<std::string> argv = {kBin};
        if (!flag.empty()) argv.push_back(flag);
        proc = std::make_unique<Child>(argv, dir.path);
        // Host ports are bound by the first poll of their reader.
        for (const auto &t : xlat)
            if (wait_bound && !wait_udp_bound(t.host_port, 10000)) ADD_FAILURE() << "port " << t.host_port;
    }
    bool alive() { return proc->wait_exit(0) < 0; }
};

// A decoded, checked frame from the line.
struct Frame {
    dlframe::Verdict verdict;
    IPHdr ip;
    UDPHdr udp;
    std::string payload;
};

// The datalogger end of the line.
struct Datalogger {
    int fd;
    SlipDecoder dec;
    std::string pending;

    explicit Datalogger(int master) : fd(master) { slip_decoder_reset(&dec); }

    bool next(Frame *f, int timeout_ms = 10000) {
        long long end = now_ms() + timeout_ms;
        for (;;) {
            while (!pending.empty()) {
                unsigned char b = static_cast<unsigned char>(pending.front());
                pending.erase(0, 1);
                if (slip_decoder_feed(&dec, b) == 1) return decode(f);
            }
            if (now_ms() >= end) return false;
            pending = read_for(fd, 50, static_cast<int>(end - now_ms()));
        }
    }

    bool decode(Frame *f) {
        alignas(4) unsigned char packet[dlframe::kMaxPacket];
        memcpy(packet, dec.bytes, static_cast<size_t>(dec.count));
        dlframe::Parsed p{};
        f->verdict = dlframe::check(packet, dec.count, &p);
        f->ip = p.ip;
        f->udp = p.udp;
        if (f->verdict == dlframe::kAccepted)
            f->payload.assign(reinterpret_cast<const char *>(p.payload), static_cast<size_t>(p.nbytes));
        return true;
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

// Sends payload from a client and returns the frame the datalogger sees.
Frame relay_to_datalogger(Datalogger &dl, int client, int host_port, const std::string &payload) {
    udp_send_to(client, host_port, payload);
    Frame f{};
    EXPECT_TRUE(dl.next(&f));
    return f;
}

std::vector<Translation> two_ports() {
    return {{free_udp_port(), 5330}, {free_udp_port(), 6330}};
}

}  // namespace

TEST(Relay, StartUpLines) {
    auto xlat = two_ports();
    Relay r(xlat, "-v");
    ASSERT_TRUE(r.proc->wait_for_err("korvane_run_udp_write_thread(" +
                                         std::to_string(xlat[1].host_port) + "): Starting...", 10000))
        << r.proc->err();
    std::string err = r.proc->err();
    size_t banner = err.find("korvane : $Revision: 1.12 $ $Date: 2006/10/19 17:36:59 $");
    size_t summary = err.find("q330_ip_address   = 192.168.1.50");
    ASSERT_NE(banner, std::string::npos);
    ASSERT_LT(banner, summary);
    for (std::string line : {"korvane_run_q330_read_thread: Starting...",
                             "korvane_run_q330_write_thread: Starting..."})
        EXPECT_GT(err.find(line), summary) << line;
    for (const auto &t : xlat)
        for (std::string kind : {"read", "write"})
            EXPECT_NE(err.find("korvane_run_udp_" + kind + "_thread(" + std::to_string(t.host_port) +
                               "): Starting..."),
                      std::string::npos);

    // At verbosity 0 a healthy start writes the banner and nothing else.
    Relay quiet(two_ports(), "");
    usleep(800000);
    EXPECT_TRUE(quiet.alive());
    std::string q = quiet.proc->err();
    EXPECT_EQ(std::count(q.begin(), q.end(), '\n'), 1) << q;
}

TEST(Relay, ClientToDataloggerFrames) {
    auto xlat = two_ports();
    Relay r(xlat, "");
    Datalogger dl(r.line.master);
    int cport;
    int client = udp_socket_loopback(&cport);

    std::string escapes("\xC0\xDB\xC0 x \xDB", 6);
    std::string big(1024, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>(i * 7);
    std::vector<Frame> frames;
    for (const std::string &p : {std::string("hello"), escapes, big})
        frames.push_back(relay_to_datalogger(dl, client, xlat[0].host_port, p));
    frames.push_back(relay_to_datalogger(dl, client, xlat[1].host_port, "to B"));

    const std::string sent[] = {"hello", escapes, big, "to B"};
    for (size_t i = 0; i < frames.size(); i++) {
        const Frame &f = frames[i];
        ASSERT_EQ(f.verdict, dlframe::kAccepted) << i;
        EXPECT_EQ(f.payload, sent[i]);
        EXPECT_EQ(f.ip.ipaddr_src, kLoopback);
        EXPECT_EQ(f.ip.ipaddr_dst, kDatalogger);
        EXPECT_EQ(f.ip.time_to_live, 255);
        EXPECT_EQ(f.ip.fragment_offset, 0x4000);
        EXPECT_EQ(f.udp.port_src, line_port(cport));
        EXPECT_EQ(f.udp.port_dst, i < 3 ? 5330 : 6330);
        EXPECT_EQ(f.ip.identification, static_cast<std::uint16_t>(frames[0].ip.identification + i));
    }
    close(client);
}

TEST(Relay, RepliesFollowEachClientsLastPort) {
    auto xlat = two_ports();
    Relay r(xlat, "-vv");
    Datalogger dl(r.line.master);
    int p1, p2;
    int c1 = udp_socket_loopback(&p1), c2 = udp_socket_loopback(&p2);
    std::string got;
    int from = 0;

    // Two clients behind one host port each get their own reply from it.
    for (auto [c, p] : {std::pair{c1, p1}, std::pair{c2, p2}}) {
        Frame f = relay_to_datalogger(dl, c, xlat[0].host_port, "ask");
        dl.send(f.ip.ipaddr_src, f.udp.port_src, 5330, "reply " + std::to_string(p));
    }
    for (auto [c, p] : {std::pair{c1, p1}, std::pair{c2, p2}}) {
        ASSERT_TRUE(udp_recv(c, &got, 5000, &from));
        EXPECT_EQ(got, "reply " + std::to_string(p));
        EXPECT_EQ(from, xlat[0].host_port);
    }

    // A client that moves to the second port gets later replies from there,
    // even with line noise and broken frames ahead of the reply.
    Frame f = relay_to_datalogger(dl, c1, xlat[1].host_port, "moved");
    write_all(dl.fd, "\x01\x02garbage\xC0\xC0\xDB\x41junk\xC0", 17);
    std::string bad_sum(40, 'z');
    bad_sum[0] = '\xC0';
    write_all(dl.fd, bad_sum.data(), bad_sum.size());
    write_all(dl.fd, "\xC0", 1);
    dl.send(f.ip.ipaddr_src, f.udp.port_src, 6330, "after noise");
    ASSERT_TRUE(udp_recv(c1, &got, 5000, &from));
    EXPECT_EQ(got, "after noise");
    EXPECT_EQ(from, xlat[1].host_port);

    // A reply to an address no client used is dropped, but dumped at -vv.
    dl.send(0x0A010203, line_port(999), 5330, "nobody");
    EXPECT_TRUE(r.proc->wait_for_err("QRD:192.168.1.50:5330->10.1.2.3:999:", 5000));
    EXPECT_FALSE(udp_recv(c1, &got, 300));
    EXPECT_FALSE(udp_recv(c2, &got, 300));
    EXPECT_TRUE(r.alive());
    close(c1);
    close(c2);
}

TEST(Relay, HeaderAndDumpLines) {
    auto xlat = two_ports();
    char host[6];
    snprintf(host, sizeof host, "%05d", xlat[0].host_port);
    for (std::string flag : {"-vv", "-vvv"}) {
        Relay r(xlat, flag);
        Datalogger dl(r.line.master);
        int cport;
        int client = udp_socket_loopback(&cport);
        std::string payload(33, '\xab');
        payload[32] = '\x01';
        Frame f = relay_to_datalogger(dl, client, xlat[0].host_port, payload);
        dl.send(f.ip.ipaddr_src, f.udp.port_src, 5330, "\x10");
        std::string got;
        ASSERT_TRUE(udp_recv(client, &got, 5000));

        std::string c = "127.0.0.1:" + std::to_string(cport);
        std::string full;
        for (int i = 0; i < 32; i++) full += " ab";
        ASSERT_TRUE(r.proc->wait_for_err("UWR: 10", 5000));
        std::string err = r.proc->err();
        for (const std::string &line : std::vector<std::string>{"URD:" + c + "->" + host + ":\n", "URD:" + full + "\n", "URD: 01\n",
                                 "URD:\n", "QWR:" + c + "->192.168.1.50:5330:\n",
                                 "QRD:192.168.1.50:5330->" + c + ":\n", "QRD: 10\n",
                                 "UWR:" + std::string(host) + "->" + c + ":\n", "UWR:\n"})
            EXPECT_NE(err.find(line), std::string::npos) << flag << " lacks " << line;
        // Only -vvv raises the endpoints to their own dumps.
        bool endpoint_dumps = err.find("UDP_DEBUG: ") != std::string::npos &&
                              err.find("SLS:") != std::string::npos;
        EXPECT_EQ(endpoint_dumps, flag == "-vvv");
        close(client);
    }
}

TEST(Relay, NoTranslationsAndSignals) {
    Relay r({}, "-vv");
    Datalogger dl(r.line.master);
    ASSERT_TRUE(r.proc->wait_for_err("korvane_run_q330_write_thread: Starting...", 10000));
    usleep(200000);
    dl.send(kLoopback, 4000, 5330, "unrouted");
    EXPECT_TRUE(r.proc->wait_for_err("QRD: 75 6e 72 6f 75 74 65 64", 5000));
    kill(r.proc->pid, SIGPIPE);
    kill(r.proc->pid, SIGALRM);
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
    Relay r(two_ports(), "", "/nonexistent/ttyQ330", false);
    ASSERT_EQ(r.proc->wait_exit(20000), 1);
    std::string err = r.proc->err();
    size_t at = 0;
    for (std::string line : {"serialbuf_open: open('/nonexistent/ttyQ330') error. (No such file",
                             "udp_open: serialbuf_open() error.", "udp_read: udp_open(0) error.",
                             "fatal: korvane_run_q330_read_thread: udp_read() error."}) {
        size_t pos = err.find(line, at);
        ASSERT_NE(pos, std::string::npos) << line << "\n" << err;
        at = pos;
    }
}

// A burst from clients that the line cannot carry at once waits in the
// queues instead of being lost.
TEST(Relay, BurstOverASlowLineLosesNothing) {
    Child sim({KORVANE_BUILD_DIR "/dlsim", "--baud", "1200"}, "/tmp");
    ASSERT_TRUE(sim.wait_for_out("/dev/pts/", 10000));
    std::smatch m;
    std::string out = sim.out();
    ASSERT_TRUE(std::regex_search(out, m, std::regex("(/dev/pts/[0-9]+)")));
    auto xlat = two_ports();
    Relay r(xlat, "", m[1]);
    RunResult ping = run_program({KORVANE_BUILD_DIR "/dlping", "-c", "40", "-s", "16", "-i", "0",
                                  "-W", "60000", "127.0.0.1:" + std::to_string(xlat[0].host_port)},
                                 "/tmp", 120000);
    EXPECT_EQ(ping.status, 0) << ping.out << ping.err;
    // Replies came back in the order sent.
    int last = -1;
    const std::regex seq_re("seq=([0-9]+)");
    for (std::sregex_iterator it(ping.out.begin(), ping.out.end(), seq_re), end;
         it != end; ++it) {
        int seq = std::stoi((*it)[1]);
        EXPECT_GT(seq, last);
        last = seq;
    }
    EXPECT_EQ(last, 39);
    EXPECT_TRUE(r.alive());
}
