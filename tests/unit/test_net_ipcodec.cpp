// Header codec and checksums against RFC 1071 and scapy, an independent implementation that
// builds packets for us and checks ours. Cursor and length rules: tests/fuzz/fuzz_ip_codec.cpp.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <sstream>

#include "net/slip.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The output lines of tests/vectors/scapy_peer.py run with args.
std::vector<std::string> scapy(std::vector<std::string> args) {
    args.insert(args.begin(),
                {"/usr/bin/python3", KORVANE_SOURCE_DIR "/tests/vectors/scapy_peer.py"});
    auto r = testutil::run_program(args, "/", 60000);
    EXPECT_EQ(r.status, 0) << r.err << " (scripts/deps installs python3-scapy)";
    std::vector<std::string> out;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) out.push_back(line);
    return out;
}

std::string hex(const void *bytes, size_t n) {
    std::string s;
    for (auto *b = static_cast<const unsigned char *>(bytes); n-- > 0; b++)
        s += {"0123456789abcdef"[*b >> 4], "0123456789abcdef"[*b & 15]};
    return s;
}

// The two bytes a raw checksum word puts on the wire.
std::string wire(unsigned short raw) { return hex(&raw, 2); }

// A packet's fields as our codec parses them, in the peer's format.
std::string fields(const Bytes &pkt) {
    unsigned char *p = const_cast<unsigned char *>(pkt.data());
    int n = static_cast<int>(pkt.size());
    IPHdr ip;
    UDPHdr u;
    if (unstuff_ip(&p, &n, &ip) < 0 || unstuff_udp(&p, &n, &u) < 0) return "unparsable";
    in_addr src{htonl(ip.ipaddr_src)}, dst{htonl(ip.ipaddr_dst)};
    std::ostringstream s;
    s << (ip.version_length & 15) << ' ' << ip.length << ' ' << ip.identification << ' '
      << ip.fragment_offset << ' ' << +ip.time_to_live << ' ' << inet_ntoa(src) << ' '
      << inet_ntoa(dst) << ' ' << u.port_src << ' ' << u.port_dst << ' ' << u.length << ' '
      << ntohs(ip.chksum) << ' ' << ntohs(u.chksum);
    return s.str();
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

// Packets scapy built, parsed and summed by us; packets we built, checked by scapy.
TEST(NetIpcodec, ScapyPacketsBothWays) {
    auto packets = scapy({"build"});
    ASSERT_EQ(packets.size(), 6u);
    for (const auto &line : packets) {
        std::string h = line.substr(0, line.find(' '));
        Bytes pkt;
        for (size_t i = 0; i < h.size(); i += 2) pkt.push_back(std::stoi(h.substr(i, 2), 0, 16));
        EXPECT_EQ(fields(pkt), line.substr(h.size() + 1));
        unsigned short sums[2];
        ASSERT_EQ(udp_checksum(pkt.data(), static_cast<int>(pkt.size()), &sums[0], &sums[1]), 0);
        EXPECT_EQ(hex(sums, 4), h.substr(20, 4) + h.substr(((pkt[0] & 15) * 4 + 6) * 2, 4));
    }
    IPHdr ip{0x45, 0, 0, 65535, 0x4000, 255, 17, 0, 0xC0A80107, 0xC0A80132, {}};
    std::vector<std::string> check = {"check"}, want;
    // Payloads of 0, 1, 33 and 1024 bytes; then 4 option bytes and a payload whose
    // last word is its own sum, so that the UDP sum computes to 0 and goes out as FFFF.
    for (int len : {0, 1, 33, 1024, 4}) {
        Bytes payload(len), pkt(28 + len + (len == 4 ? 4 : 0));
        for (int i = 0; i < len; i++) payload[i] = static_cast<unsigned char>(i * 13 + 0xC0);
        UDPHdr u{5331, 5330, static_cast<std::uint16_t>(8 + len), 0};
        if (len == 4) {
            ip.version_length = 0x46;
            ip.options[0] = 1;
            payload[2] = payload[3] = 0;
            ASSERT_EQ(udp_payload_cksum(&ip, &u, payload.data(), 4, &u.chksum), 0);
            std::memcpy(&payload[2], &u.chksum, 2);
        }
        int n = ip.length = static_cast<std::uint16_t>(pkt.size());
        EXPECT_EQ(ip_udp_packet(&ip, &u, payload.data(), len, pkt.data(), n - 1), -1);
        ASSERT_EQ(ip_udp_packet(&ip, &u, payload.data(), len, pkt.data(), n), n);
        check.push_back(hex(pkt.data(), pkt.size()));
        want.push_back(fields(pkt) + " ok=11");
        ip.identification++;  // 65535, then 0
    }
    EXPECT_EQ(scapy(check), want);
}

TEST(NetIpcodec, EthernetCodec) {
    ETHHdr e{{1, 2, 3, 4, 5, 6}, {0xa, 0xb, 0xc, 0xd, 0xe, 0xf}, 0x0800}, back{};
    unsigned char out[14], *p = out, *q = out;
    int room = 14, left = 14;
    ASSERT_EQ(stuff_eth(&e, &p, &room), 0);
    EXPECT_EQ(hex(out, 14), "0102030405060a0b0c0d0e0f0800");
    ASSERT_EQ(unstuff_eth(&q, &left, &back), 0);
    EXPECT_EQ(std::memcmp(&e, &back, sizeof e), 0);
}
