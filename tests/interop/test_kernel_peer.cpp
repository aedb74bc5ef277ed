// korvane against software nobody here wrote. The Linux IP stack plays the
// datalogger: a network namespace with a TUN device fed by a SLIP bridge on
// the master side of a pseudo-terminal, and a UDP echo service. korvane runs
// in a second namespace with its clients. The kernel's own counters say
// whether it accepted what korvane framed, korvane's log says whether it
// accepted what the kernel sent, and tshark re-checks every frame that
// crossed the line.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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

const std::string kKorvane = KORVANE_BUILD_DIR "/korvane";
const std::string kBridge = INTEROP_BRIDGE;
const std::string kTun = "kvline0";
const std::string kDataloggerIp = "192.168.77.50";
const std::string kClientIp = "10.77.0.1";
constexpr std::uint32_t kDatalogger = 0xC0A84D32;  // 192.168.77.50
constexpr std::uint32_t kClient = 0x0A4D0001;      // 10.77.0.1

// Answers every datagram to its sender, from the port it came to.
const char *const kEchoScript = R"(
import select, socket, sys
socks = []
for port in sys.argv[2:]:
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind((sys.argv[1], int(port)))
    socks.append(s)
print("ready", flush=True)
while True:
    for s in select.select(socks, [], [])[0]:
        data, peer = s.recvfrom(65535)
        s.sendto(data, peer)
)";

// System directories first, so that a wrapper early in PATH (a Python
// version manager) is not what runs inside the namespaces.
std::string find_tool(const std::string &name) {
    std::string dirs = "/usr/sbin:/usr/bin:/sbin:/bin";
    if (const char *path = getenv("PATH")) dirs += std::string(":") + path;
    std::stringstream ss(dirs);
    for (std::string dir; std::getline(ss, dir, ':');)
        if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0) return dir + "/" + name;
    return "";
}

RunResult ip(std::vector<std::string> args) {
    args.insert(args.begin(), find_tool("ip"));
    return run_program(args, "", 20000);
}

// `ip` that must succeed; a failure names the command and what ip said.
::testing::AssertionResult ip_ok(const std::vector<std::string> &args) {
    RunResult r = ip(args);
    if (r.status == 0) return ::testing::AssertionSuccess();
    std::string cmd = "ip";
    for (const auto &a : args) cmd += " " + a;
    return ::testing::AssertionFailure() << cmd << ": status " << r.status << ": " << r.err;
}

std::string namespace_name(const std::string &role) {
    return "korvane-" + role + "-" + std::to_string(getpid());
}

// Why this machine cannot run the suite, or empty when it can.
std::string missing_prerequisite() {
    if (geteuid() != 0) return "needs root for network namespaces and TUN devices";
    if (access("/dev/net/tun", R_OK | W_OK) != 0) return "no usable /dev/net/tun";
    for (const char *tool : {"ip", "tshark", "python3"})
        if (find_tool(tool).empty()) return std::string("no ") + tool + " command";
    std::string probe = namespace_name("probe");
    RunResult r = ip({"netns", "add", probe});
    if (r.status != 0) return "cannot create network namespaces: " + r.err;
    ip({"netns", "delete", probe});
    return "";
}

// Namespaces of earlier runs that were killed before they could clean up.
void delete_orphan_namespaces() {
    DIR *d = opendir("/run/netns");
    if (!d) return;
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name.rfind("korvane-", 0) != 0) continue;
        pid_t owner = atoi(name.substr(name.rfind('-') + 1).c_str());
        if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) ip({"netns", "delete", name});
    }
    closedir(d);
}

// A network namespace named after this process, deleted on destruction,
// after the programs in it (declared later) have been killed.
struct Netns {
    std::string name;
    explicit Netns(const std::string &role) : name(namespace_name(role)) {
        delete_orphan_namespaces();
        EXPECT_TRUE(ip_ok({"netns", "add", name}));
        EXPECT_TRUE(ip_ok({"-n", name, "link", "set", "lo", "up"}));
    }
    ~Netns() { ip({"netns", "delete", name}); }
    // The command line that runs argv inside; ip execs it, so the child's
    // PID is the program's own.
    std::vector<std::string> exec(std::vector<std::string> argv) const {
        argv.insert(argv.begin(), {find_tool("ip"), "netns", "exec", name});
        return argv;
    }
};

// Moves the calling thread into ns until the scope ends. Sockets made
// meanwhile belong to ns for their whole life.
struct Inside {
    int home;
    explicit Inside(const Netns &ns) : home(open("/proc/thread-self/ns/net", O_RDONLY)) {
        int fd = open(("/run/netns/" + ns.name).c_str(), O_RDONLY);
        bool moved = home >= 0 && fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
        if (fd >= 0) close(fd);
        if (!moved) throw std::runtime_error("setns into " + ns.name + " failed");
    }
    ~Inside() {
        setns(home, CLONE_NEWNET);
        close(home);
    }
};

// The SNMP counters of the namespace that pid lives in, keyed like
// "Udp.InCsumErrors", from /proc/PID/net/snmp and /proc/PID/net/netstat.
using Counters = std::map<std::string, long long>;
Counters kernel_counters(pid_t pid) {
    Counters c;
    for (const char *file : {"snmp", "netstat"}) {
        std::ifstream f("/proc/" + std::to_string(pid) + "/net/" + file);
        std::string names, values;
        while (std::getline(f, names) && std::getline(f, values)) {
            std::istringstream n(names), v(values);
            std::string group, name;
            n >> group;
            v >> group;
            group.pop_back();  // the colon
            for (long long value; n >> name && v >> value;) c[group + "." + name] = value;
        }
    }
    return c;
}

// A counter that must exist: a misspelt name would make its check vacuous.
long long counter(const Counters &c, const std::string &name) {
    auto it = c.find(name);
    if (it == c.end()) ADD_FAILURE() << "the kernel has no counter " << name;
    return it == c.end() ? -1 : it->second;
}

// Every way the kernel can refuse an incoming IPv4/UDP datagram.
const char *const kErrorCounters[] = {
    "Ip.InHdrErrors",        "Ip.InAddrErrors",  "Ip.InUnknownProtos", "Ip.InDiscards",
    "Udp.InErrors",          "Udp.InCsumErrors", "Udp.NoPorts",        "Udp.RcvbufErrors",
    "IpExt.InTruncatedPkts", "IpExt.InCsumErrors"};

// The datalogger: the kernel of a namespace of its own behind a TUN device
// that the bridge serves from a pseudo-terminal, with a UDP echo service.
struct DataloggerSide {
    TempDir dir;
    Netns ns{"dl"};
    std::unique_ptr<Child> bridge, echo;
    std::string line;  // the slave path korvane (or the test) opens

    std::string pcap() const { return dir.file("line.pcap"); }
    Counters counters() const { return kernel_counters(bridge->pid); }

    void start(const std::vector<int> &echo_ports) {
        quiet_ipv6();
        bridge = std::make_unique<Child>(ns.exec({kBridge, kTun, pcap()}), "");
        ASSERT_TRUE(bridge->wait_for_out("\n", 10000)) << bridge->err();
        line = bridge->out();
        line.pop_back();
        ASSERT_TRUE(ip_ok({"-n", ns.name, "addr", "add", kDataloggerIp + "/24", "dev", kTun}));
        ASSERT_TRUE(ip_ok({"-n", ns.name, "link", "set", kTun, "up"}));
        // The datalogger answers whatever source korvane writes: the clients'
        // network is reached back over the line.
        ASSERT_TRUE(ip_ok({"-n", ns.name, "route", "add", kClientIp + "/32", "dev", kTun}));
        std::vector<std::string> argv = {find_tool("python3"), "-c", kEchoScript, kDataloggerIp};
        for (int p : echo_ports) argv.push_back(std::to_string(p));
        echo = std::make_unique<Child>(ns.exec(argv), "");
        ASSERT_TRUE(echo->wait_for_out("ready", 10000)) << echo->err();
    }

    // No IPv6 here: its router solicitations and reports would go out over
    // the line as frames nobody asked for.
    void quiet_ipv6() const {
        Inside in(ns);
        for (const char *conf : {"all", "default"}) {
            std::ofstream f(std::string("/proc/sys/net/ipv6/conf/") + conf + "/disable_ipv6");
            f << "1\n";  // absent when the kernel has no IPv6, which is as quiet
        }
    }
};

struct Translation {
    int host_port;
    int q330_port;
};

// True once the process pid has a UDP socket bound to port.
bool wait_bound(pid_t pid, int port) {
    char suffix[8];
    std::snprintf(suffix, sizeof suffix, ":%04X", port);
    for (long long end = now_ms() + 10000; now_ms() < end; usleep(10000)) {
        std::ifstream f("/proc/" + std::to_string(pid) + "/net/udp");
        std::string row, slot, local;
        while (std::getline(f, row)) {
            std::istringstream(row) >> slot >> local;
            if (local.ends_with(suffix)) return true;
        }
    }
    return false;
}

// korvane in a namespace of its own, where the clients live at 10.77.0.1.
struct RelaySide {
    TempDir dir;
    Netns ns{"relay"};
    std::unique_ptr<Child> proc;

    void start(const std::string &line, const std::vector<Translation> &xlat) {
        // The kernel behind the TUN device drops what arrives from 127.0.0.1,
        // so the clients need an address of their own; on lo it needs no
        // driver module.
        ASSERT_TRUE(ip_ok({"-n", ns.name, "addr", "add", kClientIp + "/32", "dev", "lo"}));
        std::ostringstream pf;
        pf << "default {\n  mode slip\n  device " << line << "\n  baud 115200\n  q330_ip_address "
           << kDataloggerIp << "\n  port_translations {\n";
        for (const auto &t : xlat) pf << "    " << t.host_port << " " << t.q330_port << "\n";
        pf << "  }\n}\n";
        dir.write("korvane.pf", pf.str());
        proc = std::make_unique<Child>(ns.exec({kKorvane, "-v"}), dir.path);
        for (const auto &t : xlat) ASSERT_TRUE(wait_bound(proc->pid, t.host_port)) << proc->err();
    }
};

sockaddr_in client_addr(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(kClient);
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    return a;
}

// A client socket in ns, bound to 10.77.0.1:port.
int client_socket(const Netns &ns, int port) {
    Inside in(ns);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = client_addr(port);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        throw std::runtime_error("client socket failed");
    return fd;
}

void send_to(int fd, int port, const std::string &payload) {
    sockaddr_in a = client_addr(port);
    if (sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a) !=
        static_cast<ssize_t>(payload.size()))
        throw std::runtime_error("sendto failed");
}

// The UDP source port the datalogger sees for a client: the client's port
// bytes in network order, taken by the line as a host-order number.
int line_port(int client_port) { return htons(static_cast<std::uint16_t>(client_port)); }

std::string random_bytes(std::mt19937 &rng, size_t n) {
    std::string s(n, '\0');
    for (auto &ch : s) ch = static_cast<char>(rng());
    return s;
}

std::string repeat(const std::string &unit, size_t n) {
    std::string s;
    while (s.size() < n) s += unit;
    return s.substr(0, n);
}

// What a line is likeliest to get wrong: one byte, sizes around the 28
// header bytes, the largest payload, and runs of the bytes SLIP escapes
// (also next to the bytes that follow an escape).
std::vector<std::string> edge_payloads() {
    std::mt19937 rng(9);
    std::vector<std::string> v = {"x"};
    for (size_t n : {27, 28, 29, 1023, 1024}) v.push_back(random_bytes(rng, n));
    v.push_back(std::string(1024, '\xC0'));
    v.push_back(std::string(1024, '\xDB'));
    v.push_back(repeat(std::string("\xC0\xDB\xDC\xDB\xDD\xC0\xDD\xDC", 8), 1021));
    return v;
}

// One frame of a capture as tshark dissected it, and what is wrong with it.
struct Dissected {
    std::map<std::string, std::string> field;
    std::vector<std::string> faults;
};

const std::vector<std::string> kFields = {"frame.len",   "ip.version",          "ip.hdr_len",
                                          "ip.len",      "ip.proto",            "ip.checksum.status",
                                          "ip.src",      "ip.dst",              "udp.checksum.status",
                                          "udp.srcport", "udp.dstport",         "udp.length"};

// Faults of one frame: anything but IPv4/UDP, a checksum status other than
// good (1), lengths that disagree with the frame.
std::vector<std::string> faults_of(std::map<std::string, std::string> &f) {
    std::vector<std::string> faults;
    if (f["ip.version"] != "4" || f["ip.proto"] != "17") faults.push_back("not IPv4/UDP");
    if (f["ip.checksum.status"] != "1") faults.push_back("ip checksum status " + f["ip.checksum.status"]);
    if (f["udp.checksum.status"] != "1") faults.push_back("udp checksum status " + f["udp.checksum.status"]);
    if (f["frame.len"] != f["ip.len"])
        faults.push_back("frame length " + f["frame.len"] + " != ip length " + f["ip.len"]);
    if (atoi(f["udp.length"].c_str()) != atoi(f["ip.len"].c_str()) - atoi(f["ip.hdr_len"].c_str()))
        faults.push_back("udp length " + f["udp.length"] + " disagrees with the ip length");
    return faults;
}

std::vector<Dissected> dissect(const std::string &pcap, std::string *diag) {
    std::vector<std::string> argv = {find_tool("tshark"), "-n", "-r", pcap, "-o", "ip.check_checksum:TRUE",
                                     "-o", "udp.check_checksum:TRUE", "-T", "fields", "-E", "separator=/t",
                                     "-E", "occurrence=f"};
    for (const auto &f : kFields) argv.insert(argv.end(), {"-e", f});
    RunResult r = run_program(argv, "", 120000);
    *diag = "tshark status " + std::to_string(r.status) + "\n" + r.err + r.out;
    std::vector<Dissected> frames;
    std::istringstream out(r.out);
    for (std::string row; std::getline(out, row);) {
        Dissected d;
        std::istringstream cells(row);
        std::string cell;
        for (const auto &name : kFields) {
            std::getline(cells, cell, '\t');
            d.field[name] = cell;
        }
        d.faults = faults_of(d.field);
        frames.push_back(d);
    }
    return frames;
}

std::string joined(const std::vector<std::string> &v) {
    std::string s;
    for (const auto &x : v) s += x + "; ";
    return s;
}

class KernelPeer : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why = missing_prerequisite();
        if (!why.empty()) GTEST_SKIP() << why;
    }
};

}  // namespace

TEST_F(KernelPeer, EchoThroughRelay) {
    DataloggerSide dl;
    ASSERT_NO_FATAL_FAILURE(dl.start({5330, 6330}));
    RelaySide relay;
    ASSERT_NO_FATAL_FAILURE(relay.start(dl.line, {{5330, 5330}, {6330, 6330}, {15330, 5330}}));
    // Two clients share host port 5330; ports chosen so that exchanging
    // their bytes gives another number.
    struct Client {
        int port, host_port, fd;
    };
    std::vector<Client> clients = {
        {40001, 5330, -1}, {40002, 6330, -1}, {40003, 15330, -1}, {40004, 5330, -1}};
    for (auto &c : clients) c.fd = client_socket(relay.ns, c.port);
    auto diag = [&] { return relay.proc->err() + dl.bridge->err(); };

    int sent = 0;
    for (const std::string &p : edge_payloads())
        for (const auto &c : clients) {
            send_to(c.fd, c.host_port, p);
            sent++;
            std::string got;
            int from = 0;
            ASSERT_TRUE(udp_recv(c.fd, &got, 10000, &from))
                << c.port << ", " << p.size() << " bytes\n" << diag();
            EXPECT_EQ(got, p) << c.port << ", " << p.size() << " bytes";
            EXPECT_EQ(from, c.host_port);
        }

    // A burst from every client at once fills the queues; each reply still
    // reaches its own client through its own host port.
    std::mt19937 rng(1055);
    std::map<int, std::multiset<std::string>> expected, got;
    for (int i = 0; i < 12; i++)
        for (const auto &c : clients) {
            std::string p = random_bytes(rng, 1 + rng() % 1024);
            send_to(c.fd, c.host_port, p);
            expected[c.port].insert(p);
            sent++;
        }
    for (const auto &c : clients)
        for (size_t i = 0; i < expected[c.port].size(); i++) {
            std::string r;
            int from = 0;
            ASSERT_TRUE(udp_recv(c.fd, &r, 10000, &from)) << c.port << " reply " << i << "\n" << diag();
            EXPECT_EQ(from, c.host_port);
            got[c.port].insert(r);
        }
    EXPECT_EQ(got, expected);
    for (const auto &c : clients) close(c.fd);

    // The kernel took every datagram korvane framed and answered each once.
    Counters k = dl.counters();
    EXPECT_EQ(counter(k, "Udp.InDatagrams"), sent);
    EXPECT_EQ(counter(k, "Udp.OutDatagrams"), sent);
    for (const char *name : kErrorCounters) EXPECT_EQ(counter(k, name), 0) << name;
    // korvane took every packet the kernel framed: at -v a refused one is a
    // warning line.
    std::string err = relay.proc->err();
    EXPECT_EQ(err.find("warning:"), std::string::npos) << err;
    EXPECT_EQ(err.find("fatal:"), std::string::npos) << err;
    // In the sanitizer builds korvane's reports go to the same log, and
    // they count even when the options let it run on.
    EXPECT_EQ(err.find("Sanitizer"), std::string::npos) << err;
    EXPECT_EQ(err.find("runtime error:"), std::string::npos) << err;

    // tshark finds every frame sound, and the ports as the line carries them.
    std::set<std::string> line_ports, dl_ports = {"5330", "6330"};
    for (const auto &c : clients) line_ports.insert(std::to_string(line_port(c.port)));
    std::string tshark_diag;
    std::vector<Dissected> frames = dissect(dl.pcap(), &tshark_diag);
    ASSERT_EQ(frames.size(), 2u * static_cast<size_t>(sent)) << tshark_diag;
    int up = 0;
    for (size_t i = 0; i < frames.size(); i++) {
        auto &f = frames[i].field;
        EXPECT_TRUE(frames[i].faults.empty()) << "frame " << i + 1 << ": " << joined(frames[i].faults);
        bool to_dl = f["ip.src"] == kClientIp;
        up += to_dl;
        EXPECT_EQ(f[to_dl ? "ip.dst" : "ip.src"], kDataloggerIp) << "frame " << i + 1;
        EXPECT_EQ(f[to_dl ? "ip.src" : "ip.dst"], kClientIp) << "frame " << i + 1;
        EXPECT_TRUE(line_ports.count(f[to_dl ? "udp.srcport" : "udp.dstport"])) << "frame " << i + 1;
        EXPECT_TRUE(dl_ports.count(f[to_dl ? "udp.dstport" : "udp.srcport"])) << "frame " << i + 1;
    }
    EXPECT_EQ(up, sent);
}

// The checks above can fail: frames damaged on the line are counted by the
// kernel and flagged by tshark.
TEST_F(KernelPeer, DamagedFramesAreCaught) {
    DataloggerSide dl;
    ASSERT_NO_FATAL_FAILURE(dl.start({5330}));
    int line = open(dl.line.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(line, 0);
    auto packet = [](const std::string &payload) {
        std::vector<unsigned char> p(dlframe::kMaxPacket);
        dlframe::Addressing a{kClient, kDatalogger, 40001, 5330, 1};
        int n = dlframe::build(a, reinterpret_cast<const unsigned char *>(payload.data()),
                               static_cast<int>(payload.size()), p.data(), static_cast<int>(p.size()));
        p.resize(static_cast<size_t>(std::max(n, 0)));
        return p;
    };
    auto put = [&](const std::vector<unsigned char> &p) {
        std::vector<unsigned char> frame(2 * p.size() + 2);
        int n = slip_encode(p.data(), static_cast<int>(p.size()), frame.data());
        write_all(line, frame.data(), static_cast<size_t>(n));
    };
    Counters before = dl.counters();

    // A sound frame first, answered by the echo: the path is alive.
    put(packet("sound"));
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    int complete = 0;
    for (long long end = now_ms() + 10000; complete == 0 && now_ms() < end;)
        for (char ch : read_for(line, 100, 500))
            complete += slip_decoder_feed(&dec, static_cast<unsigned char>(ch)) == 1;
    ASSERT_EQ(complete, 1) << dl.bridge->err();
    dlframe::Parsed reply{};
    ASSERT_EQ(dlframe::check(dec.bytes, dec.count, &reply), dlframe::kAccepted);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(reply.payload), static_cast<size_t>(reply.nbytes)),
              "sound");

    // One bit flipped in the IP header, one in the payload, and a frame cut
    // short of its IP length.
    std::vector<unsigned char> bad_ip = packet("bad ip header"), bad_udp = packet("bad payload"),
                               cut = packet(std::string(100, 'c'));
    bad_ip[4] ^= 0x01;
    bad_udp[30] ^= 0x01;
    cut.resize(cut.size() - 10);
    for (const auto &p : {bad_ip, bad_udp, cut}) put(p);
    // The bridge delivers them after this write returns: wait until each
    // counter shows its frame (a wrong count shows after the time-out).
    const std::map<std::string, long long> expected = {
        {"Udp.InDatagrams", 1}, {"Ip.InHdrErrors", 1}, {"IpExt.InCsumErrors", 1},
        {"Udp.InCsumErrors", 1}, {"Udp.InErrors", 1},  {"IpExt.InTruncatedPkts", 1}};
    std::map<std::string, long long> delta;
    for (long long end = now_ms() + 10000; delta != expected && now_ms() < end; usleep(20000)) {
        Counters after = dl.counters();
        for (const auto &e : expected) delta[e.first] = counter(after, e.first) - counter(before, e.first);
    }
    EXPECT_EQ(delta, expected);
    close(line);

    std::string tshark_diag;
    std::vector<Dissected> frames = dissect(dl.pcap(), &tshark_diag);
    ASSERT_EQ(frames.size(), 5u) << tshark_diag;
    EXPECT_TRUE(frames[0].faults.empty()) << joined(frames[0].faults);
    EXPECT_TRUE(frames[1].faults.empty()) << joined(frames[1].faults);
    EXPECT_EQ(joined(frames[2].faults), "ip checksum status 0; ");
    EXPECT_EQ(joined(frames[3].faults), "udp checksum status 0; ");
    EXPECT_NE(joined(frames[4].faults).find("frame length 118 != ip length 128"), std::string::npos)
        << joined(frames[4].faults);
}
