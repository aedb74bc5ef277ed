#include "support/sysutil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "testutil.h"

// First in the file: several threads make the very first call together.
TEST(Sysutil, SignalTable) {
    std::vector<std::thread> threads;
    const Signal_info *rows[4] = {};
    for (auto &row : rows) threads.emplace_back([&row] { row = signal_bysig(SIGRTMIN + 3); });
    for (auto &t : threads) t.join();
    for (auto *row : rows) EXPECT_STREQ(row->name, "SIGRTMIN+3");
    EXPECT_STREQ(signal_bysig(SIGINT)->name, "SIGINT");
    EXPECT_STREQ(signal_bysig(SIGINT)->description, "Interrupt");
    EXPECT_STREQ(signal_bysig(SIGRTMIN)->name, "SIGRTMIN");
    EXPECT_STREQ(signal_bysig(SIGRTMAX - 1)->name, "SIGRTMAX-1");
    std::set<std::string> names;  // every number has its own SIG... name
    for (int sig = 1; sig <= SIGRTMAX; ++sig)
        if (signal_bysig(sig)->sig == sig && std::string(signal_bysig(sig)->name).rfind("SIG", 0) == 0)
            names.insert(signal_bysig(sig)->name);
    EXPECT_EQ(int(names.size()), SIGRTMAX);
    for (int sig : {0, -1, SIGRTMAX + 1}) EXPECT_EQ(signal_bysig(sig)->sig, 0);
}

static void on_signal(int) {}

TEST(Sysutil, FdwaitOnAPipe) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    long long start = testutil::now_ms();
    EXPECT_EQ(fdwait(p[0], 1000), 0);
    EXPECT_GE(testutil::now_ms() - start, 900);
    ASSERT_EQ(write(p[1], "x", 1), 1);
    EXPECT_GT(fdwait(p[0], 1000), 0);
    // A signal during the wait ends it as an error, so a reader can leave.
    struct sigaction sa = {}, old;
    sa.sa_handler = on_signal;  // no SA_RESTART: poll fails with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    int q[2];
    ASSERT_EQ(pipe(q), 0);
    pthread_t self = pthread_self();
    std::thread kicker([self] { usleep(200000), pthread_kill(self, SIGUSR1); });
    errno = 0;
    EXPECT_LT(fdwait(q[0], 20000), 0);
    EXPECT_EQ(errno, EINTR);
    kicker.join();
    sigaction(SIGUSR1, &old, nullptr);
    close(p[1]);  // the writer vanished: readable, so that the read reports the end
    EXPECT_GT(fdwait(p[0], 1000), 0);
    close(p[0]);
    EXPECT_LT(fdwait(p[0], 1000), 0);
    close(q[0]), close(q[1]);
}

static std::string dumped(const std::string &bytes) {
    char *text = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&text, &size);
    EXPECT_EQ(hexdump(f, bytes.data(), int(bytes.size())), 0);
    fclose(f);
    std::string out(text, size);
    free(text);
    return out;
}

TEST(Sysutil, HexdumpLayout) {
    EXPECT_EQ(dumped(std::string("E\0\0\x1c\0\x01@\0\xff\x11|\xc6\xc0\xa8\x01\x32~", 17)),
              "00000000  45 00 00 1c 00 01 40 00  ff 11 7c c6 c0 a8 01 32  |E.....@...|....2|\n"
              "00000010  7e                                                |~|\n");
    EXPECT_EQ(dumped(""), "");
    EXPECT_EQ(hexdump(stdout, "x", -1), -1);
    // The system's `hexdump -C` agrees at every length around a line end (it
    // adds a last line with the total, and squeezes repeated lines: none here).
    testutil::TempDir dir;
    for (int n : {1, 15, 16, 17, 32, 33, 256}) {
        std::string data;
        for (int i = 0; i < n; ++i) data += char(i * 7 + 30);
        dir.write("data", data);
        auto peer = testutil::run_program({"hexdump", "-C", dir.file("data")}, dir.path);
        if (peer.status != 0) GTEST_SKIP() << "no hexdump program";
        EXPECT_EQ(dumped(data), peer.out.substr(0, peer.out.rfind('\n', peer.out.size() - 2) + 1)) << n;
    }
}

TEST(Sysutil, DisorderedIsUniformOnTheUnitInterval) {
    constexpr int samples = 100000;
    int bins[10] = {};
    for (int i = 0; i < samples; ++i) {
        double r = disordered();
        ASSERT_TRUE(r >= 0.0 && r <= 1.0) << r;
        ++bins[std::min(9, int(r * 10))];
    }
    for (int b : bins) EXPECT_NEAR(b, samples / 10, samples / 100);
    double a[4], b[4];
    std::thread ta([&] { for (double &x : a) x = disordered(); });
    std::thread tb([&] { for (double &x : b) x = disordered(); });
    ta.join(), tb.join();
    EXPECT_FALSE(std::equal(a, a + 4, b)) << "two threads drew the same sequence";
}
