#include "support/host.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "support/host_lookup.h"

TEST(Host, NowName2ipAndSignals) {
    using namespace std::chrono;  // to the microsecond, judged by the C++ clock
    auto clock = [] { return duration<double>(system_clock::now().time_since_epoch()).count(); };
    double before = clock(), now = std_now(), after = clock();
    EXPECT_TRUE(now >= before - 1e-6 && now <= after + 1e-6) << std::fixed << before << " " << now;
    std::uint32_t addr[3] = {0, 0x5a5a5a5a, 0};  // a guard between the two results
    char text[2][16] = {"", "junk"};
    EXPECT_EQ((std::vector<int>{name2ip("localhost", &addr[0], text[0]), name2ip(nullptr, &addr[2], text[1]),
                                name2ip("no-such-host.invalid", &addr[2], text[1])}), (std::vector<int>{0, -1, -1}));
    // In network order as it lies in memory; a failure leaves all ones and an empty text.
    EXPECT_EQ(memcmp(&addr, "\x7f\0\0\x01\x5a\x5a\x5a\x5a\xff\xff\xff\xff", 12), 0);
    EXPECT_EQ(std::string(text[0]) + "|" + text[1], "127.0.0.1|");
    EXPECT_EQ(ignoreSIGPIPE() + ignoreSIGALRM(), 0);
    for (struct sigaction a; int sig : {SIGPIPE, SIGALRM})
        EXPECT_TRUE(sigaction(sig, nullptr, &a) == 0 && a.sa_handler == SIG_IGN && (a.sa_flags & SA_RESTART)) << sig;
}

// A resolver that names 10.0.0.1, and 127.0.0.1 (as the shortcut must not), knows nothing else, and holds 192.0.2.99
// until released, for at most 10 s.
static std::atomic<int> lookups{0};
static std::atomic<bool> holding{false}, released{false}, released_in_time{false};
static bool fake_lookup(std::uint32_t ip, char *name) {
    ++lookups;
    for (int i = 0; ip == 0xc0000263 && i < 1000 && !released; i++)
        holding = true, std::this_thread::sleep_for(std::chrono::milliseconds(10));
    released_in_time = released.load();
    const char *known = ip == 0x0a000001 ? "ten-one" : ip == 0x7f000001 ? "resolver" : nullptr;
    return known && strcpy(name, known);
}

// ip2name's result and name, the look-ups it made, and "complained" for its one warning.
static std::string named(std::uint32_t ip) {
    char name[256] = "";
    testing::internal::CaptureStderr();
    int before = lookups, rc = (errno = EAGAIN, ip2name(ip, name));  // the warning adds no errno text
    std::string err = testing::internal::GetCapturedStderr();
    if (err.ends_with("warning: Can't lookup hostname for ip address " + std::string(name) + "\n")) err = " complained";
    return std::to_string(rc) + " " + name + " " + std::to_string(lookups - before) + err;
}

TEST(Host, Ip2nameCachesFailuresBoundedAndLooksUpOutsideItsLock) {
    char name[256];
    Ip2nameLookup resolver = ip2name_set_lookup(fake_lookup);
    EXPECT_EQ((std::pair{resolver(0x7f000001, name), std::string(name)}), std::pair(true, std::string("localhost")));
    const struct Row { const char *behaviour; std::uint32_t ip; const char *want; } rows[] = {
        {"loopback without the resolver", 0x7f000001, "0 localhost 0"}, {"a named host", 0x0a000001, "0 ten-one 1"},
        {"named hosts are not cached", 0x0a000001, "0 ten-one 1"},
        {"unknown: dotted, complained", 0xc0000210, "-1 192.0.2.16 1 complained"},
        {"then from the cache, silently", 0xc0000210, "-1 192.0.2.16 0"},
        {"every byte in its place", 0xc0a864c8, "-1 192.168.100.200 1 complained"}};
    for (const Row &r : rows) EXPECT_EQ(named(r.ip), r.want) << r.behaviour;
    // 255 more failures fill the cache past its bound: the oldest (192.0.2.16) is forgotten.
    for (std::uint32_t i = 0; i < IP2NAME_FAILURES_MAX - 1; i++) named(0xc6120000 + i);
    EXPECT_EQ(named(0xc0a864c8), "-1 192.168.100.200 0");
    EXPECT_EQ(named(0xc0000210), "-1 192.0.2.16 1 complained");
    // While one thread waits on a slow look-up, others are answered.
    std::thread slow([&name] { ip2name(0xc0000263, name); });
    while (!holding) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(named(0xc6120005), "-1 198.18.0.5 0");
    EXPECT_EQ(named(0x0a000001), "0 ten-one 1");
    released = true;
    slow.join();
    EXPECT_TRUE(released_in_time) << "a look-up waited for another thread's";
    EXPECT_EQ(ip2name_set_lookup(nullptr), fake_lookup);
}
