#include "support/sysutil.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "testutil.h"

// Every row is judged by the shell's `kill -l` (names) and the C library's strsignal (texts).
TEST(Sysutil, SignalTable) {
    std::istringstream list(testutil::run_program({"/bin/bash", "-c", "kill -l"}, "/").out);
    std::map<int, std::string> named;  // "name|description"
    for (std::string n, name; list >> n >> name;) named[std::stoi(n)] = name + "|" + strsignal(std::stoi(n));
    auto row = [](const Signal_info *r) { return std::to_string(r->sig) + " " + r->name + "|" + r->description; };
    for (int sig = 1; sig <= SIGRTMAX; ++sig) {
        std::string n = std::to_string(sig), reserved = "SIG" + n + "|Real-time signal reserved by the C library";
        EXPECT_EQ(row(signal_bysig(sig)), n + " " + (named.count(sig) ? named[sig] : reserved));
    }
    for (int sig : {0, -1, SIGRTMAX + 1}) EXPECT_EQ(row(signal_bysig(sig)), "0 UNKNOWN|Unknown signal") << sig;
}

// Quiet until the time-out; a signal ends the wait as an error (even where calls are restarted), so that a reader can
// leave; data, a vanished writer and a closed descriptor.
TEST(Sysutil, FdwaitOnAPipe) {
    int p[2];
    auto result = [](long rc) { return std::pair{rc, errno}; };  // errno read after the call
    ASSERT_EQ(pipe(p), 0);
    long long start = testutil::now_ms();
    EXPECT_EQ(fdwait(p[0], 300) + fdwait(p[0], 0), 0);  // 0: no wait at all
    EXPECT_GE(testutil::now_ms() - start, 250);
    ASSERT_NE(signal(SIGUSR1, [](int) {}), SIG_ERR);
    std::thread kicker([self = pthread_self()] { usleep(200000), pthread_kill(self, SIGUSR1); });
    EXPECT_EQ(result(fdwait(p[0], -1)), std::pair(-1L, EINTR));
    kicker.join();
    EXPECT_EQ((std::vector<long>{write(p[1], "x", 1), fdwait(p[0], 1000), read(p[0], &start, 1), close(p[1]),
                                 fdwait(p[0], 1000), close(p[0])}), (std::vector<long>{1, 1, 1, 0, 1, 0}));
    EXPECT_EQ(result(fdwait(p[0], 1000)), std::pair(-1L, EBADF));
}

// The system's `hexdump -C` less its total line (no line repeats: none squeezed), at each length around a line end.
TEST(Sysutil, HexdumpLayout) {
    std::string data;
    for (int i = 0; i < 256; ++i) data += char(i * 7 + 30);  // each byte value once
    testutil::TempDir dir;
    for (size_t n : {0, 1, 15, 16, 17, 32, 33, 256}) {
        dir.write("data", data.substr(0, n));
        auto peer = testutil::run_program({"/usr/bin/hexdump", "-C", dir.file("data")}, dir.path);
        if (peer.status != 0) GTEST_SKIP() << "no /usr/bin/hexdump (scripts/deps installs it)";
        testing::internal::CaptureStderr();  // not stdout, the stream it might wrongly fall back to
        EXPECT_EQ(hexdump(stderr, data.data(), int(n)), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), peer.out.substr(0, peer.out.size() - 9)) << n;
    }
    EXPECT_EQ(hexdump(stdout, "x", -1) + hexdump(nullptr, "x", 1) + hexdump(stdout, nullptr, 1), -3);
}

// 100000 draws fill ten bins of [0, 1] evenly; two new threads draw apart.
TEST(Sysutil, UniformRandomNumbers) {
    std::vector<int> bins(11), want = {10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 0};  // 0 outside
    for (double r = 0, i = 0; i < 100000; ++i) ++bins[(r = disordered()) < 0 || r > 1 ? 10 : std::min(9, int(r * 10))];
    for (int b = 0; b < 10; b++) bins[b] = (bins[b] + 500) / 1000;  // in thousands
    EXPECT_EQ(bins, want);
    double a[2][4];
    for (auto &row : a) std::thread([&row] { for (double &x : row) x = disordered(); }).join();
    EXPECT_FALSE(std::equal(a[0], a[0] + 4, a[1])) << "two threads drew the same sequence";
}
