#include "support/pf.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/containers.h"
#include "support/elog.h"
#include "testutil.h"

// The thread's registered messages, one a line, without time stamp and program name.
static std::string registered() {
    auto err = (testing::internal::CaptureStderr(), elog_clear_register(1), testing::internal::GetCapturedStderr());
    return std::regex_replace(err, std::regex("(^|\n)\\S+ \\S+ [^ :]+: "), "$1");
}

// A look-up as text: the int or string ("-" if the result was left alone), then " failed: " and what it registered.
static std::string look(Pf *pf, const char *name, int type, int required = 1) {
    void *p = nullptr;
    int i = -7, rc = parse_param(pf, name, type, required, type == PF_INT ? (void *)&i : &p);
    std::string out = type == PF_INT ? (i == -7 ? "-" : std::to_string(i)) : p ? "" : "-";
    if (type == PF_STRING && p) out = static_cast<char *>(p), free(p);
    return out + (rc < 0 ? " failed: " : "") + registered();
}

TEST(Pf, SyntaxAndEveryLookupCode) {
    const char sample[] =  // a byte-order mark, CRLF lines, no newline at the end
        "\xEF\xBB\xBF# comment\r\ndefault {      # the relay's block\r\n  mode  slip\n  baud  19200\n\n"
        "  baud  38400  # the later one wins\n  port_translations {\n    5330   5330\n    10000  6330\n  }\n  lone\n}\n"
        "other {\n  note  \"keeps  blanks # and \\\"quotes\\\" \\\\ \"   # comment\n  nested { \n  }\n}\nints {\n"
        " b -2147483648\n c +2147483647\n d 12x\n e \"\"\n f \" 12\"\n g +\n i 2147483648\n}\nflat  just a  value";
    Pf *pf = nullptr, *d = nullptr, *o = nullptr, *n = nullptr;
    ASSERT_EQ(pfparse_text(sample, "sample.pf", &pf), 0) << registered();
    for (auto [name, block] : {std::pair("default", &d), {"other", &o}, {"ints", &n}})
        ASSERT_EQ(parse_param(pf, name, PF_BLOCK, 1, block), 0) << name;
    const std::string no = "- failed: parse_param: '", null = "- failed: parse_param: null argument\n";
    const std::string scalar = "' is a scalar, not a block\n", block = "' is a block, not a scalar\n";
    const struct Row { Pf *in; const char *name; int type; std::string want; int required = 1; } rows[] = {
        {d, "mode", PF_STRING, "slip"}, {d, "lone", PF_STRING, ""}, {d, "baud", PF_INT, "38400"},
        {pf, "flat", PF_STRING, "just a  value"}, {n, "b", PF_INT, "-2147483648"}, {n, "c", PF_INT, "2147483647"},
        {o, "note", PF_STRING, "keeps  blanks # and \"quotes\" \\ "}, {d, "flow", PF_STRING, "-", 0},
        {n, "i", PF_INT, no + "i' is out of the int range: '2147483648'\n"},
        {d, "mode", PF_BLOCK, no + "mode" + scalar}, {d, "mode", PF_ARR, no + "mode" + scalar},
        {pf, "default", PF_STRING, no + "default" + block}, {pf, "default", PF_INT, no + "default" + block},
        {pf, "other", PF_ARR, no + "other' holds the block 'nested'; only name/value pairs are allowed\n"},
        {d, "mode", 3, no + "mode': unknown type code 3\n"}, {d, "flow", PF_STRING, no + "flow' is missing\n"},
        {nullptr, "mode", PF_INT, null}, {d, nullptr, PF_INT, null}};
    for (const Row &r : rows) EXPECT_EQ(look(r.in, r.name, r.type, r.required), r.want) << r.name;
    for (auto [name, text] : {std::pair("d", "12x"), {"e", ""}, {"f", " 12"}, {"g", "+"}})
        EXPECT_EQ(look(n, name, PF_INT), no + name + "' is not an integer: '" + text + "'\n");
    Arr *ports = nullptr;  // a block of scalars: name -> a malloc'ed copy of the value
    ASSERT_EQ(parse_param(d, "port_translations", PF_ARR, 1, &ports), 0);
    EXPECT_EQ(cntarr(ports), 2);
    for (auto [key, to] : {std::pair("5330", "5330"), {"10000", "6330"}}) EXPECT_STREQ((char *)getarr(ports, key), to);
    freearr(ports, free);
    EXPECT_EQ(pfparse_text(nullptr, "x", &pf) + parse_param(d, "mode", PF_STRING, 1, nullptr), -2);
    EXPECT_EQ(registered(), "pfparse_text: null argument\nparse_param: null argument\n");
    pffree(pf);
}

// Through files: every syntax error names its line (the NUL case needs the length), and how a name is looked up.
TEST(Pf, FileSyntaxErrorsAndLookup) {
    std::string deep, closes;  // one block too many; 64 are fine
    for (int i = 0; i < 65; ++i) deep += "a {\n", closes += "}\n";
    const struct Case { std::string text; int line; const char *why; } cases[] = {
        {"}", 1, "'}' without an open block"}, {"a {\n  b 1\n} x\n", 3, "text after '}'"},
        {"a {\n  b {\n  }\n  c {\n", 4, "block 'c' is never closed"}, {"# x\n{\n}\n", 2, "'{' without a block name"},
        {"a { b 1\n}\n", 1, "'{' not at the end of the line"}, {"\"note\" a\n", 1, "a name cannot be quoted"},
        {"n \"abc\\\"\n", 1, "unterminated quote"}, {"n \"a\\", 1, "unterminated quote"},
        {"note \"a\\nb\"\n", 1, "bad escape '\\n' in quotes (only \\\" and \\\\)"},
        {"note \"a\" b\n", 1, "text after the closing quote"},
        {"a {\n  5330 5330 }\n}\n", 2, "'}' must stand alone on its line"},
        {"port translations {\n}\n", 1, "'{' must end a line that holds only the block name"},
        {"a b\"c\n", 1, "'\"' inside an unquoted value (quote the whole value)"},
        {std::string("a 1\nb \0 2\n", 10), 2, "a NUL byte in the line"},
        {deep, 65, "blocks nested more than 64 deep"}, {deep.substr(4) + closes.substr(2), 0, ""}};
    testutil::TempDir dir;
    for (const Case &c : cases) {
        dir.write("bad.pf", c.text);
        Pf *pf = nullptr;
        std::string where = "pfread: " + dir.file("bad.pf") + ":" + std::to_string(c.line) + ": ";
        EXPECT_EQ((std::pair{pfread(dir.file("bad").c_str(), &pf), registered()}),
                  std::pair(c.line ? -1 : 0, c.line ? where + c.why + "\n" : "")) << c.text;
        pffree(pf);
    }
    for (std::string f : {"korvane.pf", "site.pf", "plain"}) dir.write(f, "where " + f + "\n");
    for (const char *sub : {"site", "dir.pf"}) std::filesystem::create_directory(dir.file(sub));  // not files: skipped
    const auto old_cwd = std::filesystem::current_path();
    std::filesystem::current_path(dir.path);
    const std::string none = "pfread: no parameter file for '";
    const std::string names[][2] = {
        {"korvane", "korvane.pf"}, {"korvane.pf", "korvane.pf"}, {"./site", "site.pf"}, {"./plain", "plain"},
        {"", "pfread: no parameter file name\n"}, {"./gone.pf", none + "./gone.pf': tried ./gone.pf\n"},
        {"absent", none + "absent': tried ./absent.pf, /etc/absent.pf\n"},
        {"./nothing", none + "./nothing': tried ./nothing, ./nothing.pf\n"},
        {"dir", none + "dir': tried ./dir.pf (not a regular file), /etc/dir.pf\n"}};
    for (auto &n : names) {
        Pf *pf = nullptr;
        EXPECT_EQ(pfread(n[0].c_str(), &pf) == 0 ? look(pf, "where", PF_STRING) : registered(), n[1]) << n[0];
        pffree(pf);
    }
    std::filesystem::current_path(old_cwd);
}
