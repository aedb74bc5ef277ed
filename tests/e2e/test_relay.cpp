// The real korvane judged by its exit status and whole log: against command
// lines and parameter files, and between loopback UDP clients and a pseudo-
// terminal on which the test plays the datalogger with the RFC-only codec.
#include <arpa/inet.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <memory>

#include <gtest/gtest.h>

#include "testutil.h"

using namespace testutil;
using S = std::string;
using Lines = std::vector<S>;
using Edits = std::map<S, S>;

namespace {

constexpr std::uint32_t kLogger = 0xC0A80132, kLoopback = 0x7F000001;  // 192.168.1.50, 127.0.0.1
const S kBin = KORVANE_BUILD_DIR "/korvane", kNoTty = "/nonexistent/korvane-tty";
const S kBanner = kBin + " : $Revision: 1.12 $ $Date: 2006/10/19 17:36:59 $";
const S kFatal = "fatal: Parameter file parsing error.";
const S kUsage = "usage: korvane [-v] [-help] [template]";

Lines operator+(Lines a, const Lines &b) { return a.insert(a.end(), b.begin(), b.end()), a; }

// A relay past its configuration on kNoTty ends at its first read of the line.
const Lines kNoTtyEnd = {
    "serialbuf_open: open('" + kNoTty + "') error. (No such file or directory)",
    "udp_open: serialbuf_open() error. (No such file or directory)", "udp_read: udp_open(0) error.",
    "fatal: korvane_run_q330_read_thread: udp_read() error."};

// A template block; edits replace lines by name, and "-" leaves one out.
S block(const S &name, Edits lines) {
    lines.insert({{"mode", "slip"}, {"device", kNoTty}, {"baud", "19200"}, {"flow", "none"},
                  {"q330_ip_address", "192.168.1.50"}, {"port_translations", "{\n}"}});
    S s = name + " {\n";
    for (const auto &[key, value] : lines) s += value == "-" ? "" : key + " " + value + "\n";
    return s + "}\n";
}

// The banner and the summary of -v for a block, its translations given in order.
Lines summary(Edits b, const Lines &xlat) {
    Lines s = {kBanner};
    b.insert({{"template", "default"}, {"mode", "slip"}, {"device", kNoTty}, {"baud", "19200"},
              {"q330_ip_address", "192.168.1.50"}});
    for (S key : {"template", "mode", "device", "baud", "q330_ip_address"})
        s.push_back(key + S(18 - key.size(), ' ') + "= " + b[key]);
    for (const S &x : xlat) s.push_back((s.size() == 6 ? "port_translations = " : S(20, ' ')) + x);
    return s;
}

// The log without time stamps, program name or thread start lines, whose
// order is the scheduler's: those go to *starts, sorted.
Lines log_of(const S &err, Lines *starts = nullptr) {
    Lines log, started;
    for (S l : log_lines(err)) {
        if (l.starts_with("korvane: ")) l.erase(0, 9);
        (l.ends_with(": Starting...") ? started : log).push_back(l);
    }
    std::sort(started.begin(), started.end());
    return starts ? *starts = started, log : log;
}

// korvane in a temporary directory on a pseudo-terminal line; host port i
// goes to the datalogger's port 5330 + 1000 i; by default two, the first below 10000.
struct Relay {
    TempDir dir;
    PtyPair line;
    std::vector<int> ports;
    std::unique_ptr<Child> proc;
    SlipReader reader;
    std::deque<S> frames;

    explicit Relay(Lines args, std::vector<int> host = {fixed_udp_port(1024, 9999), fixed_udp_port()})
        : ports(host) {
        S xlat = "{\n";
        for (size_t i = 0; i < ports.size(); i++)
            xlat += std::to_string(ports[i]) + " " + std::to_string(5330 + 1000 * i) + "\n";
        dir.write("korvane.pf", block("default", {{"device", line.slave_path}, {"baud", "115200"},
                                                  {"port_translations", xlat + "}"}}));
        proc = std::make_unique<Child>(Lines{kBin} + args, dir.path);
        for (int port : ports) EXPECT_TRUE(wait_udp_bound(port, 10000)) << port;
    }
    // The next frame off the line: "<refused>" when it fails a check, "<none>" when none came.
    Datagram next(int timeout_ms = 10000) {
        for (long long end = now_ms() + timeout_ms; frames.empty() && now_ms() < end;)
            for (S &f : reader.feed(read_for(line.master, 20, 200))) frames.push_back(f);
        Datagram d;
        if (frames.empty()) return d.payload = "<none>", d;
        if (!datagram_parse(frames.front(), &d)) d.payload = "<refused>";
        return frames.pop_front(), d;
    }
    // A datagram from the datalogger's port sport to dst:dport.
    void send(std::uint32_t dst, std::uint16_t dport, const S &data, std::uint16_t sport = 5330) {
        S frame = slip_frame(datagram_packet({kLogger, dst, sport, dport, 7, 0, 64, data}));
        write_all(line.master, frame.data(), frame.size());
    }
    void reply(const Datagram &to, const S &payload) { send(to.src, to.sport, payload, to.dport); }
};

// A UDP client on 127.0.0.1, closed with its scope.
struct Client {
    int port = 0, fd = udp_socket(&port);
    ~Client() { close(fd); }
    S recv(int timeout_ms = 5000, int *from = nullptr) {
        S got;
        return udp_recv(fd, &got, timeout_ms, from) ? got : "<none>";
    }
};

// The port a client's datagram carries on the line: its network-order bytes
// read as a host-order number, exchanged on a little-endian host.
std::uint16_t line_port(int port) { return htons(static_cast<std::uint16_t>(port)); }

}  // namespace

TEST(Relay, CommandLineAndParameterBlock) {
    // Host ports that sort as text the other way round from their numbers.
    const S low = std::to_string(fixed_udp_port(5000, 9999));
    const S high = std::to_string(fixed_udp_port());
    const Edits two = {{"port_translations", "{\n" + low + " 5330\n" + high + " 5330\n}"}};
    const Lines two_rows = {high + " -> 5330", low + " -> 5330"};
    // "address:port" toward the datalogger must fit 127 characters.
    const S fits = S(114, '0') + "12.9.8.7", too_long = "0" + fits;
    auto with = [&](Edits e) { return e.insert(two.begin(), two.end()), e; };
    auto refused = [&](Edits e, const S &why) {
        return std::tuple(Lines{}, with(e), Lines{kBanner, "parse_pf: " + why, kFatal});
    };
    // A parameter the reader refuses, and why ("-": left out).
    auto unread = [&](const S &key, const S &value = "-", const S &why = "is missing") {
        auto c = refused({{key, value}}, "parse_param(default->" + key + ") error.");
        std::get<2>(c).insert(std::get<2>(c).begin() + 1, "parse_param: '" + key + "' " + why);
        return c;
    };
    auto illegal = [&](const S &side, const S &text, const S &rows) {
        return refused({{"port_translations", "{\n" + rows + "}"}}, "Illegal " + side +
                       " port number '" + text + "' in default->port_translations array.");
    };
    auto unknown = [&](Lines args, const S &what) {
        return std::tuple(args, two, Lines{kBanner, "warning: Unrecognized " + what + ".", kUsage});
    };
    const std::vector<std::tuple<Lines, Edits, Lines>> cases = {
        // No flow line is as good as "none", and so are "rtscts" and no translations at all.
        {{"-v"}, with({{"flow", "-"}}), summary({}, two_rows) + kNoTtyEnd},
        {{"-vvv", "-v"}, {{"flow", "rtscts"}}, summary({}, {}) + kNoTtyEnd},
        {{}, two, Lines{kBanner} + kNoTtyEnd},
        {{"-v", "other"}, two,
         summary({{"template", "other"}, {"q330_ip_address", "10.9.8.7"}}, two_rows) + kNoTtyEnd},
        unknown({"other", "-v"}, "command argument 'other'"),
        unknown({"-vvvv"}, "option '-vvvv'"),
        unknown({"-v", "-"}, "option '-'"),
        {{"-v", "nosuch"}, two,
         {kBanner, "parse_param: 'nosuch' is missing", "parse_pf: parse_param(nosuch) error.",
          kFatal}},
        refused({{"mode", "SLIP"}}, "Unrecognized default->mode = 'SLIP'."),
        unread("mode"),
        unread("device"),
        unread("baud"),
        unread("baud", "fast", "is not an integer: 'fast'"),
        refused({{"flow", "RTSCTS"}}, "parse_param(default->flow) 'RTSCTS' unrecognized."),
        unread("flow", "{\n}", "is a block, not a scalar"),
        unread("q330_ip_address"),
        unread("port_translations"),
        illegal("host", "65536", "65536 5330\n"),
        illegal("host", "99", "99 5330\n"),
        illegal("q330", "99", low + " 99\n"),
        illegal("q330", "65536", low + " 65536\n"),
        illegal("host", "4294967396", "4294967396 5330\n"),
        illegal("host", "99", "99 65536\n"),  // both bad: only the host port is named
        // The limits are legal, and junk after a number is ignored.
        {{"-v"}, {{"port_translations", "{\n" + high + " 100\n" + low + "x 65535\n}"}},
         summary({}, {high + " -> 100", low + " -> 65535"}) + kNoTtyEnd},
        {{"-v"}, with({{"q330_ip_address", fits}}),
         summary({{"q330_ip_address", fits}}, two_rows) + kNoTtyEnd},
        refused({{"q330_ip_address", too_long}},
                "default->q330_ip_address '" + too_long + ":5330' is longer than 127 characters."),
    };
    TempDir dir, empty;
    for (auto &[args, edits, log] : cases) {
        S other = block("other", with({{"q330_ip_address", "10.9.8.7"}}));
        dir.write("korvane.pf", block("default", edits) + other);
        RunResult r = run_program(Lines{kBin} + args, dir.path, 20000);
        EXPECT_EQ(r.status, 1) << testing::PrintToString(args);
        EXPECT_EQ(log_of(r.err), log) << testing::PrintToString(edits);
    }
    // -help needs no parameter file, and ends well.
    RunResult r = run_program({kBin, "-vv", "-help", "-bogus"}, empty.path);
    EXPECT_EQ(std::pair(r.status, log_of(r.err)), std::pair(0, Lines{kBanner, kUsage}));
    if (access("/etc/korvane.pf", F_OK) == 0) GTEST_SKIP() << "/etc/korvane.pf exists here";
    EXPECT_EQ(log_of(run_program({kBin, "-v"}, empty.path).err),
              (Lines{kBanner,
                     "pfread: no parameter file for 'korvane': tried ./korvane.pf, /etc/korvane.pf",
                     "parse_pf: pfread('korvane') error.", kFatal}));
}

// Each level's whole log for one exchange; options do not add up, the last wins.
TEST(Relay, EachLevelWritesItsWholeLog) {
    const S ask = S(32, '\xab') + "\x01", answer = "\x10";
    for (auto [args, level] : std::vector<std::pair<Lines, int>>{
             {{}, 0}, {{"-vv", "-v"}, 1}, {{"-vvv", "-vv"}, 2}, {{"-v", "-vvv"}, 3}}) {
        Relay r(args);
        Client c;
        udp_send_to(c.fd, r.ports[0], ask);
        Datagram d = r.next();
        ASSERT_EQ(d.payload, ask);
        r.reply(d, answer);
        ASSERT_EQ(c.recv(), answer);
        S cl = "127.0.0.1:" + std::to_string(c.port), p0 = std::to_string(r.ports[0]);
        S p1 = std::to_string(r.ports[1]), host = S(5 - p0.size(), '0') + p0;  // 4 digits, padded
        Lines want = {kBanner}, started = {"q330_read_thread", "q330_write_thread"}, starts, own;
        // The summary lists the host ports in ascending text order.
        Lines rows = {p0 + " -> 5330", p1 + " -> 6330"};
        if (p1 < p0) std::swap(rows[0], rows[1]);
        if (level > 0) want = summary({{"device", r.line.slave_path}, {"baud", "115200"}}, rows);
        for (S t : {"udp_read_thread(", "udp_write_thread("})
            started = started + Lines{t + p0 + ")", t + p1 + ")"};
        for (S &s : started) s = "korvane_run_" + s + ": Starting...";
        std::sort(started.begin(), started.end());
        for (auto [header, bytes] : std::vector<std::array<S, 2>>{
                 {"URD:" + cl + "->" + host + ":", ask},
                 {"QWR:" + cl + "->192.168.1.50:5330:", ask},
                 {"QRD:192.168.1.50:5330->" + cl + ":", answer},
                 {"UWR:" + host + "->" + cl + ":", answer}})
            if (level > 1) want = want + Lines{header} + log_lines(dump(header.substr(0, 4), bytes));
        EXPECT_EQ(r.proc->stop(SIGINT), 128 + SIGINT) << level;  // at once and silently
        // The endpoints' own dumps and the frame dumps of level 3 come among the others.
        Lines log = log_of(r.proc->err(), &starts);
        std::erase_if(log, [&](const S &l) {
            bool mine = l.starts_with("debug: ") || l.starts_with("SLS:") || l.starts_with("SLR:");
            return mine && (own.push_back(l), true);
        });
        EXPECT_EQ(log, want) << level;
        EXPECT_EQ(starts, level > 0 ? started : Lines{}) << level;
        EXPECT_EQ(own.empty(), level < 3) << level;
    }
}

// Frames carry the client as their sender; each reply goes back to its client
// through the host port that client used last, and nowhere when none used it.
// With the line stopped, one datagram is in the writer's hands, ten wait in the
// queue and one more for room in it; once the line moves, all arrive. When the
// line's far end closes: status 1, the fatal line last, within 5 s.
TEST(Relay, RepliesFollowClientsTenWaitForAStoppedLineAndItsEndIsFatal) {
    Relay r({"-vv"});
    Client c1, c2;
    // END and ESC pass whole; identification counts up by one per frame.
    const std::vector<std::pair<Client *, S>> sent = {
        {&c1, "ask 1"}, {&c2, "ask 2"}, {&c1, S("\xC0\xDB\xC0 x \xDB", 6)}, {&c1, "to B"}};
    Datagram d;
    for (size_t i = 0; i < sent.size(); i++) {
        std::uint16_t id = d.id, q330 = i < 3 ? 5330 : 6330;
        udp_send_to(sent[i].first->fd, r.ports[i < 3 ? 0 : 1], sent[i].second);
        d = r.next();
        EXPECT_EQ(d.payload, sent[i].second);
        EXPECT_EQ(std::tuple(d.src, d.dst, d.sport, d.dport, d.frag, d.ttl),
                  std::tuple(kLoopback, kLogger, line_port(sent[i].first->port), q330,
                             std::uint16_t(0x4000), std::uint8_t(255)));
        EXPECT_TRUE(i == 0 || d.id == std::uint16_t(id + 1)) << d.id << " after " << id;
    }
    // Two clients behind one port, and the first one since moved to the second.
    r.send(kLoopback, line_port(c2.port), "for c2");
    r.send(0x0A010203, line_port(999), "nobody");
    r.reply(d, "for c1");
    int from1 = 0, from2 = 0;
    EXPECT_EQ(std::pair(c2.recv(5000, &from2), from2), std::pair(S("for c2"), r.ports[0]));
    EXPECT_EQ(std::pair(c1.recv(5000, &from1), from1), std::pair(S("for c1"), r.ports[1]));
    EXPECT_EQ(c2.recv(0), "<none>");
    // Dumped all the same, before it was found to have no route.
    EXPECT_TRUE(r.proc->wait_for_err("QRD:192.168.1.50:5330->10.1.2.3:999:\n", 5000));
    ASSERT_EQ(tcflow(r.line.slave, TCOOFF), 0);
    for (int i = 10; i < 30; i++) udp_send_to(c1.fd, r.ports[0], "burst " + std::to_string(i));
    EXPECT_TRUE(r.proc->wait_for_err(dump("URD:", "burst 21", " %02x", false), 10000));
    usleep(500000);
    EXPECT_FALSE(r.proc->wait_for_err(dump("URD:", "burst 22", " %02x", false), 0));
    ASSERT_EQ(tcflow(r.line.slave, TCOON), 0);
    for (int i = 10; i < 30; i++) EXPECT_EQ(r.next().payload, "burst " + std::to_string(i));
    close(r.line.master);
    r.line.master = -1;
    EXPECT_EQ(r.proc->wait_exit(5000), 1);
    EXPECT_EQ(log_of(r.proc->err()).back(),
              "fatal: korvane_run_q330_read_thread: udp_read() error.");
}

// Empty and oversize datagrams among good ones, then 30,000 senders from six
// loopback addresses on ports no other test binds: the newest 4,096 keep their
// routes, a client that keeps sending or is answered keeps its own, and memory
// stays flat; nor do SIGPIPE and SIGALRM stop it. (Line noise is the
// endpoint's test.) Nothing is logged at level 0; SIGTERM ends it at once.
TEST(Relay, FloodAndSignalsNeitherStopNorGrowIt) {
    constexpr int kSenders = 30000, kRoutes = 4096, kLegitEvery = 3000;
    Relay r({}, {fixed_udp_port()});
    Client legit;
    const Lines good = {"one", S(1024, 'x')};
    for (const S &g : good)
        for (const S &text : {S(), S(1025, 'y'), S(4000, 'z'), g})
            udp_send_to(legit.fd, r.ports[0], text);
    for (const S &g : good) ASSERT_EQ(r.next().payload, g);
    Datagram last;
    auto exchange = [&](const S &text) {
        udp_send_to(legit.fd, r.ports[0], text);
        last = r.next();
        ASSERT_EQ(last.payload, text);
        r.reply(last, "re " + text);
        EXPECT_EQ(legit.recv(), "re " + text);
    };
    exchange("hello");
    for (int sig : {SIGPIPE, SIGALRM}) kill(r.proc->pid, sig);
    [[maybe_unused]] long rss = r.proc->rss_kib();  // unread under the sanitizers
    // {socket, host, port} of the newest sender to lose its route and the oldest to keep it.
    std::array<std::array<int, 3>, 2> kept{};
    for (int sent = 0, tried = 0; sent < kSenders;) {
        if (sent % kLegitEvery == 0) exchange("still here " + std::to_string(sent));
        // 100 at a time: what the relay's receive buffer surely holds.
        for (int end = sent + 100; sent < end; tried++) {
            int host = kLoopback + 1 + tried % 6, port = 25000 + tried / 6;
            ASSERT_LT(port, 32768) << "too few free ports for the flood";
            int fd = udp_socket(&port, host), k = sent - (kSenders - kRoutes);
            if (fd < 0) continue;  // taken by another program: the next one serves
            udp_send_to(fd, r.ports[0], "f");
            if (k == 0 || k == 1) kept[k] = {fd, host, port};
            else close(fd);
            sent++;
        }
        int seen = 0;
        while (seen < 100 && r.next().payload == "f") seen++;
        ASSERT_EQ(seen, 100) << "flood datagrams lost before " << sent;
    }
    for (int k : {0, 1}) r.send(kept[k][1], line_port(kept[k][2]), "to " + std::to_string(k));
    S got;
    ASSERT_TRUE(udp_recv(kept[1][0], &got, 5000));
    EXPECT_FALSE(udp_recv(kept[0][0], &got, 0)) << "evicted too late";
    // A reply counts as a use: a newcomer now takes the place of the sender after it.
    Client newcomer;
    udp_send_to(newcomer.fd, r.ports[0], "f");
    ASSERT_EQ(r.next().payload, "f");
    r.send(kept[1][1], line_port(kept[1][2]), "again");
    EXPECT_TRUE(udp_recv(kept[1][0], &got, 5000)) << "a reply did not keep the route";
    exchange("after the flood");
    // Replies to the client and to nobody, 1,000 of each, every one freed.
    for (int i = 0; i < 1000; i += 100) {
        for (int j = 0; j < 100; j++) r.reply(last, "r"), r.send(0x0A010203, line_port(999), "x");
        for (int j = 0; j < 100; j++) ASSERT_EQ(legit.recv(30000), "r");
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they hold shadow memory and quarantine
    EXPECT_LT(r.proc->rss_kib() - rss, 1024) << rss << " KiB before";
#endif
    for (auto &k : kept) close(k[0]);
    EXPECT_EQ(r.proc->stop(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(log_of(r.proc->err()), Lines{kBanner});
}

// A host port held by another program ends the relay with status 1 and the
// messages naming the cause.
TEST(Relay, HostPortAlreadyBoundIsFatal) {
    int port = fixed_udp_port(), holder = udp_socket(&port, 0);
    Relay held({}, {port});
    EXPECT_EQ(held.proc->wait_exit(10000), 1);
    S p = std::to_string(port);
    EXPECT_EQ(log_of(held.proc->err()),
              (Lines{kBanner, "udp_open: bind() error. (Address already in use)",
                     "udp_read: udp_open(" + p + ") error.",
                     "fatal: korvane_run_udp_read_thread: udp_read(" + p + ") error."}));
    close(holder);
}
