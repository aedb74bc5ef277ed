// The datagram endpoint on real loopback sockets. poll and sendto are wrapped
// here so that what no real socket shows in a test's time (the wait's 300 s
// slices, interrupted and short sends) can be scripted; unscripted, they pass on.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <thread>

#include "net/udp.h"
#include "stats/taverage.h"
#include "support/elog.h"
#include "support/host.h"
#include "testutil.h"

std::function<int(pollfd *, int)> fake_poll;
std::function<long(size_t)> fake_sendto;

extern "C" int poll(pollfd *fds, nfds_t n, int msec) {
    if (fake_poll) return fake_poll(fds, msec);
    static auto real = reinterpret_cast<int (*)(pollfd *, nfds_t, int)>(dlsym(RTLD_NEXT, "poll"));
    return real(fds, n, msec);
}

extern "C" ssize_t sendto(int fd, const void *b, size_t n, int f, const sockaddr *to, socklen_t tl) {
    if (fake_sendto) return fake_sendto(n);
    static auto real = reinterpret_cast<ssize_t (*)(int, const void *, size_t, int, const sockaddr *,
                                                    socklen_t)>(dlsym(RTLD_NEXT, "sendto"));
    return real(fd, b, n, f, to, tl);
}

namespace {

// The log written while f runs, without time stamps and program name.
template <class F> std::string logged(F f) {
    testing::internal::CaptureStderr();
    f();
    std::istringstream in(testing::internal::GetCapturedStderr());
    std::string out;
    for (std::string l; std::getline(in, l);) out += l.substr(l.find(": ") + 2) + "\n";
    return out;
}

std::string registered() { return logged([] { elog_clear_register(1); }); }

int resolutions = 0;
int counting_resolver(const char *name, std::uint32_t *ip, char *ipc) {
    resolutions++;
    return name2ip(name, ip, ipc);
}

// Collects verbose lines; the pause gives another thread's dump every chance to
// cut in, were the endpoint's mutex not held from a dump's first line to its last.
std::vector<std::string> lines;
std::mutex lines_guard;
void collect(void *, const char *line) {
    std::lock_guard lock(lines_guard);
    lines.push_back(line);
    usleep(100);
}

double sum(TAverage *avg) {  // what an average summed over the last 50 s
    double t = std_now() + 1, twin = 50, s = 0, ave = 0;
    taverage_get(avg, &t, &twin, &s, &ave);
    return s;
}

// An endpoint, a free port for it, and a loopback client socket.
struct NetUdp : testing::Test {
    UDP *udp = nullptr;
    int port = testutil::free_udp_port(), cport = 0, client = testutil::udp_socket_loopback(&cport);
    std::string got, from, me = "127.0.0.1:" + std::to_string(cport);
    void SetUp() override {
        ASSERT_EQ(udp_new(&udp), 0);
        udp_set_resolver(counting_resolver);
    }
    void TearDown() override {
        fake_poll = nullptr, fake_sendto = nullptr;
        udp_free(udp);
        close(client);
    }
    int read(int local_port, double timeout, int cap = 1024) {  // into got and from
        char buf[2048], text[256] = "";
        int n = cap, r = udp_read(udp, local_port, nullptr, text, buf, &n, timeout);
        if (r == 0) got.assign(buf, n), from = text;
        return r;
    }
    int write(int local_port, const std::string &to, const std::string &data) {
        return udp_write(udp, local_port, nullptr, to.c_str(), data.data(), int(data.size()));
    }
};

}  // namespace

TEST_F(NetUdp, OpensLazilyReopensResolvesOnceAndReportsFailures) {
    EXPECT_EQ(read(port, -1.0), UDP_READ_NOTHING);  // opens, bound before anything is sent
    int on[3] = {0, 0, 0};
    socklen_t len = sizeof(int);
    getsockopt(udp->fd, SOL_SOCKET, SO_KEEPALIVE, &on[0], &len);
    getsockopt(udp->fd, SOL_SOCKET, SO_BROADCAST, &on[1], &len);
    on[2] = (fcntl(udp->fd, F_GETFL) & O_NONBLOCK) != 0;
    EXPECT_EQ(std::vector<int>(on, on + 3), std::vector<int>({1, 1, 1}));
    testutil::udp_send_to(client, port, "to port");
    ASSERT_EQ(read(port, 5.0), UDP_READ_OK);
    EXPECT_EQ(got + " " + from, "to port " + me);
    // Re-opened on p2; a destination is resolved once per new text, and a text
    // that fails leaves the cached one as it was.
    int p2 = testutil::free_udp_port(), reply_from = 0;
    std::string by_name = "localhost:" + std::to_string(cport), huge(256, '1');
    std::vector<int> results;
    for (std::string to : {me, me, by_name, std::string("x.invalid:5000"), by_name, huge, std::string("nopo")})
        results.push_back(write(p2, to, to == me ? "a" : "b"));
    EXPECT_EQ(results, std::vector<int>({1, 1, 1, -1, 1, -1, -1}));
    EXPECT_EQ(resolutions, 3);
    EXPECT_EQ(registered(), "udp_setup_ipaddr: Can't locate server by name of 'x.invalid:5000'\n"
                            "udp_write: udp_setup_ipaddr(x.invalid:5000) error.\n"
                            "udp_write: destination '" + huge + "' longer than 255 characters.\n"
                            "udp_setup_ipaddr: no port number in hostport argument 'nopo'.\n"
                            "udp_write: udp_setup_ipaddr(nopo) error.\n");
    std::string all;
    while (testutil::udp_recv(client, &got, 300, &reply_from)) all += got;
    EXPECT_EQ(all + " " + std::to_string(reply_from), "aabb " + std::to_string(p2));
    udp_close(udp);
    EXPECT_EQ(read(cport, -1.0), -2);  // the client's port is taken
    EXPECT_EQ(registered(), "udp_open: bind() error. (Address already in use)\n"
                            "udp_read: udp_open(" + std::to_string(cport) + ") error.\n");
    char dev[64], to[256];  // setup_mode splits a device form and passes other text through
    std::string split;
    for (const char *arg : {"/dev/ttyS1:19200:q330:5330", "q330:5330", "/dev/ttyS1", "/dev/ttyS1:9600"})
        split += std::to_string(setup_mode(arg, dev, 0, to)) + " " + dev + " " + to + "|";
    EXPECT_EQ(split, "0 /dev/ttyS1 q330:5330|0  q330:5330|-1  q330:5330|-1  q330:5330|");
    EXPECT_EQ(registered(), "setup_mode: no baudrate number in hostport argument '/dev/ttyS1'.\n"
                            "setup_mode: no hostport in argument '/dev/ttyS1:9600'.\n");
}

// Empty and oversize datagrams are dropped with a warning naming the sender, and reading
// goes on; random drops both ways; every host datagram counts its bytes plus 42.
TEST_F(NetUdp, DropsEmptyOversizeAndRandomDatagramsAndReadsOn) {
    ASSERT_EQ(udp_setup_averages(udp, std_now() - 1, 1.0, 100.0, 1.0, 100.0, 1.0, 100.0), 0);
    udp_set_verbose(udp, 1);
    long long t = testutil::now_ms();
    EXPECT_EQ(read(port, 0.3), UDP_READ_TIMEOUT);
    EXPECT_GE(testutil::now_ms() - t, 250);
    for (const char *d : {"", "xxxxxxxxxxxxxxxxx", "", "yyyyyyyyyyyyyyyy", ""})
        testutil::udp_send_to(client, port, d);
    std::vector<int> results;
    std::string log = logged([&] {
        errno = EAGAIN;
        results = {read(port, 5.0, 16), read(port, -1.0)};
    });
    EXPECT_EQ(results, std::vector<int>({UDP_READ_OK, UDP_READ_NOTHING}));
    EXPECT_EQ(got, "yyyyyyyyyyyyyyyy");
    const std::string empty = "warning: udp_read: dropped an empty datagram from " + me + ".\n";
    EXPECT_EQ(log, empty + "warning: udp_read: dropped a 17-byte datagram from " + me +
                       ", larger than the 16-byte buffer.\n" + empty + empty);
    EXPECT_EQ(registered(), "");
    udp->drop_packet_pcnt = 100;
    udp->verbose_callback = collect;
    lines.clear();
    EXPECT_EQ(write(port, me, std::string(10, 'w')), 1);
    EXPECT_FALSE(testutil::udp_recv(client, &got, 300));
    testutil::udp_send_to(client, port, std::string(7, 'r'));
    EXPECT_EQ(read(port, 0.5), UDP_READ_TIMEOUT);
    EXPECT_EQ(lines, std::vector<std::string>({"Random drop packet on send",
                                               "Random drop packet on receive"}));
    EXPECT_EQ(sum(udp->bytes_read), 17 + 16 + 7 + 6 * 42);
    EXPECT_EQ(sum(udp->bytes_written), 10 + 42);
    EXPECT_EQ(sum(udp->datarate), 40 + 10 + 7 * 42);
}

// The wait's slices (at most 300 s, 0.1 s shorter each round), what poll's answers
// mean, and send failures: each message carries only the error of its own call.
TEST_F(NetUdp, WaitSlicesPollAnswersAndSendFailures) {
    std::vector<int> slices;
    fake_poll = [&](pollfd *, int msec) {
        slices.push_back(msec);
        errno = EINTR;
        return slices.size() < 3 ? 0 : -1;
    };
    EXPECT_EQ(read(port, 1000.0), UDP_READ_INTR);
    EXPECT_EQ(slices, std::vector<int>({300001, 299901, 299801}));
    std::string answers;
    for (auto [r, revents, err] : {std::tuple{1, POLLIN, 0}, {1, POLLRDNORM, 0}, {1, POLLRDBAND, 0},
                                   {1, POLLPRI, 0}, {1, POLLHUP, EAGAIN}, {1, POLLNVAL, EAGAIN},
                                   {0, 0, 0}, {-1, 0, EINTR}, {-1, 0, EAGAIN}, {-1, 0, ENOMEM}}) {
        fake_poll = [=](pollfd *p, int) { p->revents = short(revents), errno = err; return r; };
        int w = myfdwait(0, 5);
        answers += std::to_string(w) + (errno ? "e " : " ");
    }
    EXPECT_EQ(answers, "0 0 0 0 -1 -1 1 2e 1e -1e ");
    EXPECT_EQ(read(port, 1.0), -1);  // a failed poll: its own error text
    EXPECT_EQ(registered(), "udp_read: myfdwait() error. (Cannot allocate memory)\n");
    fake_poll = [](pollfd *p, int) { p->revents = POLLHUP, errno = EAGAIN; return 1; };
    EXPECT_EQ(read(port, 1.0), -1);
    EXPECT_EQ(registered(), "udp_read: myfdwait() error.\n");
    for (auto [sent, err] : {std::pair{-1L, EINTR}, {-1L, EPERM}, {4L, EAGAIN}}) {
        fake_sendto = [=](size_t) { errno = err; return sent; };
        EXPECT_EQ(write(0, me, "seven b"), -1);
    }
    EXPECT_EQ(registered(), "udp_write: sendto(" + me + ") interrupted. (Interrupted system call)\n"
                            "udp_write: sendto(" + me + ") error. (Operation not permitted)\n"
                            "udp_write: sendto(" + me + ") short by 3 bytes.\n");
}

TEST_F(NetUdp, VerboseDumpsNeverInterleave) {
    udp->verbose = 2;
    udp->verbose_callback = collect;
    lines.clear();
    ASSERT_EQ(write(0, me, "0123456789:;<=>?@ABCDEFGHIJKLMNOP"), 1);
    std::vector<std::string> want = {"udpw: 33 bytes to " + me + ":", "udpw: ", "udpw:  50"};
    for (char c = '0'; c < 'P'; c++) want[1] += " " + std::to_string(c / 16) + "0123456789ABCDEF"[c % 16];
    EXPECT_EQ(lines, want);
    auto writer = [&](char fill) {
        for (int i = 0; i < 50; i++) write(0, me, std::string(70, fill));
    };
    { std::jthread a(writer, 'A'), b(writer, 'B'); }
    ASSERT_EQ(lines.size(), 3 + 100u * 4);
    for (size_t i = 3; i < lines.size(); i += 4) {
        EXPECT_EQ(lines[i], "udpw: 70 bytes to " + me + ":");
        for (int k = 2; k < 4; k++) EXPECT_EQ(lines[i + k].substr(6, 3), lines[i + 1].substr(6, 3));
    }
}
