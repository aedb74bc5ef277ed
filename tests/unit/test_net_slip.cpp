// SLIP framing: the pure encoder and decoder, and slip_sendto/slip_recvfrom
// over a real pseudo-terminal playing the datalogger's serial line.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <random>
#include <regex>
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

// A packet 10.0.0.9:sport -> 10.0.0.1:0x1234.
Bytes packet(const std::string &payload, std::uint16_t sport = 5330) {
    auto length = static_cast<std::uint16_t>(28 + payload.size());
    IPHdr ip{0x45, 0, length, 0, 0, 64, 17, 0, 0x0A000009, 0x0A000001, {}};
    UDPHdr u{sport, 0x1234, static_cast<std::uint16_t>(length - 20), 0};
    Bytes pkt(length);
    ip_udp_packet(&ip, &u, reinterpret_cast<const unsigned char *>(payload.data()),
                  static_cast<int>(payload.size()), pkt.data(), length);
    return pkt;
}

// A SLIP endpoint record on the slave side of a pseudo-terminal.
struct SlipLink {
    testutil::PtyPair pty;
    SerialBuf *sb = serialbuf_create_serial(pty.slave_path.c_str(), 19200, 0, 1024, 3000, 0, 1,
                                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                            nullptr);
    UDP udp{};
    explicit SlipLink(int verbose) {
        EXPECT_EQ(serialbuf_connect(sb, 0, ""), 0);
        udp.slip_buf = sb;
        udp.verbose = verbose;
    }
    ~SlipLink() { serialbuf_destroy(sb); }
};

}  // namespace

TEST(NetSlip, DecoderEscapesAbandonsAndCountsRawBytes) {
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    // Leading ENDs count as raw bytes; DB DC and DB DD decode to END and ESC;
    // DB 41 abandons a frame and the byte after it starts the next one.
    std::vector<int> results;
    for (unsigned char c : {0xC0, 0xC0, 0x41, 0xDB, 0xDC, 0xDB, 0xDD, 0xC0})
        results.push_back(slip_decoder_feed(&dec, c));
    EXPECT_EQ(Bytes(dec.bytes, dec.bytes + dec.count), (Bytes{0x41, 0xC0, 0xDB}));
    EXPECT_EQ(dec.raw, 8);
    for (unsigned char c : {0x01, 0xDB, 0x41, 0x02, 0xC0})
        results.push_back(slip_decoder_feed(&dec, c));
    EXPECT_EQ(results, (std::vector<int>{0, 0, 0, 0, 0, 0, 0, 1, 0, 0, -1, 0, 1}));
    EXPECT_EQ(dec.count + dec.raw, 1 + 2);
}

TEST(NetSlip, SendBuildsExactFramePrintDecodesIt) {
    SlipLink link(2);
    link.sb->slip_identification = 65535;
    const unsigned char client[6] = {192, 168, 1, 7, 0x14, 0xD3};  // as a sockaddr holds them
    std::memcpy(&link.sb->slip_ipaddr_src, client, 4);
    std::memcpy(&link.sb->slip_port_src, client + 4, 2);
    sockaddr_in to{AF_INET, htons(5330), {inet_addr("127.0.0.1")}, {}};
    auto *dst = reinterpret_cast<sockaddr *>(&to);
    const Bytes payload = {0xC0, 'a', 0xDB, 'b'};
    // The source port field holds the client's network-order bytes but is
    // sent as a host-order number: on a little-endian host port 5331 goes out
    // exchanged (the reply port exchanges it back), on a big-endian one as it is.
    const bool little = std::endian::native == std::endian::little;
    const unsigned char sport_hi = little ? 0xD3 : 0x14, sport_lo = little ? 0x14 : 0xD3;
    std::string raw;
    for (int id : {65535, 0}) {  // identification wraps after 65535
        testing::internal::CaptureStderr();
        ASSERT_EQ(slip_sendto(&link.udp, payload.data(), 4, 0, dst, 16), 4);
        std::string err = testing::internal::GetCapturedStderr();
        raw = testutil::read_for(link.pty.master, 200, 3000);
        SlipDecoder dec;
        slip_decoder_reset(&dec);
        for (unsigned char c : raw) slip_decoder_feed(&dec, c);
        Bytes got(dec.bytes, dec.bytes + dec.count);
        ASSERT_EQ(got.size(), 32u);
        // Checksums copied here; slip_print below matches them with the computed ones.
        Bytes want = {0x45, 0, 0, 32, std::uint8_t(id >> 8), std::uint8_t(id), 0x40, 0, 255, 17,
                      got[10], got[11], 192, 168, 1, 7, 127, 0, 0, 1, sport_hi, sport_lo, 0x14,
                      0xD2, 0, 12, got[26], got[27], 0xC0, 'a', 0xDB, 'b'};
        EXPECT_EQ(got, want);
        EXPECT_NE(err.find("SLS: c0 45 00 00 20"), std::string::npos);
        EXPECT_NE(err.find("SLS:\n"), std::string::npos);
    }
    Bytes big(SLIP_MAX_PAYLOAD + 1);
    EXPECT_EQ(slip_sendto(&link.udp, big.data(), big.size(), 0, dst, 16), -1);
    // slip_print decodes the frame from memory and dumps its headers, stored and computed
    // checksums side by side; a frame under 24 bytes is a protocol error.
    Bytes frame(raw.begin(), raw.end()), tiny = encode(Bytes(23, 0x45));
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(slip_print(frame.data(), int(frame.size())) + slip_print(tiny.data(), 25), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("c0 61 db 62"), std::string::npos);
    std::string err = testing::internal::GetCapturedStderr();
    size_t at = 0;
    for (const char *line : {"IP Header-------", "    version_length = 0x45\n",
                             "   fragment_offset = 0x4000\n", "          protocol = 17\n",
                             "        ipaddr_dst = 0x7f000001 (127.0.0.1 localhost)\n",
                             "UDP Header------", "          port_dst = 5330\n",
                             "            length = 12\n", "Payload 32 bytes.\n",
                             "protocol error.\n"})
        ASSERT_NE(at = err.find(line, at), std::string::npos) << line;  // each in order
    std::regex agree("  chksum = 0x([0-9a-f]{4})\\(0x\\1\\)\n");  // IP and UDP: stored, computed
    EXPECT_EQ(std::distance(std::sregex_iterator(err.begin(), err.end(), agree), {}), 2);
}

// One stream of good frames among hostile bytes, fed whole at verbosity 0,
// byte by byte at 1 and in random chunks at 2: the same payloads come out,
// and only the complaints and dumps differ.
TEST(NetSlip, ReceivesThroughHostileStreamWholeBytewiseAndChunked) {
    Bytes bad_udp = packet("bad udp"), empty = packet("");
    bad_udp[27] ^= 1;
    empty[26] = empty[27] = 0;  // no checksum: accepted
    // Line noise and leading ENDs; a frame under 24 bytes is dropped, dumped at 2, never blamed.
    Bytes s = {'n', 'o', 'i', 's', 'e', 0xC0, 0xC0, 0xC0};
    for (const Bytes &p : {packet("first"), Bytes(23, 0x45), bad_udp, empty,
                           packet(std::string(SLIP_MAX_FRAME - 27, 'x')),  // 2049 decoded bytes
                           packet(std::string(SLIP_MAX_FRAME - 28, 'y')),  // 2048, cut to 1024
                           packet("last", 6330)}) {
        Bytes frame = encode(p);
        s.insert(s.end(), frame.begin(), frame.end());
    }
    const std::vector<std::string> want = {"first", "", std::string(1024, 'y'), "last"};
    std::mt19937 rng(1055);
    for (int mode = 0; mode < 3; mode++) {
        SlipLink link(mode);
        std::jthread writer([&] {
            for (size_t i = 0, n; i < s.size(); i += n) {
                n = std::min(s.size() - i, mode == 0 ? s.size() : mode == 1 ? 1 : 1 + rng() % 300);
                testutil::write_all(link.pty.master, s.data() + i, n);
                if (n < 64) usleep(200);
            }
        });
        testing::internal::CaptureStderr();
        sockaddr_in from{};
        for (const auto &w : want) {
            char buf[2048];
            int flen = sizeof from;
            int n = slip_recvfrom(&link.udp, buf, 1024, 0, reinterpret_cast<sockaddr *>(&from),
                                  &flen);
            EXPECT_EQ(std::string(buf, std::max(n, 0)), w) << "mode " << mode;
            if (n < 0) break;
        }
        std::string err = testing::internal::GetCapturedStderr();
        // The last frame's source, in network order as a sockaddr holds it.
        EXPECT_EQ(inet_ntoa(from.sin_addr) + (":" + std::to_string(ntohs(from.sin_port))),
                  "10.0.0.9:6330");
        // The bad sum's complaint and dump; the short frame's dump, and no blame for it.
        std::string seen;
        for (const char *text : {"udp header checksum, 0x", "SLR: 45 00", "SLR: 45 45 45",
                                 "udp_checksum() error"})
            seen += err.find(text) != std::string::npos ? '1' : '0';
        EXPECT_EQ(seen, (std::vector<std::string>{"0000", "1100", "1110"}[mode]));
        EXPECT_TRUE(mode > 0 || err.empty()) << err;
    }
}

