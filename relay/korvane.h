// The relay core: the one relay record, the port translations, the packets
// in flight between threads, and the operations of start-up and forwarding.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

struct Tbl;
struct RouteMap;
struct UDP;
struct Pmtfifo;

// The relay record; main zero-fills the one instance before parse_pf.
struct Korvane {
    int run;                     // 0 during start-up; 1 lets every thread begin work
    int mode;                    // link mode; 1 = SLIP, the only one accepted
    char *dev;                   // serial device path (malloc'ed, never freed)
    char *q330_ip_address;       // datalogger address, host part of every datalogger destination
    int baud;                    // line speed
    int flow;                    // 0 = none, 1 = RTS/CTS
    Tbl *ports;                  // KorvanePort pointers, ascending text order of host_port
    RouteMap *ports_arr;         // client "a.b.c.d:port" -> KorvanePort it last sent through
    pthread_mutex_t ports_mutex; // guards ports_arr, one look-up or insertion at a time
    UDP *udp_q330;               // datalogger-side endpoint (SLIP over the serial line)
    pthread_t read_thread;       // datalogger reader
    pthread_t write_thread;      // datalogger writer
    Pmtfifo *mtfifo;             // packets bound for the datalogger
};

// One port translation: host_port on the host <-> q330_port on the datalogger.
struct KorvanePort {
    Korvane *qpr;                // back pointer to the relay record
    int host_port;               // 100..65535
    int q330_port;               // 100..65535
    UDP *udp_host;               // host-side endpoint
    pthread_t read_thread;       // host reader
    pthread_t write_thread;      // host writer
    Pmtfifo *mtfifo;             // packets bound for this port's clients
};

// One datagram in flight; owned by the FIFO while queued, freed by the popper.
struct KorvanePkt {
    char src[128];               // sender "a.b.c.d:port"
    char dst[128];               // destination "host:port"
    struct sockaddr_in srcaddr;  // the client's address (network order); zero from the datalogger
    int nbytes;                  // payload length
    unsigned char buf[1024];     // payload
};

// Process-wide state, all zero at program start.
extern Korvane korvane;          // the one relay record
extern int verbose;              // 0..3 from the command line
extern int myshutdown;           // 1 once an orderly shutdown has begun

// ---- Command line and parameter block (config.cpp)

// Writes the usage line straight to standard error.
void usage(void);
// Scans options and the template name into verbose and *template_name;
// ends the process on -help (status 0) and on any bad argument (status 1).
void korvane_parse_args(int argc, char **argv, const char **template_name);
// Reads template's block of the parameter file pf_file into qpr; 0 or -1 (message registered).
int parse_pf(const char *pf_file, const char *template_name, Korvane *qpr);
// Writes the configuration summary lines for qpr read from template_name.
void korvane_print_summary(const char *template_name, const Korvane *qpr);

// ---- The routing map (routes.cpp): at most capacity clients; when it is
// full the one used least recently gives way. Callers hold ports_mutex.

// Most routing entries kept: a client silent while this many others sent loses its route.
constexpr int KORVANE_ROUTES_MAX = 4096;
// An empty map; nullptr when out of memory.
RouteMap *routemap_create(int capacity);
// The port client last sent through, or nullptr; a hit counts as a use.
KorvanePort *routemap_get(RouteMap *map, const char *client);
// Records that client last sent through port; -1 for a text no sender has.
int routemap_set(RouteMap *map, const char *client, KorvanePort *port);

// ---- Packets and forwarding threads

// A zero-filled packet holding a copy of nbytes of buf; nullptr when out of memory.
KorvanePkt *korvanepkt_create(int nbytes, const unsigned char *buf);
// Hex dump of buf, 32 bytes a line, each line led by prefix, then prefix alone.
void udp_dump(const char *prefix, const unsigned char *buf, int nbytes);
// Datalogger to clients: reads udp_q330, routes by destination (arg: Korvane *).
void *korvane_run_q330_read_thread(void *arg);
// Clients to datalogger: pops the datalogger FIFO, writes udp_q330 (arg: Korvane *).
void *korvane_run_q330_write_thread(void *arg);
// Polls one host port and queues what arrives for the datalogger (arg: KorvanePort *).
void *korvane_run_udp_read_thread(void *arg);
// Pops one port's FIFO and sends the replies to its clients (arg: KorvanePort *).
void *korvane_run_udp_write_thread(void *arg);

// ---- Start-up and shutdown

// Ignores SIGPIPE and SIGALRM; changes no other disposition. Returns 0.
int korvane_setup_signals(void);
// Creates the datalogger endpoint, queue and threads, then each port's, 1 ms
// apart, and releases them all by setting run; ends the process on failure.
void korvane_start(Korvane *qpr);
// Orderly shutdown: stops and joins every thread, then exits with status 0.
void haltbysignal(int sig);
