// korvane against software nobody here wrote. The Linux IP stack plays the datalogger
// behind a TUN device, fed by a SLIP bridge from a pseudo-terminal, with a UDP echo. Its
// counters judge what korvane framed, korvane's log what it framed, tshark every frame.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "testutil.h"
#include "tools/dlframe.h"

using namespace testutil;

namespace {

const std::string kTun = "kvline0", kDataloggerIp = "192.168.77.50", kClientIp = "10.77.0.1";
constexpr std::uint32_t kDatalogger = 0xC0A84D32;  // 192.168.77.50
constexpr std::uint32_t kClient = 0x0A4D0001;      // 10.77.0.1

// Answers every datagram to its sender, from the port it came to.
const char *const kEchoScript = R"(
import select, socket, sys
socks = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
for s, port in zip(socks, (5330, 6330)):
    s.bind((sys.argv[1], port))
print("ready", flush=True)
while True:
    for s in select.select(socks, [], [])[0]:
        s.sendto(*s.recvfrom(65535))
)";

// The system's own copy of a tool, not a wrapper early in PATH (a Python
// version manager's) that would then run inside the namespaces; "" if none.
std::string find_tool(const std::string &name) {
    for (std::string dir : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"})
        if (access((dir + name).c_str(), X_OK) == 0) return dir + name;
    return "";
}

// Runs `ip` with args; a failure names the command and what ip said.
::testing::AssertionResult ip(std::vector<std::string> args) {
    args.insert(args.begin(), find_tool("ip"));
    RunResult r = run_program(args, "", 20000);
    if (r.status == 0) return ::testing::AssertionSuccess();
    std::string cmd;
    for (const auto &a : args) cmd += a + " ";
    return ::testing::AssertionFailure() << cmd << "(status " << r.status << "): " << r.err;
}

// Why this machine cannot run the suite, or empty when it can.
std::string missing_prerequisite() {
    if (geteuid() != 0) return "needs root for network namespaces and TUN devices";
    if (access("/dev/net/tun", R_OK | W_OK) != 0) return "no usable /dev/net/tun";
    for (const char *tool : {"ip", "tshark", "python3"})
        if (find_tool(tool).empty()) return std::string("no ") + tool + " command";
    std::string probe = "korvane-probe-" + std::to_string(getpid());
    if (auto r = ip({"netns", "add", probe}); !r)
        return std::string("cannot create network namespaces: ") + r.message();
    ip({"netns", "delete", probe});
    return "";
}

// A network namespace named after this process, deleted on destruction,
// after the programs in it (declared later) have been killed.
struct Netns {
    std::string name;
    explicit Netns(const std::string &role)
        : name("korvane-" + role + "-" + std::to_string(getpid())) {
        // First the namespaces of earlier runs killed before they could clean up.
        std::error_code ec;
        for (const auto &entry : std::filesystem::directory_iterator("/run/netns", ec)) {
            std::string old = entry.path().filename();
            pid_t owner = atoi(old.substr(old.rfind('-') + 1).c_str());
            if (old.starts_with("korvane-") && owner > 0 && kill(owner, 0) != 0 && errno == ESRCH)
                ip({"netns", "delete", old});
        }
        EXPECT_TRUE(ip({"netns", "add", name}));
        EXPECT_TRUE(ip({"-n", name, "link", "set", "lo", "up"}));
    }
    ~Netns() { ip({"netns", "delete", name}); }
    // The command line that runs argv inside; ip execs it, so the child's
    // PID is the program's own.
    std::vector<std::string> exec(std::vector<std::string> argv) const {
        argv.insert(argv.begin(), {find_tool("ip"), "netns", "exec", name});
        return argv;
    }
};

// Every way the kernel can refuse an incoming IPv4/UDP datagram.
const char *const kErrorCounters[] = {
    "Ip:InHdrErrors",        "Ip:InAddrErrors",  "Ip:InUnknownProtos", "Ip:InDiscards",
    "Udp:InErrors",          "Udp:InCsumErrors", "Udp:NoPorts",        "Udp:RcvbufErrors",
    "IpExt:InTruncatedPkts", "IpExt:InCsumErrors"};

// The datalogger: the kernel of a namespace of its own behind a TUN device
// that the bridge serves from a pseudo-terminal, with the echo service.
using Counters = std::map<std::string, long long>;
struct DataloggerSide {
    TempDir dir;
    Netns ns{"dl"};
    std::unique_ptr<Child> bridge, echo;
    std::string line;  // the slave path korvane (or the test) opens

    std::string pcap() const { return dir.file("line.pcap"); }

    void start() {
        // No IPv6 here: its router solicitations and reports would go out over
        // the line as frames nobody asked for (no such files without IPv6: as quiet).
        const char *no_ipv6 = "cd /proc/sys/net/ipv6/conf && echo 1 >all/disable_ipv6 && "
                              "echo 1 >default/disable_ipv6";
        run_program(ns.exec({"/bin/sh", "-c", no_ipv6}), "");
        bridge = std::make_unique<Child>(ns.exec({INTEROP_BRIDGE, kTun, pcap()}), "");
        ASSERT_TRUE(bridge->wait_for_out("\n", 10000)) << bridge->err();
        line = bridge->out();
        line.pop_back();
        ASSERT_TRUE(ip({"-n", ns.name, "addr", "add", kDataloggerIp + "/24", "dev", kTun}));
        ASSERT_TRUE(ip({"-n", ns.name, "link", "set", kTun, "up"}));
        // The datalogger answers whatever source korvane writes: the clients'
        // network is reached back over the line.
        ASSERT_TRUE(ip({"-n", ns.name, "route", "add", kClientIp + "/32", "dev", kTun}));
        auto argv = ns.exec({find_tool("python3"), "-c", kEchoScript, kDataloggerIp});
        echo = std::make_unique<Child>(argv, "");
        ASSERT_TRUE(echo->wait_for_out("ready", 10000)) << echo->err();
    }

    // The SNMP counters named in want (like "Udp:InCsumErrors", from the
    // namespace's net/snmp and net/netstat) once they show those values, or
    // as they are after 10 s. A name the kernel lacks counts as -1.
    Counters settled(const Counters &want) const {
        std::string net = "/proc/" + std::to_string(bridge->pid) + "/net/";
        Counters all, got;
        for (long long end = now_ms() + 10000; got != want && now_ms() < end; usleep(20000)) {
            std::ifstream snmp(net + "snmp"), netstat(net + "netstat");
            std::stringstream text;  // pairs of lines: "Group: Name..." then "Group: value..."
            text << snmp.rdbuf() << netstat.rdbuf();
            for (std::string names, values; getline(text, names) && getline(text, values);) {
                std::istringstream n(names), v(values);
                std::string group, name;
                n >> group;
                v >> group;
                for (long long value; n >> name && v >> value;) all[group + name] = value;
            }
            for (const auto &w : want) got[w.first] = all.count(w.first) ? all[w.first] : -1;
        }
        return got;
    }
};

std::string random_bytes(std::mt19937 &rng, size_t n) {
    std::string s(n, '\0');
    for (auto &ch : s) ch = static_cast<char>(rng());
    return s;
}

// What a line is likeliest to get wrong: one byte, sizes around the 28
// header bytes, the largest payload, and runs of the bytes SLIP escapes
// (also next to the bytes that follow an escape).
std::vector<std::string> edge_payloads() {
    std::mt19937 rng(9);
    std::vector<std::string> v = {"x", std::string(1024, '\xC0'), std::string(1024, '\xDB')};
    for (size_t n : {27, 28, 29, 1023, 1024}) v.push_back(random_bytes(rng, n));
    std::string mix(1021, '\0');
    for (size_t i = 0; i < mix.size(); i++) mix[i] = "\xC0\xDB\xDC\xDB\xDD\xC0\xDD\xDC"[i % 8];
    v.push_back(mix);
    return v;
}

// What tshark, with IP and UDP checksum checking on, finds wrong with each frame of
// a capture: a checksum status other than good (1), lengths that disagree ("" if nothing).
std::vector<std::string> dissect(const std::string &pcap, std::string *diag) {
    std::vector<std::string> argv = {find_tool("tshark"), "-n", "-r", pcap, "-T", "fields",
                                     "-E", "occurrence=f", "-o", "ip.check_checksum:TRUE",
                                     "-o", "udp.check_checksum:TRUE"};
    for (const char *f : {"ip.checksum.status", "udp.checksum.status", "frame.len", "ip.len",
                          "ip.hdr_len", "udp.length"})
        argv.insert(argv.end(), {"-e", f});
    RunResult r = run_program(argv, "", 120000);
    *diag = "tshark status " + std::to_string(r.status) + "\n" + r.err + r.out;
    std::vector<std::string> frames;
    std::istringstream rows(r.out);
    for (std::string row; std::getline(rows, row);) {
        std::istringstream cells(row);
        std::string ip_sum, udp_sum, frame, len, hdr, udp, faults;
        for (auto *cell : {&ip_sum, &udp_sum, &frame, &len, &hdr, &udp})
            std::getline(cells, *cell, '\t');
        if (ip_sum != "1") faults += "ip checksum status " + ip_sum + "; ";
        if (udp_sum != "1") faults += "udp checksum status " + udp_sum + "; ";
        if (frame != len) faults += "frame length " + frame + " != ip length " + len + "; ";
        if (atoi(udp.c_str()) != atoi(len.c_str()) - atoi(hdr.c_str()))
            faults += "udp length " + udp + "; ";
        frames.push_back(faults);
    }
    return frames;
}

// Each test runs in a network namespace of its own (with korvane and its
// clients, where it has them), gone when the process ends.
class KernelPeer : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string why = missing_prerequisite(); !why.empty()) GTEST_SKIP() << why;
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        ASSERT_TRUE(ip({"link", "set", "lo", "up"}));
    }
};

}  // namespace

TEST_F(KernelPeer, EchoThroughRelay) {
    DataloggerSide dl;
    ASSERT_NO_FATAL_FAILURE(dl.start());
    // The clients live at 10.77.0.1 on lo: the kernel behind the TUN device drops
    // what comes from 127.0.0.1. Host ports 5330 and 15330 lead to the
    // datalogger's 5330, 6330 to its 6330.
    ASSERT_TRUE(ip({"addr", "add", kClientIp + "/32", "dev", "lo"}));
    TempDir dir;
    dir.write("korvane.pf", "default {\n  mode slip\n  device " + dl.line + "\n  baud 115200\n" +
                                "  q330_ip_address " + kDataloggerIp + "\n  port_translations {\n" +
                                "    5330 5330\n    6330 6330\n    15330 5330\n  }\n}\n");
    Child relay({KORVANE_BUILD_DIR "/korvane", "-v"}, dir.path);
    for (int port : {5330, 6330, 15330})
        ASSERT_TRUE(wait_udp_bound(port, 10000, relay.pid)) << relay.err();
    // Two clients share host port 5330; ports chosen so that exchanging their
    // bytes gives another number. They send to the host ports on 127.0.0.1.
    struct Client {
        int port, host_port, fd = -1;
    };
    std::vector<Client> clients = {{40001, 5330}, {40002, 6330}, {40003, 15330}, {40004, 5330}};
    for (auto &c : clients) {
        c.fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{AF_INET, htons(static_cast<std::uint16_t>(c.port)), {htonl(kClient)}, {}};
        ASSERT_EQ(bind(c.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    }
    auto diag = [&] { return relay.err() + dl.bridge->err(); };
    std::string got;
    int from = 0, sent = 0;

    for (const std::string &p : edge_payloads())
        for (const auto &c : clients) {
            udp_send_to(c.fd, c.host_port, p);
            sent++;
            ASSERT_TRUE(udp_recv(c.fd, &got, 10000, &from))
                << c.port << ", " << p.size() << " bytes\n" << diag();
            EXPECT_EQ(got, p) << c.port << ", " << p.size() << " bytes";
            EXPECT_EQ(from, c.host_port);
        }

    // A burst from every client at once fills the queues; each reply still
    // reaches its own client through its own host port.
    std::mt19937 rng(1055);
    std::map<int, std::multiset<std::string>> expected, received;
    for (int i = 0; i < 12; i++)
        for (const auto &c : clients) {
            std::string p = random_bytes(rng, 1 + rng() % 1024);
            udp_send_to(c.fd, c.host_port, p);
            expected[c.port].insert(p);
            sent++;
        }
    for (const auto &c : clients)
        for (size_t i = 0; i < expected[c.port].size(); i++) {
            ASSERT_TRUE(udp_recv(c.fd, &got, 10000, &from)) << c.port << " reply " << i << diag();
            EXPECT_EQ(from, c.host_port);
            received[c.port].insert(got);
        }
    EXPECT_EQ(received, expected);
    for (const auto &c : clients) close(c.fd);

    // The kernel took every datagram korvane framed and answered each once.
    Counters want = {{"Udp:InDatagrams", sent}, {"Udp:OutDatagrams", sent}};
    for (const char *name : kErrorCounters) want[name] = 0;
    EXPECT_EQ(dl.settled(want), want);
    // korvane took every packet the kernel framed (at -v a refused one is a
    // warning line). In the sanitizer builds korvane's reports go to the same
    // log, and they count even when the options let it run on.
    for (const char *bad : {"warning:", "fatal:", "Sanitizer", "runtime error:"})
        EXPECT_EQ(relay.err().find(bad), std::string::npos) << relay.err();

    // tshark finds every frame that crossed the line sound.
    std::string tshark_diag;
    std::vector<std::string> faults = dissect(dl.pcap(), &tshark_diag);
    ASSERT_EQ(faults.size(), 2u * static_cast<size_t>(sent)) << tshark_diag;
    for (size_t i = 0; i < faults.size(); i++) EXPECT_EQ(faults[i], "") << "frame " << i + 1;
}

// The checks above can fail: frames damaged on the line are counted by the
// kernel and flagged by tshark.
TEST_F(KernelPeer, DamagedFramesAreCaught) {
    DataloggerSide dl;
    ASSERT_NO_FATAL_FAILURE(dl.start());
    int line = open(dl.line.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(line, 0);
    // A sound frame (which the echo answers), then one with a bit flipped in
    // the IP header, one in the payload, and one cut short of its IP length.
    for (int damage = 0; damage < 4; damage++) {
        alignas(4) unsigned char p[dlframe::kMaxPacket];
        unsigned char frame[2 * sizeof p + 2];
        std::string payload(damage == 3 ? 100 : 10, static_cast<char>('a' + damage));
        dlframe::Addressing a{kClient, kDatalogger, 40001, 5330, 1};
        int n = dlframe::build(a, reinterpret_cast<const unsigned char *>(payload.data()),
                               static_cast<int>(payload.size()), p, sizeof p);
        if (damage == 1) p[4] ^= 0x01;
        if (damage == 2) p[30] ^= 0x01;
        if (damage == 3) n -= 10;
        write_all(line, frame, static_cast<size_t>(slip_encode(p, n, frame)));
    }
    // The echo's answer comes back on the line: the path is alive.
    EXPECT_GE(read_at_least(line, 38, 10000).size(), 38u) << dl.bridge->err();
    close(line);
    const Counters want = {{"Udp:InDatagrams", 1},   {"Udp:OutDatagrams", 1},
                           {"Ip:InHdrErrors", 1},    {"IpExt:InCsumErrors", 1},
                           {"Udp:InCsumErrors", 1},  {"Udp:InErrors", 1},
                           {"IpExt:InTruncatedPkts", 1}};
    EXPECT_EQ(dl.settled(want), want);

    std::string tshark_diag;
    std::multiset<std::string> faults;
    for (const std::string &frame : dissect(dl.pcap(), &tshark_diag)) faults.insert(frame);
    const std::multiset<std::string> flagged = {
        "", "", "ip checksum status 0; ", "udp checksum status 0; ",
        "udp checksum status 2; frame length 118 != ip length 128; "};
    EXPECT_EQ(faults, flagged) << tshark_diag;
}
