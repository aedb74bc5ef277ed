#include "support/pf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "support/containers.h"
#include "support/elog.h"
#include "testutil.h"

namespace {

// The thread's registered messages, written out and emptied.
std::string registered() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}

// Expects exactly one registered message, and part in it.
void expect_one_message(const std::string &part) {
    std::string msg = registered();
    EXPECT_EQ(std::count(msg.begin(), msg.end(), '\n'), 1) << msg;
    EXPECT_NE(msg.find(part), std::string::npos) << msg << " wanted " << part;
}

std::string text(Pf *in, const char *name) {
    char *value = nullptr;
    EXPECT_GE(parse_param(in, name, PF_STRING, 1, &value), 0) << registered();
    std::string s = value ? value : "(none)";
    free(value);
    return s;
}

}  // namespace

TEST(Pf, SyntaxAndEveryLookupCode) {
    const char sample[] =  // a byte-order mark, CRLF lines, no newline at the end
        "\xEF\xBB\xBF# comment\r\ndefault {      # the relay's block\r\n"
        "  mode  slip\n  baud  19200\n\n  baud  38400  # the later one wins\n"
        "  port_translations {\n    5330   5330\n    10000  6330\n  }\n"
        "  lone\n}\n"
        "other {\n  note  \"keeps  blanks # and \\\"quotes\\\" \\\\ \"   # comment\n"
        "  nested { \n  }\n}\n"
        "flat  just a  value";
    Pf *pf = nullptr, *block = nullptr, *other = nullptr;
    ASSERT_EQ(pfparse_text(sample, "sample.pf", &pf), 0) << registered();
    ASSERT_GE(parse_param(pf, "default", PF_BLOCK, 1, &block), 0);
    ASSERT_GE(parse_param(pf, "other", PF_BLOCK, 1, &other), 0);
    EXPECT_EQ(text(block, "mode"), "slip");
    EXPECT_EQ(text(block, "lone"), "");
    EXPECT_EQ(text(pf, "flat"), "just a  value");
    EXPECT_EQ(text(other, "note"), "keeps  blanks # and \"quotes\" \\ ");
    int baud = 0;
    char *flow = nullptr;
    EXPECT_GE(parse_param(block, "baud", PF_INT, 1, &baud), 0);
    EXPECT_GE(parse_param(block, "flow", PF_STRING, 0, &flow), 0);  // absent, not required
    EXPECT_EQ(std::pair(baud, flow), std::pair(38400, static_cast<char *>(nullptr)));
    Arr *xlat = nullptr;
    ASSERT_GE(parse_param(block, "port_translations", PF_ARR, 1, &xlat), 0);
    ASSERT_EQ(cntarr(xlat), 2);
    EXPECT_STREQ(static_cast<char *>(getarr(xlat, "10000")), "6330");
    EXPECT_STREQ(static_cast<char *>(getarr(xlat, "5330")), "5330");
    freearr(xlat, free);
    EXPECT_EQ(registered(), "");

    struct Case { Pf *in; const char *name; int type; const char *why; };
    const Case failures[] = {
        {block, "flow", PF_STRING, "parse_param: 'flow' is missing\n"},
        {block, "mode", PF_BLOCK, "parse_param: 'mode' is a scalar, not a block\n"},
        {pf, "default", PF_STRING, "parse_param: 'default' is a block, not a scalar\n"},
        {pf, "other", PF_ARR, "parse_param: 'other' holds the block 'nested'; only name/value"},
        {block, "mode", 3, "parse_param: 'mode': unknown type code 3\n"}};
    for (const Case &c : failures) {
        void *result = nullptr;
        EXPECT_LT(parse_param(c.in, c.name, c.type, 1, &result), 0) << c.why;
        EXPECT_EQ(result, nullptr);
        expect_one_message(c.why);
    }
    pffree(pf);
}

TEST(Pf, IntegersWholeDecimalInRange) {
    const char *values[] = {"0012", "-2147483648", "+2147483647", "12x", "\"\"", "\" 12\"", "+",
                            "1.5", "2147483648", "-2147483649", "99999999999"};
    const int good[] = {12, -2147483647 - 1, 2147483647};  // the first three; the rest fail
    for (int i = 0; i < 11; ++i) {
        Pf *pf = nullptr;
        ASSERT_EQ(pfparse_text((std::string("baud ") + values[i] + "\n").c_str(), "i.pf", &pf), 0);
        int got = 5;
        EXPECT_EQ(parse_param(pf, "baud", PF_INT, 1, &got) >= 0, i < 3) << values[i];
        pffree(pf);
        EXPECT_EQ(got, i < 3 ? good[i] : 5) << values[i];
        if (i < 3) continue;
        std::string why = i < 8 ? "not an integer: '" : "out of the int range: '";
        expect_one_message("parse_param: 'baud' is " + why +
                           (values[i][0] == '"' ? "" : values[i]));
    }
}

TEST(Pf, EverySyntaxErrorNamesItsLine) {
    std::string deep;  // one block too many
    for (int i = 0; i < 65; ++i) deep += "a {\n";
    struct Case { std::string text; int line; const char *why; };
    const Case cases[] = {
        {"a 1\n}\n", 2, "'}' without an open block"}, {"a {\n  b 1\n} x\n", 3, "text after '}'"},
        {"a {\n}\n\ndefault {\n  b 1\n", 4, "block 'default' is never closed"},
        {"a {\n  b {\n  }\n", 1, "block 'a' is never closed"},
        {"a { b 1\n}\n", 1, "'{' not at the end of the line"},
        {"# x\n{\n}\n", 2, "'{' without a block name"},
        {"a 1\nnote \"abc\n", 2, "unterminated quote"}, {"n \"abc\\\"\n", 1, "unterminated quote"},
        {"note \"a\\nb\"\n", 1, "bad escape '\\n'"}, {"\"note\" a\n", 1, "a name cannot be quoted"},
        {"note \"a\" b\n", 1, "text after the closing quote"},
        {"a {\n  5330 5330 }\n}\n", 2, "'}' must stand alone on its line"},
        {"port translations {\n}\n", 1, "'{' must end a line that holds only the block name"},
        {"a b\"c\n", 1, "'\"' inside an unquoted value"},
        {std::string("a 1\nb \0 2\n", 10), 2, "a NUL byte"},
        {deep, 65, "blocks nested more than 64 deep"}};
    testutil::TempDir dir;
    for (const Case &c : cases) {
        dir.write("bad.pf", c.text);  // through a file: the NUL case needs the length
        Pf *pf = nullptr;
        EXPECT_NE(pfread(dir.file("bad").c_str(), &pf), 0) << c.text;
        EXPECT_EQ(pf, nullptr);
        expect_one_message("pfread: " + dir.file("bad.pf") + ":" + std::to_string(c.line) + ": " +
                           c.why);
    }
}

TEST(Pf, FileLookup) {
    testutil::TempDir dir;
    dir.write("korvane.pf", "where here\n");
    mkdir(dir.file("site").c_str(), 0755);  // a directory is skipped
    dir.write("site.pf", "where site\n");
    dir.write("plain", "where plain\n");
    char old_cwd[4096];
    ASSERT_NE(getcwd(old_cwd, sizeof old_cwd), nullptr);
    ASSERT_EQ(chdir(dir.path.c_str()), 0);
    const char *names[][2] = {{"korvane", "here"}, {"./site", "site"}, {"./plain", "plain"}};
    for (auto &n : names) {
        Pf *pf = nullptr;
        ASSERT_EQ(pfread(n[0], &pf), 0) << n[0] << registered();
        EXPECT_EQ(text(pf, "where"), n[1]) << n[0];
        pffree(pf);
    }
    Pf *pf = nullptr;
    EXPECT_NE(pfread("korvane-test-absent", &pf), 0);
    expect_one_message("pfread: no parameter file for 'korvane-test-absent': tried "
                       "./korvane-test-absent.pf, /etc/korvane-test-absent.pf\n");
    EXPECT_NE(pfread("./nothing", &pf), 0);
    expect_one_message("tried ./nothing, ./nothing.pf\n");
    ASSERT_EQ(chdir(old_cwd), 0);
}
