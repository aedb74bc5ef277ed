// The wire rules written from the RFCs, so that the fuzz targets judge the
// relay with code that shares nothing with it: the Internet checksum (RFC
// 1071), the sums a receiver takes of an IPv4/UDP packet (RFC 791, 768) and
// SLIP receiving (RFC 1055) with the relay's limits.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

// A broken property aborts, so that libFuzzer keeps the input.
#define FUZZ_CHECK(cond) \
    ((cond) ? void(0) : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #cond), std::abort()))

namespace wire {

using Bytes = std::vector<unsigned char>;

inline unsigned be16(const unsigned char *p) { return p[0] << 8 | p[1]; }
inline std::uint32_t be32(const unsigned char *p) { return std::uint32_t{be16(p)} << 16 | be16(p + 2); }

// The complement of the one's-complement sum of the big-endian 16-bit words,
// an odd last byte padded with a zero.
inline unsigned cksum(const unsigned char *p, std::size_t n) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < n; i += 2) sum += p[i] << 8 | (i + 1 < n ? p[i + 1] : 0);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return ~sum & 0xFFFF;
}

// A receiver's sums of a frame starting with an IPv4 header (length from its
// low nibble, at least 20 bytes on the wire) and a UDP header: IP over the
// announced length with the checksum zeroed; UDP over the pseudo-header (with
// the protocol byte and UDP length as received), the UDP header with 0xFFFF
// as checksum and the rest of the frame, at most 4076 bytes of it.
struct Sums { unsigned ip = 0, udp = 0; std::size_t udp_at = 0; };
inline bool receiver_sums(const unsigned char *f, std::size_t n, Sums *s) {
    std::size_t hl = n ? (f[0] & 15) * 4u : 0, at = std::max<std::size_t>(hl, 20);
    if (n < at + 8) return false;
    Bytes h(f, f + at), u(f + 12, f + 20);
    h[10] = h[11] = 0;
    const unsigned char *x = f + at;  // pseudo-header's tail, then the UDP header summed with 0xFFFF
    u.insert(u.end(), {0, f[9], x[4], x[5], x[0], x[1], x[2], x[3], x[4], x[5], 0xFF, 0xFF});
    u.insert(u.end(), f + at + 8, f + std::min(n, at + 8 + 4076));
    *s = {cksum(h.data(), hl), cksum(u.data(), u.size()), at};
    return true;
}

// SLIP receiving a byte at a time: ENDs around nothing are ignored; a bad
// escape abandons the frame with its byte, and so does a 2049th byte. feed is
// true when an END closes a frame, kept in `frame` until the next byte; raw
// counts the line bytes since the last frame ended or was abandoned.
struct Unslip {
    Bytes frame;
    std::size_t raw = 0;
    bool esc = false, done = false;
    bool abandon() { return frame.clear(), raw = 0, false; }
    bool feed(unsigned char b) {
        if (done) done = abandon();
        raw++;
        if (esc && b != 0xDC && b != 0xDD) return esc = abandon();
        if (esc) b = b == 0xDC ? 0xC0 : 0xDB;
        else if (b == 0xDB || b == 0xC0) return b == 0xDB ? (esc = true, false) : (done = !frame.empty());
        esc = false;
        if (frame.size() == 2048) return abandon();
        return frame.push_back(b), false;
    }
};

}  // namespace wire
