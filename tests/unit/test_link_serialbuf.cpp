// The byte-stream link on a real pseudo-terminal and on loopback TCP.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "testutil.h"

using testutil::PtyPair;

namespace {

// The calling thread's registered messages, emptied.
std::string take_register() {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    return testing::internal::GetCapturedStderr();
}

// What the callbacks saw.
struct Seen {
    std::vector<int> idle_args;
    int idle_stop_at = 0;  // return 3 on this call (1-based); 0 never
    int read_bytes = 0, read_calls = 0, written_bytes = 0;
    std::vector<std::string> lines;
};

int on_idle(void *u, int timed_out) {
    auto *s = static_cast<Seen *>(u);
    s->idle_args.push_back(timed_out);
    return static_cast<int>(s->idle_args.size()) == s->idle_stop_at ? 3 : 0;
}
int on_line(void *u, void *, char *line, int) {
    static_cast<Seen *>(u)->lines.emplace_back(line);
    return 0;
}
int on_rate(void *u, int direction, int n) {
    auto *s = static_cast<Seen *>(u);
    if (direction == 2) s->read_bytes += n, s->read_calls++;
    if (direction == 1) s->written_bytes += n;
    return 0;
}

SerialBuf *serial(const PtyPair &pty, Seen *seen, int baud = 9600, int size = 1024,
                  int timeout = 5000, int sleep = 0, int flow = 0) {
    if (!seen)
        return serialbuf_create_serial(pty.slave_path.c_str(), baud, flow, size, timeout, sleep,
                                       1, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                       nullptr);
    return serialbuf_create_serial(pty.slave_path.c_str(), baud, flow, size, timeout, sleep, 1,
                                   on_idle, seen, on_line, seen, nullptr, on_rate, seen);
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
    termios before = settings(pty.slave);
    before.c_cc[VEOF] = 7;  // a control character that open must leave alone
    tcsetattr(pty.slave, TCSANOW, &before);
    const std::pair<int, speed_t> speeds[] = {{1200, B1200},   {2400, B2400},  {4800, B4800},
                                              {9600, B9600},   {19200, B19200}, {38400, B38400},
                                              {57600, B57600}, {115200, B115200}};
    for (auto [baud, code] : speeds) {
        SerialBuf *b = serial(pty, nullptr, baud);
        ASSERT_EQ(serialbuf_open(b), 0) << baud;
        EXPECT_EQ(b->state, 2);
        termios t = settings(pty.slave);
        EXPECT_EQ(cfgetospeed(&t), code);
        EXPECT_EQ(cfgetispeed(&t), code);
        EXPECT_EQ(t.c_iflag & 0xffff, tcflag_t(IGNBRK));
        EXPECT_EQ(t.c_oflag & 0xffff, 0u);
        EXPECT_EQ(t.c_cflag & 0xffff, tcflag_t(code | CS8 | CREAD | CLOCAL));
        EXPECT_EQ(t.c_lflag & 0xffff, tcflag_t(NOFLSH));
        EXPECT_EQ(t.c_cc[VMIN], 0);
        EXPECT_EQ(t.c_cc[VTIME], 1);
        EXPECT_EQ(t.c_cc[VEOF], 7);
        serialbuf_destroy(b);
    }
    for (int baud : {300, 230400}) {
        SerialBuf *b = serial(pty, nullptr, baud);
        EXPECT_EQ(serialbuf_open(b), -1);
        EXPECT_EQ(b->fd, -1);
        EXPECT_EQ(b->state, 1);
        EXPECT_NE(take_register().find("serialbuf_open: invalid baudrate " + std::to_string(baud)),
                  std::string::npos);
        serialbuf_destroy(b);
    }
    SerialBuf *b = serialbuf_create_serial("/nonexistent/tty", 9600, 0, 8, 0, 0, 1, nullptr,
                                           nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(serialbuf_connect(b, 0, ""), -1);
    EXPECT_EQ(b->state, 1);
    std::string reg = take_register();
    EXPECT_NE(reg.find("serialbuf_open: open('/nonexistent/tty') error."), std::string::npos);
    EXPECT_NE(reg.find("serialbuf_connect: serialbuf_open() error."), std::string::npos);
    serialbuf_destroy(b);
}

TEST(SerialLink, OpenNeverSwitchesHardwareFlowControl) {
    PtyPair pty;
    for (bool rtscts : {true, false}) {
        for (int flow : {0, 1}) {
            termios t = settings(pty.slave);
            t.c_cflag = rtscts ? (t.c_cflag | CRTSCTS) : (t.c_cflag & ~CRTSCTS);
            tcsetattr(pty.slave, TCSANOW, &t);
            SerialBuf *b = serial(pty, nullptr, 19200, 64, 1000, 0, flow);
            ASSERT_EQ(serialbuf_open(b), 0);
            EXPECT_EQ((settings(pty.slave).c_cflag & CRTSCTS) != 0, rtscts) << "flow " << flow;
            serialbuf_destroy(b);
        }
    }
}

TEST(SerialLink, HandsOutBytesInOrderAcrossRefillsAndWritesRaw) {
    PtyPair pty;
    Seen seen;
    SerialBuf *b = serial(pty, &seen, 9600, 8);
    ASSERT_EQ(serialbuf_connect(b, 0, nullptr), 0);
    EXPECT_EQ(b->state, 3);
    const std::string data = "0123456789abcdefghijklmnopqrstuvwxyz";
    testutil::write_all(pty.master, data.data(), 20);
    EXPECT_EQ(get_bytes(b, 10), data.substr(0, 10));
    testutil::write_all(pty.master, data.data() + 20, data.size() - 20);
    EXPECT_EQ(get_bytes(b, static_cast<int>(data.size()) - 10), data.substr(10));
    EXPECT_EQ(seen.read_bytes, static_cast<int>(data.size()));
    EXPECT_GE(seen.read_calls, 5);  // a buffer of 8 needs at least five reads for 36 bytes
    EXPECT_TRUE(seen.idle_args.empty());  // intr 0 never calls it
    EXPECT_EQ(serialbuf_write(b, "\xc0ok\xdb", 4), 4);
    EXPECT_EQ(testutil::read_at_least(pty.master, 4, 5000), "\xc0ok\xdb");
    EXPECT_EQ(seen.written_bytes, 4);
    serialbuf_destroy(b);
}

TEST(SerialLink, TimeOutCountsWholeSilentSeconds) {
    PtyPair pty;
    for (auto [timeout, waits] : {std::pair{2500, 3}, std::pair{1000, 1}}) {
        Seen seen;
        SerialBuf *b = serial(pty, &seen, 9600, 64, timeout);
        ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
        unsigned char c = 0;
        EXPECT_EQ(serialbuf_get_byte(b, &c, 2), 1);
        EXPECT_EQ(seen.idle_args, std::vector<int>(waits, 1)) << timeout;
        EXPECT_NE(take_register().find("serialbuf_get_byte: timeout."), std::string::npos);
        EXPECT_EQ(b->state, 3);
        testutil::write_all(pty.master, "Z", 1);  // the link still works afterwards
        EXPECT_EQ(serialbuf_get_byte(b, &c, 2), 0);
        EXPECT_EQ(c, 'Z');
        serialbuf_destroy(b);
    }
}

TEST(SerialLink, WithoutTimeOutTheIdleCallbackRunsEachSecondAndCanStopTheWait) {
    PtyPair pty;
    Seen seen;
    seen.idle_stop_at = 3;
    SerialBuf *b = serial(pty, &seen, 9600, 64, 0);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    unsigned char c = 0;
    long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_get_byte(b, &c, 1), 3);
    EXPECT_GE(testutil::now_ms() - t0, 1500);  // three one-second waits, wide margin
    EXPECT_EQ(seen.idle_args, std::vector<int>(3, 0));
    // In mode 1 it runs even when data is waiting, and 3 still wins; the
    // byte stays in the line for the next call.
    testutil::write_all(pty.master, "Q", 1);
    seen.idle_args.clear();
    seen.idle_stop_at = 1;
    EXPECT_EQ(serialbuf_get_byte(b, &c, 1), 3);
    EXPECT_EQ(serialbuf_get_byte(b, &c, 0), 0);
    EXPECT_EQ(c, 'Q');
    serialbuf_destroy(b);
}

TEST(SerialLink, DumpsWhatItReads) {
    PtyPair pty;
    Seen seen;
    SerialBuf *b = serial(pty, &seen, 9600, 1024, 5000, 50000);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    const std::pair<int, std::string> modes[] = {{1, "reading 5 bytes: AT\\r\\n\n"}, {2, "AT\r\n"}};
    for (const auto &[mode, expected] : modes) {
        b->rverbose = mode;
        testutil::write_all(pty.master, "AT\r\n\x01", 5);
        testing::internal::CaptureStdout();
        std::string got = get_bytes(b, 5);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
        EXPECT_EQ(got, "AT\r\n\x01");
    }
    b->rverbose = 3;
    testutil::write_all(pty.master, "OK\r\nHEL", 7);
    get_bytes(b, 7);
    testutil::write_all(pty.master, "LO\t\x02\n", 5);
    get_bytes(b, 5);
    EXPECT_EQ(seen.lines, (std::vector<std::string>{"OK", "HELLO\t"}));
    std::string longline(300, 'x');
    testutil::write_all(pty.master, longline.data(), longline.size());
    EXPECT_EQ(get_bytes(b, 300), longline);
    EXPECT_EQ(b->line_size, 512);
    EXPECT_EQ(std::string(b->line), longline);
    serialbuf_destroy(b);
}

TEST(SerialLink, StateRules) {
    PtyPair pty;
    SerialBuf *b = serial(pty, nullptr);
    ASSERT_EQ(serialbuf_open(b), 0);
    unsigned char c;
    EXPECT_EQ(serialbuf_get_byte(b, &c, 0), 4);
    EXPECT_NE(take_register().find("serialbuf_get_byte: not connected."), std::string::npos);
    EXPECT_EQ(serialbuf_disconnect(b), 0);  // open, not connected: nothing to do
    EXPECT_EQ(serialbuf_close(b), 0);
    EXPECT_EQ(b->fd, -1);
    EXPECT_EQ(serialbuf_close(b), 0);
    EXPECT_EQ(b->state, 1);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);  // opens a closed link again
    testutil::write_all(pty.master, "ok", 2);
    EXPECT_EQ(get_bytes(b, 2), "ok");
    serialbuf_destroy(b);
}

TEST(SerialLink, OneReaderAndOneWriterAtOnce) {
    PtyPair pty;
    SerialBuf *b = serial(pty, nullptr, 115200, 16);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    std::string in(2000, '\0'), out(2000, '\0');
    for (size_t i = 0; i < in.size(); i++) in[i] = char('a' + i % 26), out[i] = char('A' + i % 26);
    testutil::write_all(pty.master, in.data(), in.size());
    std::thread writer([&] {
        for (size_t i = 0; i < out.size(); i += 100) serialbuf_write(b, out.data() + i, 100);
    });
    EXPECT_EQ(get_bytes(b, static_cast<int>(in.size())), in);
    writer.join();
    EXPECT_EQ(testutil::read_at_least(pty.master, out.size(), 5000), out);
    serialbuf_destroy(b);
}

TEST(SerialLink, UsleepSleepsWholeSecondsAndTheRest) {
    long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_usleep(1500000), 0);
    long long ms = testutil::now_ms() - t0;
    EXPECT_GE(ms, 1450);
    EXPECT_LT(ms, 10000);
}

namespace {
int tcp_listener(int *port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    listen(fd, 1);
    *port = ntohs(a.sin_port);
    return fd;
}
int tcp_connect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? fd : (close(fd), -1);
}
}  // namespace

TEST(TcpLink, ClientReadsUntilThePeerCloses) {
    int port = 0, ls = tcp_listener(&port);
    SerialBuf *b = serialbuf_create_tcpclient("127.0.0.1", port, 16, 5000, 1, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(b->sleep, 0);
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    int peer = accept(ls, nullptr, nullptr);
    testutil::write_all(peer, "hi", 2);
    close(peer);
    EXPECT_EQ(get_bytes(b, 2), "hi");
    unsigned char c;
    EXPECT_EQ(serialbuf_get_byte(b, &c, 0), 2);
    EXPECT_NE(take_register().find("serialbuf_get_byte: eof."), std::string::npos);
    serialbuf_close(b);
    close(ls);  // nobody listens any more
    EXPECT_EQ(serialbuf_open(b), -1);
    EXPECT_EQ(b->fd, -1);
    EXPECT_NE(take_register().find("serialbuf_open: Can't connect to server"), std::string::npos);
    serialbuf_destroy(b);
}

TEST(TcpLink, ServerAcceptsAClientAndBindsAgainAfterClose) {
    int port = testutil::free_tcp_port();
    SerialBuf *b = serialbuf_create_tcpserver(port, 16, 5000, 1, nullptr, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr);
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(serialbuf_open(b), 0) << take_register();
        int client = tcp_connect(port);  // waits in the backlog until connect accepts
        ASSERT_GE(client, 0);
        ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
        testutil::write_all(client, "A", 1);
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
