// SLIP framing: the pure encoder and decoder, and slip_sendto/slip_recvfrom
// over a real pseudo-terminal playing the datalogger's serial line.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "link/serialbuf.h"
#include "net/slip.h"
#include "net/udp.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes encode(const Bytes &packet) {
    Bytes frame(2 * packet.size() + 2);
    frame.resize(slip_encode(packet.data(), static_cast<int>(packet.size()), frame.data()));
    return frame;
}

// A packet 10.0.0.9:sport -> 10.0.0.1:dport built with the codec (which the
// codec tests check against scapy). udp_sum: -1 computed, else stored as is.
Bytes packet(const Bytes &payload, std::uint16_t sport = 5330, std::uint16_t dport = 0x1234,
             int options = 0, int udp_sum = -1) {
    IPHdr ip{};
    ip.version_length = static_cast<std::uint8_t>(0x45 + options / 4);
    ip.length = static_cast<std::uint16_t>(28 + options + payload.size());
    ip.time_to_live = 64;
    ip.protocol = 17;
    ip.ipaddr_src = 0x0A000009;
    ip.ipaddr_dst = 0x0A000001;
    for (int i = 0; i < options; i++) ip.options[i] = 1;
    UDPHdr u{sport, dport, static_cast<std::uint16_t>(8 + payload.size()), 0};
    if (udp_sum < 0) udp_payload_cksum(&ip, &u, payload.data(), static_cast<int>(payload.size()), &u.chksum);
    Bytes pkt(28 + options + payload.size());
    unsigned char *p = pkt.data();
    int room = static_cast<int>(pkt.size());
    stuff_ip(&ip, &p, &room);
    ip.chksum = in_cksum(reinterpret_cast<unsigned short *>(pkt.data()), 20 + options);
    p = pkt.data();
    room = static_cast<int>(pkt.size());
    stuff_ip(&ip, &p, &room);
    stuff_udp(&u, &p, &room);
    if (udp_sum >= 0) p[-2] = static_cast<unsigned char>(udp_sum >> 8), p[-1] = udp_sum & 0xFF;
    std::memcpy(p, payload.data(), payload.size());
    return pkt;
}

Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

void append(Bytes *stream, const Bytes &more) { stream->insert(stream->end(), more.begin(), more.end()); }

// A SLIP endpoint record on the slave side of a pseudo-terminal.
struct SlipLink {
    testutil::PtyPair pty;
    SerialBuf *sb = nullptr;
    UDP udp{};
    explicit SlipLink(int timeout_ms = 3000, int verbose = 0) {
        sb = serialbuf_create_serial(pty.slave_path.c_str(), 19200, 0, 1024, timeout_ms, 0, 1,
                                     nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        EXPECT_NE(sb, nullptr);
        EXPECT_EQ(serialbuf_connect(sb, 0, ""), 0);
        udp.slip_buf = sb;
        udp.verbose = verbose;
    }
    ~SlipLink() { serialbuf_destroy(sb); }
    // Receives one payload (capacity cap): the result, payload and source.
    int recv(std::string *payload, sockaddr_in *from = nullptr, size_t cap = 1024) {
        char buf[2048];
        sockaddr_in f{};
        int flen = sizeof f;
        int n = slip_recvfrom(&udp, buf, cap, 0, reinterpret_cast<sockaddr *>(&f), &flen);
        if (n >= 0) payload->assign(buf, n);
        if (from) *from = f;
        return n;
    }
};

sockaddr_in inet(const char *addr, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = inet_addr(addr);
    return a;
}

}  // namespace

TEST(NetSlip, EncodeEscapesAndGrows) {
    EXPECT_EQ(encode({0x01, 0xC0, 0xDB, 0x02}), (Bytes{0xC0, 0x01, 0xDB, 0xDC, 0xDB, 0xDD, 0x02, 0xC0}));
    EXPECT_EQ(encode({}), (Bytes{0xC0, 0xC0}));
    Bytes worst(100, 0xC0);
    EXPECT_EQ(encode(worst).size(), 202u);
}

TEST(NetSlip, DecoderLimitsAndAbandons) {
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    // Leading and repeated ENDs are counted as raw bytes of the frame.
    for (unsigned char c : {0xC0, 0xC0, 0xC0, 0x41, 0xDB, 0xDC}) EXPECT_EQ(slip_decoder_feed(&dec, c), 0);
    EXPECT_EQ(slip_decoder_feed(&dec, 0xC0), 1);
    EXPECT_EQ(Bytes(dec.bytes, dec.bytes + dec.count), (Bytes{0x41, 0xC0}));
    EXPECT_EQ(dec.raw, 7);
    // DB 41 abandons; the byte after it starts a new frame.
    for (unsigned char c : {0x01, 0xDB}) EXPECT_EQ(slip_decoder_feed(&dec, c), 0);
    EXPECT_EQ(slip_decoder_feed(&dec, 0x41), -1);
    for (unsigned char c : {0x02, 0x03}) EXPECT_EQ(slip_decoder_feed(&dec, c), 0);
    EXPECT_EQ(slip_decoder_feed(&dec, 0xC0), 1);
    EXPECT_EQ(Bytes(dec.bytes, dec.bytes + dec.count), (Bytes{0x02, 0x03}));
    EXPECT_EQ(dec.raw, 3);
    // 2048 decoded bytes fit; the 2049th abandons the frame.
    for (int limit : {SLIP_MAX_FRAME - 1, SLIP_MAX_FRAME, SLIP_MAX_FRAME + 1}) {
        SCOPED_TRACE(limit);
        int last = 0;
        for (int i = 0; i < limit && last == 0; i++) last = slip_decoder_feed(&dec, 0x55);
        if (last == 0) last = slip_decoder_feed(&dec, 0xC0);
        EXPECT_EQ(last, limit <= SLIP_MAX_FRAME ? 1 : -1);
        if (last == 1) {
            EXPECT_EQ(dec.count, limit);
        }
        slip_decoder_reset(&dec);
    }
}

TEST(NetSlip, SendBuildsExactPacket) {
    SlipLink link;
    link.sb->slip_identification = 65535;
    const unsigned char client[4] = {192, 168, 1, 7};
    std::memcpy(&link.sb->slip_ipaddr_src, client, 4);
    const unsigned char port_bytes[2] = {0x14, 0xD3};  // 5331 as the client's sockaddr holds it
    std::memcpy(&link.sb->slip_port_src, port_bytes, 2);
    sockaddr_in to = inet("10.0.0.1", 5330);
    Bytes payload = {0xC0, 'a', 0xDB, 'b'};
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(slip_sendto(&link.udp, payload.data(), payload.size(), 0,
                              reinterpret_cast<sockaddr *>(&to), sizeof to), 4);
        std::string raw = testutil::read_for(link.pty.master, 200, 3000);
        SlipDecoder dec;
        slip_decoder_reset(&dec);
        int escapes = 0, done = 0;
        for (unsigned char c : raw) done = slip_decoder_feed(&dec, c);
        ASSERT_EQ(done, 1);
        Bytes got(dec.bytes, dec.bytes + dec.count);
        for (unsigned char c : got) escapes += (c == 0xC0 || c == 0xDB);
        EXPECT_EQ(raw.size(), 2 + 32 + static_cast<size_t>(escapes));
        ASSERT_EQ(got.size(), 32u);
        EXPECT_EQ(got[0], 0x45);
        EXPECT_EQ(got[2] * 256 + got[3], 32);
        EXPECT_EQ(got[4] * 256 + got[5], round == 0 ? 65535 : 0);  // identification wraps
        EXPECT_EQ(got[6], 0x40);
        EXPECT_EQ(got[8], 255);
        EXPECT_EQ(got[9], 17);
        EXPECT_EQ(Bytes(got.begin() + 12, got.begin() + 20), (Bytes{192, 168, 1, 7, 10, 0, 0, 1}));
        // The source port is the field's host-order number, most significant
        // byte first: on a little-endian host, the client's port exchanged.
        std::uint16_t v = link.sb->slip_port_src;
        EXPECT_EQ(Bytes(got.begin() + 20, got.begin() + 24), (Bytes{static_cast<unsigned char>(v >> 8),
                                                              static_cast<unsigned char>(v & 0xFF), 0x14, 0xD2}));
        EXPECT_EQ(Bytes(got.end() - 4, got.end()), payload);
        unsigned short ipc, udpc;
        ASSERT_EQ(udp_checksum(got.data(), 32, &ipc, &udpc), 0);
        EXPECT_EQ(std::memcmp(&ipc, &got[10], 2), 0);
        EXPECT_EQ(std::memcmp(&udpc, &got[26], 2), 0);
    }
    EXPECT_EQ(link.sb->slip_identification, 1);
    Bytes big(SLIP_MAX_PAYLOAD + 1);
    EXPECT_EQ(slip_sendto(&link.udp, big.data(), big.size(), 0, reinterpret_cast<sockaddr *>(&to), 16), -1);
}

TEST(NetSlip, ReplyPortRoundTrip) {
    // The datalogger answers to the exchanged port; reading slip_port_dst's
    // bytes as a big-endian number gives the client's port back.
    SlipLink link;
    const unsigned char port_bytes[2] = {0x14, 0xD3};
    std::memcpy(&link.sb->slip_port_src, port_bytes, 2);
    std::uint16_t wire_port = link.sb->slip_port_src;
    Bytes stream = encode(packet(text("reply"), 5330, wire_port));
    testutil::write_all(link.pty.master, stream.data(), stream.size());
    std::string got;
    ASSERT_EQ(link.recv(&got), 5);
    unsigned char back[2];
    std::memcpy(back, &link.sb->slip_port_dst, 2);
    EXPECT_EQ(back[0] * 256 + back[1], 5331);
    EXPECT_EQ(link.sb->slip_ipaddr_dst, 0x0A000001u);
}

namespace {

// A stream holding every kind of frame the receiver must survive, and the
// payloads it must deliver, in order.
Bytes hostile_stream(std::vector<std::string> *want) {
    Bytes s = {0xC0, 0xC0, 0xC0};
    append(&s, encode(packet(text("first"))));
    append(&s, text("line noise"));                     // no leading END
    append(&s, encode(packet(text("after noise"))));
    Bytes bad_escape = encode(packet(text("lost")));
    bad_escape.insert(bad_escape.begin() + 10, {0xDB, 0x41});
    append(&s, bad_escape);
    append(&s, encode(Bytes(23, 0x45)));               // too short
    append(&s, encode(packet(text("no checksum"), 1, 2, 0, 0)));
    Bytes bad_sum = packet(text("bad udp sum"));
    bad_sum[27] ^= 1;
    append(&s, encode(bad_sum));
    Bytes bad_ip = packet(text("bad ip sum"));
    bad_ip[8] ^= 1;
    append(&s, encode(bad_ip));
    append(&s, encode(packet(text("with options"), 7, 8, 4)));
    append(&s, encode(packet(Bytes(SLIP_MAX_FRAME - 28 + 1, 0x33))));  // 2049 decoded
    append(&s, encode(packet(Bytes(SLIP_MAX_FRAME - 28, 0x44))));      // exactly 2048
    append(&s, encode(packet(text("last"))));
    *want = {"first", "after noise", "no checksum", "with options",
             std::string(1024, 0x44), "last"};
    return s;
}

// Writes the stream to the master in pieces of the sizes pick() returns.
template <typename Pick>
void feed(int master, const Bytes &s, Pick pick) {
    for (size_t i = 0; i < s.size();) {
        size_t n = std::min(s.size() - i, pick());
        testutil::write_all(master, s.data() + i, n);
        i += n;
        if (n < 64) usleep(200);
    }
}

}  // namespace

TEST(NetSlip, ReceivesThroughHostileStreamWholeBytewiseAndChunked) {
    std::mt19937 rng(1055);
    for (int mode = 0; mode < 3; mode++) {
        SCOPED_TRACE(mode);
        SlipLink link;
        std::vector<std::string> want;
        Bytes s = hostile_stream(&want);
        std::jthread writer([&] {
            if (mode == 0) feed(link.pty.master, s, [&] { return s.size(); });
            if (mode == 1) feed(link.pty.master, s, [] { return size_t{1}; });
            if (mode == 2) feed(link.pty.master, s, [&] { return size_t{1} + rng() % 300; });
        });
        for (const auto &w : want) {
            std::string got;
            int n = link.recv(&got);
            ASSERT_EQ(n, static_cast<int>(w.size()));
            EXPECT_EQ(got, w);
        }
    }
}

TEST(NetSlip, CutsPayloadAndReportsSource) {
    SlipLink link;
    Bytes stream = encode(packet(text("0123456789"), 6330, 5330));
    testutil::write_all(link.pty.master, stream.data(), stream.size());
    std::string got;
    sockaddr_in from{};
    ASSERT_EQ(link.recv(&got, &from, 4), 4);
    EXPECT_EQ(got, "0123");
    EXPECT_EQ(from.sin_family, AF_INET);
    EXPECT_EQ(ntohs(from.sin_port), 6330);
    EXPECT_STREQ(inet_ntoa(from.sin_addr), "10.0.0.9");
}

TEST(NetSlip, ComplaintsFollowVerbosity) {
    Bytes bad = packet(text("bad udp sum"));
    bad[27] ^= 1;
    Bytes stream = encode(bad);
    append(&stream, encode(Bytes(23, 0x45)));
    append(&stream, encode(packet(text("ok"))));
    for (int verbose : {0, 1, 2}) {
        SCOPED_TRACE(verbose);
        SlipLink link(3000, verbose);
        testutil::write_all(link.pty.master, stream.data(), stream.size());
        std::string got;
        testing::internal::CaptureStderr();
        int n = link.recv(&got);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(n, 2);
        bool complained = err.find("udp header checksum, 0x") != std::string::npos;
        EXPECT_EQ(complained, verbose >= 1);
        EXPECT_EQ(err.find("SLR:") != std::string::npos, verbose >= 1);
        // The 23-byte frame is dumped at 2 but never complained about.
        EXPECT_EQ(err.find("udp_checksum() error"), std::string::npos);
        EXPECT_EQ(err.find("SLR: 45 45 45") != std::string::npos, verbose >= 2);
        if (verbose == 0) {
            EXPECT_EQ(err, "");
        }
    }
}

TEST(NetSlip, SendDumpAndLinkTimeout) {
    SlipLink link(1000, 2);
    sockaddr_in to = inet("10.0.0.1", 5330);
    Bytes payload(20, 0xAB);
    testing::internal::CaptureStderr();
    ASSERT_EQ(slip_sendto(&link.udp, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&to), 16), 20);
    std::string err = testing::internal::GetCapturedStderr();
    // 50 frame bytes: one full line of 32, one of 18, then the prefix alone.
    EXPECT_NE(err.find("SLS: c0 45 00 00 30"), std::string::npos);
    EXPECT_NE(err.find(" ab ab ab c0\n"), std::string::npos);
    EXPECT_NE(err.find("SLS:\n"), std::string::npos);
    size_t lines = 0;
    for (size_t p = 0; (p = err.find("SLS:", p)) != std::string::npos; p++) lines++;
    EXPECT_EQ(lines, 3u);
    testutil::read_for(link.pty.master, 100, 1000);
    std::string got;
    EXPECT_EQ(link.recv(&got), -2);  // a second of silence on the link
}

TEST(NetSlip, PrintDecodesFrameFromMemory) {
    Bytes frame = encode(packet(text("abc")));
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(slip_print(frame.data(), static_cast<int>(frame.size())), 0);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("IP Header"), std::string::npos);
    EXPECT_NE(err.find("          port_dst = 4660\n"), std::string::npos);
    EXPECT_NE(err.find("Payload 31 bytes.\n"), std::string::npos);
    EXPECT_FALSE(out.empty());
    Bytes short_frame = encode(Bytes(23, 0x45));
    Bytes trailing_esc = frame;
    trailing_esc.back() = 0xDB;
    for (Bytes *f : {&short_frame, &trailing_esc}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(slip_print(f->data(), static_cast<int>(f->size())), 0);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("protocol error.\n"), std::string::npos);
    }
}
