#include "support/elog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <string>
#include <thread>

static std::string printed_register() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}

TEST(Elog, RegisterPerThreadClearedWithOrWithoutPrinting) {
    elog_log(0, "main thread message\n");
    std::string other;
    std::thread t([&] { elog_log(0, "worker message\n"), other = printed_register(); });
    t.join();
    EXPECT_NE(other.find("worker message"), std::string::npos);
    EXPECT_EQ(other.find("main thread"), std::string::npos);
    elog_log(0, "second\n");
    std::string mine = printed_register();
    EXPECT_EQ(mine.find("worker"), std::string::npos);
    EXPECT_LT(mine.find("main thread message"), mine.find("second"));  // oldest first
    EXPECT_EQ(printed_register(), "");                                  // printing empties it
    elog_log(0, "dropped\n");
    elog_clear_register(0);
    EXPECT_EQ(printed_register(), "");
}

TEST(Elog, FlagOneAppendsTheErrorTextAndKeepsErrno) {
    errno = ENOENT;
    elog_log(1, "open failed\n");
    EXPECT_EQ(errno, ENOENT);
    elog_log(0, "plain\n");
    std::string out = printed_register();
    EXPECT_NE(out.find(": open failed (No such file or directory)\n"), std::string::npos) << out;
    EXPECT_NE(out.find(": plain\n"), std::string::npos) << out;
}

TEST(Elog, LineFormatAndPrefixes) {
    char arg0[] = "/usr/local/bin/korvane";
    char *argv[] = {arg0, nullptr};
    elog_init(1, argv);
    testing::internal::CaptureStderr();
    elog_notify(0, "note %d\n", 1);
    elog_complain(0, "careful\n");
    elog_debug(0, "detail\n");
    std::string out = testing::internal::GetCapturedStderr();
    std::string stamp = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} korvane: ";
    std::regex shape(stamp + "note 1\n" + stamp + "warning: careful\n" + stamp + "debug: detail\n");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
}

TEST(ElogDeathTest, DieWritesRegisteredMessagesFirstAndExitsOne) {
    EXPECT_EXIT((elog_log(0, "inner failure\n"), elog_die(0, "Parameter file parsing error.\n")),
                testing::ExitedWithCode(1), "inner failure\n.* fatal: Parameter file parsing error\\.\n");
}
