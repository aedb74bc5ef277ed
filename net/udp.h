// The datagram endpoint: one interface over either a real UDP socket of the
// host or an IPv4/UDP-over-SLIP link (the endpoint holds a link in slip_buf).
// The transport is opened lazily by the first read or write and re-opened
// when a caller asks for another local port.
//
// Locking: `mutex` guards only the check-open-reopen sequence and verbose
// output; sending and receiving run without it, so one thread may block in
// udp_read while another calls udp_write. Both must pass the same local port.
// send_hostport/send_saddr belong to the writer, recv_hostport/recv_saddr to
// the reader.
#pragma once

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cstdint>

struct SerialBuf;
struct TAverage;

// Where verbose lines go instead of the debug log, when set.
typedef void (*UDPVerboseCallback)(void *pvt, const char *line);

struct UDP {
    int fd;                          // socket, or the link's descriptor; -1 closed
    int local_port;                  // port open on (SLIP: source port); -1 closed
    char send_hostport[256];         // host:port last resolved into send_saddr
    struct sockaddr_in send_saddr;
    char recv_hostport[256];         // a.b.c.d:port formatted from recv_saddr
    struct sockaddr_in recv_saddr;
    SerialBuf *slip_buf;             // the link in SLIP mode, else nullptr
    TAverage *bytes_read;            // optional averages, nullptr unless set up
    TAverage *bytes_written;
    TAverage *datarate;
    pthread_mutex_t mutex;
    int verbose;                     // 1 drops and complaints; 2 adds dumps
    UDPVerboseCallback verbose_callback;
    void *verbose_callback_pvt;
    double drop_packet_pcnt;         // percentage dropped at random, for tests
};

// udp_read results.
enum { UDP_READ_OK = 0, UDP_READ_TIMEOUT = 1, UDP_READ_INTR = 2, UDP_READ_NOTHING = 3 };

// ---- Creation and set-up ----------------------------------------------------

// Allocates a closed endpoint. 0 or -1.
int udp_new(UDP **udp);
// Gives the endpoint a serial SLIP link without flow control.
int udp_setup_slip(UDP *udp, const char *dev, int baud, double timeout);
// Gives the endpoint a serial SLIP link with RTS/CTS requested.
int udp_setup_slip_with_flow(UDP *udp, const char *dev, int baud, double timeout);
// (Re)creates the traffic averages whose bin and window are both > 0.
int udp_setup_averages(UDP *udp, double time, double bytes_read_tbin, double bytes_read_twin,
                       double bytes_written_tbin, double bytes_written_twin,
                       double datarate_tbin, double datarate_twin);
// Sets the verbosity level.
int udp_set_verbose(UDP *udp, int verbose);

// ---- Datagrams --------------------------------------------------------------

// Sends one datagram from local_port to send_hostport (host:port). 1 or < 0.
int udp_write(UDP *udp, int local_port, const char *local_ipaddr, const char *send_hostport,
              const void *buf, int nbytes);
// Receives one datagram into buf (capacity *nbytes in, length out) and its
// source as "a.b.c.d:port". timeout < 0: no wait. 0 datagram, 1 time-out,
// 2 interrupted, 3 nothing waiting, < 0 failure.
int udp_read(UDP *udp, int local_port, const char *local_ipaddr, char *recv_hostport,
             void *buf, int *nbytes, double timeout);

// ---- Closing ----------------------------------------------------------------

// Closes the socket or link; the endpoint opens again on next use.
int udp_close(UDP *udp);
// Frees the record, its link and its averages (does not close a socket).
int udp_free(UDP *udp);

// ---- Helpers ----------------------------------------------------------------

// Resolves "host:port" into an AF_INET address; saddr is untouched on failure.
int udp_setup_ipaddr(const char *hostport, struct sockaddr *saddr);
// Verbose output. type 0 (level >= 1): (format, ...). type 1 (level >= 2):
// (int nbytes, const void *buf, const char *prefix, format, ...) then a dump.
int udp_print_verbose(UDP *udp, int type, ...);

// ---- Internals, exposed for tests -------------------------------------------

// Opens the link (buf set) or a non-blocking UDP socket bound to port/ipaddr.
// Returns a descriptor, -1, or -2 when bind failed.
int udp_open(SerialBuf *buf, int port, const char *ipaddr);
// Waits up to msec for fd to be readable: 0 readable, 1 time-out, 2 signal, -1 error.
int myfdwait(int fd, int msec);
// Sleeps sec seconds; 0.
int myusleep(double sec);
// Splits "/dev/dev:baud:hostport" into dev and hostport_out; other text is
// copied to hostport_out whole. 0 or -1.
int setup_mode(const char *hostport_in, char *dev, int baud, char *hostport_out);

// Seam for tests: the resolver udp_setup_ipaddr calls (name2ip by default).
typedef int (*UDPResolver)(const char *name, std::uint32_t *ipaddr, char *ipc);
// Installs a resolver (nullptr restores name2ip); returns the previous one.
UDPResolver udp_set_resolver(UDPResolver resolver);
