// SLIP framing: the pure encoder and decoder, and slip_sendto/slip_recvfrom
// over a real pseudo-terminal playing the datalogger's serial line.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <random>
#include <thread>

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

// A packet 10.0.0.9:sport -> 10.0.0.1:dport with `options` option bytes.
Bytes packet(const std::string &payload, std::uint16_t sport = 5330, std::uint16_t dport = 0x1234,
             int options = 0) {
    IPHdr ip{static_cast<std::uint8_t>(0x45 + options / 4), 0, 0, 0, 0, 64, 17, 0, 0x0A000009, 0x0A000001, {}};
    ip.length = static_cast<std::uint16_t>(28 + options + payload.size());
    UDPHdr u{sport, dport, static_cast<std::uint16_t>(8 + payload.size()), 0};
    Bytes pkt(28 + options + payload.size());
    ip_udp_packet(&ip, &u, reinterpret_cast<const unsigned char *>(payload.data()),
                  static_cast<int>(payload.size()), pkt.data(), static_cast<int>(pkt.size()));
    return pkt;
}

Bytes frame(const std::string &payload, std::uint16_t sport = 5330, std::uint16_t dport = 0x1234,
            int options = 0) {
    return encode(packet(payload, sport, dport, options));
}

// The frame of a packet whose byte `at` is xor-ed with flip; flip 0 clears
// the UDP checksum instead ("no checksum").
Bytes damaged(const std::string &payload, size_t at, unsigned char flip) {
    Bytes pkt = packet(payload);
    if (flip) pkt[at] ^= flip;
    else pkt[26] = pkt[27] = 0;
    return encode(pkt);
}

// A SLIP endpoint record on the slave side of a pseudo-terminal.
struct SlipLink {
    testutil::PtyPair pty;
    SerialBuf *sb = serialbuf_create_serial(pty.slave_path.c_str(), 19200, 0, 1024, 3000, 0, 1, nullptr,
                                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    UDP udp{};
    explicit SlipLink(int verbose = 0) {
        EXPECT_EQ(serialbuf_connect(sb, 0, ""), 0);
        udp.slip_buf = sb;
        udp.verbose = verbose;
    }
    ~SlipLink() { serialbuf_destroy(sb); }
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

}  // namespace

TEST(NetSlip, EncoderAndDecoderLimits) {
    EXPECT_EQ(encode({0x01, 0xC0, 0xDB, 0x02}), (Bytes{0xC0, 0x01, 0xDB, 0xDC, 0xDB, 0xDD, 0x02, 0xC0}));
    EXPECT_EQ(encode(Bytes(100, 0xC0)).size(), 202u);
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    // Leading ENDs count as raw bytes; ESC DC decodes to END.
    for (unsigned char c : {0xC0, 0xC0, 0x41, 0xDB, 0xDC}) EXPECT_EQ(slip_decoder_feed(&dec, c), 0);
    EXPECT_EQ(slip_decoder_feed(&dec, 0xC0), 1);
    EXPECT_EQ(Bytes(dec.bytes, dec.bytes + dec.count), (Bytes{0x41, 0xC0}));
    EXPECT_EQ(dec.raw, 6);
    // DB 41 abandons the frame; the byte after it starts the next one.
    for (unsigned char c : {0x01, 0xDB}) EXPECT_EQ(slip_decoder_feed(&dec, c), 0);
    EXPECT_EQ(slip_decoder_feed(&dec, 0x41), -1);
    EXPECT_EQ(slip_decoder_feed(&dec, 0x02), 0);
    EXPECT_EQ(slip_decoder_feed(&dec, 0xC0), 1);
    EXPECT_EQ(dec.count + dec.raw, 1 + 2);
    // 2048 decoded bytes fit; the 2049th abandons the frame.
    for (int len : {SLIP_MAX_FRAME - 1, SLIP_MAX_FRAME, SLIP_MAX_FRAME + 1}) {
        int last = 0;
        for (int i = 0; i < len && last == 0; i++) last = slip_decoder_feed(&dec, 0x55);
        EXPECT_EQ(last ? last : slip_decoder_feed(&dec, 0xC0), len <= SLIP_MAX_FRAME ? 1 : -1) << len;
        slip_decoder_reset(&dec);
    }
}

TEST(NetSlip, SendBuildsExactFrame) {
    SlipLink link(2);
    link.sb->slip_identification = 65535;
    const unsigned char client[6] = {192, 168, 1, 7, 0x14, 0xD3};  // address and port as a sockaddr holds them
    std::memcpy(&link.sb->slip_ipaddr_src, client, 4);
    std::memcpy(&link.sb->slip_port_src, client + 4, 2);
    sockaddr_in to{AF_INET, htons(5330), {inet_addr("10.0.0.1")}, {}};
    const Bytes payload = {0xC0, 'a', 0xDB, 'b'};
    for (int id : {65535, 0}) {
        testing::internal::CaptureStderr();
        ASSERT_EQ(slip_sendto(&link.udp, payload.data(), 4, 0, reinterpret_cast<sockaddr *>(&to), 16), 4);
        std::string err = testing::internal::GetCapturedStderr();
        std::string raw = testutil::read_for(link.pty.master, 200, 3000);
        SlipDecoder dec;
        slip_decoder_reset(&dec);
        for (unsigned char c : raw) slip_decoder_feed(&dec, c);
        Bytes got(dec.bytes, dec.bytes + dec.count);
        ASSERT_EQ(got.size(), 32u);
        EXPECT_EQ(raw.size(), 2 + 32 + std::count(got.begin(), got.end(), 0xC0) + std::count(got.begin(), got.end(), 0xDB));
        EXPECT_EQ(got[4] * 256 + got[5], id);  // identification, wrapping after 65535
        // The source port field holds the client's network-order bytes but
        // is sent as a host-order number: on a little-endian host port 5331
        // goes out exchanged (the reply port exchanges it back), on a
        // big-endian one as it is.
        const bool little = std::endian::native == std::endian::little;
        const unsigned char sport_hi = little ? 0xD3 : 0x14, sport_lo = little ? 0x14 : 0xD3;
        Bytes want = {0x45, 0, 0, 32, 0, 0, 0x40, 0, 255, 17, got[10], got[11], 192, 168, 1, 7, 10, 0, 0, 1,
                      sport_hi, sport_lo, 0x14, 0xD2, 0, 12, got[26], got[27], 0xC0, 'a', 0xDB, 'b'};
        want[4] = got[4], want[5] = got[5];
        EXPECT_EQ(got, want);
        unsigned short ipc, udpc;
        ASSERT_EQ(udp_checksum(got.data(), 32, &ipc, &udpc), 0);
        EXPECT_EQ(std::memcmp(&ipc, &got[10], 2) | std::memcmp(&udpc, &got[26], 2), 0);
        EXPECT_NE(err.find("SLS: c0 45 00 00 20"), std::string::npos);
        EXPECT_NE(err.find("SLS:\n"), std::string::npos);
    }
    Bytes big(SLIP_MAX_PAYLOAD + 1);
    EXPECT_EQ(slip_sendto(&link.udp, big.data(), big.size(), 0, reinterpret_cast<sockaddr *>(&to), 16), -1);
}

TEST(NetSlip, ReceivesThroughHostileStreamWholeBytewiseAndChunked) {
    Bytes s = {0xC0, 0xC0, 0xC0};
    auto add = [&s](const Bytes &more) { s.insert(s.end(), more.begin(), more.end()); };
    add(frame("first"));
    add({'n', 'o', 'i', 's', 'e'});  // no leading END: a frame of its own, dropped
    add(frame("after noise"));
    Bytes lost = frame("lost");
    lost.insert(lost.begin() + 10, {0xDB, 0x41});
    add(lost);
    add(encode(Bytes(23, 0x45)));
    add(damaged("no checksum", 0, 0));
    add(damaged("", 0, 0));
    add(damaged("bad udp", 27, 1));
    add(damaged("bad ip", 8, 1));
    add(frame("with options", 7, 8, 4));
    Bytes zero = packet(std::string("ff\0\0", 4));  // its checksum as the last word: the sum computes to 0
    std::string tuned = {'f', 'f', static_cast<char>(zero[26]), static_cast<char>(zero[27])};
    EXPECT_EQ(packet(tuned)[26] + packet(tuned)[27], 0xFF + 0xFF);  // and goes out as FFFF
    add(frame(tuned));
    add(frame(std::string(SLIP_MAX_FRAME - 27, 'x')));  // 2049 decoded bytes
    add(frame(std::string(SLIP_MAX_FRAME - 28, 'y')));  // exactly 2048
    add(frame("last"));
    const std::vector<std::string> want = {"first", "after noise", "no checksum", "", "with options",
                                           tuned, std::string(1024, 'y'), "last"};
    std::mt19937 rng(1055);
    for (int mode = 0; mode < 3; mode++) {
        SlipLink link;
        std::jthread writer([&] {
            for (size_t i = 0, n; i < s.size(); i += n) {
                n = std::min(s.size() - i, mode == 0 ? s.size() : mode == 1 ? 1 : 1 + rng() % 300);
                testutil::write_all(link.pty.master, s.data() + i, n);
                if (n < 64) usleep(200);
            }
        });
        for (const auto &w : want) {
            std::string got;
            ASSERT_EQ(link.recv(&got), static_cast<int>(w.size())) << "mode " << mode;
            EXPECT_EQ(got, w);
        }
    }
}

TEST(NetSlip, SourceCutPayloadAndComplaintsByVerbosity) {
    for (int verbose : {0, 1, 2}) {
        SlipLink link(verbose);
        Bytes s = damaged("bad udp", 27, 1), tiny = encode(Bytes(23, 0x45)), good = frame("0123456789", 6330, 5330);
        s.insert(s.end(), tiny.begin(), tiny.end());
        s.insert(s.end(), good.begin(), good.end());
        testutil::write_all(link.pty.master, s.data(), s.size());
        std::string got;
        sockaddr_in from{};
        testing::internal::CaptureStderr();
        ASSERT_EQ(link.recv(&got, &from, 4), 4);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(got, "0123");
        EXPECT_EQ(std::string(inet_ntoa(from.sin_addr)) + ":" + std::to_string(ntohs(from.sin_port)), "10.0.0.9:6330");
        EXPECT_EQ(link.sb->slip_port_dst, 5330);
        EXPECT_EQ(link.sb->slip_ipaddr_dst, 0x0A000001u);
        EXPECT_EQ(err.find("udp header checksum, 0x") != std::string::npos, verbose >= 1) << verbose;
        EXPECT_EQ(err.find("SLR: 45 00") != std::string::npos, verbose >= 1) << verbose;
        EXPECT_EQ(err.find("SLR: 45 45 45") != std::string::npos, verbose >= 2) << verbose;  // dumped, never blamed
        EXPECT_EQ(err.find("udp_checksum() error"), std::string::npos);
        EXPECT_TRUE(verbose > 0 || err.empty()) << err;
    }
}

TEST(NetSlip, PrintDecodesFrameFromMemory) {
    Bytes f = frame("abc"), tiny = encode(Bytes(23, 0x45));
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(slip_print(f.data(), static_cast<int>(f.size())) + slip_print(tiny.data(), 25), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("61 62 63"), std::string::npos);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("          port_dst = 4660\n"), std::string::npos);
    EXPECT_NE(err.find("Payload 31 bytes.\n"), std::string::npos);
    EXPECT_NE(err.find("protocol error.\n"), std::string::npos);
}
