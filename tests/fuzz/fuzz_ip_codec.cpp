// Fuzz target: the IPv4/UDP/Ethernet header codec and the checksums, on
// arbitrary bytes taken as the start of a received frame.
//
// Properties checked:
// - a codec succeeds exactly when the input holds the header (for IPv4: 20
//   bytes and the length its nibble gives); a failure leaves the cursor and
//   the count untouched;
// - a parsed header stuffed back gives the bytes it was parsed from (a zero
//   UDP checksum comes back as 0xFFFF, the one change the codec makes);
//   option bytes past the header's own length stay zero;
// - in_cksum agrees with a sum of big-endian words (the one's-complement sum
//   does not depend on byte order), for even and odd lengths;
// - udp_checksum succeeds exactly when both headers parse, gives the same
//   sums wherever the frame lies in memory (an odd address included), and
//   returns the sums of the header with a zero checksum field and of the
//   pseudo-header, UDP header (checksum field 0xFFFF) and payload.
#include "net/slip.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_check.h"

namespace {

constexpr int kMaxInput = 8192;
constexpr int kPayloadCap = 4076;   // payload bytes the UDP sum covers at most

// in_cksum over bytes copied to an aligned buffer.
unsigned short cksum_of(const unsigned char *bytes, int n) {
    std::vector<unsigned short> words(static_cast<std::size_t>(n) / 2 + 1, 0);
    if (n > 0) std::memcpy(words.data(), bytes, static_cast<std::size_t>(n));
    return in_cksum(words.data(), n);
}

// The same sum taken over big-endian word values, returned as the raw memory
// word the wire carries.
unsigned short reference_cksum(const unsigned char *bytes, int n) {
    std::uint32_t sum = 0;
    for (int i = 0; i + 1 < n; i += 2) sum += static_cast<std::uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    if (n % 2) sum += static_cast<std::uint32_t>(bytes[n - 1] << 8);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return htons(static_cast<std::uint16_t>(~sum & 0xFFFF));
}

// Parses with `unstuff`, checks the cursor contract, stuffs back and returns
// the bytes written (empty when the parse failed).
template <typename Hdr, typename Unstuff, typename Stuff>
std::vector<unsigned char> round_trip(const unsigned char *data, int n, Hdr *hdr, int *used,
                                      Unstuff unstuff, Stuff stuff) {
    std::vector<unsigned char> in(data, data + n);
    unsigned char *cur = in.data();
    int left = n;
    *used = 0;
    if (unstuff(&cur, &left, hdr) != 0) {
        FUZZ_CHECK(cur == in.data() && left == n);
        return {};
    }
    *used = static_cast<int>(cur - in.data());
    FUZZ_CHECK(left == n - *used && *used > 0);

    Hdr copy = *hdr;
    std::vector<unsigned char> out(IP_HDR_MAX + 16, 0xA5);   // guard bytes past the header
    unsigned char *ocur = out.data();
    int room = IP_HDR_MAX;
    FUZZ_CHECK(stuff(&copy, &ocur, &room) == 0);
    int wrote = static_cast<int>(ocur - out.data());
    FUZZ_CHECK(room == IP_HDR_MAX - wrote && wrote == *used);
    FUZZ_CHECK(std::all_of(out.begin() + IP_HDR_MAX, out.end(), [](unsigned char b) { return b == 0xA5; }));
    out.resize(static_cast<std::size_t>(wrote));
    return out;
}

// Returns the IPv4 header length the frame announces, or -1 when it does not parse.
int check_ip(const unsigned char *data, int n) {
    IPHdr ip;
    int used = 0;
    std::vector<unsigned char> out = round_trip(data, n, &ip, &used, unstuff_ip, stuff_ip);
    int hlen = n > 0 ? (data[0] & 15) * 4 : 0;
    bool fits = n >= IP_HDR_MIN && n >= hlen;
    FUZZ_CHECK(fits == !out.empty());
    if (out.empty()) return -1;
    FUZZ_CHECK(std::memcmp(out.data(), data, out.size()) == 0);
    for (int i = std::max(hlen - IP_HDR_MIN, 0); i < 40; i++) FUZZ_CHECK(ip.options[i] == 0);
    return used;
}

void check_udp(const unsigned char *data, int n) {
    UDPHdr udp;
    int used = 0;
    std::vector<unsigned char> out = round_trip(data, n, &udp, &used, unstuff_udp, stuff_udp);
    FUZZ_CHECK((n >= UDP_HDR_LEN) == !out.empty());
    if (out.empty()) return;
    std::vector<unsigned char> want(data, data + UDP_HDR_LEN);
    if (want[6] == 0 && want[7] == 0) want[6] = want[7] = 0xFF;
    FUZZ_CHECK(out == want);
}

void check_eth(const unsigned char *data, int n) {
    ETHHdr eth;
    int used = 0;
    std::vector<unsigned char> out = round_trip(data, n, &eth, &used, unstuff_eth, stuff_eth);
    FUZZ_CHECK((n >= ETH_HDR_LEN) == !out.empty());
    if (!out.empty()) FUZZ_CHECK(std::memcmp(out.data(), data, ETH_HDR_LEN) == 0);
}

void check_cksum(const unsigned char *data, int n) {
    FUZZ_CHECK(cksum_of(data, n) == reference_cksum(data, n));
}

// The IP sum: the header as stuffed (at least 20 bytes) with a zero checksum
// field, summed over the length its nibble gives.
unsigned short expected_ip_sum(const unsigned char *data, int ip_len) {
    std::vector<unsigned char> hdr(data, data + ip_len);
    hdr[10] = hdr[11] = 0;
    return reference_cksum(hdr.data(), (data[0] & 15) * 4);
}

// The UDP sum: pseudo-header (addresses, zero, protocol, UDP length as
// received), UDP header with 0xFFFF as checksum, payload cut to 4076 bytes.
unsigned short expected_udp_sum(const unsigned char *data, int n, int ip_len) {
    int payload = std::min(n - ip_len - UDP_HDR_LEN, kPayloadCap);
    std::vector<unsigned char> sum(UDP_PSEUDO_LEN + UDP_HDR_LEN + payload, 0);
    std::memcpy(&sum[0], data + 12, 8);
    sum[9] = data[9];
    std::memcpy(&sum[10], data + ip_len + 4, 2);
    std::memcpy(&sum[12], data + ip_len, 6);
    sum[18] = sum[19] = 0xFF;
    if (payload > 0)
        std::memcpy(&sum[20], data + ip_len + UDP_HDR_LEN, static_cast<std::size_t>(payload));
    return reference_cksum(sum.data(), static_cast<int>(sum.size()));
}

void check_udp_checksum(const unsigned char *data, int n, int ip_len) {
    std::vector<unsigned char> even(data, data + n);
    std::vector<unsigned char> odd(static_cast<std::size_t>(n) + 1);
    std::memcpy(odd.data() + 1, data, static_cast<std::size_t>(n));
    unsigned short ip1 = 0, udp1 = 0, ip2 = 0, udp2 = 0;
    int rc1 = udp_checksum(even.data(), n, &ip1, &udp1);
    int rc2 = udp_checksum(odd.data() + 1, n, &ip2, &udp2);
    bool parses = ip_len >= 0 && n - ip_len >= UDP_HDR_LEN;
    FUZZ_CHECK((rc1 == 0) == parses && rc1 == rc2);
    if (rc1 != 0) return;
    FUZZ_CHECK(ip1 == ip2 && udp1 == udp2);
    FUZZ_CHECK(std::memcmp(even.data(), data, static_cast<std::size_t>(n)) == 0);
    FUZZ_CHECK(ip1 == expected_ip_sum(data, ip_len));
    FUZZ_CHECK(udp1 == expected_udp_sum(data, n, ip_len));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    int n = static_cast<int>(std::min<std::size_t>(size, kMaxInput));
    int ip_len = check_ip(data, n);
    check_udp(data, n);
    check_eth(data, n);
    check_cksum(data, n);
    check_udp_checksum(data, n, ip_len);
    return 0;
}
