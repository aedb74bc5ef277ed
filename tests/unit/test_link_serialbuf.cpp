// The byte-stream link and its modem dialogue, on a pseudo-terminal whose master plays the far end
// (a datalogger, or a modem whose replies wait in the line) and on loopback TCP.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdarg>
#include <filesystem>
#include <optional>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "testutil.h"

// A pseudo-terminal has no modem lines (the query fails, which counts as carrier present); while
// carrier_down is set, the query answers as a real line whose carrier has dropped.
static bool carrier_down = false;
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (request == TIOCMGET && carrier_down) return *static_cast<int *>(arg) = 0;
    return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
}

// Values gathered left to right (a braced list fixes the order), e.g. a result before the log.
#define ALL(...) (std::tuple{__VA_ARGS__})

namespace {
using Lines = std::vector<std::string>;
const std::nullptr_t no = nullptr;

// Log lines as written, without time stamp and program name.
std::string strip(const std::string &all) {
    std::string out;
    for (size_t at = 0, end; (end = all.find('\n', at)) != all.npos; at = end + 1)
        out += all.substr(all.find(": ", at + 24) + 2, end + 1 - (all.find(": ", at + 24) + 2));
    return out;
}
// The calling thread's registered messages, which are emptied.
std::string registered() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return strip(testing::internal::GetCapturedStderr());
}
std::string get(SerialBuf *b, size_t n, int intr = 0) {
    std::string out;
    unsigned char c;
    while (out.size() < n && serialbuf_get_byte(b, &c, intr) == 0) out += static_cast<char>(c);
    return out;
}
long open_fds() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// A serial link b on a pseudo-terminal, and what its callbacks saw (the idle callback returns 3 on
// its call number stop_at). A modem's replies are fed ahead; what it was sent is read afterwards.
struct Link : testing::Test {
    std::optional<testutil::PtyPair> pty{std::in_place};
    SerialBuf *b = nullptr;
    int stop_at = 0, bytes[3] = {};  // bytes by direction: 1 written, 2 read
    std::vector<int> idle;
    Lines lines;
    static int on_idle(void *u, int timed_out) {
        auto *t = static_cast<Link *>(u);
        t->idle.push_back(timed_out);
        return static_cast<int>(t->idle.size()) == t->stop_at ? 3 : 0;
    }
    static int on_line(void *u, void *, char *line, int) {
        return static_cast<Link *>(u)->lines.emplace_back(line), 0;
    }
    static int on_rate(void *u, int direction, int n) {
        return static_cast<Link *>(u)->bytes[direction] += n, 0;
    }
    // modem: -1 none, 0 driven by strings, 1 with control lines.
    void make(int timeout, int modem = -1, int baud = 9600, int flow = 0, int size = 256) {
        serialbuf_destroy(b);
        b = serialbuf_create_serial(pty->slave_path.c_str(), baud, flow, size, timeout, 0, 1,
                                    on_idle, this, on_line, this, nullptr, on_rate, this);
        if (modem >= 0)
            serialbuf_set_modem_control(b, modem, 3000, "ATZ\r", "ATH\r", "ATS0=1\r", "ATS0=0\r",
                                        "ATDT", "\r", "OK", "RING", "BUSY", "CONNECT", "NO CARRIER");
        idle.clear();
    }
    void feed(const std::string &s) { testutil::write_all(pty->master, s.data(), s.size()); }
    std::string sent() { return testutil::read_for(pty->master, 100, 2000); }
    std::string get(size_t n, int intr = 0) { return ::get(b, n, intr); }
    void TearDown() override {
        serialbuf_destroy(b);
        carrier_down = false;
    }
};
std::string ok(int n) {
    std::string s;
    while (n-- > 0) s += "OK\r\n";
    return s;
}

}  // namespace

// Open merges 16-bit mode words, so the device keeps its upper halves (RTS/CTS among them) whatever
// flow asks; the speed goes in through the library. A modem with lines (the last row) gets no
// CLOCAL, and a disconnect drops its speed to 0. Refusals leave no descriptor behind.
TEST_F(Link, OpensRawAtTheEightSpeedsAndRefusesTheRest) {
    const long fds = open_fds();
    const std::pair<int, speed_t> speeds[] = {{1200, B1200},   {2400, B2400},   {4800, B4800},
                                              {9600, B9600},   {19200, B19200}, {38400, B38400},
                                              {57600, B57600}, {115200, B115200}};
    termios t{};
    for (unsigned i = 0; i < 8; i++) {
        tcgetattr(pty->slave, &t);
        t.c_cc[VEOF] = 7;  // open changes no control character but VMIN and VTIME
        t.c_cflag = i % 2 ? (t.c_cflag | CRTSCTS) : (t.c_cflag & ~CRTSCTS);
        tcsetattr(pty->slave, TCSANOW, &t);
        make(1000, i == 7 ? 1 : -1, speeds[i].first, i / 2 % 2);
        ASSERT_EQ(serialbuf_open(b), 0);
        tcgetattr(pty->slave, &t);
        EXPECT_EQ((std::vector<unsigned>{unsigned(b->state), unsigned(b->flow), cfgetospeed(&t),
                                         cfgetispeed(&t), t.c_iflag & 0xffff, t.c_oflag & 0xffff,
                                         t.c_cflag & 0xffff & ~CBAUD, t.c_lflag & 0xffff,
                                         t.c_cc[VMIN], t.c_cc[VTIME], t.c_cc[VEOF],
                                         (t.c_cflag & CRTSCTS) != 0}),
                  (std::vector<unsigned>{2, i / 2 % 2, speeds[i].second, speeds[i].second, IGNBRK,
                                         0, CS8 | CREAD | (i == 7 ? 0u : CLOCAL), NOFLSH, 0, 1, 7,
                                         i % 2}));
    }
    b->state = 3;
    free(std::exchange(b->attention_string, nullptr));  // no commands: only the lines drop
    free(std::exchange(b->hangup_string, nullptr));
    EXPECT_EQ(serialbuf_disconnect(b), 0);
    tcgetattr(pty->slave, &t);
    EXPECT_EQ(ALL(b->state, cfgetospeed(&t)), ALL(2, speed_t(B0)));
    const int null = open("/dev/null", O_RDWR);
    EXPECT_EQ(ALL(serialbuf_hangup(null), serialbuf_isoffhook(null)), ALL(-1, 0));
    close(null);
    const std::tuple<const char *, int, std::string> refused[] = {
        {"", 300, "serialbuf_open: invalid baudrate 300\n"},
        {"", 230400, "serialbuf_open: invalid baudrate 230400\n"},
        {"/dev/null", 9600,
         "serialbuf_open: ioctl('/dev/null') TCGETA error. (Inappropriate ioctl for device)\n"},
        {nullptr, 9600, "serialbuf_open: open('(null)') error. (No such file or directory)\n"}};
    for (auto &[dev, baud, message] : refused) {
        serialbuf_destroy(b);
        b = serialbuf_create_serial(dev && !*dev ? pty->slave_path.c_str() : dev, baud, 0, 64, 0, 0,
                                    1, no, no, no, no, no, no, no);
        EXPECT_EQ(ALL(serialbuf_open(b), b->fd, b->state, registered()),
                  ALL(-1, -1, 1, message));
    }
    serialbuf_destroy(std::exchange(b, nullptr));
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(Link, HandsOutBytesInOrderAcrossRefillsDumpsThemAndWritesRaw) {
    make(5000, -1, 115200, 0, 8);
    ASSERT_EQ(serialbuf_connect(b, 0, nullptr), 0);
    for (const auto &[mode, dump] : {std::pair{1, "reading 5 bytes: AT\\r\\n\n"}, {2, "AT\r\n"}}) {
        b->rverbose = mode;
        feed("AT\r\n\x01");
        testing::internal::CaptureStdout();
        std::string got = get(5);  // the bytes, then what was dumped
        EXPECT_EQ(got + testing::internal::GetCapturedStdout(), "AT\r\n\x01" + std::string(dump));
    }
    b->rverbose = 3;  // lines span reads of 8; empty ones are not logged; a long one grows at 254
    const std::string text = "OK\r\nHELLO\t\x02\n" + std::string(253, 'x');
    feed(text);
    EXPECT_EQ(ALL(get(text.size()), b->line_size), ALL(text, 256));
    feed("y");
    EXPECT_EQ(ALL(get(1), lines, b->line_size, std::string(b->line)),
              ALL("y", Lines{"OK", "HELLO\t"}, 512, std::string(253, 'x') + "y"));
    EXPECT_EQ(serialbuf_write(b, "\xc0\xdb\x00", 3), 3);
    EXPECT_EQ(testutil::read_at_least(pty->master, 3, 5000), std::string("\xc0\xdb\x00", 3));
    EXPECT_EQ(ALL(bytes[1], bytes[2]), ALL(3, 10 + 266));
}

// Silence counts in whole seconds of this call; with a time-out of 0 only the idle callback ends
// the wait (mode 1 calls it even when data waits). On a vanished line (the master closed: a hang-up)
// the read ends at once. Carrier loss replaces time-out and end of stream only on a modem line.
TEST_F(Link, SilenceAndAVanishedLineEndTheRead) {
    struct Row { int timeout, modem, intr, stop_at, code; bool gone; std::vector<int> idle; };
    const std::pair<Row, std::string> rows[] = {
        {{1500, 1, 2, 0, 1, false, {1, 1}}, "serialbuf_get_byte: timeout.\n"},
        {{1000, 2, 0, 0, 4, false, {}}, "serialbuf_get_byte: no carrier detected.\n"},
        {{0, 1, 1, 2, 3, false, {0, 0}}, ""},
        {{0, 1, 1, 0, 2, true, {0}}, "serialbuf_get_byte: eof.\n"},
        {{0, 2, 1, 0, 4, true, {0}}, "serialbuf_get_byte: no carrier detected.\n"}};
    carrier_down = true;
    for (const auto &[row, message] : rows) {
        pty.emplace();
        make(row.timeout);
        ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
        b->modem_control = row.modem;
        stop_at = row.stop_at;
        if (row.gone) close(std::exchange(pty->master, -1));
        unsigned char c;
        EXPECT_EQ(ALL(serialbuf_get_byte(b, &c, row.intr), idle, registered()),
                  ALL(row.code, row.idle, message));
    }
    carrier_down = false;  // a line whose modem query fails counts as having carrier
    EXPECT_EQ(ALL(get(1), registered()), ALL("", "serialbuf_get_byte: eof.\n"));
    pty.emplace();
    make(1000);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    feed("Q");
    stop_at = 1;
    EXPECT_EQ(get(1, 1) + "|" + get(1, 0), "|Q");
}

// A process that leads its own session, as under systemd, does not get the line as its controlling
// terminal, so a hang-up sends it no SIGHUP: it lives to report end of stream.
TEST_F(Link, AHungUpLineSendsNoSignal) {
    make(0);
    const pid_t child = fork();
    if (child == 0) {
        unsigned char c;  // the master stays with the parent only, or closing it hangs up nothing
        if (close(pty->master) != 0 || setsid() < 0 || serialbuf_connect(b, 0, "") != 0 || serialbuf_write(b, "R", 1) != 1)
            _exit(99);
        _exit(serialbuf_get_byte(b, &c, 0));
    }
    EXPECT_EQ(testutil::read_at_least(pty->master, 1, 10000), "R");
    close(std::exchange(pty->master, -1));
    int status = -1;
    for (int i = 0; i < 100 && waitpid(child, &status, WNOHANG) == 0; i++) usleep(100000);
    if (kill(child, SIGKILL) == 0) waitpid(child, &status, 0);  // only when it never ended
    EXPECT_EQ(status, 2 << 8);  // exit status 2, end of stream
}

// Our client and server on loopback: refusals, talk, end of stream, close twice, bind again; a
// modem-driven server hangs up without a descriptor by sending nothing and waiting for nothing.
TEST(TcpLink, ClientAndServerTalkEndAndBindAgain) {
    const int port = testutil::free_tcp_port();
    auto server = [&] { return serialbuf_create_tcpserver(port, 16, 1000, 1, no, no, no, no, no, no, no); };
    SerialBuf *s = server(), *other = server(), *c = serialbuf_create_tcpclient("127.0.0.1", port, 16, 1000, 2, no, no, no, no, no, no, no);
    EXPECT_EQ(ALL(c->com_mode, c->modem_control, c->port, std::string(c->ipaddr), c->state, c->size, c->timeout, c->timeout_connect, c->tries, c->fd, c->fdserver, c->next_bad, c->line_size, std::string(c->line)),
              ALL(2, 1, port, "127.0.0.1", 1, 16, 1000, 1000, 2, -1, -1, -1, 256, ""));
    EXPECT_EQ(ALL(serialbuf_open(c), c->fd, registered()), ALL(-1, -1, "serialbuf_open: Can't connect to server (Connection refused)\n"));
    unsigned char ch;
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(ALL(serialbuf_open(s), s->com_mode), ALL(0, 3));
        EXPECT_EQ(ALL(serialbuf_open(other), other->fdserver, registered()), ALL(-1, -1, "serialbuf_open: bind() error. (Address already in use)\n"));
        EXPECT_EQ(ALL(serialbuf_get_byte(s, &ch, 0), registered()), ALL(4, "serialbuf_get_byte: not connected.\n"));
        ASSERT_EQ(serialbuf_connect(c, 0, ""), 0);  // waits in the backlog until accepted
        ASSERT_EQ(serialbuf_connect(s, 0, ""), 0);
        EXPECT_EQ(serialbuf_write(c, "A", 1), 1);
        serialbuf_set_modem_control(s, 0, 0, "ATZ\r", "ATH\r", no, no, no, no, "OK", no, no, no, no);
        EXPECT_EQ(ALL(get(s, 1), serialbuf_write(s, "hi", 2), serialbuf_disconnect(s)), ALL("A", 2, 0));
        serialbuf_clear_modem_control(s);
        EXPECT_GE(s->fdserver, 0);  // the listening socket stays for the next client
        EXPECT_EQ(ALL(get(c, 2), serialbuf_get_byte(c, &ch, 0), registered()), ALL("hi", 2, "serialbuf_get_byte: eof.\n"));
        EXPECT_EQ(serialbuf_close(s) + serialbuf_close(s) + serialbuf_close(c), 0);
        EXPECT_EQ(ALL(c->fd, s->fdserver, s->state), ALL(-1, -1, 1));
    }
    // Impossible states and kinds, a closed or unreadable descriptor, a missing host.
    using Call = int (*)(SerialBuf *);
    const Call open = serialbuf_open, disconnect = serialbuf_disconnect;
    const Call connect = [](SerialBuf *x) { return serialbuf_connect(x, 0, ""); };
    const Call read = [](SerialBuf *x) { unsigned char ch; return serialbuf_get_byte(x, &ch, 0); };
    const int dir = ::open("/", O_RDONLY);
    const std::tuple<int, int, int, Call, int, std::string> rows[] = {
        {7, 1, -1, open, -1, "serialbuf_open: Illegal com_mode value '7'.\n"},
        {7, 1, -1, connect, -1, "serialbuf_open: Illegal com_mode value '7'.\nserialbuf_connect: serialbuf_open() error.\n"},
        {2, 9, -1, connect, -1, "serialbuf_connect: Illegal state value '9'.\n"},
        {7, 2, -1, connect, -1, "serialbuf_connect: Illegal com_mode value '7'.\n"},
        {7, 3, -1, connect, -1, "serialbuf_disconnect: Illegal com_mode value '7'.\nserialbuf_connect: serialbuf_disconnect() error.\n"},
        {2, 9, -1, disconnect, -1, "serialbuf_disconnect: Illegal state value '9'.\n"},
        {3, 2, -1, connect, -1, "serialbuf_connect: accept() error. (Bad file descriptor)\n"},
        {2, 3, 999, read, -1, "serialbuf_get_byte: fdwait() error.\n"},
        {2, 3, dir, read, -1, "serialbuf_get_byte: serialbuf_read() error. (Is a directory)\n"}};
    for (auto &[com_mode, state, fd, call, code, message] : rows) {
        std::tie(other->com_mode, other->state, other->fd, other->fdserver) = ALL(com_mode, state, fd, -1);
        EXPECT_EQ(ALL(call(other), registered()), ALL(code, message)) << message;
    }
    close(dir);
    std::tie(other->state, other->fd) = ALL(1, -1);
    SerialBuf *nameless = serialbuf_create_tcpclient(nullptr, port, 16, 0, 1, no, no, no, no, no, no, no);
    EXPECT_EQ(ALL(serialbuf_open(nameless), registered()), ALL(-1, "serialbuf_open: Can't locate server by name of '(null)'\n"));
    for (SerialBuf *x : {s, other, c, nameless}) serialbuf_destroy(x);
}

// Commands: a pause, retries after junk or a late reply, a malformed pause, the dump; replies are
// awaited in order with NULs ignored; the busy and carrier-loss matcher; close forgets it all.
TEST_F(Link, ModemCommandsAndReplies) {
    make(5000, 0);
    ASSERT_EQ(serialbuf_open(b), 0);
    EXPECT_EQ(ALL(serialbuf_send_modem_string(b, "AT\r", "OK", 2), registered()),
              ALL(4, "serialbuf_get_byte: not connected.\n"));  // merely open
    b->state = 3;  // as connect leaves it
    feed(ok(1));
    const long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_send_modem_string(b, "ATZ<sl=1000500>ATE0\r", "OK", 2), 0);
    EXPECT_GE(testutil::now_ms() - t0, 1000);  // the pause
    b->timeout = 0;  // the first byte of a reply is then already too late
    feed("xxx");
    testing::internal::CaptureStderr();
    int ret = serialbuf_send_modem_string(b, "AT\r", "OK", 2);
    EXPECT_EQ(ALL(ret, strip(testing::internal::GetCapturedStderr()), registered()),
              ALL(1, "warning: serialbuf_send_modem_string: timeout...retrying\n"
                            "warning: serialbuf_send_modem_string: timeout...retrying\n",
                         "serialbuf_send_modem_string: timeout.\n"));
    std::tie(b->timeout, b->sleep) = ALL(5, 20000);  // the reply starts 20 ms late
    feed("OK");
    EXPECT_EQ(ALL(serialbuf_send_modem_string(b, "AT\r", "OK", 0), registered()),
              ALL(1, "serialbuf_send_modem_string: timeout.\n"));
    std::tie(b->timeout, b->sleep, b->wverbose) = ALL(1000, 0, 1);
    EXPECT_EQ(ALL(serialbuf_send_modem_string(b, "AT<sl=5", "OK", 2), registered()),
              ALL(-1, "serialbuf_send_modem_string: string format error.\n"));
    testing::internal::CaptureStdout();  // a leading pause writes an empty piece first
    EXPECT_EQ(serialbuf_send_modem_string(b, "<sl=1000>AT\r", nullptr, 2), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "writing 0 bytes: \nwriting 3 bytes: AT\\r\n");
    EXPECT_EQ(sent(), "ATZATE0\rAT\rAT\rAT\rAT\rAT\r");  // nothing of the malformed one
    feed(std::string("CONNECTyO\0KzCONNECT!", 20));  // "K" is left from before
    EXPECT_EQ(ALL(serialbuf_read_until(b, "~OK~~CONNECT"), get(1)), ALL(0, "!"));
    char value[5] = "junk";
    EXPECT_EQ(ALL(serialbuf_read_until_parse(b, nullptr, value, 5), std::string(value)),
              ALL(0, ""));
    feed("abcdefOKghOKxyEND!");
    EXPECT_EQ(ALL(serialbuf_read_until_parse(b, "OK", value, 5), std::string(value)), ALL(0, "cdef"));
    EXPECT_EQ(ALL(serialbuf_read_until_parse(b, "OK~END", value, 5), std::string(value), get(1)),
              ALL(0, "xy", "!"));
    std::string matched;  // a repeated B is forgiven, a broken BU is not
    for (char c : std::string("BBUSY\r\nBUBUSY")) matched += char('0' + serialbuf_process_rec_strings(b, c));
    serialbuf_clear_modem_control(b);
    for (char c : std::string("BUSY")) matched += char('0' + serialbuf_process_rec_strings(b, c));
    EXPECT_EQ(ALL(matched, registered()), ALL("00005000000000000", "serialbuf_process_rec_strings: busy signal detected.\n"));
    b->modem_control = 3;
    feed("NO CARRIER\r\nrest");
    unsigned char c = 0;
    ret = 0;
    for (int i = 0; i < 20 && ret == 0; i++) ret = serialbuf_get_byte(b, &c, 0);
    // The R is delivered all the same; the rest of the read is dropped.
    EXPECT_EQ(ALL(ret, c, b->state, b->occupied, registered()),
              ALL(4, 'R', 2, 0, "serialbuf_process_rec_strings: no carrier detected.\n"));
    b->state = 3;
    feed("xyz");
    get(1);
    std::tie(b->busy_rec_string_ptr, b->offhook_rec_string_ptr, b->next_bad) = ALL(2, 3, 7);
    EXPECT_EQ(serialbuf_close(b) + serialbuf_close(b), 0);
    EXPECT_EQ(ALL(b->state, b->fd, b->ptr, b->occupied, b->busy_rec_string_ptr,
                         b->offhook_rec_string_ptr, b->next_bad),
              ALL(1, -1, 0, 0, 0, 0, -1));
}

// The dialogue as the modem sees it. Dialling and the reply after a ring are allowed
// timeout_connect, not the read time-out; failures come back with their codes and name their step.
TEST_F(Link, DialsOutAndAnswers) {
    make(1000, 0, 9600, 0, 1);  // one byte a read: a hang-up discards nothing fed for later
    ASSERT_EQ(serialbuf_open(b), 0);
    feed(ok(2) + "NO CARRIER\r\nOK\r\nCONNECT 9600\r\n");  // no carrier loss before the call
    ASSERT_EQ(serialbuf_connect(b, 0, "5551234"), 0);
    EXPECT_EQ(ALL(b->state, b->rverbose, b->connecting, sent(), lines),
              ALL(3, 0, 0, "ATZ\rATH\rATS0=0\rATDT5551234\r",
                         Lines{"OK", "OK", "NO CARRIER", "OK"}));
    feed(ok(5) + "BUSY\r\nBUSY\r\n");  // connected: hangs up first
    EXPECT_EQ(ALL(serialbuf_connect(b, 0, "556"), registered()),
              ALL(5, "serialbuf_process_rec_strings: busy signal detected.\n"
                           "serialbuf_process_rec_strings: busy signal detected.\n"
                           "serialbuf_send_modem_string: read_until() error.\n"
                           "serialbuf_connect: serialbuf_send_modem_string(ATDT556\r) line busy.\n"));
    b->timeout_connect = 0;  // the dial's reply is then already too late
    feed(ok(3) + "CONNECT\r\n");
    EXPECT_EQ(ALL(serialbuf_connect(b, 0, "5"), registered(), b->timeout),
              ALL(1, "serialbuf_send_modem_string: timeout.\n"
                            "serialbuf_connect: serialbuf_send_modem_string(ATDT5\r) timeout.\n", 1000));
    feed(ok(8));  // nothing to dial: connected as is
    EXPECT_EQ(serialbuf_connect(b, 0, nullptr), 0);
    free(std::exchange(b->dialout_string_prefix, nullptr));
    EXPECT_EQ(serialbuf_connect(b, 0, "555"), 0);
    EXPECT_EQ(sent(), "ATZ\rATH\rATZ\rATH\rATS0=0\rATDT556\rATDT556\rATZ\rATH\rATS0=0\rATDT5\rATDT5\r"
                      "ATZ\rATH\rATS0=0\rATZ\rATH\rATZ\rATH\rATS0=0\r");
    feed(ok(5) + "RING\r\nCONNECT\r\n" + ok(5) + "RING\r\nCONNECT\r\n" + ok(3) + "BUSY\r\n" + ok(3));
    b->timeout_connect = 5000;
    EXPECT_EQ(ALL(serialbuf_connect(b, 1, nullptr), b->state), ALL(0, 3));
    b->timeout_connect = 0;
    EXPECT_EQ(ALL(serialbuf_connect(b, 1, nullptr), registered(), b->state),
              ALL(1, "serialbuf_connect: serialbuf_read_until(connect_rec_string) error.\n", 2));
    EXPECT_EQ(ALL(serialbuf_connect(b, 1, nullptr), registered()),
              ALL(5, "serialbuf_process_rec_strings: busy signal detected.\n"
                           "serialbuf_connect: serialbuf_read_until_intr(ring_rec_string) error.\n"));
    stop_at = 2;  // no ring: the wait has no time-out, only the owner can end it
    EXPECT_EQ(ALL(serialbuf_connect(b, 1, nullptr), registered(), idle, b->timeout, sent()),
              ALL(3, "", std::vector<int>{1, 1}, 1000,
                         "ATZ\rATH\rATZ\rATH\rATS0=1\rATZ\rATH\rATZ\rATH\rATS0=1\rATZ\rATH\rATS0=1\r"
                         "ATZ\rATH\rATS0=1\r"));
    // Each step's failure names it; a failed hang-up leaves the link connected.
    char *SerialBuf::*const commands[] = {&SerialBuf::attention_string, &SerialBuf::hangup_string,
                                          &SerialBuf::listen_string, &SerialBuf::nolisten_string};
    const std::tuple<int, int, std::string> broken[] = {
        {0, 0, "connect: serialbuf_send_modem_string(attention_string) error.\n"},
        {1, 0, "connect: serialbuf_send_modem_string(hangup_string) error.\n"},
        {2, 1, "connect: serialbuf_send_modem_string(listen_string) error.\n"},
        {0, 2, "disconnect: serialbuf_send_modem_string(attention_string) error.\n"},
        {1, 2, "disconnect: serialbuf_send_modem_string(hangup_string) error.\n"}};
    for (auto &[command, op, message] : broken) {
        for (auto field : commands) free(std::exchange(b->*field, nullptr));
        b->*commands[command] = strdup("AT<sl=");
        b->state = op == 2 ? 3 : 2;
        EXPECT_EQ(ALL(op == 2 ? serialbuf_disconnect(b) : serialbuf_connect(b, op, ""), registered(), b->state),
                  ALL(-1, "serialbuf_send_modem_string: string format error.\nserialbuf_" + message, op == 2 ? 3 : 2));
    }
    for (auto field : commands) free(std::exchange(b->*field, nullptr));
    b->nolisten_string = strdup("ATS0=0\r");
    b->state = 2;  // the line goes: the no-listen step fails
    close(std::exchange(pty->master, -1));
    EXPECT_EQ(ALL(serialbuf_connect(b, 0, "5"), registered()),
              ALL(-1, "serialbuf_get_byte: eof.\nserialbuf_get_byte: eof.\nserialbuf_get_byte: eof.\n"
                            "serialbuf_send_modem_string: read_until() error.\n"
                            "serialbuf_connect: serialbuf_send_modem_string(nolisten_string) error.\n"));
}
