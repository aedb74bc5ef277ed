// The link and its modem dialogue on a pseudo-terminal (the master plays the far end) and on TCP.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
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

const std::nullptr_t no = nullptr;
const std::string kBusy = "serialbuf_process_rec_strings: busy signal detected.\n", kEof = "serialbuf_get_byte: eof.\n",
                  kSent = "serialbuf_send_modem_string: ", kCarrier = "serialbuf_get_byte: no carrier detected.\n";
static std::string gave_up(const std::string &cmd, const std::string &why, bool timeout = false) {  // connect gave up
    return kSent + (timeout ? "timeout.\n" : "read_until() error.\n") +
           "serialbuf_connect: serialbuf_send_modem_string(" + cmd + ") " + why + ".\n";
}
static std::string registered() {  // this thread's registered messages without time stamp and program name; emptied
    testing::internal::CaptureStderr(), elog_clear_register(1);
    const std::regex stamp(R"(^.{23} \S+: )", std::regex::multiline);
    return std::regex_replace(testing::internal::GetCapturedStderr(), stamp, "");
}
using Outcome = std::pair<int, std::string>;  // a call's result and the messages it registered
static Outcome logged(int result) { return {result, registered()}; }
static std::string get(SerialBuf *b, size_t n, std::string out = "") {  // up to n bytes, while result 0
    for (unsigned char c; out.size() < n && serialbuf_get_byte(b, &c, 0) == 0;) out += char(c);
    return out;
}
static std::string ok(int n) { return n ? "OK\r\n" + ok(n - 1) : ""; }
static long open_fds() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// A link b on a pty's slave end, the master playing datalogger or modem (make's modem: -1 none, 0 strings, 1 lines).
struct Line : testing::Test {
    std::optional<testutil::PtyPair> pty{std::in_place};
    SerialBuf *b = nullptr;
    size_t stop_at = 0, bytes[3] = {};  // the idle callback says 3, stop, on its call stop_at; bytes: 1 written, 2 read
    std::vector<int> idle;
    std::vector<std::string> lines;
    termios t{};  // the slave's settings as last read
    static Line &of(void *u) { return *static_cast<Line *>(u); }
    static int on_idle(void *u, int t) { return of(u).idle.push_back(t), of(u).idle.size() == of(u).stop_at ? 3 : 0; }
    static int on_line(void *u, void *, char *s, int one) { return of(u).lines.emplace_back(one == 1 ? s : "?"), 0; }
    static int on_rate(void *u, int direction, int n) { return of(u).bytes[direction] += n, 0; }
    void make(int timeout, int modem = -1, int baud = 9600, int flow = 0, int size = 256, const char *dev = "") {
        serialbuf_destroy(b);
        b = serialbuf_create_serial(dev && !*dev ? pty->slave_path.c_str() : dev, baud, flow, size, timeout, 0, 1,
                                    on_idle, this, on_line, this, no, on_rate, this);
        if (modem >= 0) serialbuf_set_modem_control(b, modem, 3000, "ATZ\r", "ATH\r", "ATS0=1\r", "ATS0=0\r", "ATDT",
                                                     "\r", "OK", "RING", "BUSY", "CONNECT", "NO CARRIER");
    }
    void no_hangup_cmds() { free(std::exchange(b->attention_string, {})), free(std::exchange(b->hangup_string, {})); }
    void say(const std::string &s) { testutil::write_all(pty->master, s.data(), s.size()); }
    void open_modem() { make(1000, 0, 9600, 0, 1); ASSERT_EQ(serialbuf_open(b), 0); }  // a byte a read
    std::string heard() { return testutil::read_for(pty->master, 100, 2000); }
    speed_t speed() { return tcgetattr(pty->slave, &t), cfgetospeed(&t); }
    auto input() { return std::tuple(b->ptr, b->occupied, b->busy_rec_string_ptr, b->offhook_rec_string_ptr,
                                     b->next_bad); }  // what the link keeps of its input
    void TearDown() override { serialbuf_destroy(b), elog_clear_register(0), carrier_down = false; }
};
const auto kForgotten = std::tuple(0, 0, 0, 0, -1);

// Only the low halves of the mode words change, so RTS/CTS stays as it was whatever flow asks.
TEST_F(Line, OpensRawAtTheEightSpeedsAndRefusesTheRest) {
    const long fds = open_fds();
    const std::pair<int, speed_t> speeds[] = {{1200, B1200},   {2400, B2400},   {4800, B4800},   {9600, B9600},
                                              {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200}};
    for (unsigned i = 0; i < 8; i++) {  // each row: speeds out and in, the control word and RTS/CTS after opening
        const bool rtscts = i % 2, lines = i == 7;  // the last row: a modem with lines, which must see carrier
        tcgetattr(pty->slave, &t), t.c_cflag = rtscts ? t.c_cflag | CRTSCTS : t.c_cflag & ~CRTSCTS;
        tcsetattr(pty->slave, TCSANOW, &t);  // RTS/CTS as the row says, before the link opens
        make(1000, lines ? 1 : -1, speeds[i].first, i / 2 % 2);
        ASSERT_EQ(serialbuf_open(b), 0);
        tcgetattr(pty->slave, &t);
        EXPECT_EQ(std::tuple(cfgetospeed(&t), cfgetispeed(&t), t.c_cflag & 0xffff & ~CBAUD, (t.c_cflag & CRTSCTS) != 0),
                  std::tuple(speeds[i].second, speeds[i].second, tcflag_t(CS8 | CREAD | (lines ? 0 : CLOCAL)), rtscts));
    }
    // Raw at every speed: the low halves of the input, output and local words; reads of 0.1 s.
    EXPECT_EQ(std::tuple(t.c_iflag & 0xffff, t.c_oflag & 0xffff, t.c_lflag & 0xffff), std::tuple(IGNBRK, 0, NOFLSH));
    EXPECT_EQ(std::pair(t.c_cc[VMIN], t.c_cc[VTIME]), std::pair(cc_t(0), cc_t(1)));
    b->state = 3, no_hangup_cmds(), serialbuf_disconnect(b);  // a modem with lines hangs up: speed 0
    EXPECT_EQ(speed(), speed_t(B0));
    EXPECT_EQ(serialbuf_hangup(-1), -1);
    const std::tuple<const char *, int, std::string> refused[] = {
        {"", 300, "serialbuf_open: invalid baudrate 300\n"},
        {"/dev/null", 9600, "serialbuf_open: ioctl('/dev/null') TCGETA error. (Inappropriate ioctl for device)\n"},
        {nullptr, 9600, "serialbuf_open: open('(null)') error. (No such file or directory)\n"}};
    for (auto &[dev, baud, message] : refused) {  // each leaves no descriptor behind
        make(0, -1, baud, 0, 64, dev);
        EXPECT_EQ(logged(serialbuf_open(b)), Outcome(-1, message));
        EXPECT_EQ(b->fd, -1);
    }
    serialbuf_destroy(std::exchange(b, nullptr));
    EXPECT_EQ(open_fds(), fds);
}

// Dumps of what is read, text lines spanning reads, and the byte counts.
TEST_F(Line, DumpsLogsLinesAndCountsBytes) {
    make(5000, -1, 115200, 0, 8);  // reads of 8 bytes at most
    ASSERT_EQ(serialbuf_connect(b, 0, nullptr), 0);
    testing::internal::CaptureStdout(), b->rverbose = 1, say("AT\r\n\x01"), get(b, 5);  // escaped, no unprintables
    b->rverbose = 2, say("AT\r\n\x01"), get(b, 5);  // raw
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "reading 5 bytes: AT\\r\\n\nAT\r\n");
    b->rverbose = 3, say("OK\r\nHELLO\t\x02\n" + std::string(253, 'x')), get(b, 12 + 253);  // lines to the callback
    EXPECT_EQ(b->line_size, 256);  // the line buffer grows at 254 characters
    say("y"), get(b, 1);
    EXPECT_EQ(b->line_size, 512);
    EXPECT_EQ(b->line, std::string(253, 'x') + "y");
    EXPECT_EQ(lines, (std::vector<std::string>{"OK", "HELLO\t"}));
    serialbuf_write(b, "\xc0\0", 2);
    EXPECT_EQ(std::tuple(bytes[1], bytes[2]), std::tuple(2, 10 + 266));  // written, read
    serialbuf_disconnect(b);  // without a modem the line keeps its speed
    EXPECT_EQ(speed(), speed_t(B115200));
    EXPECT_EQ(serialbuf_hangup(b->fd), 0);  // a live line hangs up without error
}

// Silence counts in whole seconds; a vanished line (master closed) ends the read at once.
TEST_F(Line, SilenceAVanishedLineAndCarrierLossEndTheRead) {
    struct Row { const char *what; int timeout, modem, intr, stop_at, gone; Outcome outcome; std::vector<int> idle; };
    const Row rows[] = {{"silence", 1001, 1, 2, 0, 0, {1, "serialbuf_get_byte: timeout.\n"}, {1, 1}},
                        {"silence, carrier gone", 1000, 2, 2, 0, 0, {4, kCarrier}, {1}},
                        {"the idle callback stops", 0, 1, 1, 2, 0, {3, ""}, {0, 0}},
                        {"end of stream", 0, 1, 1, 0, 1, {2, kEof}, {0}},
                        {"end of stream, carrier gone", 0, 2, 1, 0, 1, {4, kCarrier}, {0}}};
    carrier_down = true;
    unsigned char c;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        pty.emplace(), make(row.timeout);
        ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
        b->modem_control = row.modem, stop_at = row.stop_at;
        if (row.gone) close(std::exchange(pty->master, -1));
        EXPECT_EQ(logged(serialbuf_get_byte(b, &c, row.intr)), row.outcome);
        EXPECT_EQ(std::exchange(idle, {}), row.idle);
    }
    carrier_down = false;  // a line whose modem query fails counts as having carrier
    EXPECT_EQ(logged(serialbuf_get_byte(b, &c, 0)), Outcome(2, kEof));
}

// Talk and end of stream; a server keeps listening until closed, then its port is free.
TEST(TcpLink, ClientAndServerTalkEndAndFreeThePort) {
    const int port = testutil::fixed_tcp_port();
    SerialBuf *s = serialbuf_create_tcpserver(port, 16, 1000, 2, no, no, no, no, no, no, no),
              *x = serialbuf_create_tcpserver(port, 16, 1000, 2, no, no, no, no, no, no, no),
              *c = serialbuf_create_tcpclient("127.0.0.1", port, 16, 1000, 2, no, no, no, no, no, no, no);
    EXPECT_EQ(serialbuf_disconnect(c), 0);  // disconnecting what is not connected does nothing
    EXPECT_EQ(logged(serialbuf_open(c)), Outcome(-1, "serialbuf_open: Can't connect to server (Connection refused)\n"));
    ASSERT_EQ(serialbuf_open(s), 0);
    EXPECT_EQ(logged(serialbuf_open(x)), Outcome(-1, "serialbuf_open: bind() error. (Address already in use)\n"));
    EXPECT_EQ(std::pair(c->fd, x->fdserver), std::pair(-1, -1));  // the failed ones keep none
    for (SerialBuf *l : {c, s}) ASSERT_EQ(serialbuf_connect(l, 0, ""), 0);  // s accepts c from the backlog
    serialbuf_write(c, "A", 1), serialbuf_write(s, "hi", 2);
    EXPECT_EQ(get(s, 1), "A");
    // Only the accepted connection goes, and a modem's hang-up has no line to go through.
    serialbuf_set_modem_control(s, 0, 0, "ATZ\r", "ATH\r", no, no, no, no, "OK", no, no, no, no);
    EXPECT_EQ(logged(serialbuf_disconnect(s)), Outcome(0, ""));
    EXPECT_EQ(get(c, 3), "hi");
    EXPECT_EQ(registered(), kEof);
    serialbuf_close(c), serialbuf_clear_modem_control(s);  // still listening: a new client comes
    for (SerialBuf *l : {c, s}) ASSERT_EQ(serialbuf_connect(l, 0, ""), 0);
    serialbuf_close(s);
    EXPECT_EQ(s->fdserver, -1);
    EXPECT_EQ(serialbuf_open(x), 0);  // the port is free again
    serialbuf_close(x);
    const int dir = open("/", O_RDONLY);  // impossible states and kinds, unusable descriptors
    const std::string opening = "serialbuf_connect: serialbuf_open() error.\n",
                      closing = "serialbuf_connect: serialbuf_disconnect() error.\n";
    struct Row { int com_mode, state, fd; char call; Outcome want; };  // call: see the loop
    const Row rows[] = {  // x, a server, has no host to connect to as a client
        {7, 1, -1, 'c', {-1, "serialbuf_open: Illegal com_mode value '7'.\n" + opening}},
        {2, 1, -1, 'c', {-1, "serialbuf_open: Can't locate server by name of '(null)'\n" + opening}},
        {2, 9, -1, 'c', {-1, "serialbuf_connect: Illegal state value '9'.\n"}},
        {7, 3, -1, 'c', {-1, "serialbuf_disconnect: Illegal com_mode value '7'.\n" + closing}},
        {2, 9, -1, 'd', {-1, "serialbuf_disconnect: Illegal state value '9'.\n"}},
        {3, 2, -1, 'c', {-1, "serialbuf_connect: accept() error. (Bad file descriptor)\n"}},
        {2, 2, -1, 'r', {4, "serialbuf_get_byte: not connected.\n"}},
        {2, 3, 999, 'r', {-1, "serialbuf_get_byte: fdwait() error.\n"}},
        {2, 3, dir, 'r', {-1, "serialbuf_get_byte: serialbuf_read() error. (Is a directory)\n"}},
        {3, 1, -1, 'm', {-1, "serialbuf_set_modem_control: Cannot set local mode for non-serial buffer.\n"}}};
    for (unsigned char byte; const Row &r : rows) {
        x->com_mode = r.com_mode, x->state = r.state, x->fd = r.fd, x->fdserver = -1;
        errno = EDOM;  // a stray error text would show
        EXPECT_EQ(logged(r.call == 'c'   ? serialbuf_connect(x, 0, "")
                         : r.call == 'd' ? serialbuf_disconnect(x)
                         : r.call == 'r' ? serialbuf_get_byte(x, &byte, 0)
                         : serialbuf_set_modem_control(x, 1, 7, no, no, no, no, no, no, no, no, no, no, no)), r.want);
    }
    EXPECT_EQ(x->modem_control, 1);  // the refused switch to a modem with lines changed nothing
    x->state = 1, x->fd = -1, close(dir);
    for (SerialBuf *l : {s, x, c}) serialbuf_destroy(l);
}

// A modem driven by strings: commands, replies, the matchers, close; then dialling and answering, each step led by the
// modem's attention and hang-up ("at"), twice when it was connected.
TEST_F(Line, ModemDialogue) {
    open_modem();  // open, not connected; a byte a read: nothing read ahead is lost between steps
    EXPECT_EQ(logged(serialbuf_send_modem_string(b, "AT\r", "OK", 2)),
              Outcome(4, "serialbuf_get_byte: not connected.\n"));
    b->state = 3, say("OK");  // a pause inside a command
    const long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_send_modem_string(b, "ATZ<sl=1000500>ATE0\r", "OK", 2), 0);
    EXPECT_GE(testutil::now_ms() - t0, 1000);
    b->timeout = 5, b->sleep = 20000, say("OK");  // the time-out bounds the whole wait, and each retry is said
    testing::internal::CaptureStderr();
    const int rc = serialbuf_send_modem_string(b, "AT\r", "OK", 1);
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStderr(), std::regex(".* warning: "), ""),
              kSent + "timeout...retrying\n");
    EXPECT_EQ(logged(rc), Outcome(1, kSent + "timeout.\n"));
    b->timeout = 1000, b->sleep = 0;  // a pause without its end: refused before writing
    EXPECT_EQ(logged(serialbuf_send_modem_string(b, "AT<sl=5", no, 2)), Outcome(-1, kSent + "string format error.\n"));
    EXPECT_EQ(heard(), "ATZATE0\rAT\rAT\r");
    b->wverbose = 1, testing::internal::CaptureStdout();  // a leading pause writes an empty piece; no reply awaited
    EXPECT_EQ(serialbuf_send_modem_string(b, "<sl=1000>AT\r", nullptr, 2), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "writing 0 bytes: \nwriting 3 bytes: AT\\r\n");
    say(std::string("CONNECTyO\0KzCONNECT!", 20));  // NULs (modems pad with them) never match
    EXPECT_EQ(serialbuf_read_until(b, "~OK~~CONNECT"), 0);  // in order; "K" left over from above
    EXPECT_EQ(get(b, 1), "!");
    char value[9] = "junk\0XYZ";  // 5 bytes lent, then guards; a parse's result, then (braces order it) the 8 bytes
    auto parse = [&](const char *s, int n) { return Outcome{serialbuf_read_until_parse(b, s, value, n), {value, 8}}; };
    EXPECT_EQ(parse(nullptr, 5), Outcome(0, {"\0unk\0XYZ", 8}));  // emptied first, even with nothing to await
    say("abcdefOKghOKxyEND-!");  // comes to an empty buffer: a parse never calls the idle callback
    EXPECT_EQ(parse("OK", 5), Outcome(0, {"cdef\0XYZ", 8}));  // the last 4 characters before the text
    EXPECT_EQ(parse("OK~END", 5), Outcome(0, {"xy\0f\0XYZ", 8}));  // before the second text
    EXPECT_EQ(parse("!", 1), Outcome(0, {"\0y\0f\0XYZ", 8}));  // room for the terminator alone
    ASSERT_EQ(idle, std::vector<int>{});  // (else the wait for a ring below never stops)
    auto match = [&](const std::string &received, std::string codes = "") {
        for (char c : received) codes += char('0' + serialbuf_process_rec_strings(b, c));
        return codes + registered();
    };
    EXPECT_EQ(match("BBUSY\r\nBUBUSY"), "0000500000000" + kBusy);  // "BB" forgiven, "BUBU" not
    serialbuf_clear_modem_control(b);
    EXPECT_EQ(match("BUSY"), "0000");  // no modem, no matcher
    b->offhook_rec_string_ptr = 3;  // a part match, forgotten; the busy reply kept, but its length set to 0
    serialbuf_set_modem_control(b, 0, 0, no, no, no, no, no, no, no, no, no, no, "NO CARRIER");
    EXPECT_EQ((std::pair{+b->offhook_rec_string_ptr, match("BUSY")}), std::pair(0, std::string("0000")));
    say("NO CARRIER\r\nrest");  // carrier lost while connected: back to open, the input forgotten
    EXPECT_EQ(get(b, 20), "NO CARRIE");
    EXPECT_EQ(registered(), "serialbuf_process_rec_strings: no carrier detected.\n");
    EXPECT_EQ(std::pair(b->state, input()), std::pair(2, kForgotten));
    b->state = 3, say("xyz"), get(b, 1);  // closed with bytes held and replies part matched
    b->busy_rec_string_ptr = 2, b->offhook_rec_string_ptr = 3, b->next_bad = 7, serialbuf_close(b);
    EXPECT_EQ(std::tuple(b->state, b->fd, input()), std::tuple(1, -1, kForgotten));
    heard(), open_modem(), stop_at = 2;  // a fresh link for the dialogue
    const std::string busy = "BUSY\r\n", at = "ATZ\rATH\r", ring = ok(5) + "RING\r\nCONNECT\r\n";
    struct Call { const char *what; int timeout_connect; std::string says; int listen;
                  const char *number; Outcome outcome; std::string heard; };
    const Call calls[] = {
        {"dials; no carrier loss before the call", 3000, ok(2) + "NO CARRIER\r\nOK\r\nCONNECT\r\n", 0, "5551234",
         {0, ""}, at + "ATS0=0\rATDT5551234\r"},
        {"a busy dial", 3000, ok(5) + busy + busy, 0, "556", {5, kBusy + kBusy + gave_up("ATDT556\r", "line busy")},
         at + at + "ATS0=0\rATDT556\rATDT556\r"},
        {"busy at the no-listen step", 3000, ok(2) + busy + busy + busy, 0, "5",
         {5, kBusy + kBusy + kBusy + gave_up("nolisten_string", "line busy")}, at + "ATS0=0\rATS0=0\rATS0=0\r"},
        {"the dial waits timeout_connect", 0, ok(3) + "CONNECT\r\n", 0, "5", {1, gave_up("ATDT5\r", "timeout", true)},
         at + "ATS0=0\rATDT5\rATDT5\r"},
        {"nothing to dial", 0, ok(3), 0, no, {0, ""}, at + "ATS0=0\r"},
        {"answers", 5000, ring, 1, no, {0, ""}, at + at + "ATS0=1\r"},
        {"the reply after a ring waits timeout_connect", 0, ring, 1, no,
         {1, "serialbuf_connect: serialbuf_read_until(connect_rec_string) error.\n"}, at + at + "ATS0=1\r"},
        {"busy while awaiting a ring", 0, ok(3) + busy, 1, no,
         {5, kBusy + "serialbuf_connect: serialbuf_read_until_intr(ring_rec_string) error.\n"}, at + "ATS0=1\r"},
        {"the idle callback ends the wait for a ring", 0, ok(3), 1, no, {3, ""}, at + "ATS0=1\r"}};
    for (const Call &call : calls) {
        SCOPED_TRACE(call.what);
        b->timeout_connect = call.timeout_connect, say(call.says);
        EXPECT_EQ(logged(serialbuf_connect(b, call.listen, call.number)), call.outcome);
        EXPECT_EQ(heard(), call.heard);
    }
    EXPECT_EQ(idle, (std::vector<int>{1, 1}));  // two silent seconds
    // Each step gave back the time-out and dump mode, and ended connecting; replies were logged.
    EXPECT_EQ(std::tuple(b->timeout, b->rverbose, b->connecting, lines.size()), std::tuple(1000, 0, 0, 39u));
    free(std::exchange(b->dialout_string_prefix, nullptr)), say(ok(3));  // nothing to dial either
    EXPECT_EQ(serialbuf_connect(b, 0, "555"), 0);
    no_hangup_cmds(), close(std::exchange(pty->master, -1));  // the line goes: -1, not 2
    EXPECT_EQ(logged(serialbuf_connect(b, 0, "5")),
              Outcome(-1, kEof + kEof + kEof + gave_up("nolisten_string", "error")));
}
