#include "support/sysutil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>

#include "testutil.h"

// First in the file: two threads make the very first call together and must share one table.
TEST(Sysutil, SignalTable) {
    const Signal_info *other = nullptr;
    std::thread thread([&other] { other = signal_bysig(SIGRTMIN + 3); });
    const Signal_info *mine = signal_bysig(SIGRTMIN + 3);
    thread.join();
    EXPECT_EQ(other, mine);
    std::string names;
    for (int sig : {SIGINT, SIGRTMIN, SIGRTMIN + 3, SIGRTMAX - 1})
        names += signal_bysig(sig)->name + std::string(" ");
    EXPECT_EQ(names, "SIGINT SIGRTMIN SIGRTMIN+3 SIGRTMAX-1 ");
    EXPECT_STREQ(signal_bysig(SIGINT)->description, "Interrupt");
    std::set<std::string> distinct;  // every number has its own SIG... name
    for (int sig = 1; sig <= SIGRTMAX; ++sig)
        if (const Signal_info *row = signal_bysig(sig);
            row->sig == sig && std::string(row->name).starts_with("SIG"))
            distinct.insert(row->name);
    EXPECT_EQ(int(distinct.size()), SIGRTMAX);
    for (int sig : {0, -1, SIGRTMAX + 1}) EXPECT_EQ(signal_bysig(sig)->sig, 0);
}

TEST(Sysutil, FdwaitOnAPipe) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    long long start = testutil::now_ms();
    EXPECT_EQ(fdwait(p[0], 300), 0);
    EXPECT_GE(testutil::now_ms() - start, 250);
    // A signal during the wait ends it as an error (even where calls are restarted), so that a
    // reader can leave.
    ASSERT_NE(signal(SIGUSR1, [](int) {}), SIG_ERR);
    std::thread kicker([self = pthread_self()] { usleep(200000), pthread_kill(self, SIGUSR1); });
    errno = 0;
    EXPECT_LT(fdwait(p[0], 20000), 0);
    EXPECT_EQ(errno, EINTR);
    kicker.join();
    char c;
    ASSERT_EQ(write(p[1], "x", 1), 1);
    EXPECT_GT(fdwait(p[0], 1000), 0);
    ASSERT_EQ(read(p[0], &c, 1), 1);
    close(p[1]);  // the writer vanished: readable, so that the read reports the end
    EXPECT_GT(fdwait(p[0], 1000), 0);
    close(p[0]);
    EXPECT_LT(fdwait(p[0], 1000), 0);
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

// The layout is the system's `hexdump -C` at every length around a line end, every byte value
// included (it adds a last line with the total, and squeezes repeated lines: none here).
TEST(Sysutil, HexdumpLayout) {
    EXPECT_EQ(dumped(""), "");
    EXPECT_EQ(hexdump(stdout, "x", -1), -1);
    std::string data;
    for (int i = 0; i < 256; ++i) data += char(i * 7 + 30);  // each byte value once
    testutil::TempDir dir;
    for (size_t n : {1, 15, 16, 17, 32, 33, 256}) {
        dir.write("data", data.substr(0, n));
        auto peer = testutil::run_program({"/usr/bin/hexdump", "-C", dir.file("data")}, dir.path);
        if (peer.status != 0) GTEST_SKIP() << "no /usr/bin/hexdump (scripts/deps installs it)";
        EXPECT_EQ(dumped(data.substr(0, n)), peer.out.substr(0, peer.out.size() - 9)) << n;
    }
}

TEST(Sysutil, DisorderedIsUniformOnTheUnitIntervalAndPerThread) {
    int bins[10] = {};
    for (int i = 0; i < 100000; ++i) {
        double r = disordered();
        ASSERT_TRUE(r >= 0.0 && r <= 1.0) << r;
        ++bins[std::min(9, int(r * 10))];
    }
    for (int b : bins) EXPECT_NEAR(b, 10000, 1000);
    double a[4], b[4];  // drawn by two new threads: their generators must be seeded apart
    std::thread ta([&a] { for (double &x : a) x = disordered(); });
    std::thread tb([&b] { for (double &x : b) x = disordered(); });
    ta.join(), tb.join();
    EXPECT_FALSE(std::equal(a, a + 4, b)) << "two threads drew the same sequence";
}
