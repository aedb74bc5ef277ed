#include "support/host.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(Host, NowName2ipAndSignals) {
    EXPECT_NEAR(std_now(), double(time(nullptr)), 2.0);
    std::uint32_t addr = 0;
    char text[16];
    ASSERT_EQ(name2ip("localhost", &addr, text), 0);
    EXPECT_EQ(addr, htonl(0x7f000001));
    EXPECT_STREQ(text, "127.0.0.1");
    ASSERT_EQ(name2ip("127.1.2.3", &addr, text), 0);
    EXPECT_EQ(std::memcmp(&addr, "\x7f\x01\x02\x03", 4), 0);  // network order as it lies in memory
    std::strcpy(text, "junk");
    EXPECT_EQ(name2ip("no-such-host.invalid", &addr, text), -1);
    EXPECT_EQ(addr, 0xffffffffu);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(ignoreSIGPIPE() + ignoreSIGALRM(), 0);
    for (int sig : {SIGPIPE, SIGALRM}) {
        struct sigaction now;
        ASSERT_EQ(sigaction(sig, nullptr, &now), 0);
        EXPECT_TRUE(now.sa_handler == SIG_IGN && (now.sa_flags & SA_RESTART));
        EXPECT_EQ(raise(sig), 0);  // and the process is still here
    }
}

TEST(Host, Ip2nameComplainsOncePerUnknownAddress) {
    char name[256];
    EXPECT_EQ(ip2name(0x7f000001, name), 0);
    EXPECT_STREQ(name, "localhost");
    testing::internal::CaptureStderr();
    EXPECT_EQ(ip2name(0xc0000201, name), -1);  // 192.0.2.1, TEST-NET-1
    EXPECT_STREQ(name, "192.0.2.1");
    std::strcpy(name, "junk");
    EXPECT_EQ(ip2name(0xc0000201, name), -1);  // from the cache, silently
    EXPECT_STREQ(name, "192.0.2.1");
    // Threads racing on new addresses 192.0.2.16 to .18: still one complaint each.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([] {
            char local[256], text[16];
            std::uint32_t addr;
            for (int i = 0; i < 30; i++) ip2name(0xc0000210 + i % 3, local), name2ip("127.0.0.1", &addr, text);
        });
    for (auto &t : threads) t.join();
    std::string err = testing::internal::GetCapturedStderr();
    for (std::string a : {"1", "16", "17", "18"}) {
        std::string line = "Can't lookup hostname for ip address 192.0.2." + a + "\n";
        auto first = err.find(line);
        EXPECT_TRUE(first != std::string::npos && err.find(line, first + 1) == std::string::npos) << a << "\n" << err;
    }
}

}  // namespace
