// Building and judging whole IPv4/UDP packets with the project's own codec,
// for the tools that stand in for the datalogger and for their tests.
// Header-only, so that tools/ stays one .cpp per program.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "net/slip.h"

namespace dlframe {

inline constexpr int kHeaders = IP_HDR_MIN + UDP_HDR_LEN;
inline constexpr int kMaxPacket = SLIP_MAX_FRAME;

// Who a packet goes from and to; addresses and ports are host-order numbers.
struct Addressing {
    std::uint32_t ipaddr_src = 0;
    std::uint32_t ipaddr_dst = 0;
    std::uint16_t port_src = 0;
    std::uint16_t port_dst = 0;
    std::uint16_t identification = 0;
};

// Why a received packet was refused, in the order the checks run.
enum Verdict { kAccepted, kShort, kHeader, kIpChecksum, kUdpChecksum };

// A packet that passed every check; payload points into the caller's buffer.
struct Parsed {
    IPHdr ip;
    UDPHdr udp;
    const unsigned char *payload;
    int nbytes;
};

inline void put16(unsigned char *p, unsigned v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void put32(unsigned char *p, std::uint32_t v) {
    put16(p, v >> 16);
    put16(p + 2, v & 0xffff);
}

// UDP checksum over the pseudo-header, the UDP header with a zero checksum
// and the payload, laid out in a scratch buffer of its own so that it does
// not share a code path with the receiving side's udp_checksum.
inline unsigned short udp_sum(const Addressing &a, const unsigned char *payload, int n) {
    std::vector<unsigned short> words((static_cast<size_t>(n) + UDP_PSEUDO_LEN + UDP_HDR_LEN + 1) / 2, 0);
    unsigned char *s = reinterpret_cast<unsigned char *>(words.data());
    put32(s, a.ipaddr_src);
    put32(s + 4, a.ipaddr_dst);
    s[9] = 17;
    put16(s + 10, static_cast<unsigned>(n + UDP_HDR_LEN));
    put16(s + 12, a.port_src);
    put16(s + 14, a.port_dst);
    put16(s + 16, static_cast<unsigned>(n + UDP_HDR_LEN));
    if (n > 0) std::memcpy(s + 20, payload, static_cast<size_t>(n));
    return in_cksum(words.data(), n + UDP_PSEUDO_LEN + UDP_HDR_LEN);
}

// Lays out a 20-byte IPv4 header (Don't Fragment, TTL 64, protocol UDP), the
// UDP header and the payload, both checksums in place. packet must be 2-byte
// aligned. Returns the packet length, or -1 when it does not fit room.
inline int build(const Addressing &a, const unsigned char *payload, int n, unsigned char *packet, int room) {
    if (n < 0 || n + kHeaders > room || n + kHeaders > 65535) return -1;
    IPHdr ip{};
    ip.version_length = 0x45;
    ip.length = static_cast<std::uint16_t>(n + kHeaders);
    ip.identification = a.identification;
    ip.fragment_offset = 0x4000;
    ip.time_to_live = 64;
    ip.protocol = 17;
    ip.ipaddr_src = a.ipaddr_src;
    ip.ipaddr_dst = a.ipaddr_dst;
    // The IP checksum is taken over the header written with a zero checksum.
    unsigned char *cur = packet;
    int left = room;
    if (stuff_ip(&ip, &cur, &left) < 0) return -1;
    ip.chksum = in_cksum(reinterpret_cast<const unsigned short *>(packet), IP_HDR_MIN);
    cur = packet;
    left = room;
    if (stuff_ip(&ip, &cur, &left) < 0) return -1;
    UDPHdr udp{a.port_src, a.port_dst, static_cast<std::uint16_t>(n + UDP_HDR_LEN), udp_sum(a, payload, n)};
    if (stuff_udp(&udp, &cur, &left) < 0) return -1;   // a zero sum goes out as 0xFFFF
    if (n > 0) std::memcpy(cur, payload, static_cast<size_t>(n));
    return n + kHeaders;
}

// Checks a decoded frame as a strict receiver would: both checksums, then
// version, protocol, no fragments, and both length fields against the frame.
inline Verdict check(unsigned char *packet, int n, Parsed *p) {
    unsigned short ip_sum = 0, udp_sum_computed = 0;
    if (n < kHeaders) return kShort;
    if (udp_checksum(packet, n, &ip_sum, &udp_sum_computed) < 0) return kHeader;
    unsigned char *cur = packet;
    int left = n;
    if (unstuff_ip(&cur, &left, &p->ip) < 0 || unstuff_udp(&cur, &left, &p->udp) < 0) return kHeader;
    if (p->ip.chksum != ip_sum) return kIpChecksum;
    std::uint16_t stored = p->udp.chksum;
    if (stored != 0 && !(stored == 0xFFFF && udp_sum_computed == 0) && stored != udp_sum_computed)
        return kUdpChecksum;
    if ((p->ip.version_length >> 4) != 4 || p->ip.protocol != 17 || (p->ip.fragment_offset & 0x3FFF) != 0 ||
        p->ip.length != n || p->udp.length != left + UDP_HDR_LEN)
        return kHeader;
    p->payload = cur;
    p->nbytes = left;
    return kAccepted;
}

}  // namespace dlframe
