#include "support/pf.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/containers.h"
#include "support/elog.h"
#include "testutil.h"

// The thread's registered messages, written out and emptied.
static std::string registered() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}

static std::string text(Pf *in, const char *name) {
    char *value = nullptr;
    EXPECT_GE(parse_param(in, name, PF_STRING, 1, &value), 0) << registered();
    std::string s = value ? value : "(none)";
    free(value);
    return s;
}

TEST(Pf, SyntaxAndEveryLookupCode) {
    const char sample[] =
        "\xEF\xBB\xBF# a byte-order mark, CRLF lines, no newline at the end\r\n"
        "default {      # the relay's block\r\n"
        "  mode  slip\n"
        "  baud  19200\n"
        "\n"
        "  baud  38400  # the later one wins\n"
        "  port_translations {\n"
        "    5330   5330\n"
        "    10000  6330\n"
        "  }\n"
        "  lone\n"
        "}\n"
        "other {\n"
        "  note  \"keeps  blanks # and \\\"quotes\\\" \\\\ \"   # comment\n"
        "  nested { \n"
        "  }\n"
        "}\n"
        "flat  just a  value";
    Pf *pf = nullptr, *block = nullptr, *other = nullptr, *nested = nullptr;
    ASSERT_EQ(pfparse_text(sample, "sample.pf", &pf), 0) << registered();
    ASSERT_GE(parse_param(pf, "default", PF_BLOCK, 1, &block), 0);
    ASSERT_GE(parse_param(pf, "other", PF_BLOCK, 1, &other), 0);
    ASSERT_GE(parse_param(other, "nested", PF_BLOCK, 1, &nested), 0);
    EXPECT_EQ(text(block, "mode"), "slip");
    EXPECT_EQ(text(block, "lone"), "");
    EXPECT_EQ(text(pf, "flat"), "just a  value");
    EXPECT_EQ(text(other, "note"), "keeps  blanks # and \"quotes\" \\ ");
    int baud = 0;
    EXPECT_GE(parse_param(block, "baud", PF_INT, 1, &baud), 0);
    EXPECT_EQ(baud, 38400);
    char *flow = nullptr;
    EXPECT_GE(parse_param(block, "flow", PF_STRING, 0, &flow), 0);
    EXPECT_EQ(flow, nullptr);
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
        {block, "mode", 3, "parse_param: 'mode': unknown type code 3\n"},
    };
    for (const Case &c : failures) {
        void *result = nullptr;
        EXPECT_LT(parse_param(c.in, c.name, c.type, 1, &result), 0) << c.why;
        EXPECT_EQ(result, nullptr);
        std::string msg = registered();
        EXPECT_EQ(std::count(msg.begin(), msg.end(), '\n'), 1) << msg;
        EXPECT_NE(msg.find(c.why), std::string::npos) << msg;
    }
    pffree(pf);
}

TEST(Pf, IntegersWholeDecimalInRange) {
    const char *values[] = {"0012", "-2147483648", "+2147483647", "12x", "\"\"", "\" 12\"", "+", "1.5",
                            "2147483648", "-2147483649", "99999999999"};
    const int good[] = {12, -2147483647 - 1, 2147483647};
    for (int i = 0; i < 11; ++i) {
        Pf *pf = nullptr;
        ASSERT_EQ(pfparse_text((std::string("baud ") + values[i] + "\n").c_str(), "i.pf", &pf), 0);
        int got = 5;
        int rc = parse_param(pf, "baud", PF_INT, 1, &got);
        pffree(pf);
        EXPECT_EQ(rc >= 0, i < 3) << values[i];
        EXPECT_EQ(got, i < 3 ? good[i] : 5) << values[i];
        if (i < 3) continue;
        std::string why = i < 8 ? "not an integer: '" : "out of the int range: '";
        std::string want = "parse_param: 'baud' is " + why + (values[i][0] == '"' ? "" : values[i]);
        EXPECT_NE(registered().find(want), std::string::npos) << want;
    }
}

TEST(Pf, EverySyntaxErrorNamesItsLine) {
    struct Case { std::string text; int line; const char *why; };
    const Case cases[] = {
        {"a 1\n}\n", 2, "'}' without an open block"},
        {"a {\n  b 1\n} x\n", 3, "text after '}'"},
        {"a {\n}\n\ndefault {\n  b 1\n", 4, "block 'default' is never closed"},
        {"a {\n  b {\n  }\n", 1, "block 'a' is never closed"},
        {"a { b 1\n}\n", 1, "'{' not at the end of the line"},
        {"a {}\n", 1, "'{' not at the end of the line"},
        {"# x\n{\n}\n", 2, "'{' without a block name"},
        {"a 1\nnote \"abc\n", 2, "unterminated quote"},
        {"note \"abc\\\"\n", 1, "unterminated quote"},
        {"note \"a\\nb\"\n", 1, "bad escape '\\n'"},
        {"note \"a\" b\n", 1, "text after the closing quote"},
        {"\"note\" a\n", 1, "a name cannot be quoted"},
        {"a {\n  5330 5330 }\n}\n", 2, "'}' must stand alone on its line"},
        {"port translations {\n}\n", 1, "'{' must end a line that holds only the block name"},
        {"a b\"c\n", 1, "'\"' inside an unquoted value"},
        {std::string("a 1\nb \0 2\n", 10), 2, "a NUL byte"},
        {[] { std::string s; for (int i = 0; i < 65; ++i) s += "a {\n"; return s; }(), 65,
         "blocks nested more than 64 deep"},
    };
    testutil::TempDir dir;
    for (const Case &c : cases) {
        dir.write("bad.pf", c.text);  // through a file: the NUL case needs the length
        Pf *pf = nullptr;
        EXPECT_NE(pfread(dir.file("bad").c_str(), &pf), 0) << c.text;
        EXPECT_EQ(pf, nullptr);
        std::string msg = registered();
        EXPECT_EQ(std::count(msg.begin(), msg.end(), '\n'), 1) << msg;
        std::string where = "pfread: " + dir.file("bad.pf") + ":" + std::to_string(c.line) + ": " + c.why;
        EXPECT_NE(msg.find(where), std::string::npos) << msg << " wanted " << where;
    }
}

TEST(Pf, FileLookup) {
    testutil::TempDir dir;
    dir.write("korvane.pf", "where here\n");
    mkdir(dir.file("sub").c_str(), 0755);
    mkdir(dir.file("sub/site").c_str(), 0755);  // a directory is skipped
    dir.write("sub/site.pf", "where sub\n");
    dir.write("plain", "where plain\n");
    char old_cwd[4096];
    ASSERT_NE(getcwd(old_cwd, sizeof old_cwd), nullptr);
    ASSERT_EQ(chdir(dir.path.c_str()), 0);
    const char *names[][2] = {{"korvane", "here"}, {"./sub/site", "sub"}, {"./plain", "plain"}};
    for (auto &n : names) {
        Pf *pf = nullptr;
        ASSERT_EQ(pfread(n[0], &pf), 0) << n[0] << registered();
        EXPECT_EQ(text(pf, "where"), n[1]) << n[0];
        pffree(pf);
    }
    Pf *pf = nullptr;
    EXPECT_NE(pfread("korvane-test-absent", &pf), 0);
    EXPECT_NE(pfread("sub/nothing", &pf), 0);
    std::string msg = registered();
    EXPECT_NE(msg.find("pfread: no parameter file for 'korvane-test-absent': tried "
                       "./korvane-test-absent.pf, /etc/korvane-test-absent.pf\n"), std::string::npos);
    EXPECT_NE(msg.find("tried sub/nothing, sub/nothing.pf\n"), std::string::npos);
    ASSERT_EQ(chdir(old_cwd), 0);
}
