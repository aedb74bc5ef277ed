// The orderly shutdown routine, which the relay keeps but connects to no
// signal: run in a child process against real threads on a real line and
// real sockets, it must stop them and exit 0 whatever the number of ports.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "net/udp.h"
#include "relay/korvane.h"
#include "support/containers.h"
#include "support/pmtfifo.h"
#include "testutil.h"

// The routine joins only the second port's threads and leaves the others to
// end by themselves, unjoined; that is its design, not a leak to report.
extern "C" const char *__tsan_default_options() { return "report_thread_leaks=0"; }

namespace {

void on_sigint(int) {}

// Brings the relay up on a pseudo-terminal with n port translations and
// then shuts it down as a signal handler would.
void run_and_halt(int nports) {
    testutil::PtyPair line;
    // The routine breaks the datalogger reader's wait with SIGINT, which
    // only a process that handles SIGINT survives.
    struct sigaction sa = {};
    sa.sa_handler = on_sigint;
    sigaction(SIGINT, &sa, nullptr);

    memset(&korvane, 0, sizeof korvane);
    korvane.dev = strdup(line.slave_path.c_str());
    korvane.baud = 19200;
    korvane.q330_ip_address = strdup("192.168.1.50");
    korvane.ports = newtbl(1);
    korvane.ports_arr = newarr(nullptr);
    pthread_mutex_init(&korvane.ports_mutex, nullptr);
    for (int i = 0; i < nports; i++) {
        KorvanePort *port = static_cast<KorvanePort *>(calloc(1, sizeof(KorvanePort)));
        port->qpr = &korvane;
        port->host_port = testutil::free_udp_port();
        port->q330_port = 5330 + i;
        settbl(korvane.ports, -1, port);
    }
    verbose = 1;
    korvane_start(&korvane);
    usleep(300000);  // let every thread reach its wait
    haltbysignal(SIGINT);
}

}  // namespace

TEST(ShutdownDeathTest, StopsThreadsAndExitsZero) {
    // The threadsafe style re-executes the test program, which qemu-user
    // cannot do without the kernel knowing the foreign binary format; there
    // the fast style forks instead, safe because this process has started no
    // thread of its own yet.
    GTEST_FLAG_SET(death_test_style, getenv("KORVANE_QEMU") ? "fast" : "threadsafe");
    const char *done = "haltbysignal: received signal #2=SIGINT: Interrupt...Shutting down"
                       "(.|\n)*korvane_run_q330_read_thread: Exiting"
                       "(.|\n)*korvane_run_q330_write_thread: Exiting"
                       "(.|\n)*haltbysignal: halted by signal #2";
    // No port, one port (there is no second entry to join), and three ports
    // (only the second one is ever reached).
    for (int nports : {0, 1, 3})
        EXPECT_EXIT(run_and_halt(nports), testing::ExitedWithCode(0), done) << nports << " ports";
}

TEST(Shutdown, SecondCallReturnsAtOnce) {
    myshutdown = 1;
    haltbysignal(SIGTERM);  // would exit the test program if it went on
    myshutdown = 0;
    SUCCEED();
}
