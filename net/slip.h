// IPv4/UDP over SLIP, without a kernel network stack: the header records and
// their wire codecs, the Internet checksums, and the SLIP framing that moves
// one IPv4/UDP packet over the endpoint's byte-stream link.
//
// Header records hold their fields in host byte order, except the two
// checksum fields, which keep the two bytes exactly as they stand on the wire
// (copied, never swapped): checksums are computed, compared and stored as raw
// 16-bit memory words, which is right on either byte order.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct UDP;

// ---- Header records -------------------------------------------------------

// The IPv4 header.
struct IPHdr {
    std::uint8_t version_length;    // version (high nibble), length in words (low)
    std::uint8_t type;              // type of service
    std::uint16_t length;           // total length of the datagram
    std::uint16_t identification;
    std::uint16_t fragment_offset;  // flags and offset as one field
    std::uint8_t time_to_live;
    std::uint8_t protocol;
    std::uint16_t chksum;           // wire order
    std::uint32_t ipaddr_src;
    std::uint32_t ipaddr_dst;
    unsigned char options[40];      // as on the wire; zero past the header
};

// The UDP header.
struct UDPHdr {
    std::uint16_t port_src;
    std::uint16_t port_dst;
    std::uint16_t length;
    std::uint16_t chksum;           // wire order
};

// The Ethernet header.
struct ETHHdr {
    unsigned char mac_dst[6];
    unsigned char mac_src[6];
    std::uint16_t type;
};

inline constexpr int IP_HDR_MIN = 20;       // IPv4 header without options
inline constexpr int IP_HDR_MAX = 60;       // IPv4 header with 40 option bytes
inline constexpr int UDP_HDR_LEN = 8;
inline constexpr int ETH_HDR_LEN = 14;
inline constexpr int UDP_PSEUDO_LEN = 12;   // pseudo-header of the UDP checksum

// ---- Header codecs (ipcodec.cpp) ------------------------------------------
// Each moves *buf past what it read or wrote and lowers *nbytes (bytes left
// in the input, or room left in the output); 0 or -1. Lacking room or input
// they return -1 before touching the cursor.

// Parses an IPv4 header with its options; the cursor ends after the header.
int unstuff_ip(unsigned char **buf, int *nbytes, IPHdr *ip);
// Writes an IPv4 header with the options its length nibble asks for.
int stuff_ip(IPHdr *ip, unsigned char **buf, int *nbytes);
// Parses a UDP header.
int unstuff_udp(unsigned char **buf, int *nbytes, UDPHdr *udp);
// Writes a UDP header; a zero chksum becomes 0xFFFF in the record first.
int stuff_udp(UDPHdr *udp, unsigned char **buf, int *nbytes);
// Parses an Ethernet header.
int unstuff_eth(unsigned char **buf, int *nbytes, ETHHdr *eth);
// Writes an Ethernet header.
int stuff_eth(ETHHdr *eth, unsigned char **buf, int *nbytes);

// ---- Checksums (ipcodec.cpp) ------------------------------------------------

// Internet checksum (RFC 1071) of nbytes bytes, as a raw memory word.
unsigned short in_cksum(const unsigned short *addr, int nbytes);
// Computes the IP and UDP checksums of a received datagram that starts with
// its IP header; the UDP sum covers every byte after the UDP header. 0 or -1.
int udp_checksum(unsigned char *data_starting_at_ip_hdr, int nbytes,
                 unsigned short *ip_chksum, unsigned short *udp_chksum);

// UDP checksum over the pseudo-header (addresses and protocol from ip, the
// udp length field), the UDP header with a zero checksum, and n payload bytes
// (at most 4076 are summed). 0 or -1.
int udp_payload_cksum(const IPHdr *ip, const UDPHdr *udp, const unsigned char *payload, int n,
                      unsigned short *out);

// Lays out a whole IPv4/UDP packet (header with the options its length
// nibble asks for, UDP header, len payload bytes) with both checksums
// computed and in place; returns its length, or -1 when room is short.
int ip_udp_packet(IPHdr *ip, UDPHdr *udp, const unsigned char *payload, int len,
                  unsigned char *packet, int room);

// ---- Dumps (ipcodec.cpp) ----------------------------------------------------

// Logs the IP header, stored checksum beside the computed one.
void print_ip(IPHdr *ip, unsigned short ip_chksum);
// Logs the UDP header, stored checksum beside the computed one.
void print_udp(UDPHdr *udp, unsigned short udp_chksum);
// Logs the Ethernet header.
void print_eth(ETHHdr *eth);
// "a.b.c.d name" (or "a.b.c.d ?") of a host-order address; ipstr >= 300 bytes.
void udp_ip2str(unsigned int ipaddress, char *ipstr);

// ---- SLIP framing (slip.cpp) -----------------------------------------------

inline constexpr unsigned char SLIP_END = 0xC0;
inline constexpr unsigned char SLIP_ESC = 0xDB;
inline constexpr unsigned char SLIP_ESC_END = 0xDC;
inline constexpr unsigned char SLIP_ESC_ESC = 0xDD;
inline constexpr int SLIP_MAX_FRAME = 2048;     // decoded bytes of one received frame
// Largest payload slip_sendto takes: its packet still fits a received frame
// and the checksum scratch.
inline constexpr int SLIP_MAX_PAYLOAD = SLIP_MAX_FRAME - IP_HDR_MIN - UDP_HDR_LEN;
inline constexpr int SLIP_MIN_PACKET = 24;      // shorter decoded frames are dropped

// Escapes n packet bytes between two END bytes into frame (room 2*n+2);
// returns the frame length.
int slip_encode(const unsigned char *packet, int n, unsigned char *frame);

// Byte-at-a-time decoder state. A frame that completed or was abandoned is
// forgotten at the next byte fed.
struct SlipDecoder {
    unsigned char bytes[SLIP_MAX_FRAME];  // decoded bytes of the frame so far
    int count;                            // decoded bytes held
    int escaped;                          // the previous byte was ESC
    long long raw;                        // bytes fed for this frame, ENDs and ESCs included;
                                          // wide, as a line of ENDs alone never ends a frame
    int finished;                         // the last feed completed or abandoned a frame
};

// Starts a decoder on a fresh frame.
void slip_decoder_reset(SlipDecoder *dec);
// Feeds one line byte: 0 need more, 1 frame complete (count/raw/bytes hold
// it), -1 frame abandoned (bad escape or over SLIP_MAX_FRAME bytes).
int slip_decoder_feed(SlipDecoder *dec, unsigned char byte);

// Frames one IPv4/UDP packet carrying msg to the AF_INET address `to` and
// writes it to the endpoint's link; flags and tolen are ignored. Returns len
// or -1.
int slip_sendto(UDP *udp, const void *msg, size_t len, int flags,
                const struct sockaddr *to, int tolen);
// Reads the link until one good packet arrives; its payload (cut to len) goes
// to msg and its source to from. Returns the payload length, -2 on a link
// time-out, -1 on a link failure.
int slip_recvfrom(UDP *udp, void *msg, size_t len, int flags,
                  struct sockaddr *from, int *fromlen);
// Decodes a frame held in memory and dumps its headers and bytes.
int slip_print(unsigned char *slippkt, int nbytes);
