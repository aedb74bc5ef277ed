// Bringing the relay up (endpoints, queues, threads, the run flag) and the
// orderly shutdown routine that the relay keeps but connects to no signal.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>

#include "link/serialbuf.h"
#include "net/udp.h"
#include "relay/korvane.h"
#include "support/containers.h"
#include "support/elog.h"
#include "support/host.h"
#include "support/pmtfifo.h"
#include "support/sysutil.h"

namespace {

constexpr int kQueueMax = 10;
constexpr int kCreateSpacingUsec = 1000;

// Endpoint verbosity follows the relay's: 1 from -v, 2 only from -vvv.
void set_endpoint_verbosity(UDP *udp) {
    if (verbose > 0) udp_set_verbose(udp, 1);
    if (verbose == 3) udp_set_verbose(udp, 2);
}

// Creates a thread or ends the process with `failure` (a format taking the
// port, or none).
void start_thread(pthread_t *thread, void *(*body)(void *), void *arg, const char *failure,
                  int port) {
    int rc = pthread_create(thread, nullptr, body, arg);
    if (rc != 0) {
        errno = rc;  // pthread_create reports through its result, not errno
        elog_die(1, failure, port);
    }
    serialbuf_usleep(kCreateSpacingUsec);
}

void start_datalogger_side(Korvane *qpr) {
    if (udp_new(&qpr->udp_q330) < 0) elog_die(0, "udp_new(udp_q330) error.\n");
    set_endpoint_verbosity(qpr->udp_q330);
    // The device is not opened here: the endpoint opens it on first use.
    if (qpr->flow == 1) {
        if (udp_setup_slip_with_flow(qpr->udp_q330, qpr->dev, qpr->baud, 0.0) < 0)
            elog_die(0, "udp_setup_slip_with_flow(udp_q330) error.\n");
    } else if (udp_setup_slip(qpr->udp_q330, qpr->dev, qpr->baud, 0.0) < 0) {
        elog_die(0, "udp_setup_slip(udp_q330) error.\n");
    }
    qpr->mtfifo = pmtfifo_create(kQueueMax, 1, 0);
    if (!qpr->mtfifo) elog_die(0, "pmtfifo_create(mtfifo_q330) error.\n");
    start_thread(&qpr->read_thread, korvane_run_q330_read_thread, qpr,
                 "pthread_create(q330_read_thread) error.\n", 0);
    start_thread(&qpr->write_thread, korvane_run_q330_write_thread, qpr,
                 "pthread_create(q330_write_thread) error.\n", 0);
}

void start_port(KorvanePort *port) {
    // The host endpoint is not bound here: the first read or write with
    // host_port opens it.
    if (udp_new(&port->udp_host) < 0) elog_die(0, "udp_new(%d->udp_host) error.\n", port->host_port);
    set_endpoint_verbosity(port->udp_host);
    port->mtfifo = pmtfifo_create(kQueueMax, 1, 0);
    if (!port->mtfifo) elog_die(0, "pmtfifo_create(%d->mtfifo) error.\n", port->host_port);
    start_thread(&port->read_thread, korvane_run_udp_read_thread, port,
                 "pthread_create(%d->udp_read_thread) error.\n", port->host_port);
    start_thread(&port->write_thread, korvane_run_udp_write_thread, port,
                 "pthread_create(%d->udp_write_thread) error.\n", port->host_port);
}

}  // namespace

int korvane_setup_signals(void) {
    ignoreSIGPIPE();
    ignoreSIGALRM();
    return 0;
}

void korvane_start(Korvane *qpr) {
    start_datalogger_side(qpr);
    for (int i = 0; i < maxtbl(qpr->ports); i++)
        start_port(static_cast<KorvanePort *>(gettbl(qpr->ports, i)));
    // Every thread exists now; release them together.
    std::atomic_ref<int>(qpr->run).store(1);
}

void haltbysignal(int sig) {
    if (std::atomic_ref<int>(myshutdown).load() == 1) return;
    const Signal_info *info = signal_bysig(sig);
    elog_notify(0, "haltbysignal: received signal #%d=%s: %s...Shutting down\n", sig, info->name,
                info->description);
    elog_notify(0, "haltbysignal: Killing korvane...\n");
    elog_notify(0, "haltbysignal: waiting for threads to exit...\n");
    std::atomic_ref<int>(myshutdown).store(1);

    // SIGINT breaks the datalogger reader out of its wait on the line.
    pthread_kill(korvane.read_thread, SIGINT);
    pthread_join(korvane.read_thread, nullptr);
    pthread_kill(korvane.write_thread, SIGINT);
    pmtfifo_release_block(korvane.mtfifo);
    pthread_join(korvane.write_thread, nullptr);

    // The port loop takes the entry at index 1 on every pass, not index i,
    // and so only ever reaches the second port; that is kept. Two steps of it
    // would crash, so they are skipped instead: with fewer than two ports
    // there is no index 1, and after the first pass that port's threads are
    // already joined (joining a thread twice is undefined).
    bool joined = false;
    for (int i = 0; i < maxtbl(korvane.ports); i++) {
        KorvanePort *port = static_cast<KorvanePort *>(gettbl(korvane.ports, 1));
        if (!port || joined) continue;
        pthread_join(port->read_thread, nullptr);
        pmtfifo_release_block(port->mtfifo);
        pthread_join(port->write_thread, nullptr);
        joined = true;
    }
    elog_notify(0, "haltbysignal: halted by signal #%d\n", sig);
    // The threads of every port but the second were never joined and may
    // still be logging: skip the static destructors they could be using.
    fflush(stdout);
    _exit(0);
}
