// The real binary against the command lines and parameter files it must accept or refuse.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "testutil.h"

namespace {

const std::string kKorvane = KORVANE_BUILD_DIR "/korvane";
const std::string kBanner = kKorvane + " : $Revision: 1.12 $ $Date: 2006/10/19 17:36:59 $\n";
const std::string kUsage = "\nusage: korvane [-v] [-help] [template]\n";
const std::string kFatal = "fatal: Parameter file parsing error.\n";
// A relay that gets past its configuration ends by itself at the first read of the link.
const std::string kDevice = "/nonexistent/korvane-tty";

using Edits = std::map<std::string, std::string>;
Edits::value_type xlat(std::string rows) { return {"port_translations", "{\n" + rows + "}"}; }

// A template block: edits replace lines by name, and "-" leaves a line out.
std::string render(const std::string &name, Edits lines) {
    lines.insert({{"mode", "slip"}, {"device", kDevice}, {"baud", "19200"}, {"flow", "none"},
                  {"q330_ip_address", "192.168.1.50"}, xlat("6330 5330\n10000 5330\n")});
    std::string s = name + " {\n";
    for (const auto &[key, value] : lines)
        if (value != "-") s += key + " " + value + "\n";
    return s + "}\n";
}

struct Case {
    std::vector<std::string> args;
    Edits edits;                       // of the "default" template
    std::vector<std::string> present;  // in this order, after the banner
    std::vector<std::string> absent;
    int status = 1;                    // also after the configuration, at the missing device
};

// Runs korvane in dir and checks its exit status and what it wrote.
void check(const std::string &dir, const Case &c) {
    std::vector<std::string> argv = {kKorvane};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    testutil::RunResult r = testutil::run_program(argv, dir, 20000);
    SCOPED_TRACE(testing::PrintToString(std::pair(c.args, c.edits)) + "\n" + r.err);
    EXPECT_EQ(r.status, c.status);
    size_t at = r.err.find(kBanner);
    EXPECT_NE(at, std::string::npos) << "banner";
    for (const std::string &text : c.present) {
        at = r.err.find(text, at == std::string::npos ? 0 : at);
        EXPECT_NE(at, std::string::npos) << "missing or out of order: " << text;
    }
    for (const std::string &text : c.absent) EXPECT_EQ(r.err.find(text), std::string::npos) << text;
}

const std::vector<std::string> kSummary = {
    "template          = default\n", "mode              = slip\n",
    "device            = " + kDevice + "\n", "baud              = 19200\n",
    "q330_ip_address   = 192.168.1.50\n", "port_translations = 10000 -> 5330\n",
    "                    6330 -> 5330\n"};
const std::vector<std::string> kNoSummary = {"template          =", kFatal};

// The "default" template refused with message, before any summary.
Case refused(const Edits &edits, const std::string &message, std::vector<std::string> absent = {}) {
    return {{}, edits, {message, kFatal}, absent};
}
Case param_error(const std::string &key, const std::string &value = "-") {
    return refused({{key, value}}, "parse_pf: parse_param(default->" + key + ") error.\n");
}
std::string illegal(const std::string &side, const std::string &text) {
    return "parse_pf: Illegal " + side + " port number '" + text +
           "' in default->port_translations array.\n";
}

}  // namespace

TEST(Cli, CommandLineAndParameterBlock) {
    const std::vector<Case> cases = {
        // No flow line is as good as "none", and so are "rtscts" and no translations at all.
        {{"-v"}, {{"flow", "-"}}, kSummary, {"flow              =", kFatal}},
        {{"-vvv", "-v"}, {{"flow", "rtscts"}, xlat("")},
         {"q330_ip_address   = 192.168.1.50\n"}, {"port_translations =", kFatal}},
        {{"-v", "mytemplate"}, {},
         {"template          = mytemplate\n", "q330_ip_address   = 10.9.8.7\n"}, {kFatal}},
        {{"mytemplate", "-v"}, {},
         {"warning: Unrecognized command argument 'mytemplate'.\n", kUsage}, kNoSummary},
        {{"-vvvv"}, {}, {"warning: Unrecognized option '-vvvv'.\n", kUsage}, kNoSummary},
        {{"-V"}, {}, {"warning: Unrecognized option '-V'.\n", kUsage}, kNoSummary},
        {{"-v", "-"}, {}, {"warning: Unrecognized option '-'.\n", kUsage}, kNoSummary},
        {{"-v", "nosuch"}, {}, {"parse_pf: parse_param(nosuch) error.\n", kFatal}, {}},
        refused({{"mode", "SLIP"}}, "parse_pf: Unrecognized default->mode = 'SLIP'.\n"),
        param_error("mode"),
        param_error("device"),
        param_error("baud", "fast"),
        refused({{"flow", "RTSCTS"}},
                "parse_pf: parse_param(default->flow) 'RTSCTS' unrecognized.\n"),
        param_error("q330_ip_address"),
        param_error("port_translations"),
        refused({xlat("65536 5330\n")}, illegal("host", "65536")),
        refused({xlat("5330 99\n")}, illegal("q330", "99")),
        refused({xlat("5330 65536\n")}, illegal("q330", "65536")),
        refused({xlat("4294967396 5330\n")}, illegal("host", "4294967396")),
        // Both ports bad: only the host port is named.
        refused({xlat("99 65536\n")}, illegal("host", "99"), {"Illegal q330"}),
        // The limits are legal, and trailing junk after a number is ignored.
        {{"-v"}, {xlat("100 65535\n5330x 6330\n65535 100\n")},
         {"port_translations = 100 -> 65535\n", "                    5330 -> 6330\n",
          "                    65535 -> 100\n"}, {kFatal}},
    };
    testutil::TempDir dir;
    for (const Case &c : cases) {
        dir.write("korvane.pf", render("default", c.edits) +
                                    render("mytemplate", {{"q330_ip_address", "10.9.8.7"}}));
        check(dir.path, c);
    }
}

TEST(Cli, HelpAndMissingFileNeedNoParameterFile) {
    testutil::TempDir empty;
    check(empty.path, {{"-vv", "-help", "-bogus"}, {}, {kUsage}, {"pfread", kNoSummary[0]}, 0});
    if (access("/etc/korvane.pf", F_OK) == 0) GTEST_SKIP() << "/etc/korvane.pf exists here";
    const std::string lookup = "parse_pf: pfread('korvane') error.\n";
    check(empty.path, {{"-v"}, {}, {lookup, kFatal}, {kNoSummary[0]}});
}
