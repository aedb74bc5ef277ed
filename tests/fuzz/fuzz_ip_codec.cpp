// Fuzz target: the IPv4, UDP and Ethernet header codecs and the checksums, on
// any bytes taken as the start of a frame. A codec succeeds exactly when its
// header fits, reads each field as the wire has it (big-endian, checksums as
// the wire bytes) and writes the same bytes back. wire.h judges the sums.
#include "net/slip.h"
#include "wire.h"

namespace {

// The number the two wire bytes of a checksum field make.
unsigned wire_word(std::uint16_t raw) { return wire::be16(reinterpret_cast<unsigned char *>(&raw)); }

// Parses d with un, which must succeed when need bytes are there; st must
// then refuse one byte less room and write want into exactly need.
template <typename Hdr, typename Unstuff, typename Stuff>
bool codec(const unsigned char *d, int n, int need, const unsigned char *want, Hdr *hdr, Unstuff un, Stuff st) {
    wire::Bytes in(d, d + n), out(static_cast<std::size_t>(need) + 1, 0xA5);
    unsigned char *cur = in.data(), *o = out.data();
    int left = n, room = need - 1;
    const bool ok = un(&cur, &left, hdr) == 0;
    FUZZ_CHECK(ok == (n >= need) && cur == in.data() + (ok ? need : 0) && left == n - (ok ? need : 0));
    if (!ok) return false;
    Hdr copy = *hdr;
    FUZZ_CHECK(st(&copy, &o, &room) != 0 && o == out.data());
    room = need;
    FUZZ_CHECK(st(&copy, &o, &room) == 0 && o == out.data() + need && room == 0 && out[need] == 0xA5);
    FUZZ_CHECK(std::memcmp(out.data(), want, need) == 0);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *d, std::size_t size) {
    using wire::be16, wire::be32;
    const int n = static_cast<int>(std::min<std::size_t>(size, 8192));
    const int need = std::max(n > 0 ? (d[0] & 15) * 4 : 0, IP_HDR_MIN);
    IPHdr ip;
    if (codec(d, n, need, d, &ip, unstuff_ip, stuff_ip)) {
        FUZZ_CHECK(ip.version_length == d[0] && ip.type == d[1] && ip.length == be16(d + 2));
        FUZZ_CHECK(ip.identification == be16(d + 4) && ip.fragment_offset == be16(d + 6));
        FUZZ_CHECK(ip.time_to_live == d[8] && ip.protocol == d[9] && wire_word(ip.chksum) == be16(d + 10));
        FUZZ_CHECK(ip.ipaddr_src == be32(d + 12) && ip.ipaddr_dst == be32(d + 16));
        for (int i = 0; i < 40; i++) FUZZ_CHECK(ip.options[i] == (i < need - IP_HDR_MIN ? d[20 + i] : 0));
    }
    unsigned char want[UDP_HDR_LEN] = {};
    if (n >= UDP_HDR_LEN) std::memcpy(want, d, UDP_HDR_LEN);
    if (want[6] == 0 && want[7] == 0) want[6] = want[7] = 0xFF;  // "no sum" is never written
    UDPHdr udp;
    if (codec(d, n, UDP_HDR_LEN, want, &udp, unstuff_udp, stuff_udp)) {
        FUZZ_CHECK(udp.port_src == be16(d) && udp.port_dst == be16(d + 2) && udp.length == be16(d + 4));
        FUZZ_CHECK(wire_word(udp.chksum) == be16(d + 6));
    }
    ETHHdr eth;
    if (codec(d, n, ETH_HDR_LEN, d, &eth, unstuff_eth, stuff_eth))
        FUZZ_CHECK(!std::memcmp(eth.mac_dst, d, 6) && !std::memcmp(eth.mac_src, d + 6, 6) && eth.type == be16(d + 12));

    // The sums of copies at an even and an odd address, which stay as they were.
    wire::Sums s;
    const bool parses = wire::receiver_sums(d, static_cast<std::size_t>(n), &s);
    for (int shift = 0; shift < 2; shift++) {
        wire::Bytes copy(static_cast<std::size_t>(n) + 1);
        unsigned char *c = copy.data() + shift;
        if (n > 0) std::memcpy(c, d, n);
        FUZZ_CHECK(wire_word(in_cksum(reinterpret_cast<const unsigned short *>(c), n)) == wire::cksum(d, n));
        unsigned short ip_sum = 0, udp_sum = 0;
        const int rc = udp_checksum(c, n, &ip_sum, &udp_sum);
        FUZZ_CHECK((rc == 0) == parses && (n == 0 || std::memcmp(c, d, n) == 0));
        FUZZ_CHECK(rc != 0 || (wire_word(ip_sum) == s.ip && wire_word(udp_sum) == s.udp));
    }
    return 0;
}
