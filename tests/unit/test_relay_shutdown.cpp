// What the relay binary cannot show: the shutdown routine, connected to no
// signal, which against real threads on a real line and real sockets must stop
// them and exit 0 whatever the number of ports.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "relay/korvane.h"
#include "support/containers.h"
#include "testutil.h"

// It joins only the second port's threads and leaves the others to end by
// themselves, unjoined; that is its design, not a leak to report.
extern "C" const char *__tsan_default_options() { return "report_thread_leaks=0"; }

// The relay on a pseudo-terminal with n ports, shut down as a handler would
// (after a call as if a shutdown had begun, which must return at once); its
// SIGINT to the datalogger reader is survived only with a handler.
static void run_and_halt(int nports) {
    myshutdown = 1;
    haltbysignal(SIGTERM);
    myshutdown = 0;
    testutil::PtyPair line;
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};
    sigaction(SIGINT, &sa, nullptr);
    korvane.dev = strdup(line.slave_path.c_str());
    korvane.q330_ip_address = strdup("192.168.1.50");
    korvane.baud = 19200;
    korvane.ports = newtbl(1);
    for (int i = 0; i < nports; i++)
        settbl(korvane.ports, -1,
               new KorvanePort{&korvane, testutil::fixed_udp_port(), 5330, {}, {}, {}, {}});
    verbose = 1;
    korvane_start(&korvane);
    usleep(300000);  // let every thread reach its wait
    errno = EINTR, haltbysignal(SIGINT);  // as after an interrupted call: its messages carry no error text
}

TEST(ShutdownDeathTest, StopsThreadsAndExitsZero) {
    // qemu-user cannot re-execute the test program; there the fast style
    // forks instead, safe while this process has no thread of its own yet.
    GTEST_FLAG_SET(death_test_style, getenv("KORVANE_QEMU") ? "fast" : "threadsafe");
    const char *done =
        "haltbysignal: received signal #2=SIGINT: Interrupt...Shutting down\n.*"
        "haltbysignal: Killing korvane...\n.*haltbysignal: waiting for threads to exit...\n"
        "(.|\n)*korvane_run_q330_read_thread: Exiting(.|\n)*korvane_run_q330_write_thread: Exiting"
        "(.|\n)*haltbysignal: halted by signal #2\n";
    // No second port to join, one, and three (only the second is reached).
    for (int nports : {0, 1, 3})
        EXPECT_EXIT(run_and_halt(nports), testing::ExitedWithCode(0), done) << nports << " ports";
}
