// Fuzz target: the SLIP receiver as the relay runs it. A SLIP endpoint gets
// one end of a socket pair as its link (state 3, so no device is opened); the
// input is written to the other end, which is then shut down, and
// slip_recvfrom is called until the end of the stream makes it fail.
//
// The first input byte sets how the receiver is driven:
//   bits 0-1  endpoint verbosity (3 counts as 2), so the complaint and dump
//             paths run too
//   bit 2     pass a source address to fill
//   bit 3     a 16-byte payload buffer instead of 1024, so payloads are cut
//   bit 4     give the endpoint traffic averages
// the rest is the line.
//
// Besides the sanitizers, a small model of the receiver predicts the exact
// packets it must deliver: the line is cut into frames by END (leading and
// repeated ENDs ignored, a bad escape or a 2049th byte abandons a frame, a
// frame unfinished at the end of the stream is lost), frames under 24 bytes
// are dropped, and a frame is delivered when both headers parse and both
// checksums hold (a stored UDP checksum of 0 always holds, a stored 0xFFFF
// matches a computed 0). The payload is every byte after the UDP header.
// The link's last received destination must be that of the last frame whose
// headers parsed.
#include "link/serialbuf.h"
#include "net/slip.h"
#include "net/udp.h"
#include "support/elog.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_check.h"

namespace {

// Longer lines only repeat what shorter ones reach, and must fit the socket
// buffer because nothing reads while the fuzzer writes.
constexpr std::size_t kMaxLine = 32768;

using Bytes = std::vector<unsigned char>;

struct Packet {
    Bytes payload;
    std::uint32_t src_addr;   // network order, as in sockaddr_in
    std::uint16_t src_port;   // network order
};

struct Expected {
    std::vector<Packet> packets;
    bool parsed = false;       // some frame had headers that parsed
    std::uint32_t ipaddr_dst;  // host order, of the last such frame
    std::uint16_t port_dst;
};

// Frames as the line delimits them.
std::vector<Bytes> split_frames(const unsigned char *line, std::size_t n) {
    std::vector<Bytes> frames;
    Bytes cur;
    for (std::size_t i = 0; i < n; i++) {
        unsigned char b = line[i];
        if (b == SLIP_END) {
            if (!cur.empty()) frames.push_back(cur);
            cur.clear();
            continue;
        }
        if (b == SLIP_ESC) {
            if (++i == n) break;
            if (line[i] == SLIP_ESC_END) b = SLIP_END;
            else if (line[i] == SLIP_ESC_ESC) b = SLIP_ESC;
            else { cur.clear(); continue; }
        }
        if (cur.size() == static_cast<std::size_t>(SLIP_MAX_FRAME)) { cur.clear(); continue; }
        cur.push_back(b);
    }
    return frames;
}

// Judges one frame as the receiver must, recording what it delivers.
void judge(Bytes frame, Expected *exp) {
    if (frame.size() < static_cast<std::size_t>(SLIP_MIN_PACKET)) return;
    int n = static_cast<int>(frame.size());
    unsigned short ip_sum = 0, udp_sum = 0;
    if (udp_checksum(frame.data(), n, &ip_sum, &udp_sum) != 0) return;
    IPHdr ip;
    UDPHdr udp;
    unsigned char *cur = frame.data();
    int left = n;
    FUZZ_CHECK(unstuff_ip(&cur, &left, &ip) == 0);
    FUZZ_CHECK(unstuff_udp(&cur, &left, &udp) == 0);
    exp->parsed = true;
    exp->ipaddr_dst = ip.ipaddr_dst;
    exp->port_dst = udp.port_dst;
    if (ip.chksum != ip_sum) return;
    bool udp_ok = udp.chksum == 0 || (udp.chksum == 0xFFFF && udp_sum == 0) || udp.chksum == udp_sum;
    if (!udp_ok) return;
    exp->packets.push_back({Bytes(cur, cur + left), htonl(ip.ipaddr_src), htons(udp.port_src)});
}

Expected model(const unsigned char *line, std::size_t n) {
    Expected exp;
    for (Bytes &frame : split_frames(line, n)) judge(std::move(frame), &exp);
    return exp;
}

// A SLIP endpoint reading from fd, as udp_setup_slip and the lazy open leave it.
UDP *endpoint_on(int fd, unsigned char control) {
    UDP *udp = nullptr;
    FUZZ_CHECK(udp_new(&udp) == 0);
    FUZZ_CHECK(udp_setup_slip(udp, "/dev/korvane-fuzz-no-device", 19200, 0.0) == 0);
    SerialBuf *link = udp->slip_buf;
    link->fd = fd;
    link->state = 3;
    link->sleep = 0;   // the relay's 100 ms pre-read pause would only slow the fuzzer
    udp->fd = fd;
    udp_set_verbose(udp, std::min(control & 3, 2));
    if (control & 16) FUZZ_CHECK(udp_setup_averages(udp, 0.0, 1.0, 60.0, 1.0, 60.0, 1.0, 60.0) == 0);
    return udp;
}

void feed(int fd, const unsigned char *line, std::size_t n) {
    std::size_t done = 0;
    while (done < n) {
        ssize_t w = write(fd, line + done, n - done);
        FUZZ_CHECK(w > 0);
        done += static_cast<std::size_t>(w);
    }
    FUZZ_CHECK(shutdown(fd, SHUT_WR) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1) return 0;
    unsigned char control = data[0];
    const unsigned char *line = data + 1;
    std::size_t n = std::min(size - 1, kMaxLine);
    Expected exp = model(line, n);

    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
    int bufsize = 4 * static_cast<int>(kMaxLine);
    setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &bufsize, sizeof bufsize);
    UDP *udp = endpoint_on(sv[0], control);
    feed(sv[1], line, n);

    std::size_t cap = (control & 8) ? 16 : 1024;
    std::size_t got = 0;
    for (;;) {
        unsigned char msg[1024];
        struct sockaddr_in from;
        std::memset(&from, 0x5A, sizeof from);
        int fromlen = sizeof from;
        bool want_from = control & 4;
        int r = slip_recvfrom(udp, msg, cap, 0,
                              want_from ? reinterpret_cast<struct sockaddr *>(&from) : nullptr,
                              want_from ? &fromlen : nullptr);
        if (r < 0) {
            FUZZ_CHECK(r == -1);   // the end of the stream, never a time-out (link time-out 0)
            break;
        }
        FUZZ_CHECK(got < exp.packets.size());
        const Packet &p = exp.packets[got++];
        std::size_t want = std::min(p.payload.size(), cap);
        FUZZ_CHECK(static_cast<std::size_t>(r) == want);
        FUZZ_CHECK(want == 0 || std::memcmp(msg, p.payload.data(), want) == 0);
        if (want_from) {
            FUZZ_CHECK(from.sin_family == AF_INET);
            FUZZ_CHECK(from.sin_addr.s_addr == p.src_addr && from.sin_port == p.src_port);
        }
    }
    FUZZ_CHECK(got == exp.packets.size());
    if (exp.parsed) {
        FUZZ_CHECK(udp->slip_buf->slip_ipaddr_dst == exp.ipaddr_dst);
        FUZZ_CHECK(udp->slip_buf->slip_port_dst == exp.port_dst);
    }

    udp_free(udp);   // closes sv[0] with the link
    close(sv[1]);
    // The register is per thread and would otherwise grow with every input.
    elog_clear_register(0);
    return 0;
}
