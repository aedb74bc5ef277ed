// The modem dialogue against a modem scripted on the master side of a pseudo-terminal.
#include <gtest/gtest.h>
#include <termios.h>

#include <algorithm>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "testutil.h"

using Lines = std::vector<std::string>;
// Replies by command prefix, the first match wins: texts, each after its delay in ms.
using Script = std::vector<std::pair<std::string, std::vector<std::pair<int, std::string>>>>;

namespace {

// Expects part among the calling thread's registered messages, which are emptied.
void expect_registered(const std::string &part) {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(part), std::string::npos) << part;
}

// A serial link b on a pseudo-terminal with the usual modem strings (control lines if asked); its
// callbacks' findings (the idle callback returns 3 on its call number stop_at); and a modem on the
// master that answers each command line (up to "\r") by the script, OK where no prefix fits.
struct Modem : testing::Test {
    testutil::PtyPair pty;
    SerialBuf *b = nullptr;
    int idle_calls = 0, stop_at = 0;
    Lines lines, sent;
    Script script;
    std::jthread modem_thread;  // last: stopped before the pty closes

    static int on_idle(void *u, int) {
        auto *t = static_cast<Modem *>(u);
        return ++t->idle_calls == t->stop_at ? 3 : 0;
    }
    static int on_line(void *u, void *, char *line, int) {
        static_cast<Modem *>(u)->lines.emplace_back(line);
        return 0;
    }
    void make(int timeout, const char *prefix = "ATDT", int use_lines = 0) {
        serialbuf_destroy(b);
        b = serialbuf_create_serial(pty.slave_path.c_str(), 9600, 0, 256, timeout, 0, 1, on_idle,
                                    this, on_line, this, nullptr, nullptr, nullptr);
        serialbuf_set_modem_control(b, use_lines, 3000, "ATZ\r", "ATH\r", "ATS0=1\r", "ATS0=0\r",
                                    prefix, "\r", "OK", "RING", "BUSY", "CONNECT", "NO CARRIER");
    }
    void TearDown() override { serialbuf_destroy(b); }  // each test leaves nothing to hang up

    void modem(Script s) {
        script = std::move(s);
        script.push_back({"", {{0, "OK\r\n"}}});
        modem_thread = std::jthread([this](std::stop_token stop) {
            for (std::string in; !stop.stop_requested();) {
                in += testutil::read_for(pty.master, 20, 20);
                for (size_t end; (end = in.find('\r')) != in.npos; in.erase(0, end + 1)) {
                    sent.push_back(in.substr(0, end));
                    auto rule = std::find_if(script.begin(), script.end(), [&](auto &r) {
                        return sent.back().starts_with(r.first);
                    });
                    for (const auto &[delay, text] : rule->second) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
                        testutil::write_all(pty.master, text.data(), text.size());
                    }
                }
            }
        });
    }
    Lines modem_stop() {  // the commands the modem was sent
        modem_thread.request_stop();
        modem_thread.join();
        return std::exchange(sent, {});
    }
};

}  // namespace

TEST_F(Modem, CommandsPauseRetryAndRepliesAreAwaitedInOrder) {
    make(1000);
    ASSERT_EQ(serialbuf_open(b), 0);
    EXPECT_EQ(serialbuf_send_modem_string(b, "AT\r", "OK", 2), 4);  // merely open
    expect_registered("serialbuf_get_byte: not connected.");
    b->state = 3;  // as connect leaves it
    modem({{"ATZATE0", {{0, "OK\r\n"}}}, {"AT", {}}});
    long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_send_modem_string(b, "ATZ<sl=500000>ATE0\r", "OK", 2), 0);
    EXPECT_GE(testutil::now_ms() - t0, 450);  // the half-second pause
    testing::internal::CaptureStderr();
    EXPECT_EQ(serialbuf_send_modem_string(b, "AT\r", "OK", 2), 1);  // never answered
    EXPECT_NE(testing::internal::GetCapturedStderr().find("timeout...retrying"), std::string::npos);
    EXPECT_EQ(modem_stop(), (Lines{"ATZATE0", "AT", "AT", "AT"}));  // tries + 1 sends
    expect_registered("serialbuf_send_modem_string: timeout.");
    EXPECT_EQ(serialbuf_send_modem_string(b, "AT<sl=5", "OK", 2), -1);
    expect_registered("serialbuf_send_modem_string: string format error.");
    EXPECT_EQ(testutil::read_for(pty.master, 200, 1000), "");  // nothing was written
    b->wverbose = 1;  // a leading pause writes an empty piece first
    testing::internal::CaptureStdout();
    EXPECT_EQ(serialbuf_send_modem_string(b, "<sl=1000>AT\r", nullptr, 2), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "writing 0 bytes: \nwriting 3 bytes: AT\\r\n");
    EXPECT_EQ(testutil::read_at_least(pty.master, 3, 5000), "AT\r");

    testutil::write_all(pty.master, "xCONNECTyOKz", 12);  // wrong order
    EXPECT_EQ(serialbuf_read_until(b, "OK~CONNECT"), 1);
    testutil::write_all(pty.master, "at\0OK then CONNECT 9600\r\n", 25);
    EXPECT_EQ(serialbuf_read_until(b, "~OK~~CONNECT"), 0);
    char value[5];
    testutil::write_all(pty.master, "abcdefOK", 8);
    EXPECT_EQ(serialbuf_read_until_parse(b, "OK", value, sizeof value), 0);
    EXPECT_STREQ(value, "cdef");  // the last four characters before OK
    std::vector<int> matched;  // a repeated B is forgiven, a broken BU is not
    for (unsigned char c : std::string("BBUSY\r\nBUBUSY"))
        matched.push_back(serialbuf_process_rec_strings(b, c));
    EXPECT_EQ(matched, (std::vector<int>{0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0}));
    expect_registered("serialbuf_process_rec_strings: busy signal detected.");
    testutil::write_all(pty.master, "NO CARRIER\r\nrest", 16);
    unsigned char c = 0;
    int ret = 0;
    for (int i = 0; i < 20 && ret == 0; i++) ret = serialbuf_get_byte(b, &c, 0);
    // The R is delivered all the same; the rest of the read is dropped.
    EXPECT_EQ(std::tuple(ret, c, b->state, b->occupied), std::tuple(4, 'R', 2, 0));
    expect_registered("serialbuf_process_rec_strings: no carrier detected.");
}

TEST_F(Modem, DialsOutAndAnswers) {
    make(2000);
    // NO CARRIER in a reply before the call is made is no carrier loss.
    modem({{"ATDT556", {{200, "BUSY\r\n"}}},
           {"ATDT", {{200, "CONNECT 9600\r\n"}}},
           {"ATS0=0", {{0, "NO CARRIER\r\nOK\r\n"}}}});
    ASSERT_EQ(serialbuf_connect(b, 0, "5551234"), 0);
    EXPECT_EQ(std::tuple(b->state, b->rverbose, b->connecting), std::tuple(3, 0, 0));  // undone
    EXPECT_EQ(lines.empty() ? "" : lines.back(), "CONNECT 9600");
    EXPECT_EQ(serialbuf_connect(b, 0, ""), 0);  // hangs up first; an empty number dials
    EXPECT_EQ(serialbuf_connect(b, 0, "556"), 5);
    EXPECT_EQ(b->state, 2);
    expect_registered("serialbuf_send_modem_string(ATDT556\r) line busy.");
    make(2000, nullptr);  // no dial prefix: connected without dialling
    EXPECT_EQ(serialbuf_connect(b, 0, "555"), 0);
    make(2000);  // destroying a connected link hangs up
    EXPECT_EQ(modem_stop(), (Lines{"ATZ", "ATH", "ATS0=0", "ATDT5551234",              // dial
                                   "ATZ", "ATH", "ATZ", "ATH", "ATS0=0", "ATDT",       // again
                                   "ATZ", "ATH", "ATZ", "ATH", "ATS0=0", "ATDT556",    // busy,
                                   "ATDT556", "ATZ", "ATH", "ATS0=0", "ATZ", "ATH"}));  // retried

    stop_at = 2;  // answering: the owner gives up on a silent line, then a call comes
    modem({});
    EXPECT_EQ(serialbuf_connect(b, 1, nullptr), 3);
    EXPECT_EQ(std::tuple(idle_calls, b->state, b->timeout), std::tuple(2, 2, 2000));
    EXPECT_EQ(modem_stop(), (Lines{"ATZ", "ATH", "ATS0=1"}));
    stop_at = 0;
    modem({{"ATS0=1", {{0, "OK\r\n"}, {1200, "RING\r\n"}, {100, "CONNECT\r\n"}}}});
    EXPECT_EQ(serialbuf_connect(b, 1, nullptr), 0);
    EXPECT_EQ(b->state, 3);
    EXPECT_EQ(serialbuf_disconnect(b), 0);
    EXPECT_EQ(modem_stop(), (Lines{"ATZ", "ATH", "ATS0=1", "ATZ", "ATH"}));
}

TEST_F(Modem, ControlLinesOnlyOnSerialLinks) {
    const std::nullptr_t no = nullptr;
    auto *tcp = serialbuf_create_tcpclient("127.0.0.1", 9, 16, 0, 1, no, no, no, no, no, no, no);
    EXPECT_EQ(serialbuf_set_modem_control(tcp, 1, 0, "AT", no, no, no, no, no, no, no, no, no, no),
              -1);
    EXPECT_EQ(std::pair(tcp->modem_control, tcp->attention_string), std::pair(1, (char *)nullptr));
    expect_registered("Cannot set local mode for non-serial buffer.");
    EXPECT_EQ(serialbuf_set_modem_control(tcp, 0, 0, "AT", no, no, no, no, no, no, no, no, no, no),
              0);  // strings only are fine
    serialbuf_destroy(tcp);

    make(2000, "ATDT", 1);  // with control lines
    ASSERT_EQ(serialbuf_open(b), 0);
    termios t{};
    tcgetattr(pty.slave, &t);
    EXPECT_EQ(t.c_cflag & CLOCAL, 0u);  // a modem with lines must see its carrier
    // A pty has no modem lines: TIOCMGET fails there with ENOTTY, which counts as carrier present.
    EXPECT_EQ(serialbuf_isoffhook(pty.slave), 0);
    t.c_cflag |= CRTSCTS | CLOCAL;
    tcsetattr(pty.slave, TCSANOW, &t);
    EXPECT_EQ(serialbuf_hangup(pty.slave), 0);
    tcgetattr(pty.slave, &t);
    // Speed 0 and the low half cleared (a pty forces CS8 and CREAD back on); the upper half stays.
    EXPECT_EQ((std::vector<unsigned>{cfgetospeed(&t), t.c_cflag & 0xffff & ~tcflag_t(CS8 | CREAD),
                                     (t.c_cflag & CRTSCTS) != 0}),
              (std::vector<unsigned>{B0, 0, 1}));
}
