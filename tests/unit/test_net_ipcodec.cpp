// Header codec and checksums against RFC 1071 and against scapy, an
// independent implementation that builds packets for us and checks ours.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <sstream>

#include "net/slip.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The scapy peer's output lines for input (tests/vectors/scapy_peer.py).
std::vector<std::string> scapy(const std::string &mode, const std::string &input = "") {
    testutil::TempDir dir;
    dir.write("in", input);
    std::string peer = std::string(KORVANE_SOURCE_DIR) + "/tests/vectors/scapy_peer.py";
    auto r = testutil::run_program({"/bin/sh", "-c", "/usr/bin/python3 " + peer + " " + mode + " < in"},
                                   dir.path, 60000);
    EXPECT_EQ(r.status, 0) << r.err << " (scripts/deps installs python3-scapy)";
    std::vector<std::string> out;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) out.push_back(line);
    return out;
}

std::string hex(const unsigned char *p, size_t n) {
    std::string s;
    char two[3];
    for (size_t i = 0; i < n; i++) s += (snprintf(two, sizeof two, "%02x", p[i]), two);
    return s;
}

// The two bytes a raw checksum word puts on the wire.
std::string wire(unsigned short raw) { return hex(reinterpret_cast<unsigned char *>(&raw), 2); }

// A packet's fields as our codec parses them, in the peer's format.
std::string fields(const Bytes &pkt) {
    unsigned char *p = const_cast<unsigned char *>(pkt.data());
    int n = static_cast<int>(pkt.size());
    IPHdr ip;
    UDPHdr u;
    if (unstuff_ip(&p, &n, &ip) < 0 || unstuff_udp(&p, &n, &u) < 0) return "unparsable";
    in_addr src{htonl(ip.ipaddr_src)}, dst{htonl(ip.ipaddr_dst)};
    std::ostringstream s;
    s << (ip.version_length & 15) << ' ' << ip.length << ' ' << ip.identification << ' ' << ip.fragment_offset
      << ' ' << +ip.time_to_live << ' ' << inet_ntoa(src) << ' ' << inet_ntoa(dst) << ' ' << u.port_src << ' '
      << u.port_dst << ' ' << u.length << ' ' << ntohs(ip.chksum) << ' ' << ntohs(u.chksum);
    return s.str();
}

// Bytes a codec read or wrote, cursor and count moving together; -1 when it
// refused without moving them.
template <typename Codec, typename... Args>
int moved(Codec codec, unsigned char *buf, int n, Args... args) {
    unsigned char *p = buf;
    int left = n, r;
    if constexpr (std::is_invocable_v<Codec, unsigned char **, int *, Args...>)
        r = codec(&p, &left, args...);
    else
        r = codec(args..., &p, &left);
    EXPECT_EQ(p - buf, n - left);
    return r < 0 ? -1 - static_cast<int>(p - buf) : static_cast<int>(p - buf);
}

}  // namespace

TEST(NetIpcodec, InCksumRfc1071Example) {
    // The words sum to 0x2ddf0, fold to 0xddf2; the checksum 0x220d goes out as 22 0d.
    unsigned char words[9] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    EXPECT_EQ(wire(in_cksum(reinterpret_cast<unsigned short *>(words), 8)), "220d");
    // Odd length pads with a zero byte: 0x0001 + 0xf200, complement 0x0dfe.
    EXPECT_EQ(wire(in_cksum(reinterpret_cast<unsigned short *>(words), 3)), "0dfe");
    std::memmove(words + 1, words, 8);  // misaligned input
    EXPECT_EQ(wire(in_cksum(reinterpret_cast<unsigned short *>(words + 1), 8)), "220d");
}

TEST(NetIpcodec, HeaderLimitsOptionsAndZeroUdpChecksum) {
    unsigned char hdr[24] = {0x45, 0, 0, 24, 0, 1, 0x40, 0, 255, 17, 0xAB, 0xCD,
                             10, 0, 0, 1, 10, 0, 0, 2, 1, 2, 3, 4};
    IPHdr ip;
    std::memset(&ip, 0xAA, sizeof ip);
    EXPECT_EQ(moved(unstuff_ip, hdr, 19, &ip), -1);
    EXPECT_EQ(moved(unstuff_ip, hdr, 24, &ip), 20);
    EXPECT_EQ(wire(ip.chksum) + " " + std::to_string(ip.fragment_offset), "abcd 16384");
    EXPECT_EQ(Bytes(ip.options, ip.options + 40), Bytes(40, 0));
    hdr[0] = 0x46;  // a 24-byte header
    EXPECT_EQ(moved(unstuff_ip, hdr, 20, &ip), -1);
    EXPECT_EQ(moved(unstuff_ip, hdr, 24, &ip), 24);
    EXPECT_EQ(Bytes(ip.options, ip.options + 5), (Bytes{1, 2, 3, 4, 0}));
    unsigned char out[25];
    out[24] = 0x5A;  // guard
    EXPECT_EQ(moved(stuff_ip, out, 23, &ip), -1);
    EXPECT_EQ(moved(stuff_ip, out, 24, &ip), 24);
    EXPECT_EQ(hex(out, 25), hex(hdr, 24) + "5a");
    UDPHdr u{5330, 65535, 8, 0};
    EXPECT_EQ(moved(stuff_udp, out, 7, &u), -1);
    EXPECT_EQ(moved(stuff_udp, out, 8, &u), 8);
    EXPECT_EQ(hex(out, 8) + " " + std::to_string(u.chksum), "14d2ffff0008ffff 65535");
    ETHHdr e{{1, 2, 3, 4, 5, 6}, {0xa, 0xb, 0xc, 0xd, 0xe, 0xf}, 0x0800}, e2;
    EXPECT_EQ(moved(stuff_eth, out, 14, &e), 14);
    EXPECT_EQ(hex(out, 14), "0102030405060a0b0c0d0e0f0800");
    EXPECT_EQ(moved(unstuff_eth, out, 13, &e2), -1);
    EXPECT_EQ(moved(unstuff_eth, out, 14, &e2), 14);
    EXPECT_EQ(std::memcmp(&e, &e2, sizeof e), 0);
}

TEST(NetIpcodec, ParsesAndChecksScapyPackets) {
    auto packets = scapy("build");
    ASSERT_EQ(packets.size(), 6u);
    for (const auto &line : packets) {
        std::string h = line.substr(0, line.find(' '));
        Bytes pkt;
        for (size_t i = 0; i < h.size(); i += 2) pkt.push_back(std::stoi(h.substr(i, 2), 0, 16));
        EXPECT_EQ(fields(pkt), line.substr(h.size() + 1));
        unsigned short ipc, udpc;
        ASSERT_EQ(udp_checksum(pkt.data(), static_cast<int>(pkt.size()), &ipc, &udpc), 0);
        EXPECT_EQ(wire(ipc) + wire(udpc), h.substr(20, 4) + h.substr(((pkt[0] & 15) * 4 + 6) * 2, 4));
        pkt.push_back(1);  // a trailing byte is summed as payload: the UDP check fails
        unsigned short ipc2, udpc2;
        ASSERT_EQ(udp_checksum(pkt.data(), static_cast<int>(pkt.size()), &ipc2, &udpc2), 0);
        EXPECT_TRUE(ipc2 == ipc && udpc2 != udpc);
    }
}

TEST(NetIpcodec, ScapyAcceptsPacketsWeBuild) {
    IPHdr ip{0x45, 0, 0, 65535, 0x4000, 255, 17, 0, 0xC0A80107, 0xC0A80132, {}};
    std::vector<Bytes> sent;
    for (int len : {0, 1, 33, 1024}) {
        Bytes payload(len), pkt(28 + len);
        for (int i = 0; i < len; i++) payload[i] = static_cast<unsigned char>(i * 13 + 0xC0);
        ip.length = static_cast<std::uint16_t>(28 + len);
        UDPHdr u{5331, 5330, static_cast<std::uint16_t>(8 + len), 0};
        ASSERT_EQ(ip_udp_packet(&ip, &u, payload.data(), len, pkt.data(), 28 + len), 28 + len);
        sent.push_back(pkt);
        ip.identification++;  // 65535, then 0
    }
    // 4 option bytes, and a payload tuned so that the UDP checksum computes
    // to 0, which must go out as 0xFFFF.
    ip.version_length = 0x46;
    ip.length = 36;
    ip.options[0] = 1;
    UDPHdr u{4000, 4001, 12, 0};
    Bytes payload = {0x12, 0x34, 0, 0}, pkt(36);
    unsigned short sum;
    ASSERT_EQ(udp_payload_cksum(&ip, &u, payload.data(), 4, &sum), 0);
    std::memcpy(&payload[2], &sum, 2);
    EXPECT_EQ(ip_udp_packet(&ip, &u, payload.data(), 4, pkt.data(), 35), -1);
    ASSERT_EQ(ip_udp_packet(&ip, &u, payload.data(), 4, pkt.data(), 36), 36);
    EXPECT_EQ(hex(&pkt[30], 2), "ffff");
    sent.push_back(pkt);
    std::string input;
    for (auto &p : sent) input += hex(p.data(), p.size()) + "\n";
    auto verdicts = scapy("check", input);
    ASSERT_EQ(verdicts.size(), sent.size());
    for (size_t i = 0; i < sent.size(); i++) EXPECT_EQ(verdicts[i], fields(sent[i]) + " ok=11");
}

TEST(NetIpcodec, HeaderDumpLines) {
    IPHdr ip{0x45, 0, 36, 7, 0x4000, 255, 17, 0, 0x7F000001, 0x7F000001, {}};
    UDPHdr u{5330, 6330, 16, 0};
    testing::internal::CaptureStderr();
    print_ip(&ip, 0);
    print_udp(&u, 0);
    std::string err = testing::internal::GetCapturedStderr();
    size_t at = 0;
    for (const char *line : {"IP Header-------", "version_length = 0x45\n", "fragment_offset = 0x4000\n",
                             "protocol = 17\n", "chksum = 0x0000(0x0000)\n",
                             "ipaddr_src = 0x7f000001 (127.0.0.1 localhost)\n", "UDP Header------",
                             "          port_src = 5330\n", "            length = 16\n"})
        ASSERT_NE(at = err.find(line, at), std::string::npos) << line;  // each in order
}
