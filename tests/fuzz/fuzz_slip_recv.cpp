// Fuzz target: the SLIP receiver as the relay runs it, on a line that is one
// end of a socket pair (link state 3: no device), written whole and shut down;
// slip_recvfrom runs until the end of the stream fails it. The first byte sets
// verbosity (bits 0-1, 3 counts as 2) and a 16-byte buffer (bit 3). A model
// from the RFCs predicts each payload and source, the destination the link
// keeps (of the last frame whose headers parsed) and the line bytes of
// completed frames.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "link/serialbuf.h"
#include "net/slip.h"
#include "net/udp.h"
#include "stats/taverage.h"
#include "support/elog.h"
#include "support/host.h"
#include "wire.h"

namespace {

// Longer lines repeat what shorter ones reach, and must fit the socket buffer.
constexpr std::size_t kMaxLine = 32768;

struct Expected {
    std::vector<std::pair<wire::Bytes, sockaddr_storage>> packets;  // sources beyond AF_INET's size cleared
    std::uint32_t ipaddr_dst = 0, port_dst = 0;  // as the link starts
    double raw = 0;                              // as the averages count
};

Expected model(const unsigned char *line, std::size_t n) {
    Expected e;
    wire::Unslip dec;
    for (std::size_t i = 0; i < n; i++) {
        if (!dec.feed(line[i])) continue;
        e.raw += static_cast<double>(dec.raw);
        const unsigned char *f = dec.frame.data();
        wire::Sums s;
        if (!wire::receiver_sums(f, dec.frame.size(), &s)) continue;
        e.ipaddr_dst = wire::be32(f + 16);
        e.port_dst = wire::be16(f + s.udp_at + 2);
        // Accepted: the IP sums agree, and the stored UDP sum is 0 (none sent),
        // equals the computed one, or is 0xFFFF for a computed 0.
        const unsigned udp_sum = wire::be16(f + s.udp_at + 6);
        if (wire::be16(f + 10) != s.ip || (udp_sum && udp_sum != s.udp && (udp_sum != 0xFFFF || s.udp))) continue;
        sockaddr_storage from{};
        sockaddr_in in{AF_INET, htons(wire::be16(f + s.udp_at)), {htonl(wire::be32(f + 12))}, {}};
        std::memcpy(&from, &in, sizeof in);
        e.packets.push_back({wire::Bytes(f + s.udp_at + 8, f + dec.frame.size()), from});
    }
    return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1) return 0;
    const unsigned char control = data[0], *line = data + 1;
    const std::size_t n = std::min(size - 1, kMaxLine), cap = (control & 8) ? 16 : 1024;
    const Expected exp = model(line, n);

    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
    UDP *udp = nullptr;
    FUZZ_CHECK(udp_new(&udp) == 0 && udp_setup_slip(udp, "/dev/korvane-fuzz-none", 19200, 0.0) == 0);
    udp->slip_buf->fd = udp->fd = sv[0];
    udp->slip_buf->state = 3;
    udp->slip_buf->sleep = 0;  // the relay's pause before reading would only slow the fuzzer
    udp_set_verbose(udp, std::min(control & 3, 2));
    // One bin that outlasts the run: its sum is every byte counted.
    FUZZ_CHECK(udp_setup_averages(udp, std_now(), 1e6, 1e6, 1e6, 1e6, 1e6, 1e6) == 0);
    FUZZ_CHECK(write(sv[1], line, n) == static_cast<ssize_t>(n) && shutdown(sv[1], SHUT_WR) == 0);

    std::size_t got = 0;
    for (;; got++) {
        unsigned char msg[1024];
        sockaddr_storage from;
        std::memset(&from, 0x5A, sizeof from);
        int fromlen = sizeof from;
        int r = slip_recvfrom(udp, msg, cap, 0, reinterpret_cast<sockaddr *>(&from), &fromlen);
        if (r == -1) break;  // the end of the stream; a time-out (-2) cannot come and fails below
        FUZZ_CHECK(got < exp.packets.size());
        const auto &[payload, source] = exp.packets[got];
        const std::size_t want = std::min(payload.size(), cap);
        FUZZ_CHECK(static_cast<std::size_t>(r) == want && (!want || !std::memcmp(msg, payload.data(), want)));
        FUZZ_CHECK(std::memcmp(&from, &source, sizeof from) == 0);
    }
    FUZZ_CHECK(got == exp.packets.size());
    FUZZ_CHECK(udp->slip_buf->slip_ipaddr_dst == exp.ipaddr_dst && udp->slip_buf->slip_port_dst == exp.port_dst);
    FUZZ_CHECK(udp->bytes_read->bins[0] == exp.raw && udp->datarate->bins[0] == exp.raw);

    udp_free(udp);  // closes sv[0] with the link
    close(sv[1]);
    elog_clear_register(0);  // the register is per thread and would grow with every input
    return 0;
}
