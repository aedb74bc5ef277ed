// SLIP framing of IPv4/UDP packets on the endpoint's byte-stream link.
// Sending builds the whole frame on the stack and writes it in one call;
// receiving feeds the link's bytes one at a time to a small decoder and
// drops, without ever returning, every frame that fails a check.
#include "net/slip.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "link/serialbuf.h"
#include "net/udp.h"
#include "stats/taverage.h"
#include "support/byteorder.h"
#include "support/elog.h"
#include "support/sysutil.h"

namespace {

constexpr int kHeaders = IP_HDR_MIN + UDP_HDR_LEN;
constexpr int kPacketMax = kHeaders + SLIP_MAX_PAYLOAD;
constexpr int kFrameMax = 2 * kPacketMax + 2;  // every byte escaped, plus two ENDs
constexpr int kDropped = -3;                   // frame refused; read the next one

// Adds n to an average the endpoint may not have.
void account(TAverage *avg, double n) {
    if (avg) taverage_put(avg, n);
}

// Registers one line and writes it out at once.
void emit(const char *line) {
    elog_log(0, "%s\n", line);
    elog_clear_register(1);
}

// Logs bytes 32 to a line as " %2.2x" after the prefix, then the prefix alone.
void slip_dump(const char *prefix, const unsigned char *bytes, int n) {
    char line[16 + 32 * 3 + 1];
    int plen = std::snprintf(line, 16, "%s", prefix);
    if (plen > 15) plen = 15;
    int len = plen;
    for (int i = 0; i < n; i++) {
        len += std::snprintf(line + len, 4, " %2.2x", bytes[i]);
        if ((i + 1) % 32 == 0) {
            emit(line);
            len = plen;
        }
    }
    if (len > plen) {
        line[len] = '\0';
        emit(line);
    }
    line[plen] = '\0';
    emit(line);
}

// Reads a 32-bit value from four bytes lying in memory in wire order.
std::uint32_t wire_u32(const void *bytes) {
    unsigned char copy[4];
    std::memcpy(copy, bytes, 4);
    unsigned char *c = copy;
    std::uint32_t v = 0;
    umi2hi(&c, &v, 1);
    return v;
}

// Reads a 16-bit value from two bytes lying in memory in wire order.
std::uint16_t wire_u16(const void *bytes) {
    unsigned char copy[2];
    std::memcpy(copy, bytes, 2);
    unsigned char *c = copy;
    std::uint16_t v = 0;
    ums2hs(&c, &v, 1);
    return v;
}

// The IPv4 and UDP header records of one outgoing packet.
void slip_headers(SerialBuf *sb, const sockaddr_in &to, int len, IPHdr *ip, UDPHdr *uh) {
    std::memset(ip, 0, sizeof *ip);
    ip->version_length = 0x45;
    ip->length = static_cast<std::uint16_t>(len + kHeaders);
    ip->identification = sb->slip_identification++;  // wraps after 65535
    ip->fragment_offset = 0x4000;                      // Don't Fragment
    ip->time_to_live = 255;
    ip->protocol = 17;
    // The forwarding thread copies the client's address bytes in as they lie,
    // so the field is read as wire-order bytes.
    ip->ipaddr_src = wire_u32(&sb->slip_ipaddr_src);
    ip->ipaddr_dst = wire_u32(&to.sin_addr.s_addr);
    // Kept on purpose: the port is taken as a host-order number although the
    // forwarding thread copies network-order bytes into it, so on a
    // little-endian host the datalogger sees the client's port with its bytes
    // exchanged. Its replies come back to that port and the reader exchanges
    // it back; "fixing" it here would break that round trip.
    uh->port_src = sb->slip_port_src;
    uh->port_dst = wire_u16(&to.sin_port);
    uh->length = static_cast<std::uint16_t>(len + UDP_HDR_LEN);
    uh->chksum = 0;
}

}  // namespace

int slip_encode(const unsigned char *packet, int n, unsigned char *frame) {
    unsigned char *q = frame;
    *q++ = SLIP_END;
    for (int i = 0; i < n; i++) {
        if (packet[i] == SLIP_END) {
            *q++ = SLIP_ESC;
            *q++ = SLIP_ESC_END;
        } else if (packet[i] == SLIP_ESC) {
            *q++ = SLIP_ESC;
            *q++ = SLIP_ESC_ESC;
        } else {
            *q++ = packet[i];
        }
    }
    *q++ = SLIP_END;
    return static_cast<int>(q - frame);
}

void slip_decoder_reset(SlipDecoder *dec) {
    dec->count = 0;
    dec->escaped = 0;
    dec->raw = 0;
    dec->finished = 0;
}

namespace {

// Abandons the frame: its bytes are neither kept nor counted.
int decoder_abandon(SlipDecoder *dec) {
    slip_decoder_reset(dec);
    return -1;
}

// Stores one decoded byte, abandoning a frame already at the limit.
int decoder_store(SlipDecoder *dec, unsigned char byte) {
    if (dec->count >= SLIP_MAX_FRAME) return decoder_abandon(dec);
    dec->bytes[dec->count++] = byte;
    return 0;
}

}  // namespace

int slip_decoder_feed(SlipDecoder *dec, unsigned char byte) {
    if (dec->finished) slip_decoder_reset(dec);
    dec->raw++;
    if (dec->escaped) {
        dec->escaped = 0;
        if (byte == SLIP_ESC_END) return decoder_store(dec, SLIP_END);
        if (byte == SLIP_ESC_ESC) return decoder_store(dec, SLIP_ESC);
        return decoder_abandon(dec);  // the bad byte goes with the frame
    }
    if (byte == SLIP_END) {
        if (dec->count == 0) return 0;  // leading or back-to-back END
        dec->finished = 1;
        return 1;
    }
    if (byte == SLIP_ESC) {
        dec->escaped = 1;
        return 0;
    }
    return decoder_store(dec, byte);
}

int slip_sendto(UDP *udp, const void *msg, size_t len, int /*flags*/, const struct sockaddr *to,
                int /*tolen*/) {
    if (!udp->slip_buf) {
        elog_log(0, "slip_sendto: endpoint has no link.\n");
        return -1;
    }
    if (len > static_cast<size_t>(SLIP_MAX_PAYLOAD)) {
        elog_log(0, "slip_sendto: payload of %zu bytes exceeds %d.\n", len, SLIP_MAX_PAYLOAD);
        return -1;
    }
    int n = static_cast<int>(len);
    sockaddr_in dst;
    std::memcpy(&dst, to, sizeof dst);
    IPHdr ip;
    UDPHdr uh;
    unsigned char packet[kPacketMax];
    slip_headers(udp->slip_buf, dst, n, &ip, &uh);
    if (ip_udp_packet(&ip, &uh, static_cast<const unsigned char *>(msg), n, packet, kPacketMax) < 0)
        return -1;
    unsigned char frame[kFrameMax];
    int flen = slip_encode(packet, n + kHeaders, frame);
    if (udp->verbose >= 2) slip_dump("SLS:", frame, flen);
    int written = serialbuf_write(udp->slip_buf, frame, flen);
    account(udp->bytes_written, flen);
    account(udp->datarate, flen);
    return written == flen ? n : -1;
}

namespace {

// Drops a frame: complains (and dumps it, when given) at verbosity >= 1;
// at 0 says nothing and discards the thread's registered messages.
int slip_reject(UDP *udp, const unsigned char *frame, int n, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int slip_reject(UDP *udp, const unsigned char *frame, int n, const char *fmt, ...) {
    if (udp->verbose < 1) {
        elog_clear_register(0);
        return kDropped;
    }
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    elog_complain(0, "%s", text);
    if (frame) slip_dump("SLR:", frame, n);
    return kDropped;
}

// UDP checksum rule: 0 means the sender computed none; a stored 0xFFFF is
// the one's-complement twin of a computed 0.
bool udp_chksum_ok(unsigned short stored, unsigned short computed) {
    if (stored == 0 || stored == computed) return true;
    return stored == 0xFFFF && computed == 0;
}

// Fills from with the packet's source as an AF_INET address.
int slip_source(const IPHdr &ip, const UDPHdr &uh, struct sockaddr *from, int *fromlen) {
    sockaddr_in src;
    std::memset(&src, 0, sizeof src);
    src.sin_family = AF_INET;
    std::uint16_t port = uh.port_src;
    std::uint32_t addr = ip.ipaddr_src;
    unsigned char *c = reinterpret_cast<unsigned char *>(&src.sin_port);
    if (uhs2ms(&port, &c, 1) < 0) return -1;
    c = reinterpret_cast<unsigned char *>(&src.sin_addr.s_addr);
    if (uhi2mi(&addr, &c, 1) < 0) return -1;
    size_t room = fromlen && *fromlen > 0 ? static_cast<size_t>(*fromlen) : sizeof src;
    std::memset(from, 0, room);
    std::memcpy(from, &src, room < sizeof src ? room : sizeof src);
    return 0;
}

// Checks one decoded frame and delivers its payload: the payload length,
// kDropped, or -1 when a converter failed.
int slip_take(UDP *udp, SlipDecoder *dec, void *msg, size_t len, struct sockaddr *from,
              int *fromlen) {
    account(udp->bytes_read, dec->raw);
    account(udp->datarate, dec->raw);
    unsigned char *frame = dec->bytes;
    int n = dec->count;
    if (udp->verbose >= 2) slip_dump("SLR:", frame, n);
    if (n < SLIP_MIN_PACKET) return kDropped;
    unsigned short ipc, udpc;
    if (udp_checksum(frame, n, &ipc, &udpc) < 0)
        return slip_reject(udp, nullptr, 0, "slip_recvfrom: udp_checksum() error.\n");
    unsigned char *p = frame;
    int left = n;
    IPHdr ip;
    UDPHdr uh;
    if (unstuff_ip(&p, &left, &ip) < 0)
        return slip_reject(udp, nullptr, 0, "slip_recvfrom: unstuff_ip() error.\n");
    udp->slip_buf->slip_ipaddr_dst = ip.ipaddr_dst;
    if (unstuff_udp(&p, &left, &uh) < 0)
        return slip_reject(udp, nullptr, 0, "slip_recvfrom: unstuff_udp() error.\n");
    udp->slip_buf->slip_port_dst = uh.port_dst;
    if (ip.chksum != ipc)
        return slip_reject(udp, frame, n,
                           "ip header checksum, 0x%4.4x, does not match computed checksum, "
                           "0x%4.4x.\n", ip.chksum, ipc);
    if (!udp_chksum_ok(uh.chksum, udpc))
        return slip_reject(udp, frame, n,
                           "udp header checksum, 0x%4.4x, does not match computed checksum, "
                           "0x%4.4x.\n", uh.chksum, udpc);
    // The payload is everything after the UDP header as parsed; neither
    // length field is consulted.
    size_t take = static_cast<size_t>(left) < len ? static_cast<size_t>(left) : len;
    if (take > 0) std::memcpy(msg, p, take);
    if (from && slip_source(ip, uh, from, fromlen) < 0) return -1;
    return static_cast<int>(take);
}

}  // namespace

int slip_recvfrom(UDP *udp, void *msg, size_t len, int /*flags*/, struct sockaddr *from,
                  int *fromlen) {
    if (!udp->slip_buf) {
        elog_log(0, "slip_recvfrom: endpoint has no link.\n");
        return -1;
    }
    // The decoder lives on this call's stack: a frame cut short by a time-out
    // or a link failure is lost and the next call starts afresh.
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    for (;;) {
        unsigned char byte;
        errno = 0;  // the caller's message names the link's own error, or none
        int r = serialbuf_get_byte(udp->slip_buf, &byte, 1);
        if (r == 1) return -2;
        if (r != 0) return -1;
        if (slip_decoder_feed(&dec, byte) != 1) continue;
        int n = slip_take(udp, &dec, msg, len, from, fromlen);
        if (n != kDropped) return n;
    }
}

int slip_print(unsigned char *slippkt, int nbytes) {
    SlipDecoder dec;
    slip_decoder_reset(&dec);
    int r = 0;
    for (int i = 0; i < nbytes && r == 0; i++) r = slip_decoder_feed(&dec, slippkt[i]);
    if (r < 0 || dec.escaped || dec.count < SLIP_MIN_PACKET) {
        emit("protocol error.");
        return 0;
    }
    unsigned short ipc, udpc;
    if (udp_checksum(dec.bytes, dec.count, &ipc, &udpc) < 0) return -1;
    unsigned char *p = dec.bytes;
    int left = dec.count;
    IPHdr ip;
    UDPHdr uh;
    if (unstuff_ip(&p, &left, &ip) < 0 || unstuff_udp(&p, &left, &uh) < 0) return -1;
    print_ip(&ip, ipc);
    print_udp(&uh, udpc);
    char line[64];
    std::snprintf(line, sizeof line, "Payload %d bytes.", dec.count);
    emit(line);
    hexdump(stdout, dec.bytes, dec.count);
    return 0;
}
