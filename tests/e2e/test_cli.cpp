// The real binary against the command line and parameter files it must
// accept or refuse, with the exact messages and exit statuses.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testutil.h"

namespace {

const std::string kKorvane = KORVANE_BUILD_DIR "/korvane";
const std::string kBanner = kKorvane + " : $Revision: 1.12 $ $Date: 2006/10/19 17:36:59 $\n";
const std::string kUsage = "\nusage: korvane [-v] [-help] [template]\n";
const std::string kFatal = "fatal: Parameter file parsing error.\n";
// A device that does not exist: a relay that gets past its configuration
// then ends by itself at the first read of the link instead of running on.
const std::string kDevice = "/nonexistent/korvane-tty";

// One template block; a field "-" leaves its line out.
struct Block {
    std::string mode = "slip", device = kDevice, baud = "19200", flow = "none";
    std::string ip = "192.168.1.50", xlat = "6330 5330\n10000 5330\n";
};

std::string render(const std::string &name, const Block &b) {
    std::string s = name + " {\n";
    const std::pair<const char *, std::string> lines[] = {
        {"mode", b.mode}, {"device", b.device}, {"baud", b.baud}, {"flow", b.flow}, {"q330_ip_address", b.ip}};
    for (const auto &[key, value] : lines)
        if (value != "-") s += std::string("    ") + key + "  " + value + "\n";
    if (b.xlat != "-") s += "    port_translations {\n" + b.xlat + "    }\n";
    return s + "}\n";
}

struct Case {
    std::vector<std::string> args;
    Block block;                       // the "default" template
    int status;                        // -1: the run goes past configuration, not checked
    std::vector<std::string> present;  // in this order
    std::vector<std::string> absent;
};

std::string illegal(const char *side, const char *text) {
    return std::string("parse_pf: Illegal ") + side + " port number '" + text +
           "' in default->port_translations array.\n";
}
std::string param_error(const char *key) { return "parse_pf: parse_param(default->" + std::string(key) + ") error.\n"; }

const std::vector<std::string> kSummary = {
    "template          = default\n", "mode              = slip\n", "device            = " + kDevice + "\n",
    "baud              = 19200\n", "q330_ip_address   = 192.168.1.50\n",
    "port_translations = 10000 -> 5330\n", "                    6330 -> 5330\n"};
const std::vector<std::string> kNoSummary = {"template          =", kFatal};

}  // namespace

TEST(Cli, CommandLineAndParameterBlock) {
    const std::vector<Case> cases = {
        {{}, {}, -1, {}, kNoSummary},
        {{"-v"}, {}, -1, kSummary, {"flow              =", kFatal}},
        {{"-vvv", "-v"}, {}, -1, kSummary, {kFatal}},
        {{"-v", "mytemplate"}, {}, -1, {"template          = mytemplate\n", "q330_ip_address   = 10.9.8.7\n"}, {}},
        {{"mytemplate", "-v"}, {}, 1, {"warning: Unrecognized command argument 'mytemplate'.\n", kUsage}, kNoSummary},
        {{"-vvvv"}, {}, 1, {"warning: Unrecognized option '-vvvv'.\n", kUsage}, kNoSummary},
        {{"-V"}, {}, 1, {"warning: Unrecognized option '-V'.\n", kUsage}, kNoSummary},
        {{"-v", "-"}, {}, 1, {"warning: Unrecognized option '-'.\n", kUsage}, kNoSummary},
        {{"-v", "nosuch"}, {}, 1, {"parse_pf: parse_param(nosuch) error.\n", kFatal}, {}},
        {{}, {.mode = "SLIP"}, 1, {"parse_pf: Unrecognized default->mode = 'SLIP'.\n", kFatal}, {}},
        {{}, {.mode = "-"}, 1, {param_error("mode"), kFatal}, {}},
        {{}, {.device = "-"}, 1, {param_error("device"), kFatal}, {}},
        {{}, {.baud = "fast"}, 1, {param_error("baud"), kFatal}, {}},
        {{}, {.flow = "RTSCTS"}, 1, {"parse_pf: parse_param(default->flow) 'RTSCTS' unrecognized.\n", kFatal}, {}},
        {{"-v"}, {.flow = "-"}, -1, kSummary, {kFatal}},
        {{"-v"}, {.flow = "rtscts"}, -1, kSummary, {kFatal}},
        {{}, {.ip = "-"}, 1, {param_error("q330_ip_address"), kFatal}, {}},
        {{}, {.xlat = "-"}, 1, {param_error("port_translations"), kFatal}, {}},
        {{}, {.xlat = "99 5330\n"}, 1, {illegal("host", "99"), kFatal}, {}},
        {{}, {.xlat = "65536 5330\n"}, 1, {illegal("host", "65536"), kFatal}, {}},
        {{}, {.xlat = "5330 99\n"}, 1, {illegal("q330", "99"), kFatal}, {}},
        {{}, {.xlat = "5330 65536\n"}, 1, {illegal("q330", "65536"), kFatal}, {}},
        {{}, {.xlat = "4294967396 5330\n"}, 1, {illegal("host", "4294967396"), kFatal}, {}},
        {{}, {.xlat = "99 65536\n"}, 1, {illegal("host", "99"), kFatal}, {"Illegal q330"}},
        {{"-v"}, {.xlat = "100 65535\n65535 100\n"}, -1,
         {"port_translations = 100 -> 65535\n", "                    65535 -> 100\n"}, {kFatal}},
        {{"-v"}, {.xlat = "5330x 6330\n"}, -1, {"port_translations = 5330 -> 6330\n"}, {kFatal}},
        {{"-v"}, {.xlat = ""}, -1, {"q330_ip_address   = 192.168.1.50\n"}, {"port_translations =", kFatal}},
    };
    testutil::TempDir dir;
    for (const Case &c : cases) {
        std::string pf = render("default", c.block) + render("mytemplate", {.ip = "10.9.8.7"});
        dir.write("korvane.pf", pf);
        std::vector<std::string> argv = {kKorvane};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        testutil::RunResult r = testutil::run_program(argv, dir.path, 20000);
        SCOPED_TRACE(testing::PrintToString(c.args) + "\n" + pf + "--- stderr:\n" + r.err);
        if (c.status >= 0) {
            EXPECT_EQ(r.status, c.status);
        }
        size_t at = r.err.find(kBanner);
        EXPECT_NE(at, std::string::npos) << "banner";
        for (const std::string &text : c.present) {
            at = r.err.find(text, at == std::string::npos ? 0 : at);
            EXPECT_NE(at, std::string::npos) << "missing or out of order: " << text;
        }
        for (const std::string &text : c.absent) EXPECT_EQ(r.err.find(text), std::string::npos) << text;
    }
}

TEST(Cli, HelpAndMissingFileNeedNoParameterFile) {
    testutil::TempDir empty;
    testutil::RunResult help = testutil::run_program({kKorvane, "-vv", "-help", "-bogus"}, empty.path);
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.err.find(kBanner), std::string::npos);
    EXPECT_TRUE(help.err.ends_with(kUsage)) << help.err;
    EXPECT_EQ(help.err.find("pfread"), std::string::npos) << help.err;

    if (access("/etc/korvane.pf", F_OK) == 0) GTEST_SKIP() << "/etc/korvane.pf exists on this machine";
    testutil::RunResult r = testutil::run_program({kKorvane, "-v"}, empty.path);
    EXPECT_EQ(r.status, 1);
    size_t inner = r.err.find("parse_pf: pfread('korvane') error.\n");
    ASSERT_NE(inner, std::string::npos) << r.err;
    EXPECT_NE(r.err.find(kFatal, inner), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("template          ="), std::string::npos);
}
