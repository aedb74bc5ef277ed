// The byte-stream link on a real pseudo-terminal and on loopback TCP.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "testutil.h"

using testutil::PtyPair;
using testutil::write_all;

namespace {

// The calling thread's registered messages, emptied.
std::string take_register() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}
bool has(const std::string &text, const std::string &part) { return text.find(part) != text.npos; }

// What the callbacks saw; the idle callback returns 3 on call number stop_at.
struct Seen {
    std::vector<int> idle;
    int stop_at = 0, read_bytes = 0, read_calls = 0, written = 0;
    std::vector<std::string> lines;
};
int on_idle(void *u, int timed_out) {
    auto *s = static_cast<Seen *>(u);
    s->idle.push_back(timed_out);
    return static_cast<int>(s->idle.size()) == s->stop_at ? 3 : 0;
}
int on_line(void *u, void *, char *line, int) {
    static_cast<Seen *>(u)->lines.emplace_back(line);
    return 0;
}
int on_rate(void *u, int direction, int n) {
    auto *s = static_cast<Seen *>(u);
    if (direction == 2) s->read_calls++;
    (direction == 2 ? s->read_bytes : s->written) += n;
    return 0;
}

SerialBuf *serial(const PtyPair &pty, Seen *s, int baud = 9600, int size = 1024,
                  int timeout = 5000, int sleep = 0, int flow = 0) {
    return serialbuf_create_serial(pty.slave_path.c_str(), baud, flow, size, timeout, sleep, 1,
                                   on_idle, s, on_line, s, nullptr, on_rate, s);
}

std::string get_bytes(SerialBuf *b, int n) {
    std::string out;
    unsigned char c;
    for (int i = 0; i < n && serialbuf_get_byte(b, &c, 0) == 0; i++) out += static_cast<char>(c);
    return out;
}

termios settings(int fd) {
    termios t{};
    tcgetattr(fd, &t);
    return t;
}

}  // namespace

TEST(SerialLink, OpensRawAtTheEightSpeedsAndRefusesOthers) {
    PtyPair pty;
    Seen s;
    termios before = settings(pty.slave);
    before.c_cc[VEOF] = 7;  // a control character that open must leave alone
    tcsetattr(pty.slave, TCSANOW, &before);
    const std::pair<int, speed_t> speeds[] = {{1200, B1200},   {2400, B2400},   {4800, B4800},
                                              {9600, B9600},   {19200, B19200}, {38400, B38400},
                                              {57600, B57600}, {115200, B115200}};
    for (auto [baud, code] : speeds) {
        SerialBuf *b = serial(pty, &s, baud);
        ASSERT_EQ(serialbuf_open(b), 0) << baud;
        EXPECT_EQ(b->state, 2);
        termios t = settings(pty.slave);
        EXPECT_EQ(cfgetospeed(&t), code);
        EXPECT_EQ(cfgetispeed(&t), code);
        EXPECT_EQ(t.c_iflag & 0xffff, tcflag_t(IGNBRK));
        EXPECT_EQ(t.c_oflag & 0xffff, 0u);
        EXPECT_EQ(t.c_cflag & 0xffff, tcflag_t(code | CS8 | CREAD | CLOCAL));
        EXPECT_EQ(t.c_lflag & 0xffff, tcflag_t(NOFLSH));
        EXPECT_EQ((std::vector<int>{t.c_cc[VMIN], t.c_cc[VTIME], t.c_cc[VEOF]}),
                  (std::vector<int>{0, 1, 7}));
        serialbuf_destroy(b);
    }
    for (int baud : {300, 230400}) {
        SerialBuf *b = serial(pty, &s, baud);
        EXPECT_EQ(serialbuf_open(b), -1);
        EXPECT_EQ(b->fd, -1);
        EXPECT_EQ(b->state, 1);
        std::string expected = "serialbuf_open: invalid baudrate " + std::to_string(baud);
        EXPECT_TRUE(has(take_register(), expected));
        serialbuf_destroy(b);
    }
}

TEST(SerialLink, OpenNeverSwitchesHardwareFlowControl) {
    PtyPair pty;
    Seen s;
    for (bool rtscts : {true, false}) {  // the device's setting before open
        for (int flow : {0, 1}) {
            termios t = settings(pty.slave);
            t.c_cflag = rtscts ? (t.c_cflag | CRTSCTS) : (t.c_cflag & ~CRTSCTS);
            tcsetattr(pty.slave, TCSANOW, &t);
            SerialBuf *b = serial(pty, &s, 19200, 64, 1000, 0, flow);
            ASSERT_EQ(serialbuf_open(b), 0);
            EXPECT_EQ((settings(pty.slave).c_cflag & CRTSCTS) != 0, rtscts) << "flow " << flow;
            serialbuf_destroy(b);
        }
    }
}

TEST(SerialLink, HandsOutBytesInOrderAcrossRefillsAndWritesRaw) {
    PtyPair pty;
    Seen s;
    SerialBuf *b = serial(pty, &s, 9600, 8);
    ASSERT_EQ(serialbuf_open(b), 0);
    unsigned char c;
    EXPECT_EQ(serialbuf_get_byte(b, &c, 0), 4);  // open is not connected
    EXPECT_TRUE(has(take_register(), "serialbuf_get_byte: not connected."));
    ASSERT_EQ(serialbuf_connect(b, 0, nullptr), 0);
    const std::string data = "0123456789abcdefghijklmnopqrstuvwxyz";
    write_all(pty.master, data.data(), 20);
    EXPECT_EQ(get_bytes(b, 10), data.substr(0, 10));
    write_all(pty.master, data.data() + 20, data.size() - 20);
    EXPECT_EQ(get_bytes(b, 26), data.substr(10));
    EXPECT_EQ(s.read_bytes, 36);
    EXPECT_GE(s.read_calls, 5);  // a buffer of 8 needs five reads or more for 36 bytes
    EXPECT_TRUE(s.idle.empty());  // intr 0 never calls it
    EXPECT_EQ(serialbuf_write(b, "\xc0ok\xdb", 4), 4);
    EXPECT_EQ(testutil::read_at_least(pty.master, 4, 5000), "\xc0ok\xdb");
    EXPECT_EQ(s.written, 4);
    EXPECT_EQ(serialbuf_close(b), 0);
    EXPECT_EQ(serialbuf_close(b), 0);  // the second does nothing
    EXPECT_EQ(b->fd, -1);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);  // a closed link opens again
    write_all(pty.master, "ok", 2);
    EXPECT_EQ(get_bytes(b, 2), "ok");
    serialbuf_destroy(b);
}

TEST(SerialLink, TimeOutCountsWholeSilentSeconds) {
    PtyPair pty;
    for (auto [timeout, waits] : {std::pair{2500, 3}, std::pair{1000, 1}}) {
        Seen s;
        SerialBuf *b = serial(pty, &s, 9600, 64, timeout);
        ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
        unsigned char c = 0;
        EXPECT_EQ(serialbuf_get_byte(b, &c, 2), 1);
        EXPECT_EQ(s.idle, std::vector<int>(waits, 1)) << timeout;
        EXPECT_TRUE(has(take_register(), "serialbuf_get_byte: timeout."));
        write_all(pty.master, "Z", 1);  // the link still works afterwards
        EXPECT_EQ(serialbuf_get_byte(b, &c, 2), 0);
        EXPECT_EQ(c, 'Z');
        serialbuf_destroy(b);
    }
}

TEST(SerialLink, WithoutTimeOutTheIdleCallbackRunsEachSecondAndCanStopTheWait) {
    PtyPair pty;
    Seen s;
    s.stop_at = 3;
    SerialBuf *b = serial(pty, &s, 9600, 64, 0);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    unsigned char c = 0;
    long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_get_byte(b, &c, 1), 3);
    EXPECT_GE(testutil::now_ms() - t0, 1500);  // three one-second waits, wide margin
    EXPECT_EQ(s.idle, std::vector<int>(3, 0));
    // In mode 1 it runs even when data waits, and 3 still wins; the byte
    // stays for the next call.
    write_all(pty.master, "Q", 1);
    s.idle.clear();
    s.stop_at = 1;
    EXPECT_EQ(serialbuf_get_byte(b, &c, 1), 3);
    EXPECT_EQ(get_bytes(b, 1), "Q");
    serialbuf_destroy(b);
}

TEST(SerialLink, DumpsWhatItReads) {
    PtyPair pty;
    Seen s;
    SerialBuf *b = serial(pty, &s, 9600, 1024, 5000, 50000);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    const std::pair<int, std::string> modes[] = {{1, "reading 5 bytes: AT\\r\\n\n"}, {2, "AT\r\n"}};
    for (const auto &[mode, expected] : modes) {
        b->rverbose = mode;
        write_all(pty.master, "AT\r\n\x01", 5);
        testing::internal::CaptureStdout();
        std::string got = get_bytes(b, 5);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
        EXPECT_EQ(got, "AT\r\n\x01");
    }
    b->rverbose = 3;  // a line may span reads; an empty one is not logged
    write_all(pty.master, "OK\r\nHEL", 7);
    get_bytes(b, 7);
    write_all(pty.master, "LO\t\x02\n", 5);
    get_bytes(b, 5);
    EXPECT_EQ(s.lines, (std::vector<std::string>{"OK", "HELLO\t"}));
    std::string longline(300, 'x');
    write_all(pty.master, longline.data(), longline.size());
    EXPECT_EQ(get_bytes(b, 300), longline);
    EXPECT_EQ(b->line_size, 512);
    EXPECT_EQ(std::string(b->line), longline);
    serialbuf_destroy(b);
}

TEST(SerialLink, OneReaderAndOneWriterAtOnceAndUsleep) {
    PtyPair pty;
    Seen s;
    SerialBuf *b = serial(pty, &s, 115200, 16);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    std::string in(2000, '\0'), out(2000, '\0');
    for (size_t i = 0; i < in.size(); i++) in[i] = char('a' + i % 26), out[i] = char('A' + i % 26);
    write_all(pty.master, in.data(), in.size());
    std::thread writer([&] {
        for (size_t i = 0; i < out.size(); i += 100) serialbuf_write(b, out.data() + i, 100);
    });
    EXPECT_EQ(get_bytes(b, static_cast<int>(in.size())), in);
    writer.join();
    EXPECT_EQ(testutil::read_at_least(pty.master, out.size(), 5000), out);
    serialbuf_destroy(b);
    long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_usleep(1500000), 0);
    EXPECT_GE(testutil::now_ms() - t0, 1450);
}

namespace {
// A loopback TCP socket: listening on a fresh port (stored) or connected to port.
int loopback_tcp(int *port, bool listening) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    uint16_t p = htons(static_cast<uint16_t>(listening ? 0 : *port));
    sockaddr_in a{AF_INET, p, {htonl(INADDR_LOOPBACK)}, {}};
    auto *sa = reinterpret_cast<sockaddr *>(&a);
    socklen_t len = sizeof a;
    if (!listening) return connect(fd, sa, len) == 0 ? fd : (close(fd), -1);
    bind(fd, sa, len);
    listen(fd, 1);
    getsockname(fd, sa, &len);
    *port = ntohs(a.sin_port);
    return fd;
}
}  // namespace

TEST(TcpLink, ClientReadsUntilThePeerCloses) {
    int port = 0, ls = loopback_tcp(&port, true);
    SerialBuf *b = serialbuf_create_tcpclient("127.0.0.1", port, 16, 5000, 1, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    int peer = accept(ls, nullptr, nullptr);
    write_all(peer, "hi", 2);
    close(peer);
    EXPECT_EQ(get_bytes(b, 3), "hi");
    EXPECT_TRUE(has(take_register(), "serialbuf_get_byte: eof."));
    unsigned char c;
    EXPECT_EQ(serialbuf_get_byte(b, &c, 0), 2);
    close(ls);
    serialbuf_destroy(b);
}

TEST(TcpLink, ServerAcceptsAClientAndBindsAgainAfterClose) {
    int port = testutil::free_tcp_port();
    SerialBuf *b = serialbuf_create_tcpserver(port, 16, 5000, 1, nullptr, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr);
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(serialbuf_open(b), 0) << take_register();
        int client = loopback_tcp(&port, false);  // waits in the backlog until connect accepts
        ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
        write_all(client, "A", 1);
        EXPECT_EQ(get_bytes(b, 1), "A");
        EXPECT_EQ(serialbuf_write(b, "B", 1), 1);
        EXPECT_EQ(testutil::read_at_least(client, 1, 5000), "B");
        EXPECT_EQ(serialbuf_disconnect(b), 0);
        EXPECT_EQ(b->fd, -1);
        EXPECT_GE(b->fdserver, 0);  // the listening socket stays for the next client
        EXPECT_EQ(serialbuf_close(b), 0);
        EXPECT_EQ(b->fdserver, -1);
        close(client);
    }
    serialbuf_destroy(b);
}
