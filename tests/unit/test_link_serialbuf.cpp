// The link and its modem dialogue on a pseudo-terminal (the master plays the far end) and on TCP.
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
#include <regex>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "testutil.h"

// A pty has no modem lines (the query fails: carrier present); carrier_down fakes a dropped one.
static bool carrier_down = false;
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);  // every request passed on carries one pointer or none
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (request == TIOCMGET && carrier_down) return *static_cast<int *>(arg) = 0;
    return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
}

// Values taken left to right (a braced list fixes the order); an lvalue x is read last, +x in turn.
#define ALL(...) (std::tuple{__VA_ARGS__})

namespace {
const std::nullptr_t no = nullptr;
const std::string kBusy = "serialbuf_process_rec_strings: busy signal detected.\n",
                  kEof = "serialbuf_get_byte: eof.\n", kSent = "serialbuf_send_modem_string: ",
                  kStep = "serialbuf_connect: serialbuf_send_modem_string(",
                  kCarrier = "serialbuf_get_byte: no carrier detected.\n";

// The calling thread's registered messages as logged, without time stamp and program name; emptied.
std::string registered() {
    testing::internal::CaptureStderr(), elog_clear_register(1);
    const std::regex stamp(R"(^.{23} \S+: )", std::regex::multiline);
    return std::regex_replace(testing::internal::GetCapturedStderr(), stamp, "");
}
std::string get(SerialBuf *b, size_t n, int intr = 0, std::string out = "") {
    for (unsigned char c; out.size() < n && serialbuf_get_byte(b, &c, intr) == 0;) out += char(c);
    return out;
}
std::string ok(int n) { return n ? "OK\r\n" + ok(n - 1) : ""; }
long open_fds() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// A link b on a pty and what its callbacks saw (the idle callback says 3 on call number stop_at).
struct Link : testing::Test {
    std::optional<testutil::PtyPair> pty{std::in_place};
    SerialBuf *b = nullptr;
    int stop_at = 0, bytes[3] = {};  // bytes by direction: 1 written, 2 read
    std::vector<int> idle;
    std::vector<std::string> lines;
    static Link &of(void *u) { return *static_cast<Link *>(u); }
    static int on_idle(void *u, int t) {
        return of(u).idle.push_back(t), int(of(u).idle.size()) == of(u).stop_at ? 3 : 0;
    }
    static int on_line(void *u, void *, char *s, int) { return of(u).lines.emplace_back(s), 0; }
    static int on_rate(void *u, int direction, int n) { return of(u).bytes[direction] += n, 0; }
    void make(int timeout, int modem = -1, int baud = 9600, int flow = 0, int size = 256,
              const char *dev = "") {  // modem: -1 none, 0 driven by strings, 1 with lines
        serialbuf_destroy(b);
        b = serialbuf_create_serial(dev && !*dev ? pty->slave_path.c_str() : dev, baud, flow, size,
                                    timeout, 0, 1, on_idle, this, on_line, this, no, on_rate, this);
        if (modem >= 0)
            serialbuf_set_modem_control(b, modem, 3000, "ATZ\r", "ATH\r", "ATS0=1\r", "ATS0=0\r",
                "ATDT", "\r", "OK", "RING", "BUSY", "CONNECT", "NO CARRIER");
    }
    void mute() {  // no hang-up commands
        free(std::exchange(b->attention_string, {})), free(std::exchange(b->hangup_string, {}));
    }
    void feed(const std::string &s) { testutil::write_all(pty->master, s.data(), s.size()); }
    std::string sent() { return testutil::read_for(pty->master, 100, 2000); }
    void TearDown() override { serialbuf_destroy(b), elog_clear_register(0), carrier_down = false; }
};

}  // namespace

// Only low halves of mode words change (RTS/CTS stays); a modem with lines (last row): no CLOCAL.
TEST_F(Link, OpensRawAtTheEightSpeedsRefusesTheRestAndHandsOutBytes) {
    const long fds = open_fds();
    const std::pair<int, speed_t> speeds[] = {{1200, B1200},   {2400, B2400},   {4800, B4800},
                                              {9600, B9600},   {19200, B19200}, {38400, B38400},
                                              {57600, B57600}, {115200, B115200}};
    termios t{};
    for (unsigned i = 0; i < 8 && tcgetattr(pty->slave, &t) == 0; i++) {
        t.c_cflag = i % 2 ? t.c_cflag | CRTSCTS : t.c_cflag & ~CRTSCTS;
        tcsetattr(pty->slave, TCSANOW, &t);
        make(1000, i == 7 ? 1 : -1, speeds[i].first, i / 2 % 2);
        EXPECT_EQ(ALL(serialbuf_open(b), tcgetattr(pty->slave, &t), b->flow, cfgetospeed(&t),
                      cfgetispeed(&t), t.c_iflag & 0xffff, t.c_oflag & 0xffff,
                      t.c_cflag & 0xffff & ~CBAUD, t.c_lflag & 0xffff, t.c_cc[VMIN], t.c_cc[VTIME],
                      (t.c_cflag & CRTSCTS) != 0),
                  ALL(0, 0, int(i / 2 % 2), speeds[i].second, speeds[i].second, tcflag_t(IGNBRK),
                      0u, tcflag_t(CS8 | CREAD | (i == 7 ? 0 : CLOCAL)), tcflag_t(NOFLSH), cc_t(0),
                      cc_t(1), i % 2 == 1));
    }
    const int null = (b->state = 3, mute(), open("/dev/null", O_RDWR));
    EXPECT_EQ(ALL(serialbuf_disconnect(b), tcgetattr(pty->slave, &t), cfgetospeed(&t), b->state,
                  serialbuf_hangup(null), serialbuf_isoffhook(null), close(null)),
              ALL(0, 0, speed_t(B0), 2, -1, 0, 0));  // a modem with lines: the speed drops to 0
    const std::tuple<const char *, int, std::string> refused[] = {
        {"", 300, "serialbuf_open: invalid baudrate 300\n"},
        {"/dev/null", 9600, "serialbuf_open: ioctl('/dev/null') TCGETA error. (Inappropriate ioctl "
                            "for device)\n"},
        {nullptr, 9600, "serialbuf_open: open('(null)') error. (No such file or directory)\n"}};
    for (auto &[dev, baud, message] : refused) {
        make(0, -1, baud, 0, 64, dev);
        EXPECT_EQ(ALL(serialbuf_open(b), b->fd, b->state, registered()), ALL(-1, -1, 1, message));
    }
    serialbuf_destroy(std::exchange(b, nullptr));
    EXPECT_EQ(open_fds(), fds);
    // Dumps; text lines spanning reads of 8 (a long one grows at 254); raw writes; byte counts.
    ASSERT_EQ((make(5000, -1, 115200, 0, 8), serialbuf_connect(b, 0, nullptr)), 0);
    testing::internal::CaptureStdout();  // an escaped dump, then a raw one
    b->rverbose = 1, feed("AT\r\n\x01"), get(b, 5), b->rverbose = 2, feed("AT\r\n\x01"), get(b, 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "reading 5 bytes: AT\\r\\n\nAT\r\n");
    const std::string text = (b->rverbose = 3, "OK\r\nHELLO\t\x02\n" + std::string(253, 'x'));
    // A disconnect without a modem leaves the line as it is.
    EXPECT_EQ(ALL((feed(text), get(b, text.size())), +b->line_size, (feed("y"), get(b, 1)), lines,
                  b->line_size, std::string(b->line), serialbuf_write(b, "\xc0\0", 2),
                  testutil::read_at_least(pty->master, 2, 5000), bytes[1], bytes[2],
                  serialbuf_disconnect(b), tcgetattr(pty->slave, &t), cfgetospeed(&t)),
              ALL(text, 256, "y", std::vector<std::string>{"OK", "HELLO\t"}, 512,
                  std::string(253, 'x') + "y", 2, std::string("\xc0\0", 2), 2, 10 + 266, 0, 0,
                  speed_t(B115200)));
}

// Silence counts in whole seconds; a vanished line (master closed) ends the read at once.
TEST_F(Link, SilenceAndAVanishedLineEndTheReadWithoutAHangUpSignal) {
    struct Row { int timeout, modem, intr, stop_at, code; bool gone; std::vector<int> idle; };
    const std::pair<Row, std::string> rows[] = {
        {{1001, 1, 2, 0, 1, false, {1, 1}}, "serialbuf_get_byte: timeout.\n"},
        {{1000, 2, 2, 0, 4, false, {1}}, kCarrier},
        {{0, 1, 1, 2, 3, false, {0, 0}}, ""},
        {{0, 1, 1, 0, 2, true, {0}}, kEof},
        {{0, 2, 1, 0, 4, true, {0}}, kCarrier}};
    carrier_down = true;
    unsigned char c;
    for (const auto &[row, message] : rows) {
        ASSERT_EQ((pty.emplace(), make(row.timeout), serialbuf_connect(b, 0, "")), 0);
        std::tie(b->modem_control, stop_at) = ALL(row.modem, row.stop_at);
        if (row.gone) close(std::exchange(pty->master, -1));
        EXPECT_EQ(ALL(serialbuf_get_byte(b, &c, row.intr), std::exchange(idle, {}), registered()),
                  ALL(row.code, row.idle, message));
    }
    carrier_down = false;  // a line whose modem query fails counts as having carrier
    EXPECT_EQ(ALL(get(b, 1), registered()), ALL("", kEof));
    // A session leader (as under systemd) does not get the line as its terminal: no SIGHUP.
    pty.emplace(), make(0);
    const pid_t child = fork();  // the child lets the parent alone hold the master
    if (child == 0)
        _exit(close(pty->master) || setsid() < 0 || serialbuf_connect(b, 0, "") ||
                      serialbuf_write(b, "R", 1) != 1 ? 99 : serialbuf_get_byte(b, &c, 0));
    EXPECT_EQ(testutil::read_at_least(pty->master, 1, 10000), "R");
    int status = (close(std::exchange(pty->master, -1)), -1);
    EXPECT_EQ(ALL(waitpid(child, &status, 0), status), ALL(child, 2 << 8));  // 2: end of stream
}

// Talk, end of stream, bind again; with no descriptor a modem server hangs up sending nothing.
TEST(TcpLink, ClientAndServerTalkEndAndBindAgain) {
    const int port = testutil::fixed_tcp_port();
    auto tcp = [&](int kind, const char *host) {  // a client (2) of host, or a server (3)
        return kind == 2
            ? serialbuf_create_tcpclient(host, port, 16, 1000, 2, no, no, no, no, no, no, no)
            : serialbuf_create_tcpserver(port, 16, 1000, 2, no, no, no, no, no, no, no);
    };
    SerialBuf *s = tcp(3, no), *x = tcp(3, no), *c = tcp(2, "127.0.0.1"), *nameless = tcp(2, no);
    EXPECT_EQ(ALL(serialbuf_disconnect(c), serialbuf_open(c), c->fd, serialbuf_open(nameless),
                  c->next_bad, registered()),  // disconnecting what is not connected does nothing
              ALL(0, -1, -1, -1, -1, "serialbuf_open: Can't connect to server (Connection "
                                     "refused)\nserialbuf_open: Can't locate server by name of "
                                     "'(null)'\n"));
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(ALL(serialbuf_open(s), serialbuf_open(x), x->fdserver, get(s, 1), registered(),
                      serialbuf_connect(c, 0, ""), serialbuf_connect(s, 0, "")),  // from backlog
                  ALL(0, -1, -1, "", "serialbuf_open: bind() error. (Address already in use)\n"
                                     "serialbuf_get_byte: not connected.\n", 0, 0));
        serialbuf_set_modem_control(s, 0, 0, "ATZ\r", "ATH\r", no, no, no, no, "OK", no, no, no,
                                    no);
        EXPECT_EQ(ALL(serialbuf_write(c, "A", 1), get(s, 1), serialbuf_write(s, "hi", 2),
                      serialbuf_disconnect(s), s->fdserver >= 0, get(c, 3), registered(),
                      serialbuf_clear_modem_control(s), serialbuf_close(s), serialbuf_close(s),
                      serialbuf_close(c), c->fd, s->fdserver),
                  ALL(1, "A", 2, 0, true, "hi", kEof, 0, 0, 0, 0, -1, -1));
    }
    const int dir = open("/", O_RDONLY);  // impossible states and kinds, unusable descriptors
    const std::tuple<int, int, int, char, std::string> rows[] = {  // connect, disconnect, read
        {7, 1, -1, 'c', "serialbuf_open: Illegal com_mode value '7'.\n"
                        "serialbuf_connect: serialbuf_open() error.\n"},
        {2, 9, -1, 'c', "serialbuf_connect: Illegal state value '9'.\n"},
        {7, 3, -1, 'c', "serialbuf_disconnect: Illegal com_mode value '7'.\n"
                        "serialbuf_connect: serialbuf_disconnect() error.\n"},
        {2, 9, -1, 'd', "serialbuf_disconnect: Illegal state value '9'.\n"},
        {3, 2, -1, 'c', "serialbuf_connect: accept() error. (Bad file descriptor)\n"},
        {2, 3, 999, 'r', "serialbuf_get_byte: fdwait() error.\n"},
        {2, 3, dir, 'r', "serialbuf_get_byte: serialbuf_read() error. (Is a directory)\n"}};
    for (auto &[com_mode, state, fd, op, message] : rows) {  // errno set: stray error texts show
        std::tie(x->com_mode, x->state, x->fd, x->fdserver, errno) = ALL(com_mode, state, fd, -1,
                                                                          EDOM);
        const int ret = op == 'c'   ? serialbuf_connect(x, 0, "")
                        : op == 'd' ? serialbuf_disconnect(x)
                                    : (get(x, 1).empty() ? -1 : 0);
        EXPECT_EQ(ALL(ret, registered()), ALL(-1, message));
    }
    std::tie(x->state, x->fd) = ALL(1, close(dir) - 1);
    EXPECT_EQ(ALL(serialbuf_set_modem_control(c, 1, 7, no, no, no, no, no, no, no, no, no, no, no),
                  registered(), c->modem_control),
              ALL(-1, "serialbuf_set_modem_control: Cannot set local mode for non-serial buffer.\n",
                  1));
    for (SerialBuf *l : {s, x, c, nameless}) serialbuf_destroy(l);
}

// Commands with pauses and retries; replies in order, NULs ignored; the matcher; close; dialling.
TEST_F(Link, ModemCommandsRepliesAndTheDialogue) {
    ASSERT_EQ((make(5000, 0), serialbuf_open(b)), 0);
    EXPECT_EQ(ALL(serialbuf_send_modem_string(b, "AT\r", "OK", 2), registered()),
              ALL(4, "serialbuf_get_byte: not connected.\n"));  // merely open
    const long long t0 = (b->state = 3, feed(ok(1)), testutil::now_ms());  // connected
    EXPECT_EQ(ALL(serialbuf_send_modem_string(b, "ATZ<sl=1000500>ATE0\r", "OK", 2),
                  testutil::now_ms() - t0 >= 1000), ALL(0, true));  // the pause
    // With a time-out of 0 a reply is always too late, with 5 ms one that starts 20 ms late.
    EXPECT_EQ(ALL((b->timeout = 0, feed("xxx"), serialbuf_send_modem_string(b, "AT\r", "OK", 2)),
                  registered()), ALL(1, kSent + "timeout.\n"));
    std::tie(b->timeout, b->sleep) = ALL(5, (feed("OK"), 20000));
    EXPECT_EQ(ALL(serialbuf_send_modem_string(b, "AT\r", "OK", 0), registered()),
              ALL(1, kSent + "timeout.\n"));
    std::tie(b->timeout, b->sleep, b->wverbose) = ALL(1000, 0, 1);
    testing::internal::CaptureStdout();  // a leading pause writes an empty piece first
    EXPECT_EQ(ALL(serialbuf_send_modem_string(b, "AT<sl=5", "OK", 2), registered(),
                  serialbuf_send_modem_string(b, "<sl=1000>AT\r", nullptr, 2),
                  testing::internal::GetCapturedStdout(), sent()),
              ALL(-1, kSent + "string format error.\n", 0,
                  "writing 0 bytes: \nwriting 3 bytes: AT\\r\n", "ATZATE0\rAT\rAT\rAT\rAT\rAT\r"));
    feed(std::string("CONNECTyO\0KzCONNECT!", 20) + "abcdefOKghOKxyEND!");  // "K" is left over
    char value[9] = "junk\0XYZ";  // 5 bytes lent, then guard bytes
    EXPECT_EQ(ALL(serialbuf_read_until(b, "~OK~~CONNECT"), get(b, 1),
                  serialbuf_read_until_parse(b, nullptr, value, 5), std::string(value),
                  serialbuf_read_until_parse(b, "OK", value, 5), std::string(value),
                  serialbuf_read_until_parse(b, "OK~END", value, 5), std::string(value), get(b, 1),
                  std::string(value + 5, 3)),
              ALL(0, "!", 0, "", 0, "cdef", 0, "xy", "!", "XYZ"));
    std::string matched;  // a repeated B is forgiven, a broken BU is not; then without a busy
    for (char m : std::string("BBUSY\r\nBUBUSY~B|BUSY"))  // reply, then without a modem: none
        matched += char('0' + (m == '~' ? serialbuf_set_modem_control(b, 0, 0, "", "", "", "", "",
                                                                   "", "", "", no, "", "NO CARRIER")
                               : m == '|' ? serialbuf_clear_modem_control(b)
                                          : serialbuf_process_rec_strings(b, m)));
    EXPECT_EQ(ALL(matched, registered(), b->modem_control = 3),
              ALL("00005000000000000000", kBusy, 3));
    // The R is delivered all the same; the rest of the read is dropped.
    EXPECT_EQ(ALL((feed("NO CARRIER\r\nrest"), get(b, 20)), b->state, b->occupied, registered()),
              ALL("NO CARRIE", 2, 0, "serialbuf_process_rec_strings: no carrier detected.\n"));
    b->state = 3, feed("xyz"), get(b, 1);
    std::tie(b->busy_rec_string_ptr, b->offhook_rec_string_ptr, b->next_bad) = ALL(2, 3, 7);
    EXPECT_EQ(ALL(serialbuf_close(b), serialbuf_close(b), b->state, b->fd, b->ptr, b->occupied,
                  b->busy_rec_string_ptr, b->offhook_rec_string_ptr, b->next_bad),
              ALL(0, 0, 1, -1, 0, 0, 0, 0, -1));
    // Dialling and the reply after a ring get timeout_connect, not the read time-out.
    ASSERT_EQ((make(1000, 0, 9600, 0, 1), serialbuf_open(b)), 0);  // a byte a read: nothing lost
    feed(ok(2) + "NO CARRIER\r\nOK\r\nCONNECT 9600\r\n");  // no carrier loss before the call
    EXPECT_EQ(ALL(serialbuf_connect(b, 0, "5551234"), b->state, b->rverbose, b->connecting, sent()),
              ALL(0, 3, 0, 0, "ATZ\rATH\rATS0=0\rATDT5551234\r"));
    const std::string busy = "BUSY\r\n";  // to the dial, then to the no-listen step
    feed(ok(5) + busy + busy + ok(2) + busy + busy + busy + ok(3) + "CONNECT\r\n" + ok(8));
    EXPECT_EQ(ALL(serialbuf_connect(b, 0, "556"), registered(), serialbuf_connect(b, 0, "5"),
                  registered(), b->timeout_connect = 0, serialbuf_connect(b, 0, "5"), registered(),
                  b->timeout, serialbuf_connect(b, 0, nullptr), lines.size()),  // nothing to dial
              ALL(5, kBusy + kBusy + kSent + "read_until() error.\n" + kStep + "ATDT556\r) line "
                     "busy.\n", 5, kBusy + kBusy + kBusy + kSent + "read_until() error.\n" + kStep +
                                      "nolisten_string) line busy.\n",
                  0, 1, kSent + "timeout.\n" + kStep + "ATDT5\r) timeout.\n", 1000, 0, 21u));
    free(std::exchange(b->dialout_string_prefix, nullptr));
    EXPECT_EQ(serialbuf_connect(b, 0, "555"), 0);
    b->timeout_connect = 5000;
    feed(ok(5) + "RING\r\nCONNECT\r\n" + ok(5) + "RING\r\nCONNECT\r\n" + ok(3) + busy + ok(3));
    EXPECT_EQ(ALL(serialbuf_connect(b, 1, nullptr), +b->state, b->timeout_connect = 0,
                  serialbuf_connect(b, 1, nullptr), registered(), +b->state,
                  serialbuf_connect(b, 1, nullptr), registered(), stop_at = 2,
                  serialbuf_connect(b, 1, nullptr), registered(), idle, b->timeout),
              ALL(0, 3, 0, 1, "serialbuf_connect: serialbuf_read_until(connect_rec_string) error.\n"
                              "", 
                  2, 5, kBusy + "serialbuf_connect: serialbuf_read_until_intr(ring_rec_string) "
                                "error.\n", 2, 3, "", std::vector<int>{1, 1}, 1000));
    mute(), close(std::exchange(pty->master, -1));  // the line goes: -1, not 2
    EXPECT_EQ(ALL(serialbuf_connect(b, 0, "5"), registered()),
              ALL(-1, kEof + kEof + kEof + kSent + "read_until() error.\n" + kStep +
                          "nolisten_string) error.\n"));
}
