// The datagram endpoint over a host UDP socket or a SLIP link.
#include "net/udp.h"
#include "support/pthread_lock.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "link/serialbuf.h"
#include "net/slip.h"
#include "stats/taverage.h"
#include "support/byteorder.h"
#include "support/elog.h"
#include "support/host.h"
#include "support/sysutil.h"

namespace {

constexpr int kWireOverhead = 42;     // Ethernet, IP and UDP headers of a host datagram
constexpr double kMaxSlice = 300.0;   // longest single wait, seconds
constexpr double kLinkPause = 0.5;    // pause after a silent SLIP link, seconds
constexpr int kAgain = 100;           // internal: would block, go and wait
constexpr int kDropped = 101;         // internal: datagram thrown away, read on

std::atomic<UDPResolver> resolver_override{nullptr};

// Adds n to an average the endpoint may not have.
void account(TAverage *avg, double n) {
    if (avg) taverage_put(avg, n);
}

// True when this datagram is to be thrown away for testing.
bool random_drop(const UDP *udp) {
    return udp->drop_packet_pcnt > 0 && 100.0 * disordered() <= udp->drop_packet_pcnt;
}

// Creates the serial link shared by both SLIP set-ups.
int setup_slip(UDP *udp, const char *dev, int baud, double timeout, int flow, const char *who) {
    int itimeout = timeout >= 0 ? static_cast<int>(timeout * 1000 + 0.5) : -1;
    SerialBuf *sb = serialbuf_create_serial(dev, baud, flow, 1024, itimeout, 100000, 1, nullptr,
                                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (!sb) {
        elog_log(0, "%s: serialbuf_create_serial(%s:%d) error.\n", who, dev, baud);
        return -1;
    }
    // A second set-up replaces the first link instead of leaking it.
    if (udp->slip_buf) {
        serialbuf_destroy(udp->slip_buf);
        udp->fd = -1;
        udp->local_port = -1;
    }
    udp->slip_buf = sb;
    sb->slip_ipaddr_src = 0xFFFFFFFFu;
    sb->slip_port_src = 65535;
    return 0;
}

// Replaces one average when both its bin and its window are given.
int setup_average(TAverage **slot, double time, double tbin, double twin, const char *what) {
    if (!(tbin > 0 && twin > 0)) return 0;
    int nbins = static_cast<int>(twin / tbin);
    if (nbins < 1) nbins = 1;
    taverage_destroy(*slot);
    *slot = taverage_create(time, tbin, nbins);
    if (!*slot) {
        elog_log(0, "udp_setup_averages: taverage_create(%s) error.\n", what);
        return -1;
    }
    return 0;
}

}  // namespace

int udp_new(UDP **udp) {
    UDP *u = static_cast<UDP *>(calloc(1, sizeof(UDP)));
    if (!u) {
        elog_log(1, "udp_new: malloc(UDP) error.\n");
        return -1;
    }
    u->fd = -1;
    u->local_port = -1;
    pthread_mutex_init(&u->mutex, nullptr);
    *udp = u;
    return 0;
}

int udp_setup_slip(UDP *udp, const char *dev, int baud, double timeout) {
    return setup_slip(udp, dev, baud, timeout, 0, "udp_setup_slip");
}

int udp_setup_slip_with_flow(UDP *udp, const char *dev, int baud, double timeout) {
    return setup_slip(udp, dev, baud, timeout, 1, "udp_setup_slip_with_flow");
}

int udp_setup_averages(UDP *udp, double time, double bytes_read_tbin, double bytes_read_twin,
                       double bytes_written_tbin, double bytes_written_twin,
                       double datarate_tbin, double datarate_twin) {
    if (setup_average(&udp->bytes_read, time, bytes_read_tbin, bytes_read_twin, "bytes_read") < 0 ||
        setup_average(&udp->bytes_written, time, bytes_written_tbin, bytes_written_twin,
                      "bytes_written") < 0 ||
        setup_average(&udp->datarate, time, datarate_tbin, datarate_twin, "datarate") < 0)
        return -1;
    return 0;
}

int udp_set_verbose(UDP *udp, int verbose) {
    udp->verbose = verbose;
    return 0;
}

// ---- Opening ----------------------------------------------------------------

namespace {

// Opens and connects the link; the SLIP source port becomes the local port.
int open_link(SerialBuf *buf, int port) {
    // errno is cleared first so that a message carries an error text only
    // when the step it names set one.
    errno = 0;
    if (serialbuf_open(buf) < 0) {
        elog_log(1, "udp_open: serialbuf_open() error.\n");
        return -1;
    }
    errno = 0;
    if (serialbuf_connect(buf, 0, "") < 0) {
        elog_log(1, "udp_open: serialbuf_connect() error.\n");
        return -1;
    }
    buf->slip_port_src = static_cast<std::uint16_t>(port);
    return buf->fd;
}

// Binds fd to port and address (any address when none is given).
int bind_socket(int fd, int port, const char *ipaddr) {
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    std::uint16_t p = static_cast<std::uint16_t>(port);
    unsigned char *c = reinterpret_cast<unsigned char *>(&sa.sin_port);
    if (uhs2ms(&p, &c, 1) < 0) {
        errno = 0;  // not a system call: no error text
        elog_log(1, "udp_open: uhs2ms() error.\n");
        return -1;
    }
    sa.sin_addr.s_addr = ipaddr && *ipaddr ? inet_addr(ipaddr) : 0;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0) {
        elog_log(1, "udp_open: bind() error.\n");
        return -2;
    }
    return fd;
}

}  // namespace

int udp_open(SerialBuf *buf, int port, const char *ipaddr) {
    if (buf) return open_link(buf, port);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    // Descriptor 0 is refused too: it means standard input was closed, and
    // leaving it taken makes the next attempt get an ordinary descriptor.
    if (fd < 1) {
        if (fd == 0) errno = 0;  // socket() itself succeeded
        elog_log(1, "udp_open: socket() error.\n");
        return -1;
    }
    int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one) < 0) {
        elog_log(1, "udp_open: setsockopt(SO_KEEPALIVE) error.\n");
        return -1;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) < 0) {
        elog_log(1, "udp_open: setsockopt(SO_BROADCAST) error.\n");
        return -1;
    }
    // A socket left blocking would hang a host reader that polls it.
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        elog_log(1, "udp_open: fcntl(O_NONBLOCK) error.\n");
        close(fd);
        return -1;
    }
    if (port < 1 && !(ipaddr && *ipaddr)) return fd;
    return bind_socket(fd, port, ipaddr);
}

namespace {

// Opens the endpoint on local_port, re-opening it when it is open on another
// port; the descriptor to use, or the negative result of opening. The mutex
// covers only this: it is released before any sending or receiving.
int open_head(UDP *udp, int local_port, const char *local_ipaddr, const char *who) {
    PthreadLock lock(&udp->mutex);
    for (;;) {
        if (udp->fd < 0) {
            udp->fd = udp_open(udp->slip_buf, local_port, local_ipaddr);
            if (udp->fd < 0) {
                elog_log(0, "%s: udp_open(%d) error.\n", who, local_port);
                return udp->fd;
            }
            udp->local_port = local_port;
        }
        if (udp->local_port == local_port) return udp->fd;
        udp_close(udp);
    }
}

}  // namespace

int udp_close(UDP *udp) {
    if (udp->slip_buf)
        serialbuf_close(udp->slip_buf);
    else if (udp->fd >= 0)
        close(udp->fd);
    udp->fd = -1;
    udp->local_port = -1;
    return 0;
}

int udp_free(UDP *udp) {
    if (!udp) return 0;
    if (udp->slip_buf)
        serialbuf_destroy(udp->slip_buf);
    else if (udp->fd >= 0)
        close(udp->fd);  // freeing an endpoint also gives its port back
    taverage_destroy(udp->bytes_read);
    taverage_destroy(udp->bytes_written);
    taverage_destroy(udp->datarate);
    pthread_mutex_destroy(&udp->mutex);
    free(udp);
    return 0;
}

// ---- Addresses --------------------------------------------------------------

UDPResolver udp_set_resolver(UDPResolver resolver) { return resolver_override.exchange(resolver); }

int udp_setup_ipaddr(const char *hostport, struct sockaddr *saddr) {
    std::string text = hostport;
    size_t colon = text.find(':');
    if (colon == std::string::npos) {
        elog_log(0, "udp_setup_ipaddr: no port number in hostport argument '%s'.\n", hostport);
        return -1;
    }
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    std::uint16_t port = static_cast<std::uint16_t>(atoi(text.c_str() + colon + 1));
    unsigned char *c = reinterpret_cast<unsigned char *>(&sa.sin_port);
    if (uhs2ms(&port, &c, 1) < 0) {
        errno = 0;  // not a system call: no error text
        elog_log(1, "udp_setup_ipaddr: uhs2ms() error.\n");
        return -1;
    }
    text.resize(colon);
    UDPResolver resolve = resolver_override.load();
    std::uint32_t ip;
    char ipc[32];
    errno = 0;  // a failed look-up says why only if it set errno itself
    if ((resolve ? resolve : name2ip)(text.c_str(), &ip, ipc) != 0) {
        elog_log(1, "udp_setup_ipaddr: Can't locate server by name of '%s'\n", hostport);
        return -1;
    }
    sa.sin_addr.s_addr = ip;  // network order, as the resolver gives it
    std::memcpy(saddr, &sa, sizeof sa);
    return 0;
}

int setup_mode(const char *hostport_in, char *dev, int baud, char *hostport_out) {
    dev[0] = '\0';
    if (std::strncmp(hostport_in, "/dev/", 5) != 0) {
        std::strcpy(hostport_out, hostport_in);
        return 0;
    }
    const char *first = std::strchr(hostport_in, ':');
    if (!first) {
        elog_log(0, "setup_mode: no baudrate number in hostport argument '%s'.\n", hostport_in);
        return -1;
    }
    const char *second = std::strchr(first + 1, ':');
    if (!second) {
        elog_log(0, "setup_mode: no hostport in argument '%s'.\n", hostport_in);
        return -1;
    }
    std::memcpy(dev, hostport_in, first - hostport_in);
    dev[first - hostport_in] = '\0';
    baud = atoi(first + 1);  // the caller's copy is not changed
    (void)baud;
    std::strcpy(hostport_out, second + 1);
    return 0;
}

// ---- Waiting ----------------------------------------------------------------

int myfdwait(int fd, int msec) {
    const short wanted = POLLIN | POLLPRI | POLLRDNORM | POLLRDBAND;
    pollfd p = {fd, wanted, 0};
    int r = poll(&p, 1, msec);
    if (r == 0) return 1;
    if (r == 1 && (p.revents & wanted)) return 0;
    if (r == 1) {
        errno = 0;  // a hang-up or an invalid descriptor, not a failed poll
        return -1;
    }
    if (r < 0 && errno == EINTR) return 2;
    if (r < 0 && errno == EAGAIN) return 1;
    return -1;
}

int myusleep(double sec) {
    if (sec < 0) sec = 0;
    timespec ts;
    ts.tv_sec = static_cast<time_t>(sec);
    long ns = static_cast<long>((sec - static_cast<double>(ts.tv_sec)) * 1e9 + 0.5);
    if (ns >= 1000000000L) {  // rounding reached a whole second
        ts.tv_sec += 1;
        ns -= 1000000000L;
    }
    ts.tv_nsec = ns;
    nanosleep(&ts, nullptr);
    return 0;
}

// ---- Verbose output ---------------------------------------------------------

namespace {

// Strips trailing blanks and sends the line on; the caller holds the mutex.
void emit_line(UDP *udp, char *line) {
    size_t n = std::strlen(line);
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\t' || line[n - 1] == ' ')) line[--n] = '\0';
    if (udp->verbose_callback)
        udp->verbose_callback(udp->verbose_callback_pvt, line);
    else
        elog_debug(0, "UDP_DEBUG: %s\n", line);
}

// A header line, then the bytes 32 to a line as " %2.2X" after the prefix.
void emit_dump(UDP *udp, int nbytes, const unsigned char *bytes, const char *prefix,
               const char *head) {
    char line[1024];
    std::snprintf(line, sizeof line, "%s%s", prefix, head);
    emit_line(udp, line);
    int plen = std::snprintf(line, sizeof line - 32 * 3, "%s", prefix);
    if (plen > static_cast<int>(sizeof line) - 32 * 3 - 1) plen = sizeof line - 32 * 3 - 1;
    for (int i = 0; i < nbytes; i += 32) {
        int len = plen;
        for (int j = i; j < nbytes && j < i + 32; j++) len += std::snprintf(line + len, 4, " %2.2X", bytes[j]);
        emit_line(udp, line);
    }
}

}  // namespace

int udp_print_verbose(UDP *udp, int type, ...) {
    if (udp->verbose <= 0 || (type == 1 && udp->verbose < 2)) return 0;
    char text[1024];
    va_list ap;
    va_start(ap, type);
    if (type == 0) {
        const char *fmt = va_arg(ap, const char *);
        std::vsnprintf(text, sizeof text, fmt, ap);
        va_end(ap);
        PthreadLock lock(&udp->mutex);
        emit_line(udp, text);
        return 0;
    }
    int nbytes = va_arg(ap, int);
    const unsigned char *bytes = va_arg(ap, const unsigned char *);
    const char *prefix = va_arg(ap, const char *);
    const char *fmt = va_arg(ap, const char *);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    // Held from the first line to the last: one dump never interleaves
    // with another on the same endpoint.
    PthreadLock lock(&udp->mutex);
    emit_dump(udp, nbytes, bytes, prefix, text);
    return 0;
}

// ---- Sending ----------------------------------------------------------------

namespace {

// Resolves the destination unless it is the text resolved last time.
int resolve_destination(UDP *udp, const char *send_hostport) {
    if (std::strcmp(send_hostport, udp->send_hostport) == 0) return 0;
    // A text the cache cannot hold whole is refused before it is resolved:
    // cut, it would stand for a destination other than the one resolved.
    if (std::strlen(send_hostport) >= sizeof udp->send_hostport) {
        elog_log(0, "udp_write: destination '%s' longer than %d characters.\n", send_hostport,
                 static_cast<int>(sizeof udp->send_hostport) - 1);
        return -1;
    }
    if (udp_setup_ipaddr(send_hostport, reinterpret_cast<sockaddr *>(&udp->send_saddr)) < 0) {
        elog_log(0, "udp_write: udp_setup_ipaddr(%s) error.\n", send_hostport);
        return -1;
    }
    std::snprintf(udp->send_hostport, sizeof udp->send_hostport, "%s", send_hostport);
    return 0;
}

// Sends one datagram (or drops it at random); the byte count or < 0.
long send_datagram(UDP *udp, int fd, const void *buf, int nbytes) {
    long sent;
    sockaddr *to = reinterpret_cast<sockaddr *>(&udp->send_saddr);
    if (random_drop(udp)) {
        udp_print_verbose(udp, 0, "Random drop packet on send");
        sent = nbytes;
    } else if (udp->slip_buf) {
        return slip_sendto(udp, buf, nbytes, 0, to, 16);  // counts its own frame bytes
    } else {
        sent = sendto(fd, buf, nbytes, 0, to, 16);
    }
    if (!udp->slip_buf) {
        account(udp->bytes_written, nbytes + kWireOverhead);
        account(udp->datarate, nbytes + kWireOverhead);
    }
    return sent;
}

}  // namespace

int udp_write(UDP *udp, int local_port, const char *local_ipaddr, const char *send_hostport,
              const void *buf, int nbytes) {
    int fd = open_head(udp, local_port, local_ipaddr, "udp_write");
    if (fd < 0) return fd;
    if (resolve_destination(udp, send_hostport) < 0) return -1;
    udp_print_verbose(udp, 1, nbytes, buf, "udpw: ", "%d bytes to %s:", nbytes, send_hostport);
    errno = 0;  // a short write sets none, and its message must not borrow one
    long sent = send_datagram(udp, fd, buf, nbytes);
    if (sent < 0 && errno == EINTR) {
        elog_log(1, "udp_write: sendto(%s) interrupted.\n", send_hostport);
        return -1;
    }
    if (sent < 0) {
        elog_log(1, "udp_write: sendto(%s) error.\n", send_hostport);
        return -1;
    }
    if (sent < nbytes) {
        errno = 0;
        elog_log(1, "udp_write: sendto(%s) short by %d bytes.\n", send_hostport,
                 nbytes - static_cast<int>(sent));
        return -1;
    }
    return 1;
}

// ---- Receiving --------------------------------------------------------------

namespace {

// One receive without waiting: 0 with *n, would_block when nothing is there,
// 2 interrupted, -1 failure, kDropped for an empty datagram or one over the
// capacity.
int socket_try(UDP *udp, int fd, void *buf, int cap, sockaddr_in *from, int *n, int would_block) {
    socklen_t fromlen = 16;
    // MSG_TRUNC makes recvfrom report the datagram's real length, so one
    // longer than the buffer is seen and dropped rather than passed on cut.
    long r = recvfrom(fd, buf, cap > 0 ? cap : 0, MSG_TRUNC, reinterpret_cast<sockaddr *>(from), &fromlen);
    if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return would_block;
    if (r < 0 && errno == EINTR) return 2;
    if (r < 0) {
        elog_log(1, "udp_read: recvfrom() error.\n");
        return -1;
    }
    account(udp->bytes_read, r + kWireOverhead);
    account(udp->datarate, r + kWireOverhead);
    // An empty datagram is dropped like an oversize one: anyone who reaches
    // the port can send one, and failing the read would end the relay.
    if (r == 0 || r > cap) {
        if (udp->verbose >= 1) {
            char addr[INET_ADDRSTRLEN] = "?";
            inet_ntop(AF_INET, &from->sin_addr, addr, sizeof addr);
            if (r == 0)
                elog_complain(0, "udp_read: dropped an empty datagram from %s:%d.\n", addr,
                              ntohs(from->sin_port));
            else
                elog_complain(0, "udp_read: dropped a %ld-byte datagram from %s:%d, larger than the %d-byte buffer.\n",
                              r, addr, ntohs(from->sin_port), cap);
        }
        return kDropped;
    }
    *n = static_cast<int>(r);
    return 0;
}

// Waits in slices of at most 300 s: 0 readable or timed out (*timed_out), 2, -1.
int wait_readable(int fd, double *timeout, double *t0, bool *timed_out) {
    *t0 = std_now();
    for (;;) {
        if (*timeout > kMaxSlice) *timeout = kMaxSlice;
        int msec = static_cast<int>(*timeout * 1000 + 1.5);
        if (msec < 1) msec = 1;
        *timeout -= 0.1;
        int w = myfdwait(fd, msec);
        if (w == -1) {
            elog_log(1, "udp_read: myfdwait() error.\n");
            return -1;
        }
        if (w == 2 || w == 0) return w;
        if (std_now() - *t0 > *timeout) {
            *timed_out = true;
            return 0;
        }
    }
}

// A datagram from the host socket; first is the call's immediate try.
int socket_receive(UDP *udp, int fd, void *buf, int cap, double *timeout, double *t0, bool first,
                   sockaddr_in *from, int *n) {
    if (first) {
        int r = socket_try(udp, fd, buf, cap, from, n, kAgain);
        if (r != kAgain) return r;
        // A pure poll has nothing to wait for, and a second receive a
        // microsecond later would only double the cost of every idle poll
        // (each host port polls a thousand times a second).
        if (*timeout < 0) return UDP_READ_NOTHING;
    }
    bool timed_out = false;
    if (*timeout >= 0) {
        int w = wait_readable(fd, timeout, t0, &timed_out);
        if (w != 0) return w;
    }
    return socket_try(udp, fd, buf, cap, from, n, timed_out ? UDP_READ_TIMEOUT : UDP_READ_NOTHING);
}

// A datagram from the SLIP link.
int link_receive(UDP *udp, void *buf, int cap, sockaddr_in *from, int *n) {
    int fromlen = 16;
    int r = slip_recvfrom(udp, buf, cap > 0 ? cap : 0, 0, reinterpret_cast<sockaddr *>(from), &fromlen);
    if (r == -2) {
        // A silent link is not a failure: its time-out message is not kept,
        // or a long-running reader would pile one up per time-out.
        elog_clear_register(0);
        myusleep(kLinkPause);
        return UDP_READ_TIMEOUT;
    }
    if (r < 0) {
        elog_log(1, "udp_read: slip_recvfrom() error.\n");
        return -1;
    }
    *n = r;
    return 0;
}

// Formats the source text again only when the source changed.
int source_text(UDP *udp, const sockaddr_in &from) {
    const sockaddr_in &last = udp->recv_saddr;
    if (from.sin_family == last.sin_family && from.sin_port == last.sin_port &&
        from.sin_addr.s_addr == last.sin_addr.s_addr)
        return 0;
    unsigned char bytes[2];
    std::memcpy(bytes, &from.sin_port, 2);
    unsigned char *c = bytes;
    std::uint16_t port;
    if (ums2hs(&c, &port, 1) < 0) {
        errno = 0;  // not a system call: no error text
        elog_log(1, "udp_read: ums2hs() error.\n");
        return -1;
    }
    const unsigned char *a = reinterpret_cast<const unsigned char *>(&from.sin_addr.s_addr);
    std::snprintf(udp->recv_hostport, sizeof udp->recv_hostport, "%d.%d.%d.%d:%d", a[0], a[1], a[2],
                  a[3], port);
    udp->recv_saddr = from;
    return 0;
}

}  // namespace

int udp_read(UDP *udp, int local_port, const char *local_ipaddr, char *recv_hostport, void *buf,
             int *nbytes, double timeout) {
    int fd = open_head(udp, local_port, local_ipaddr, "udp_read");
    if (fd < 0) return fd;
    // The clock starts with the call, so a datagram dropped before any wait
    // still shortens the time left.
    double t0 = std_now();
    for (bool first = true;; first = false) {
        sockaddr_in from;
        std::memset(&from, 0, sizeof from);
        int n = 0;
        int r = udp->slip_buf ? link_receive(udp, buf, *nbytes, &from, &n)
                              : socket_receive(udp, fd, buf, *nbytes, &timeout, &t0, first, &from, &n);
        if (r == 0) {
            if (source_text(udp, from) < 0) return -1;
            std::strcpy(recv_hostport, udp->recv_hostport);
            udp_print_verbose(udp, 1, n, buf, "udpr: ", "%d bytes from %s:", n, recv_hostport);
            if (!random_drop(udp)) {
                *nbytes = n;
                return UDP_READ_OK;
            }
            udp_print_verbose(udp, 0, "Random drop packet on receive");
        } else if (r != kDropped) {
            return r;
        }
        if (timeout >= 0) {
            timeout -= std_now() - t0;
            if (timeout < 0) timeout = 0;  // time is up: one short last wait, then 1
        }
    }
}
