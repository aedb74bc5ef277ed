// The four forwarding threads, the packets they pass through the FIFOs, and
// the relay's own hex dump.
//
// Client -> datalogger: a host reader polls its port, learns the client's
// route and queues the datagram; the datalogger writer sends it over SLIP
// with the client as the sender. Datalogger -> client: the datalogger reader
// routes each datagram by its destination to the port the client last used,
// whose host writer sends it from that port.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "link/serialbuf.h"
#include "net/udp.h"
#include "relay/korvane.h"
#include "support/byteorder.h"
#include "support/elog.h"
#include "support/pmtfifo.h"
#include "support/pthread_lock.h"

namespace {

constexpr int kPayloadMax = 1024;
constexpr int kIdleUsec = 1000;
constexpr int kStartUsec = 10000;

// `run` and `myshutdown` are plain ints written once by one thread and
// polled by the others; atomic access keeps those polls well defined.
bool run_released() { return std::atomic_ref<int>(korvane.run).load() != 0; }
bool shutdown_begun() { return std::atomic_ref<int>(myshutdown).load() != 0; }

// What one unit of a thread's work came to.
enum class Pass { worked, idle, leave };

// The frame common to all four threads: start line, wait for `run`, units of
// work with a 1 ms pause after an idle one, exit line.
template <typename Unit>
void thread_frame(const char *name, int port, Unit unit) {
    if (verbose != 0) {
        if (port < 0) elog_notify(0, "%s: Starting...\n", name);
        else elog_notify(0, "%s(%d): Starting...\n", name, port);
    }
    while (!run_released()) serialbuf_usleep(kStartUsec);
    while (!shutdown_begun()) {
        Pass pass = unit();
        if (pass == Pass::leave) {
            elog_clear_register(0);
            break;
        }
        if (pass == Pass::idle) serialbuf_usleep(kIdleUsec);
    }
    if (verbose != 0) {
        if (port < 0) elog_notify(0, "%s: Exiting\n", name);
        else elog_notify(0, "%s(%d): Exiting\n", name, port);
    }
}

// Fills a packet's sender and destination texts. Every text the relay puts
// there fits (an "a.b.c.d:port", or the datalogger's destination, checked at
// start-up); one that did not would be refused here, never cut, since a cut
// address sends the datagram elsewhere.
bool set_texts(KorvanePkt *pkt, const char *src, const char *dst) {
    if (strlen(src) >= sizeof pkt->src || strlen(dst) >= sizeof pkt->dst) return false;
    strcpy(pkt->src, src);
    strcpy(pkt->dst, dst);
    return true;
}

// The header line ahead of a per-datagram dump (verbosity 2 and up).
void dump_datagram(const char *header, const char *prefix, const unsigned char *buf,
                   int nbytes) {
    elog_notify(0, "%s\n", header);
    udp_dump(prefix, buf, nbytes);
}

// The client's text "a.b.c.d:port" as the datalogger addressed it. The port
// field holds the two bytes of the port as they crossed the line, which the
// writer put there in network order and the SLIP layer took as a host-order
// number; reading them back as big-endian undoes that exchange.
void q330_destination_text(const SerialBuf *link, char *text, size_t size) {
    std::uint32_t a = link->slip_ipaddr_dst;
    std::uint16_t port_field = link->slip_port_dst;
    std::uint16_t port = 0;
    unsigned char *cursor = reinterpret_cast<unsigned char *>(&port_field);
    ums2hs(&cursor, &port, 1);
    snprintf(text, size, "%d.%d.%d.%d:%d", static_cast<int>((a >> 24) & 0xff),
             static_cast<int>((a >> 16) & 0xff), static_cast<int>((a >> 8) & 0xff),
             static_cast<int>(a & 0xff), static_cast<int>(port));
}

KorvanePort *route_lookup(Korvane *qpr, const char *client) {
    PthreadLock hold(&qpr->ports_mutex);
    return routemap_get(qpr->ports_arr, client);
}

void route_learn(Korvane *qpr, const char *client, KorvanePort *port) {
    PthreadLock hold(&qpr->ports_mutex);
    routemap_set(qpr->ports_arr, client, port);
}

Pass q330_read_once(Korvane *qpr) {
    char src[256];
    unsigned char buf[kPayloadMax];
    int nbytes = kPayloadMax;
    int ret = udp_read(qpr->udp_q330, 0, nullptr, src, buf, &nbytes, -1.0);
    if (shutdown_begun()) return Pass::leave;
    if (ret < 0) elog_die(0, "korvane_run_q330_read_thread: udp_read() error.\n");
    if (ret > 0) return Pass::idle;

    char dst[128];
    q330_destination_text(qpr->udp_q330->slip_buf, dst, sizeof dst);
    if (verbose > 1) {
        char header[600];
        snprintf(header, sizeof header, "QRD:%s->%s:", src, dst);
        dump_datagram(header, "QRD:", buf, nbytes);
    }
    KorvanePkt *pkt = korvanepkt_create(nbytes, buf);
    if (!pkt) elog_die(1, "korvane_run_q330_read_thread: malloc() error.\n");
    KorvanePort *port = set_texts(pkt, src, dst) ? route_lookup(qpr, pkt->dst) : nullptr;
    if (!port) {  // no client has used this address and port yet
        free(pkt);
        return Pass::worked;
    }
    if (pmtfifo_push(port->mtfifo, pkt) < 0)
        elog_die(0, "korvane_run_q330_read_thread: pmtfifo_push() error for port %d.\n",
                 port->host_port);
    return Pass::worked;
}

// Makes the datalogger see the client as the sender of the next frame. The
// bytes are copied as they lie (network order): the SLIP layer reads the
// address as network-order bytes but the port as a host-order number, so on
// a little-endian host the source port on the line is the client's port with
// its bytes exchanged, and the reply comes back to that exchanged port,
// which the datalogger reader exchanges back. Keep it so.
//
// Opening the link also sets its source port (to the local port, 0), so a
// copy made before the first open would be overwritten on the way out. The
// datalogger reader opens the link as soon as the threads are released;
// until then this waits, under the endpoint's mutex that guards the open,
// and the mutex is released before the write.
void set_line_source(UDP *q330, const KorvanePkt *pkt) {
    for (;;) {
        {
            PthreadLock hold(&q330->mutex);
            if (q330->fd >= 0) {
                SerialBuf *link = q330->slip_buf;
                memcpy(&link->slip_ipaddr_src, &pkt->srcaddr.sin_addr, 4);
                memcpy(&link->slip_port_src, &pkt->srcaddr.sin_port, 2);
                return;
            }
        }
        serialbuf_usleep(kIdleUsec);
    }
}

Pass q330_write_once(Korvane *qpr) {
    KorvanePkt *pkt = nullptr;
    if (pmtfifo_pop(qpr->mtfifo, reinterpret_cast<void **>(&pkt)) < 0) {
        if (shutdown_begun()) return Pass::leave;
        elog_die(0, "korvane_run_q330_write_thread: pmtfifo_pop() error.\n");
    }
    if (!pkt) return Pass::idle;
    if (verbose > 1) {
        char header[300];
        snprintf(header, sizeof header, "QWR:%s->%s:", pkt->src, pkt->dst);
        dump_datagram(header, "QWR:", pkt->buf, pkt->nbytes);
    }
    set_line_source(qpr->udp_q330, pkt);
    if (udp_write(qpr->udp_q330, 0, nullptr, pkt->dst, pkt->buf, pkt->nbytes) < 0)
        elog_die(0, "korvane_run_q330_write_thread: udp_write() error.\n");
    free(pkt);
    return Pass::worked;
}

Pass host_read_once(KorvanePort *port, const char *q330_dst) {
    char src[256];
    unsigned char buf[kPayloadMax];
    int nbytes = kPayloadMax;
    int ret = udp_read(port->udp_host, port->host_port, nullptr, src, buf, &nbytes, -1.0);
    if (shutdown_begun()) return Pass::leave;
    if (ret < 0) elog_die(0, "korvane_run_udp_read_thread: udp_read(%d) error.\n", port->host_port);
    if (ret > 0) return Pass::idle;
    if (verbose > 1) {
        char header[300];
        snprintf(header, sizeof header, "URD:%s->%5.5d:", src, port->host_port);
        dump_datagram(header, "URD:", buf, nbytes);
    }
    KorvanePkt *pkt = korvanepkt_create(nbytes, buf);
    if (!pkt)
        elog_die(1, "korvane_run_udp_read_thread: malloc() error for port %d.\n", port->host_port);
    if (!set_texts(pkt, src, q330_dst)) {
        free(pkt);
        return Pass::worked;
    }
    pkt->srcaddr = port->udp_host->recv_saddr;
    // Replies go back through the port this client used most recently.
    route_learn(port->qpr, src, port);
    if (pmtfifo_push(port->qpr->mtfifo, pkt) < 0)
        elog_die(0, "korvane_run_udp_read_thread: pmtfifo_push() error for port %d.\n",
                 port->host_port);
    return Pass::worked;
}

Pass host_write_once(KorvanePort *port) {
    KorvanePkt *pkt = nullptr;
    if (pmtfifo_pop(port->mtfifo, reinterpret_cast<void **>(&pkt)) < 0) {
        if (shutdown_begun()) return Pass::leave;
        elog_die(0, "korvane_run_udp_write_thread: pmtfifo_pop() error for port %d.\n",
                 port->host_port);
    }
    if (!pkt) return Pass::idle;
    if (verbose > 1) {
        char header[300];
        snprintf(header, sizeof header, "UWR:%5.5d->%s:", port->host_port, pkt->dst);
        dump_datagram(header, "UWR:", pkt->buf, pkt->nbytes);
    }
    if (udp_write(port->udp_host, port->host_port, nullptr, pkt->dst, pkt->buf, pkt->nbytes) < 0)
        elog_die(0, "korvane_run_udp_write_thread: udp_write() error for port %d.\n",
                 port->host_port);
    free(pkt);
    return Pass::worked;
}

}  // namespace

KorvanePkt *korvanepkt_create(int nbytes, const unsigned char *buf) {
    KorvanePkt *pkt = static_cast<KorvanePkt *>(calloc(1, sizeof(KorvanePkt)));
    if (!pkt) return nullptr;
    pkt->nbytes = nbytes;
    if (nbytes > 0) memcpy(pkt->buf, buf, static_cast<size_t>(nbytes));
    return pkt;
}

void udp_dump(const char *prefix, const unsigned char *buf, int nbytes) {
    // One mutex for the whole process, so the lines of two dumps never mix.
    static std::mutex dump_mutex;
    std::lock_guard<std::mutex> lock(dump_mutex);
    // The bytes of one line, 32 " xx" groups at most; the prefix is written
    // ahead of them as it is, so no prefix can overrun the buffer.
    char hex[32 * 3 + 1];
    int len = 0;
    for (int i = 0; i < nbytes; i++) {
        len += snprintf(hex + len, sizeof hex - static_cast<size_t>(len), " %2.2x", buf[i]);
        if ((i + 1) % 32 == 0) {
            elog_notify(0, "%s%s\n", prefix, hex);
            len = 0;
        }
    }
    if (len > 0) elog_notify(0, "%s%s\n", prefix, hex);
    elog_notify(0, "%s\n", prefix);
}

void *korvane_run_q330_read_thread(void *arg) {
    Korvane *qpr = static_cast<Korvane *>(arg);
    thread_frame("korvane_run_q330_read_thread", -1, [qpr] { return q330_read_once(qpr); });
    return nullptr;
}

void *korvane_run_q330_write_thread(void *arg) {
    Korvane *qpr = static_cast<Korvane *>(arg);
    thread_frame("korvane_run_q330_write_thread", -1, [qpr] { return q330_write_once(qpr); });
    return nullptr;
}

void *korvane_run_udp_read_thread(void *arg) {
    KorvanePort *port = static_cast<KorvanePort *>(arg);
    // parse_pf refuses an address that would not fit a packet's destination;
    // were one to come here, set_texts would refuse it rather than cut it.
    char q330_dst[300];
    snprintf(q330_dst, sizeof q330_dst, "%s:%d", port->qpr->q330_ip_address, port->q330_port);
    thread_frame("korvane_run_udp_read_thread", port->host_port,
                 [port, &q330_dst] { return host_read_once(port, q330_dst); });
    return nullptr;
}

void *korvane_run_udp_write_thread(void *arg) {
    KorvanePort *port = static_cast<KorvanePort *>(arg);
    thread_frame("korvane_run_udp_write_thread", port->host_port,
                 [port] { return host_write_once(port); });
    return nullptr;
}
