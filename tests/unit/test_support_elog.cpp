#include "support/elog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <thread>

// What fn wrote to standard error, each line stripped of its time stamp and the program's base name, both checked.
static std::string logged(const std::function<void()> &fn) {
    std::string err = (testing::internal::CaptureStderr(), fn(), testing::internal::GetCapturedStderr());
    return std::regex_replace(err, std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} korvane: "), "");
}
static void print_register() { elog_clear_register(1); }

TEST(Elog, EveryKindOfLineAndTheErrorTextOfFlagOne) {
    char arg0[] = "/usr/local/bin/korvane", *argv[] = {arg0, nullptr}, other[] = "other", *none[] = {other, nullptr};
    elog_init(1, argv), elog_init(0, none);  // the base name of argv[0]; no arguments change nothing
    const struct Row { const char *behaviour; std::function<void()> call; const char *line; } rows[] = {
        {"notify is plain", [] { elog_notify(0, "note %d\n", 1); }, "note 1\n"},
        {"complain warns, newline or not", [] { elog_complain(0, "careful"); }, "warning: careful\n"},
        {"debug", [] { elog_debug(0, "detail\n"); }, "debug: detail\n"},
        {"flag 1: errno text", [] { errno = ENOENT, elog_notify(1, "open\n"); }, "open (No such file or directory)\n"},
        {"flag 1, errno 0: no text", [] { errno = 0, elog_complain(1, "recv\n"); }, "warning: recv\n"},
        {"an empty message", [] { elog_notify(0, "\n"); }, "\n"},
        {"a write error ends the line, not retried for ever, and errno is kept", [] {
             int saved = (elog_log(0, "lost\n"), dup(2));
             for (auto write_it : {elog_notify, elog_complain, elog_debug, elog_log})
                 EXPECT_EQ((close(2), errno = ENOENT, write_it(0, "lost\n"), elog_clear_register(1), errno), ENOENT);
             dup2(saved, 2), close(saved);
         }, ""}};
    for (const Row &r : rows) EXPECT_EQ(logged(r.call), r.line) << r.behaviour;
}

TEST(Elog, RegisterPerThreadOldestFirstBoundedToTheNewest) {
    EXPECT_EQ((errno = ENOENT, elog_log(1, "open failed\n"), errno), ENOENT);  // errno at the call, kept
    EXPECT_EQ((errno = EACCES, elog_log(0, "plain\n"), errno), EACCES);
    std::string other;  // another thread has its own register
    std::thread([&] { elog_log(0, "worker\n"), other = logged(print_register); }).join();
    EXPECT_EQ(other, "worker\n");
    EXPECT_EQ(logged(print_register), "open failed (No such file or directory)\nplain\n");
    EXPECT_EQ(logged(print_register), "");  // printing empties it
    elog_log(0, "dropped\n"), elog_clear_register(0);  // cleared unprinted
    std::string newest;  // a thread that never clears keeps only the newest messages
    for (int i = 0; i < ELOG_REGISTER_MAX + 3; i++) elog_log(0, "m%d\n", i);
    for (int i = 3; i < ELOG_REGISTER_MAX + 3; i++) newest += "m" + std::to_string(i) + "\n";
    EXPECT_EQ(logged(print_register), newest);
}

TEST(ElogDeathTest, DieWritesRegisteredMessagesFirstAndExitsOne) {
    EXPECT_EXIT((elog_log(0, "inner failure\n"), elog_die(0, "Parameter file parsing error.\n")),
                testing::ExitedWithCode(1), ": inner failure\n[^\n]* fatal: Parameter file parsing error\\.\n$");
}
