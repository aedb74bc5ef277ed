// The modem dialogue against a modem scripted on the master side of a
// pseudo-terminal.
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "testutil.h"

using testutil::PtyPair;
using Lines = std::vector<std::string>;

namespace {

std::string take_register() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}
bool has(const std::string &text, const std::string &part) { return text.find(part) != text.npos; }

// Every command line (up to "\r") is recorded and answered by the script:
// pieces of text, each after its delay in milliseconds.
struct ScriptedModem {
    using Script = std::function<std::vector<std::pair<int, std::string>>(const std::string &)>;
    int fd;
    Script script;
    std::mutex mutex;
    Lines commands;
    std::atomic<bool> stop{false};
    std::thread thread{[this] { run(); }};  // declared last: starts when all else is ready

    ScriptedModem(int master, Script s) : fd(master), script(std::move(s)) {}
    ~ScriptedModem() {
        stop = true;
        thread.join();
    }
    void run() {
        std::string line;
        char c;
        while (!stop) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0 || read(fd, &c, 1) != 1) continue;
            if (c != '\r') {
                line += c;
                continue;
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                commands.push_back(line);
            }
            for (const auto &[delay, text] : script(line)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(delay));
                testutil::write_all(fd, text.data(), text.size());
            }
            line.clear();
        }
    }
    Lines seen() {
        std::lock_guard<std::mutex> lock(mutex);
        return commands;
    }
};

// OK to everything, except the dial and no-listen commands.
ScriptedModem::Script usual(std::string dial_reply, std::string nolisten_reply = "OK\r\n") {
    return [=](const std::string &c) -> std::vector<std::pair<int, std::string>> {
        if (c.rfind("ATDT", 0) == 0) return {{200, dial_reply}};
        return {{0, c == "ATS0=0" ? nolisten_reply : "OK\r\n"}};
    };
}

struct Seen {
    int idle_calls = 0, stop_at = 0;
    Lines lines;
};
int on_idle(void *u, int) {
    auto *s = static_cast<Seen *>(u);
    return ++s->idle_calls == s->stop_at ? 3 : 0;
}
int on_line(void *u, void *, char *line, int) {
    static_cast<Seen *>(u)->lines.emplace_back(line);
    return 0;
}

// A serial link on the pty with the usual modem strings (strings only).
SerialBuf *modem_link(const PtyPair &pty, Seen *s, int timeout = 2000,
                      const char *prefix = "ATDT") {
    SerialBuf *b = serialbuf_create_serial(pty.slave_path.c_str(), 9600, 0, 256, timeout, 0, 1,
                                           on_idle, s, on_line, s, nullptr, nullptr, nullptr);
    EXPECT_EQ(serialbuf_set_modem_control(b, 0, 3000, "ATZ\r", "ATH\r", "ATS0=1\r", "ATS0=0\r",
                                          prefix, "\r", "OK", "RING", "BUSY", "CONNECT",
                                          "NO CARRIER"), 0);
    return b;
}

}  // namespace

TEST(ModemStrings, PausesAndRetries) {
    PtyPair pty;
    Seen s;
    SerialBuf *b = modem_link(pty, &s, 1000);
    ASSERT_EQ(serialbuf_open(b), 0);
    EXPECT_EQ(serialbuf_send_modem_string(b, "AT\r", "OK", 2), 4);  // merely open
    EXPECT_TRUE(has(take_register(), "serialbuf_get_byte: not connected."));
    b->state = 3;  // as connect leaves it
    {
        ScriptedModem modem(pty.master, [](const std::string &c) {
            std::vector<std::pair<int, std::string>> reply;
            if (c == "ATZATE0") reply.emplace_back(0, "OK\r\n");
            return reply;
        });
        long long t0 = testutil::now_ms();
        EXPECT_EQ(serialbuf_send_modem_string(b, "ATZ<sl=500000>ATE0\r", "OK", 2), 0);
        EXPECT_GE(testutil::now_ms() - t0, 450);  // the half-second pause
        testing::internal::CaptureStderr();
        EXPECT_EQ(serialbuf_send_modem_string(b, "AT\r", "OK", 2), 1);  // never answered
        EXPECT_TRUE(has(testing::internal::GetCapturedStderr(), "timeout...retrying"));
        EXPECT_EQ(modem.seen(), (Lines{"ATZATE0", "AT", "AT", "AT"}));
        EXPECT_TRUE(has(take_register(), "serialbuf_send_modem_string: timeout."));
    }
    EXPECT_EQ(serialbuf_send_modem_string(b, "AT<sl=5", "OK", 2), -1);
    EXPECT_TRUE(has(take_register(), "serialbuf_send_modem_string: string format error."));
    EXPECT_EQ(testutil::read_for(pty.master, 200, 1000), "");  // nothing was written
    b->wverbose = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(serialbuf_send_modem_string(b, "<sl=1000>AT\r", nullptr, 2), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "writing 0 bytes: \nwriting 3 bytes: AT\\r\n");
    EXPECT_EQ(testutil::read_at_least(pty.master, 3, 5000), "AT\r");
    serialbuf_clear_modem_control(b);  // no modem left to hang up
    serialbuf_destroy(b);
}

TEST(ModemStrings, AwaitsTextsInOrderAndMatchesRepliesSimply) {
    PtyPair pty;
    SerialBuf *b = modem_link(pty, nullptr, 1000);
    ASSERT_EQ(serialbuf_open(b), 0);
    b->state = 3;
    testutil::write_all(pty.master, "xCONNECTyOKz", 12);  // wrong order
    EXPECT_EQ(serialbuf_read_until(b, "OK~CONNECT"), 1);
    testutil::write_all(pty.master, "at\0OK then CONNECT 9600\r\n", 25);
    EXPECT_EQ(serialbuf_read_until(b, "~OK~~CONNECT"), 0);
    char value[5];
    testutil::write_all(pty.master, "abcdefOK", 8);
    EXPECT_EQ(serialbuf_read_until_parse(b, "OK", value, sizeof value), 0);
    EXPECT_STREQ(value, "cdef");  // the last four characters before OK
    auto feed = [&](const std::string &text) {
        std::vector<int> r;
        for (unsigned char c : text) r.push_back(serialbuf_process_rec_strings(b, c));
        return r;
    };
    take_register();
    EXPECT_EQ(feed("BBUSY"), (std::vector<int>{0, 0, 0, 0, 5}));  // a repeated B is forgiven
    EXPECT_TRUE(has(take_register(), "serialbuf_process_rec_strings: busy signal detected."));
    EXPECT_EQ(feed("\r\nBUBUSY"), (std::vector<int>(8, 0)));  // a broken BU is not
    b->state = 2, b->connecting = 1;
    EXPECT_EQ(feed("NO CARRIER"), (std::vector<int>(10, 0)));  // only once connected
    b->state = 3, b->connecting = 0;
    testutil::write_all(pty.master, "NO CARRIER\r\nrest", 16);
    unsigned char c;
    int ret = 0;
    for (int i = 0; i < 20 && ret == 0; i++) ret = serialbuf_get_byte(b, &c, 0);
    EXPECT_EQ(ret, 4);
    EXPECT_EQ(c, 'R');  // delivered all the same
    EXPECT_EQ(b->state, 2);
    EXPECT_EQ(b->occupied, 0);  // the rest of the buffer is dropped
    EXPECT_TRUE(has(take_register(), "serialbuf_process_rec_strings: no carrier detected."));
    serialbuf_destroy(b);
}

TEST(ModemConnect, DialsOut) {
    PtyPair pty;
    Seen s;
    SerialBuf *b = modem_link(pty, &s);
    {
        // NO CARRIER in a reply before the call is made is no carrier loss.
        ScriptedModem modem(pty.master, usual("CONNECT 9600\r\n", "NO CARRIER\r\nOK\r\n"));
        ASSERT_EQ(serialbuf_connect(b, 0, "5551234"), 0) << take_register();
        EXPECT_EQ(b->state, 3);
        EXPECT_EQ(b->rverbose, 0);  // restored after the dialogue
        EXPECT_EQ(b->connecting, 0);
        EXPECT_EQ(modem.seen(), (Lines{"ATZ", "ATH", "ATS0=0", "ATDT5551234"}));
        EXPECT_TRUE(has(s.lines.empty() ? "" : s.lines.back(), "CONNECT 9600"));
        EXPECT_EQ(serialbuf_connect(b, 0, ""), 0);  // hangs up first; an empty number dials
        EXPECT_EQ(modem.seen(), (Lines{"ATZ", "ATH", "ATS0=0", "ATDT5551234", "ATZ", "ATH",
                                       "ATZ", "ATH", "ATS0=0", "ATDT"}));
    }
    {
        ScriptedModem modem(pty.master, usual("BUSY\r\n"));
        EXPECT_EQ(serialbuf_connect(b, 0, "555"), 5);
        EXPECT_EQ(b->state, 2);
        EXPECT_TRUE(has(take_register(), "serialbuf_send_modem_string(ATDT555\r) line busy."));
    }
    serialbuf_destroy(b);
    SerialBuf *nodial = modem_link(pty, &s, 2000, nullptr);
    ScriptedModem modem(pty.master, usual("CONNECT\r\n"));
    EXPECT_EQ(serialbuf_connect(nodial, 0, "555"), 0);
    EXPECT_EQ(modem.seen(), (Lines{"ATZ", "ATH", "ATS0=0"}));
    serialbuf_destroy(nodial);
}

TEST(ModemConnect, AnswersACall) {
    PtyPair pty;
    Seen s;
    s.stop_at = 2;
    SerialBuf *b = modem_link(pty, &s);
    {
        ScriptedModem modem(pty.master, usual(""));
        EXPECT_EQ(serialbuf_connect(b, 1, nullptr), 3);  // nobody calls; the owner gives up
        EXPECT_EQ(s.idle_calls, 2);
        EXPECT_EQ(b->state, 2);
        EXPECT_EQ(b->timeout, 2000);
    }
    s.idle_calls = s.stop_at = 0;
    ScriptedModem modem(pty.master, [](const std::string &c) {
        if (c != "ATS0=1") return std::vector<std::pair<int, std::string>>{{0, "OK\r\n"}};
        return std::vector<std::pair<int, std::string>>{
            {0, "OK\r\n"}, {1200, "RING\r\n"}, {100, "CONNECT 9600\r\n"}};
    });
    EXPECT_EQ(serialbuf_connect(b, 1, nullptr), 0);
    EXPECT_GE(s.idle_calls, 1);  // the ring came after a silent second
    EXPECT_EQ(b->state, 3);
    EXPECT_EQ(modem.seen(), (Lines{"ATZ", "ATH", "ATS0=1"}));
    serialbuf_destroy(b);
}

TEST(ModemLines, ControlLinesOnlyOnSerialLinks) {
    SerialBuf *tcp = serialbuf_create_tcpclient("127.0.0.1", 9, 16, 0, 1, nullptr, nullptr,
                                                nullptr, nullptr, nullptr, nullptr, nullptr);
    const char *no = nullptr;
    EXPECT_EQ(serialbuf_set_modem_control(tcp, 1, 0, "AT", no, no, no, no, no, no, no, no, no, no),
              -1);
    EXPECT_EQ(tcp->modem_control, 1);
    EXPECT_EQ(tcp->attention_string, nullptr);
    EXPECT_TRUE(has(take_register(), "Cannot set local mode for non-serial buffer."));
    EXPECT_EQ(serialbuf_set_modem_control(tcp, 0, 0, "AT", no, no, no, no, no, no, no, "BUSY", no,
                                          no), 0);
    EXPECT_EQ(tcp->modem_control, 3);
    EXPECT_EQ(tcp->busy_rec_string_size, 4);
    EXPECT_EQ(serialbuf_clear_modem_control(tcp), 0);
    EXPECT_EQ(tcp->modem_control, 1);
    EXPECT_STREQ(tcp->attention_string, "AT");  // the strings stay
    serialbuf_destroy(tcp);

    PtyPair pty;
    SerialBuf *b = modem_link(pty, nullptr);
    serialbuf_set_modem_control(b, 1, 0, no, no, no, no, no, no, no, no, no, no, no);
    ASSERT_EQ(serialbuf_open(b), 0);
    termios t{};
    tcgetattr(pty.slave, &t);
    EXPECT_EQ(t.c_cflag & CLOCAL, 0u);  // a modem with lines must see its carrier
    // A pseudo-terminal has no modem lines: TIOCMGET fails there with
    // ENOTTY, which counts as carrier present.
    EXPECT_EQ(serialbuf_isoffhook(pty.slave), 0);
    t.c_cflag |= CRTSCTS | CLOCAL;
    tcsetattr(pty.slave, TCSANOW, &t);
    EXPECT_EQ(serialbuf_hangup(pty.slave), 0);
    tcgetattr(pty.slave, &t);
    EXPECT_EQ(cfgetospeed(&t), B0);
    // The low half is cleared (a pty forces CS8 and CREAD back on by itself),
    // the upper half stays as it was.
    EXPECT_EQ(t.c_cflag & 0xffff & ~tcflag_t(CS8 | CREAD), 0u);
    EXPECT_NE(t.c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(serialbuf_hangup(-1), -1);
    serialbuf_destroy(b);
}
