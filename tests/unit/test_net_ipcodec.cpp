// IPv4/UDP/Ethernet codec and checksums, checked against RFC 1071 and
// against packets that scapy (an independent implementation) builds and
// verifies.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "net/slip.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Fields = std::map<std::string, std::string>;

const std::string kPeer = std::string(KORVANE_SOURCE_DIR) + "/tests/vectors/scapy_peer.py";

// Runs the scapy peer with input on stdin; lines of "key=value" words out.
// Skips the test when scapy is not installed.
std::vector<Fields> scapy(const std::string &mode, const std::string &input = "") {
    testutil::TempDir dir;
    dir.write("in", input);
    auto r = testutil::run_program(
        {"/bin/sh", "-c", "/usr/bin/python3 " + kPeer + " " + mode + " < " + dir.file("in")},
        dir.path, 60000);
    if (r.err.find("No module named") != std::string::npos) {
        ADD_FAILURE() << "scapy missing (scripts/deps installs python3-scapy)";
        return {};
    }
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<Fields> out;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        Fields f;
        std::istringstream words(line);
        for (std::string w; words >> w;) f[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
        out.push_back(f);
    }
    return out;
}

Bytes from_hex(const std::string &hex) {
    Bytes b;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) b.push_back(std::stoi(hex.substr(i, 2), 0, 16));
    return b;
}

std::string to_hex(const unsigned char *p, int n) {
    std::string s;
    char two[3];
    for (int i = 0; i < n; i++) {
        snprintf(two, sizeof two, "%02x", p[i]);
        s += two;
    }
    return s;
}

// The two bytes a raw checksum word puts on the wire.
std::string wire(unsigned short raw) {
    return to_hex(reinterpret_cast<unsigned char *>(&raw), 2);
}

// A checksum printed by scapy (a number) as its two wire bytes.
std::string wire_of_number(const std::string &n) {
    unsigned v = std::stoul(n);
    unsigned char b[2] = {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    return to_hex(b, 2);
}

std::string dotted(std::uint32_t host_order) {
    in_addr a;
    a.s_addr = htonl(host_order);
    return inet_ntoa(a);
}

// Builds a complete packet with our codec: both checksums in place.
Bytes build_packet(IPHdr ip, UDPHdr udp, const Bytes &payload) {
    Bytes pkt(IP_HDR_MAX + UDP_HDR_LEN + payload.size());
    unsigned char *p = pkt.data();
    int room = static_cast<int>(pkt.size());
    ip.chksum = 0;
    EXPECT_EQ(stuff_ip(&ip, &p, &room), 0);
    int hl = static_cast<int>(p - pkt.data());
    ip.chksum = in_cksum(reinterpret_cast<unsigned short *>(pkt.data()), hl);
    EXPECT_EQ(udp_payload_cksum(&ip, &udp, payload.data(), static_cast<int>(payload.size()),
                                &udp.chksum), 0);
    p = pkt.data();
    room = static_cast<int>(pkt.size());
    EXPECT_EQ(stuff_ip(&ip, &p, &room), 0);
    EXPECT_EQ(stuff_udp(&udp, &p, &room), 0);
    std::memcpy(p, payload.data(), payload.size());
    pkt.resize(p - pkt.data() + payload.size());
    return pkt;
}

}  // namespace

TEST(NetIpcodec, InCksumRfc1071Example) {
    // RFC 1071 section 3: the words sum to 0x2ddf0, fold to 0xddf2, and the
    // checksum is its complement 0x220d, which goes out as 22 0d.
    unsigned char words[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    EXPECT_EQ(wire(in_cksum(reinterpret_cast<unsigned short *>(words), 8)), "220d");
    // Odd length: the last byte is the first byte of a zero-padded word:
    // 0x0001 + 0xf200 = 0xf201, complement 0x0dfe.
    EXPECT_EQ(wire(in_cksum(reinterpret_cast<unsigned short *>(words), 3)), "0dfe");
    // Misaligned input gives the same answer.
    unsigned char shifted[9] = {0xAA};
    std::memcpy(shifted + 1, words, 8);
    EXPECT_EQ(wire(in_cksum(reinterpret_cast<unsigned short *>(shifted + 1), 8)), "220d");
}

TEST(NetIpcodec, IpHeaderLengthsAndOptions) {
    unsigned char hdr[24] = {0x45, 0, 0, 24, 0, 1, 0x40, 0, 255, 17, 0xAB, 0xCD,
                             10, 0, 0, 1, 10, 0, 0, 2, 1, 2, 3, 4};
    IPHdr ip;
    unsigned char *p = hdr;
    int n = 19;
    EXPECT_EQ(unstuff_ip(&p, &n, &ip), -1);
    EXPECT_EQ(p, hdr);
    EXPECT_EQ(n, 19);

    std::memset(&ip, 0xAA, sizeof ip);
    n = 24;
    ASSERT_EQ(unstuff_ip(&p, &n, &ip), 0);
    EXPECT_EQ(p, hdr + 20);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(ip.length, 24);
    EXPECT_EQ(ip.identification, 1);
    EXPECT_EQ(ip.fragment_offset, 0x4000);
    EXPECT_EQ(ip.ipaddr_src, 0x0A000001u);
    EXPECT_EQ(ip.ipaddr_dst, 0x0A000002u);
    EXPECT_EQ(wire(ip.chksum), "abcd");  // kept as the wire bytes
    EXPECT_EQ(Bytes(ip.options, ip.options + 40), Bytes(40, 0));

    hdr[0] = 0x46;  // 24-byte header: needs 24 bytes of input
    p = hdr;
    n = 20;
    EXPECT_EQ(unstuff_ip(&p, &n, &ip), -1);
    n = 24;
    ASSERT_EQ(unstuff_ip(&p, &n, &ip), 0);
    EXPECT_EQ(p, hdr + 24);
    EXPECT_EQ(Bytes(ip.options, ip.options + 5), (Bytes{1, 2, 3, 4, 0}));

    // Writing: room for the header exactly, a guard byte after it untouched.
    unsigned char out[25];
    std::memset(out, 0x5A, sizeof out);
    p = out;
    n = 23;
    EXPECT_EQ(stuff_ip(&ip, &p, &n), -1);
    n = 24;
    ASSERT_EQ(stuff_ip(&ip, &p, &n), 0);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(Bytes(out, out + 24), Bytes(hdr, hdr + 24));
    EXPECT_EQ(out[24], 0x5A);
}

TEST(NetIpcodec, UdpZeroChecksumAndEthernet) {
    UDPHdr u{5330, 65535, 8, 0};
    unsigned char out[9];
    std::memset(out, 0x5A, sizeof out);
    unsigned char *p = out;
    int n = 7;
    EXPECT_EQ(stuff_udp(&u, &p, &n), -1);
    n = 8;
    ASSERT_EQ(stuff_udp(&u, &p, &n), 0);
    EXPECT_EQ(to_hex(out, 9), "14d2ffff0008ffff5a");
    EXPECT_EQ(u.chksum, 0xFFFF);
    UDPHdr back;
    p = out;
    n = 8;
    ASSERT_EQ(unstuff_udp(&p, &n, &back), 0);
    EXPECT_EQ(back.port_src, 5330);
    EXPECT_EQ(back.port_dst, 65535);

    ETHHdr e{{1, 2, 3, 4, 5, 6}, {0xa, 0xb, 0xc, 0xd, 0xe, 0xf}, 0x0800};
    unsigned char frame[14];
    p = frame;
    n = 14;
    ASSERT_EQ(stuff_eth(&e, &p, &n), 0);
    EXPECT_EQ(to_hex(frame, 14), "0102030405060a0b0c0d0e0f0800");
    ETHHdr e2;
    p = frame;
    n = 13;
    EXPECT_EQ(unstuff_eth(&p, &n, &e2), -1);
    n = 14;
    ASSERT_EQ(unstuff_eth(&p, &n, &e2), 0);
    EXPECT_EQ(e2.type, 0x0800);
    testing::internal::CaptureStderr();
    print_eth(&e2);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Ethernet Header-----------------------------\n"), std::string::npos);
    EXPECT_NE(err.find("           mac_src = 0a:0b:0c:0d:0e:0f\n"), std::string::npos);
    EXPECT_NE(err.find("              type = 0800\n"), std::string::npos);
}

TEST(NetIpcodec, ParsesScapyPacketsFieldByField) {
    auto packets = scapy("build");
    ASSERT_EQ(packets.size(), 6u);
    for (auto &f : packets) {
        SCOPED_TRACE(f["name"]);
        Bytes pkt = from_hex(f["hex"]);
        unsigned char *p = pkt.data();
        int n = static_cast<int>(pkt.size());
        IPHdr ip;
        UDPHdr udp;
        ASSERT_EQ(unstuff_ip(&p, &n, &ip), 0);
        ASSERT_EQ(unstuff_udp(&p, &n, &udp), 0);
        EXPECT_EQ((ip.version_length & 15), std::stoi(f["ihl"]));
        EXPECT_EQ(ip.length, std::stoi(f["len"]));
        EXPECT_EQ(ip.identification, std::stoi(f["id"]));
        EXPECT_EQ(ip.fragment_offset, std::stoi(f["flags_frag"]));
        EXPECT_EQ(ip.time_to_live, std::stoi(f["ttl"]));
        EXPECT_EQ(ip.protocol, std::stoi(f["proto"]));
        EXPECT_EQ(dotted(ip.ipaddr_src), f["src"]);
        EXPECT_EQ(dotted(ip.ipaddr_dst), f["dst"]);
        EXPECT_EQ(udp.port_src, std::stoi(f["sport"]));
        EXPECT_EQ(udp.port_dst, std::stoi(f["dport"]));
        EXPECT_EQ(udp.length, std::stoi(f["ulen"]));
        EXPECT_EQ(n, udp.length - UDP_HDR_LEN);
        EXPECT_EQ(wire(ip.chksum), wire_of_number(f["ip_chksum"]));
        EXPECT_EQ(wire(udp.chksum), wire_of_number(f["udp_chksum"]));
        unsigned short ipc, udpc;
        ASSERT_EQ(udp_checksum(pkt.data(), static_cast<int>(pkt.size()), &ipc, &udpc), 0);
        EXPECT_EQ(ipc, ip.chksum);
        EXPECT_EQ(udpc, udp.chksum);
        // A header that holds its own checksum sums to zero.
        EXPECT_EQ(in_cksum(reinterpret_cast<unsigned short *>(pkt.data()),
                           (ip.version_length & 15) * 4), 0);
        // A trailing byte is summed as payload, so the UDP check fails.
        pkt.push_back(0x01);
        ASSERT_EQ(udp_checksum(pkt.data(), static_cast<int>(pkt.size()), &ipc, &udpc), 0);
        EXPECT_NE(udpc, udp.chksum);
    }
}

TEST(NetIpcodec, ScapyAcceptsPacketsWeBuild) {
    IPHdr ip{};
    ip.version_length = 0x45;
    ip.fragment_offset = 0x4000;
    ip.time_to_live = 255;
    ip.protocol = 17;
    ip.ipaddr_src = 0xC0A80107;
    ip.ipaddr_dst = 0xC0A80132;
    std::vector<Bytes> sent;
    std::string input;
    for (int len : {0, 1, 33, 1024}) {
        Bytes payload(len);
        for (int i = 0; i < len; i++) payload[i] = static_cast<unsigned char>(i * 13 + 0xC0);
        ip.length = static_cast<std::uint16_t>(28 + len);
        ip.identification = static_cast<std::uint16_t>(65534 + len);
        sent.push_back(build_packet(ip, UDPHdr{5331, 5330, static_cast<std::uint16_t>(8 + len), 0},
                                    payload));
    }
    // Options, and a payload tuned so the computed UDP checksum is 0, which
    // must go out as 0xFFFF.
    IPHdr opt = ip;
    opt.version_length = 0x46;
    opt.options[0] = 1, opt.options[1] = 1, opt.options[2] = 1;
    opt.length = 24 + 8 + 4;
    Bytes payload = {0x12, 0x34, 0, 0};
    UDPHdr u{4000, 4001, 12, 0};
    unsigned short sum;
    ASSERT_EQ(udp_payload_cksum(&opt, &u, payload.data(), 4, &sum), 0);
    std::memcpy(&payload[2], &sum, 2);
    ASSERT_EQ(udp_payload_cksum(&opt, &u, payload.data(), 4, &sum), 0);
    ASSERT_EQ(sum, 0);
    sent.push_back(build_packet(opt, u, payload));
    EXPECT_EQ(to_hex(&sent.back()[30], 2), "ffff");
    for (auto &pkt : sent) input += to_hex(pkt.data(), static_cast<int>(pkt.size())) + "\n";

    auto verdicts = scapy("check", input);
    ASSERT_EQ(verdicts.size(), sent.size());
    for (size_t i = 0; i < sent.size(); i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(verdicts[i]["ip_ok"], "1");
        EXPECT_EQ(verdicts[i]["udp_ok"], "1");
        EXPECT_EQ(verdicts[i]["src"], "192.168.1.7");
        EXPECT_EQ(verdicts[i]["flags_frag"], "16384");
    }
    EXPECT_EQ(verdicts[3]["len"], "1052");
    EXPECT_EQ(verdicts[4]["ihl"], "6");
    EXPECT_EQ(verdicts[4]["udp_chksum"], "65535");
}

TEST(NetIpcodec, HeaderDumpLines) {
    IPHdr ip{};
    ip.version_length = 0x45;
    ip.length = 36;
    ip.identification = 7;
    ip.fragment_offset = 0x4000;
    ip.time_to_live = 255;
    ip.protocol = 17;
    ip.ipaddr_src = 0x7F000001;
    ip.ipaddr_dst = 0x7F000001;
    UDPHdr u{5330, 6330, 16, 0};
    testing::internal::CaptureStderr();
    print_ip(&ip, 0);
    print_udp(&u, 0);
    std::string err = testing::internal::GetCapturedStderr();
    for (const char *line :
         {"IP Header-----------------------------------\n", "    version_length = 0x45\n",
          "              type = 0x00\n", "            length = 36\n",
          "    identification = 7\n", "   fragment_offset = 0x4000\n",
          "      time_to_live = 255\n", "          protocol = 17\n",
          "            chksum = 0x0000(0x0000)\n",
          "        ipaddr_src = 0x7f000001 (127.0.0.1 localhost)\n",
          "UDP Header----------------------------------\n", "          port_src = 5330\n",
          "          port_dst = 6330\n", "            length = 16\n"})
        EXPECT_NE(err.find(line), std::string::npos) << line;
    // The lines come out in order.
    EXPECT_LT(err.find("protocol = 17"), err.find("ipaddr_dst"));
    EXPECT_LT(err.find("ipaddr_dst"), err.find("UDP Header"));
}
