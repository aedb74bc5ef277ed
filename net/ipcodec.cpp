// IPv4, UDP and Ethernet header codecs, the Internet checksum and the header
// dumps. Multi-byte fields go through the big-endian cursor converters; the
// checksum fields are copied as raw bytes so that the same code is right on
// a little- and a big-endian host.
#include "net/slip.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/byteorder.h"
#include "support/elog.h"
#include "support/host.h"

namespace {

// Header length in bytes from the low nibble of version_length.
int ip_header_length(std::uint8_t version_length) { return (version_length & 15) * 4; }

// Bytes an IPv4 header occupies on the wire: never less than the fixed part.
int ip_wire_length(std::uint8_t version_length) {
    int hl = ip_header_length(version_length);
    return hl > IP_HDR_MIN ? hl : IP_HDR_MIN;
}

// Moves the caller's cursor to p and lowers its count by what was used.
int commit(unsigned char **buf, int *nbytes, unsigned char *p) {
    *nbytes -= static_cast<int>(p - *buf);
    *buf = p;
    return 0;
}

// Registers one line and writes it out at once.
void dump_line(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void dump_line(const char *fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    elog_log(0, "%s", line);
    elog_clear_register(1);
}

}  // namespace

int unstuff_ip(unsigned char **buf, int *nbytes, IPHdr *ip) {
    if (*nbytes < IP_HDR_MIN) return -1;
    unsigned char *p = *buf;
    int wire = ip_wire_length(p[0]);
    if (*nbytes < wire) return -1;
    ip->version_length = p[0];
    ip->type = p[1];
    p += 2;
    if (ums2hs(&p, &ip->length, 1) < 0 || ums2hs(&p, &ip->identification, 1) < 0 ||
        ums2hs(&p, &ip->fragment_offset, 1) < 0)
        return -1;
    ip->time_to_live = p[0];
    ip->protocol = p[1];
    std::memcpy(&ip->chksum, p + 2, 2);
    p += 4;
    if (umi2hi(&p, &ip->ipaddr_src, 1) < 0 || umi2hi(&p, &ip->ipaddr_dst, 1) < 0) return -1;
    std::memset(ip->options, 0, sizeof ip->options);
    std::memcpy(ip->options, p, wire - IP_HDR_MIN);
    return commit(buf, nbytes, p + (wire - IP_HDR_MIN));
}

int stuff_ip(IPHdr *ip, unsigned char **buf, int *nbytes) {
    int wire = ip_wire_length(ip->version_length);
    if (*nbytes < wire) return -1;
    unsigned char *p = *buf;
    p[0] = ip->version_length;
    p[1] = ip->type;
    p += 2;
    if (uhs2ms(&ip->length, &p, 1) < 0 || uhs2ms(&ip->identification, &p, 1) < 0 ||
        uhs2ms(&ip->fragment_offset, &p, 1) < 0)
        return -1;
    p[0] = ip->time_to_live;
    p[1] = ip->protocol;
    std::memcpy(p + 2, &ip->chksum, 2);
    p += 4;
    if (uhi2mi(&ip->ipaddr_src, &p, 1) < 0 || uhi2mi(&ip->ipaddr_dst, &p, 1) < 0) return -1;
    std::memcpy(p, ip->options, wire - IP_HDR_MIN);
    return commit(buf, nbytes, p + (wire - IP_HDR_MIN));
}

int unstuff_udp(unsigned char **buf, int *nbytes, UDPHdr *udp) {
    if (*nbytes < UDP_HDR_LEN) return -1;
    unsigned char *p = *buf;
    if (ums2hs(&p, &udp->port_src, 1) < 0 || ums2hs(&p, &udp->port_dst, 1) < 0 ||
        ums2hs(&p, &udp->length, 1) < 0)
        return -1;
    std::memcpy(&udp->chksum, p, 2);
    return commit(buf, nbytes, p + 2);
}

int stuff_udp(UDPHdr *udp, unsigned char **buf, int *nbytes) {
    if (*nbytes < UDP_HDR_LEN) return -1;
    // 0 on the wire means "no checksum"; a computed 0 is sent as its
    // one's-complement twin 0xFFFF, which sums the same.
    if (udp->chksum == 0) udp->chksum = 0xFFFF;
    unsigned char *p = *buf;
    if (uhs2ms(&udp->port_src, &p, 1) < 0 || uhs2ms(&udp->port_dst, &p, 1) < 0 ||
        uhs2ms(&udp->length, &p, 1) < 0)
        return -1;
    std::memcpy(p, &udp->chksum, 2);
    return commit(buf, nbytes, p + 2);
}

int unstuff_eth(unsigned char **buf, int *nbytes, ETHHdr *eth) {
    if (*nbytes < ETH_HDR_LEN) return -1;
    unsigned char *p = *buf;
    std::memcpy(eth->mac_dst, p, 6);
    std::memcpy(eth->mac_src, p + 6, 6);
    p += 12;
    if (ums2hs(&p, &eth->type, 1) < 0) return -1;
    return commit(buf, nbytes, p);
}

int stuff_eth(ETHHdr *eth, unsigned char **buf, int *nbytes) {
    if (*nbytes < ETH_HDR_LEN) return -1;
    unsigned char *p = *buf;
    std::memcpy(p, eth->mac_dst, 6);
    std::memcpy(p + 6, eth->mac_src, 6);
    p += 12;
    if (uhs2ms(&eth->type, &p, 1) < 0) return -1;
    return commit(buf, nbytes, p);
}

unsigned short in_cksum(const unsigned short *addr, int nbytes) {
    // Words are read with memcpy: callers pass byte buffers at any alignment.
    const unsigned char *p = reinterpret_cast<const unsigned char *>(addr);
    std::uint32_t sum = 0;
    for (; nbytes > 1; nbytes -= 2, p += 2) {
        unsigned short word;
        std::memcpy(&word, p, 2);
        sum += word;
    }
    if (nbytes == 1) {
        const unsigned char last[2] = {*p, 0};
        unsigned short word;
        std::memcpy(&word, last, 2);
        sum += word;
    }
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<unsigned short>(~sum & 0xFFFF);
}

namespace {

// Checksum of the IP header as parsed, with its checksum field zeroed.
int ip_header_cksum(IPHdr ip, unsigned short *out) {
    unsigned char scratch[IP_HDR_MAX];
    unsigned char *p = scratch;
    int room = sizeof scratch;
    ip.chksum = 0;
    if (stuff_ip(&ip, &p, &room) < 0) return -1;
    int hl = ip_header_length(ip.version_length);
    *out = in_cksum(reinterpret_cast<unsigned short *>(scratch), hl);
    return 0;
}

}  // namespace

int udp_payload_cksum(const IPHdr *ipp, const UDPHdr *udpp, const unsigned char *payload, int n,
                      unsigned short *out) {
    const IPHdr &ip = *ipp;
    UDPHdr udp = *udpp;
    constexpr int kScratch = 4096;
    constexpr int kMaxPayload = kScratch - UDP_PSEUDO_LEN - UDP_HDR_LEN;
    unsigned char scratch[kScratch] = {};
    unsigned char *p = scratch;
    std::uint32_t src = ip.ipaddr_src, dst = ip.ipaddr_dst;
    if (uhi2mi(&src, &p, 1) < 0 || uhi2mi(&dst, &p, 1) < 0) return -1;
    p[0] = 0;
    p[1] = ip.protocol;
    p += 2;
    if (uhs2ms(&udp.length, &p, 1) < 0) return -1;
    int room = kScratch - UDP_PSEUDO_LEN;
    udp.chksum = 0;
    if (stuff_udp(&udp, &p, &room) < 0) return -1;
    if (n > kMaxPayload) n = kMaxPayload;
    if (n > 0) std::memcpy(p, payload, n);
    *out = in_cksum(reinterpret_cast<unsigned short *>(scratch), n + UDP_PSEUDO_LEN + UDP_HDR_LEN);
    return 0;
}

int udp_checksum(unsigned char *data_starting_at_ip_hdr, int nbytes,
                 unsigned short *ip_chksum, unsigned short *udp_chksum) {
    unsigned char *p = data_starting_at_ip_hdr;
    int left = nbytes;
    IPHdr ip;
    UDPHdr udp;
    if (unstuff_ip(&p, &left, &ip) < 0 || ip_header_cksum(ip, ip_chksum) < 0) return -1;
    if (unstuff_udp(&p, &left, &udp) < 0) return -1;
    // The payload is what the frame holds after the UDP header, not what the
    // UDP length field claims: a frame with trailing bytes fails the check.
    return udp_payload_cksum(&ip, &udp, p, left, udp_chksum);
}

int ip_udp_packet(IPHdr *ip, UDPHdr *udp, const unsigned char *payload, int len,
                  unsigned char *packet, int room) {
    unsigned char *p = packet;
    int left = room;
    ip->chksum = 0;
    if (stuff_ip(ip, &p, &left) < 0) return -1;
    ip->chksum = in_cksum(reinterpret_cast<unsigned short *>(packet), static_cast<int>(p - packet));
    unsigned short sum;
    if (udp_payload_cksum(ip, udp, payload, len, &sum) < 0) return -1;
    udp->chksum = sum;  // stuff_udp sends a computed 0 as 0xFFFF
    p = packet;
    left = room;
    if (stuff_ip(ip, &p, &left) < 0 || stuff_udp(udp, &p, &left) < 0 || left < len) return -1;
    if (len > 0) std::memcpy(p, payload, len);
    return static_cast<int>(p - packet) + len;
}

void udp_ip2str(unsigned int ipaddress, char *ipstr) {
    char name[256];
    unsigned a = (ipaddress >> 24) & 0xFF, b = (ipaddress >> 16) & 0xFF;
    unsigned c = (ipaddress >> 8) & 0xFF, d = ipaddress & 0xFF;
    if (ip2name(ipaddress, name) == 0) {
        std::snprintf(ipstr, 300, "%u.%u.%u.%u %s", a, b, c, d, name);
    } else {
        elog_clear_register(0);
        std::snprintf(ipstr, 300, "%u.%u.%u.%u ?", a, b, c, d);
    }
}

void print_ip(IPHdr *ip, unsigned short ip_chksum) {
    char src[300], dst[300];
    udp_ip2str(ip->ipaddr_src, src);
    udp_ip2str(ip->ipaddr_dst, dst);
    dump_line("IP Header-----------------------------------\n");
    dump_line("    version_length = 0x%2.2x\n", ip->version_length);
    dump_line("              type = 0x%2.2x\n", ip->type);
    dump_line("            length = %d\n", ip->length);
    dump_line("    identification = %d\n", ip->identification);
    dump_line("   fragment_offset = 0x%4.4x\n", ip->fragment_offset);
    dump_line("      time_to_live = %d\n", ip->time_to_live);
    dump_line("          protocol = %d\n", ip->protocol);
    dump_line("            chksum = 0x%4.4x(0x%4.4x)\n", ip->chksum, ip_chksum);
    dump_line("        ipaddr_src = 0x%8.8x (%s)\n", ip->ipaddr_src, src);
    dump_line("        ipaddr_dst = 0x%8.8x (%s)\n", ip->ipaddr_dst, dst);
}

void print_udp(UDPHdr *udp, unsigned short udp_chksum) {
    dump_line("UDP Header----------------------------------\n");
    dump_line("          port_src = %d\n", udp->port_src);
    dump_line("          port_dst = %d\n", udp->port_dst);
    dump_line("            length = %d\n", udp->length);
    dump_line("            chksum = 0x%4.4x(0x%4.4x)\n", udp->chksum, udp_chksum);
}

void print_eth(ETHHdr *eth) {
    const unsigned char *d = eth->mac_dst, *s = eth->mac_src;
    dump_line("Ethernet Header-----------------------------\n");
    dump_line("           mac_dst = %2.2x:%2.2x:%2.2x:%2.2x:%2.2x:%2.2x\n", d[0], d[1], d[2],
              d[3], d[4], d[5]);
    dump_line("           mac_src = %2.2x:%2.2x:%2.2x:%2.2x:%2.2x:%2.2x\n", s[0], s[1], s[2],
              s[3], s[4], s[5]);
    dump_line("              type = %4.4x\n", eth->type);
}
