#include "support/sysutil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "testutil.h"

// First in the file: two threads make the very first call together and must share one table.
// Every row is judged by the shell's `kill -l` (names) and the C library's strsignal (texts).
TEST(Sysutil, SignalTable) {
    const Signal_info *other = nullptr;
    std::thread thread([&other] { other = signal_bysig(SIGRTMIN); });
    const Signal_info *mine = signal_bysig(SIGRTMIN);
    EXPECT_EQ(mine, (thread.join(), other));
    auto shell = testutil::run_program({"/bin/bash", "-c", "kill -l"}, "/");
    std::istringstream list(shell.out);
    std::map<int, std::string> names;
    for (std::string number, name; list >> number >> name;) names[std::stoi(number)] = name;
    ASSERT_EQ(names[SIGINT], "SIGINT") << shell.out;
    for (int sig = 1; sig <= SIGRTMAX; ++sig) {
        std::string want = names.count(sig) ? names[sig] + "|" + strsignal(sig)
                                            : "SIG" + std::to_string(sig) + "|Real-time signal reserved by the C library";
        const Signal_info *row = signal_bysig(sig);
        EXPECT_EQ(row->name + ("|" + std::string(row->description)) + "|" + std::to_string(row->sig),
                  want + "|" + std::to_string(sig));
    }
    for (int sig : {0, -1, SIGRTMAX + 1}) EXPECT_EQ(signal_bysig(sig), signal_bysig(0)) << sig;
    EXPECT_EQ(signal_bysig(0)->name + std::string(signal_bysig(0)->description), "UNKNOWNUnknown signal");
}

// Quiet until the time-out; a signal ends the wait as an error (even where calls are restarted),
// so that a reader can leave; data, a vanished writer and a closed descriptor.
TEST(Sysutil, FdwaitOnAPipe) {
    int p[2];
    char c;
    ASSERT_EQ(pipe(p), 0);
    long long start = testutil::now_ms();
    EXPECT_EQ(fdwait(p[0], 300), 0);
    EXPECT_GE(testutil::now_ms() - start, 250);
    ASSERT_NE(signal(SIGUSR1, [](int) {}), SIG_ERR);
    std::thread kicker([self = pthread_self()] { usleep(200000), pthread_kill(self, SIGUSR1); });
    int rc = fdwait(p[0], -1);
    EXPECT_EQ(std::pair(rc, errno), std::pair(-1, EINTR));
    kicker.join();
    ASSERT_EQ(write(p[1], "x", 1), 1);
    EXPECT_EQ(fdwait(p[0], 1000), 1);
    ASSERT_EQ(read(p[0], &c, 1) + close(p[1]), 1);
    EXPECT_EQ(fdwait(p[0], 1000), 1);
    close(p[0]);
    rc = fdwait(p[0], 1000);
    EXPECT_EQ(std::pair(rc, errno), std::pair(-1, EBADF));
}

// The layout is the system's `hexdump -C` at every length around a line end, every byte value
// included (it adds a last line with the total, and squeezes repeated lines: none here).
TEST(Sysutil, HexdumpLayout) {
    char *text = nullptr;
    size_t size = 0;
    std::string data;
    for (int i = 0; i < 256; ++i) data += char(i * 7 + 30);  // each byte value once
    testutil::TempDir dir;
    for (size_t n : {0, 1, 15, 16, 17, 32, 33, 256}) {
        dir.write("data", data.substr(0, n));
        auto peer = testutil::run_program({"/usr/bin/hexdump", "-C", dir.file("data")}, dir.path);
        if (peer.status != 0) GTEST_SKIP() << "no /usr/bin/hexdump (scripts/deps installs it)";
        FILE *f = open_memstream(&text, &size);
        EXPECT_EQ(hexdump(f, data.data(), int(n)), 0);
        fclose(f);
        EXPECT_EQ(std::string(text, size), peer.out.substr(0, peer.out.size() - 9)) << n;
        free(text);
    }
    EXPECT_EQ(hexdump(stdout, "x", -1) + hexdump(nullptr, "x", 1) + hexdump(stdout, nullptr, 1), -3);
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
    std::thread([&a] { for (double &x : a) x = disordered(); }).join();
    std::thread([&b] { for (double &x : b) x = disordered(); }).join();
    EXPECT_FALSE(std::equal(a, a + 4, b)) << "two threads drew the same sequence";
}
