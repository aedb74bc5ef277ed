#include "support/elog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string printed_register() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}

// True when text is exactly these lines (regular expressions), each after the UTC time to the
// millisecond and the program's base name, as set below.
bool lines_are(const std::string &text, const std::vector<std::string> &lines) {
    std::string all;
    for (const auto &line : lines)
        all += "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} korvane: " + line + "\n";
    return std::regex_match(text, std::regex(all));
}

}  // namespace

TEST(Elog, LinesRegisterPerThreadAndErrorText) {
    char arg0[] = "/usr/local/bin/korvane";
    char *argv[] = {arg0, nullptr};
    elog_init(1, argv);
    testing::internal::CaptureStderr();
    elog_notify(0, "note %d\n", 1);
    elog_complain(0, "careful\n");
    elog_debug(0, "detail\n");
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(lines_are(out, {"note 1", "warning: careful", "debug: detail"})) << out;

    errno = ENOENT;
    elog_log(1, "open failed\n");  // flag 1: the error text of errno at the call
    EXPECT_EQ(errno, ENOENT);
    errno = EACCES;  // a later errno must not change what was registered; flag 0 adds nothing
    elog_log(0, "plain\n");
    std::string other;  // another thread has its own register
    std::thread t([&] { elog_log(0, "worker\n"), other = printed_register(); });
    t.join();
    EXPECT_TRUE(lines_are(other, {"worker"})) << other;
    std::string mine = printed_register();  // oldest first
    EXPECT_TRUE(lines_are(mine, {"open failed \\(No such file or directory\\)", "plain"})) << mine;
    EXPECT_EQ(printed_register(), "");  // printing empties it
    elog_log(0, "dropped\n");
    elog_clear_register(0);
    EXPECT_EQ(printed_register(), "");
}

TEST(ElogDeathTest, DieWritesRegisteredMessagesFirstAndExitsOne) {
    EXPECT_EXIT((elog_log(0, "inner failure\n"), elog_die(0, "Parameter file parsing error.\n")),
                testing::ExitedWithCode(1),
                "inner failure\n.* fatal: Parameter file parsing error\\.\n");
}
