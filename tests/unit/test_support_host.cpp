#include "support/host.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <ctime>
#include <string>
#include <thread>

namespace {

TEST(Host, NowName2ipAndSignals) {
    EXPECT_NEAR(std_now(), double(time(nullptr)), 2.0);
    std::uint32_t addr = 0;
    char text[16];
    ASSERT_EQ(name2ip("localhost", &addr, text), 0);
    EXPECT_EQ(std::memcmp(&addr, "\x7f\x00\x00\x01", 4), 0);  // network order as it lies in memory
    EXPECT_STREQ(text, "127.0.0.1");
    std::strcpy(text, "junk");
    EXPECT_EQ(name2ip("no-such-host.invalid", &addr, text), -1);
    EXPECT_EQ(addr, 0xffffffffu);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(ignoreSIGPIPE() + ignoreSIGALRM(), 0);
    struct sigaction pipe, alrm;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &pipe) + sigaction(SIGALRM, nullptr, &alrm), 0);
    EXPECT_TRUE(pipe.sa_handler == SIG_IGN && (pipe.sa_flags & SA_RESTART));
    EXPECT_TRUE(alrm.sa_handler == SIG_IGN && (alrm.sa_flags & SA_RESTART));
}

// Threads racing on unknown addresses 192.0.2.16 to .18 (TEST-NET-1) get -1 and the dotted
// text every time; each address is complained about once, the cache answering silently after.
TEST(Host, Ip2nameComplainsOncePerUnknownAddress) {
    testing::internal::CaptureStderr();
    auto racer = [] {
        char name[256];
        for (int i = 0; i < 30; i++) {
            EXPECT_EQ(ip2name(0xc0000210 + i % 3, name), -1);
            EXPECT_EQ(name, "192.0.2." + std::to_string(16 + i % 3));
        }
    };
    { std::jthread a(racer), b(racer), c(racer), d(racer); }
    std::string err = testing::internal::GetCapturedStderr();
    for (std::string a : {"16", "17", "18"}) {
        std::string msg = "Can't lookup hostname for ip address 192.0.2." + a + "\n";
        EXPECT_TRUE(err.find(msg) != std::string::npos && err.find(msg) == err.rfind(msg)) << err;
    }
}

}  // namespace
