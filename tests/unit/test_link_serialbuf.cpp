// The byte-stream link on a real pseudo-terminal and on loopback TCP.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <termios.h>

#include <string>
#include <thread>
#include <vector>

#include "link/serialbuf.h"
#include "support/elog.h"
#include "testutil.h"

namespace {

// Expects part among the calling thread's registered messages, which are emptied.
void expect_registered(const std::string &part) {
    testing::internal::CaptureStderr();
    elog_clear_register(1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(part), std::string::npos) << part;
}

std::string get_bytes(SerialBuf *b, int n) {
    std::string out;
    unsigned char c;
    for (int i = 0; i < n && serialbuf_get_byte(b, &c, 0) == 0; i++) out += static_cast<char>(c);
    return out;
}

// A serial link b on a pseudo-terminal (the master plays the far end), and what its callbacks saw.
struct SerialLink : testing::Test {
    testutil::PtyPair pty;
    SerialBuf *b = nullptr;
    std::vector<int> idle;
    std::vector<std::string> lines;
    int stop_at = 0, bytes[3] = {}, calls[3] = {};  // by direction: 1 written, 2 read

    static int on_idle(void *u, int timed_out) {
        auto *t = static_cast<SerialLink *>(u);
        t->idle.push_back(timed_out);
        return static_cast<int>(t->idle.size()) == t->stop_at ? 3 : 0;
    }
    static int on_line(void *u, void *, char *line, int) {
        static_cast<SerialLink *>(u)->lines.emplace_back(line);
        return 0;
    }
    static int on_rate(void *u, int direction, int n) {
        auto *t = static_cast<SerialLink *>(u);
        t->bytes[direction] += n;  // the reader and the writer each touch their own
        t->calls[direction]++;
        return 0;
    }
    void make(int baud, int size, int timeout, int sleep = 0, int flow = 0) {
        serialbuf_destroy(b);
        b = serialbuf_create_serial(pty.slave_path.c_str(), baud, flow, size, timeout, sleep, 1,
                                    on_idle, this, on_line, this, nullptr, on_rate, this);
        idle.clear();
    }
    void TearDown() override { serialbuf_destroy(b); }
};

}  // namespace

// The speeds cycle through the device's RTS/CTS and the flow asked: open never switches RTS/CTS.
TEST_F(SerialLink, OpensRawAtTheEightSpeedsAndRefusesOthers) {
    const unsigned speeds[][2] = {{1200, B1200},   {2400, B2400},   {4800, B4800},
                                  {9600, B9600},   {19200, B19200}, {38400, B38400},
                                  {57600, B57600}, {115200, B115200}};
    for (int i = 0; i < 8; i++) {
        const unsigned rtscts = i % 2, code = speeds[i][1];
        termios t{};
        tcgetattr(pty.slave, &t);
        t.c_cc[VEOF] = 7;  // open changes no control character but VMIN and VTIME
        t.c_cflag = rtscts ? (t.c_cflag | CRTSCTS) : (t.c_cflag & ~CRTSCTS);
        tcsetattr(pty.slave, TCSANOW, &t);
        make(static_cast<int>(speeds[i][0]), 64, 1000, 0, i / 2 % 2);
        ASSERT_EQ(serialbuf_open(b), 0);
        EXPECT_EQ(b->state, 2);
        tcgetattr(pty.slave, &t);
        EXPECT_EQ((std::vector<unsigned>{cfgetospeed(&t), cfgetispeed(&t), t.c_iflag & 0xffff,
                                         t.c_oflag & 0xffff, t.c_cflag & 0xffff,
                                         t.c_lflag & 0xffff, t.c_cc[VMIN], t.c_cc[VTIME],
                                         t.c_cc[VEOF], (t.c_cflag & CRTSCTS) != 0}),
                  (std::vector<unsigned>{code, code, IGNBRK, 0, code | CS8 | CREAD | CLOCAL,
                                         NOFLSH, 0, 1, 7, rtscts}))
            << speeds[i][0];
    }
    for (int baud : {300, 230400}) {
        make(baud, 64, 1000);
        EXPECT_EQ(serialbuf_open(b), -1);
        EXPECT_EQ(std::pair(b->fd, b->state), std::pair(-1, 1));
        expect_registered("serialbuf_open: invalid baudrate " + std::to_string(baud));
    }
}

TEST_F(SerialLink, HandsOutBytesInOrderAcrossRefillsDumpsThemAndWritesRaw) {
    make(115200, 8, 5000, 50000);  // the pause lets each short write arrive in one read
    ASSERT_EQ(serialbuf_connect(b, 0, nullptr), 0);
    const std::pair<int, std::string> modes[] = {{1, "reading 5 bytes: AT\\r\\n\n"}, {2, "AT\r\n"}};
    for (const auto &[mode, expected] : modes) {
        b->rverbose = mode;
        testutil::write_all(pty.master, "AT\r\n\x01", 5);
        testing::internal::CaptureStdout();
        std::string got = get_bytes(b, 5);  // the bytes, then what was dumped
        EXPECT_EQ(got + testing::internal::GetCapturedStdout(), "AT\r\n\x01" + expected);
    }
    b->rverbose = 3;  // lines span reads of 8; empty ones are not logged; a long one grows
    b->sleep = 0;
    const std::string longline(300, 'x'), text = "OK\r\nHELLO\t\x02\n" + longline;
    testutil::write_all(pty.master, text.data(), text.size());
    EXPECT_EQ(get_bytes(b, 312), text);
    EXPECT_EQ(lines, (std::vector<std::string>{"OK", "HELLO\t"}));
    EXPECT_EQ(std::pair(b->line_size, std::string(b->line)), std::pair(512, longline));
    std::string in(2000, '\0'), out(2000, '\0');
    for (size_t i = 0; i < in.size(); i++) in[i] = char('a' + i % 26), out[i] = char(0xc0 + i % 28);
    testutil::write_all(pty.master, in.data(), in.size());
    std::thread writer([&] {  // one reader and one writer at once
        for (size_t i = 0; i < out.size(); i += 100) serialbuf_write(b, out.data() + i, 100);
    });
    EXPECT_EQ(get_bytes(b, 2000), in);
    writer.join();
    EXPECT_EQ(testutil::read_at_least(pty.master, out.size(), 5000), out);  // raw: escapes too
    EXPECT_EQ(std::tuple(bytes[2], bytes[1], idle.size()), std::tuple(2322, 2000, 0u));
    EXPECT_GE(calls[2], 2322 / 8);  // never more than the buffer's 8 bytes a read
}

TEST_F(SerialLink, SilenceCountsWholeSecondsAndTheIdleCallbackCanEndTheWait) {
    unsigned char c = 0;
    for (auto [timeout, waits] : {std::pair{2500, 3}, std::pair{1000, 1}}) {
        make(9600, 64, timeout);
        ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
        EXPECT_EQ(serialbuf_get_byte(b, &c, 2), 1);
        EXPECT_EQ(idle, std::vector<int>(waits, 1)) << timeout;
        expect_registered("serialbuf_get_byte: timeout.");
        testutil::write_all(pty.master, "Z", 1);  // the link still works afterwards
        EXPECT_EQ(get_bytes(b, 1), "Z");
    }
    make(9600, 64, 0);  // no time-out: it waits on until the callback says 3
    stop_at = 3;
    ASSERT_EQ(serialbuf_connect(b, 0, ""), 0);
    long long t0 = testutil::now_ms();
    EXPECT_EQ(serialbuf_get_byte(b, &c, 1), 3);
    EXPECT_GE(testutil::now_ms() - t0, 1500);  // three one-second waits, wide margin
    EXPECT_EQ(idle, std::vector<int>(3, 0));
    // In mode 1 it runs even when data waits, and 3 still wins; the byte stays for the next call.
    testutil::write_all(pty.master, "Q", 1);
    stop_at = 4;
    EXPECT_EQ(serialbuf_get_byte(b, &c, 1), 3);
    EXPECT_EQ(get_bytes(b, 1), "Q");
}

// Our client and server on loopback: talk, end of stream, close twice, bind again, reconnect.
TEST(TcpLink, ClientAndServerTalkThenEndAndTheServerBindsAgain) {
    const int port = testutil::free_tcp_port();
    const std::nullptr_t no = nullptr;  // no callbacks
    SerialBuf *server = serialbuf_create_tcpserver(port, 16, 5000, 1, no, no, no, no, no, no, no);
    SerialBuf *client =
        serialbuf_create_tcpclient("127.0.0.1", port, 16, 5000, 1, no, no, no, no, no, no, no);
    unsigned char c;
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(serialbuf_open(server), 0);
        EXPECT_EQ(serialbuf_get_byte(server, &c, 0), 4);  // open is not connected
        expect_registered("serialbuf_get_byte: not connected.");
        sockaddr_in bound{};
        socklen_t len = sizeof bound;
        getsockname(server->fdserver, reinterpret_cast<sockaddr *>(&bound), &len);
        EXPECT_EQ(ntohs(bound.sin_port), port);  // not merely a port both sides got wrong alike
        ASSERT_EQ(serialbuf_connect(client, 0, ""), 0);  // waits in the backlog until accepted
        ASSERT_EQ(serialbuf_connect(server, 0, ""), 0);
        EXPECT_EQ(serialbuf_write(client, "A", 1), 1);
        EXPECT_EQ(get_bytes(server, 1), "A");
        EXPECT_EQ(serialbuf_write(server, "hi", 2), 2);
        EXPECT_EQ(serialbuf_disconnect(server), 0);
        EXPECT_GE(server->fdserver, 0);  // the listening socket stays for the next client
        EXPECT_EQ(get_bytes(client, 3), "hi");
        expect_registered("serialbuf_get_byte: eof.");
        EXPECT_EQ(serialbuf_get_byte(client, &c, 0), 2);
        EXPECT_EQ(serialbuf_close(server) + serialbuf_close(server) + serialbuf_close(client), 0);
        EXPECT_EQ(std::pair(client->fd, server->fdserver), std::pair(-1, -1));
    }
    serialbuf_destroy(server);
    serialbuf_destroy(client);
}
