#include "support/host.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <deque>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "support/elog.h"
#include "support/host_lookup.h"

namespace {

// name2ip serialises its callers, as the relay's threads expect.
std::mutex name2ip_mutex;
// Guards only ip2name's failure cache: the reverse look-up runs outside it,
// so a name server that takes seconds to answer never holds up another
// thread's call.
std::mutex ip2name_mutex;
// Host-order addresses that could not be named, each with its place in
// failure_order (oldest first). Bounded, because a peer that walks through
// source addresses would otherwise grow it for ever: beyond
// IP2NAME_FAILURES_MAX the oldest is forgotten (and complained about again
// if it comes back).
std::unordered_set<std::uint32_t> failures;
std::deque<std::uint32_t> failure_order;

// Runs a gethostby*_r call with room for any realistic host entry (64 KiB:
// hundreds of aliases or addresses); the hostent, or nullptr when the name
// is unknown or its entry larger still.
template <typename Lookup> hostent *resolve(Lookup lookup, hostent *entry, std::vector<char> &scratch) {
    scratch.resize(65536);
    hostent *result = nullptr;
    int herr;
    return lookup(entry, scratch.data(), scratch.size(), &result, &herr) == 0 ? result : nullptr;
}

// True when ipaddr is a known failure.
bool known_failure(std::uint32_t ipaddr) {
    std::lock_guard lock(ip2name_mutex);
    return failures.count(ipaddr) != 0;
}

// Records ipaddr as a failure; false when another thread already had.
bool record_failure(std::uint32_t ipaddr) {
    std::lock_guard lock(ip2name_mutex);
    if (!failures.insert(ipaddr).second) return false;
    failure_order.push_back(ipaddr);
    if (failure_order.size() > IP2NAME_FAILURES_MAX) {
        failures.erase(failure_order.front());
        failure_order.pop_front();
    }
    return true;
}

// The resolver's name for a host-order address into name (256 bytes).
bool resolve_name(std::uint32_t ipaddr, char *name) {
    std::uint32_t net = htonl(ipaddr);
    hostent entry;
    std::vector<char> scratch;
    hostent *host = resolve(
        [&net](hostent *e, char *buf, size_t len, hostent **res, int *herr) {
            return gethostbyaddr_r(&net, sizeof net, AF_INET, e, buf, len, res, herr);
        },
        &entry, scratch);
    if (!host || !host->h_name) return false;
    snprintf(name, 256, "%s", host->h_name);
    return true;
}

// The reverse look-up ip2name calls; tests replace it.
std::atomic<Ip2nameLookup> reverse_lookup{resolve_name};

// Sets signal sig to be ignored; false when sigaction refused.
bool ignore_signal(int sig) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return sigaction(sig, &action, nullptr) == 0;
}

}  // namespace

double std_now(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1000000.0;
}

int name2ip(const char *name, std::uint32_t *ipaddr, char *ipc) {
    *ipaddr = 0xffffffffu;
    ipc[0] = '\0';
    if (!name) return -1;
    std::lock_guard lock(name2ip_mutex);
    hostent entry;
    std::vector<char> scratch;
    hostent *host = resolve(
        [name](hostent *e, char *buf, size_t len, hostent **res, int *herr) {
            return gethostbyname_r(name, e, buf, len, res, herr);
        },
        &entry, scratch);
    if (!host || host->h_addrtype != AF_INET || host->h_length != 4 || !host->h_addr_list[0]) return -1;
    memcpy(ipaddr, host->h_addr_list[0], 4);
    inet_ntop(AF_INET, ipaddr, ipc, INET_ADDRSTRLEN);
    return 0;
}

int ip2name(std::uint32_t ipaddr, char *name) {
    // The loopback address is answered without the resolver, whose hosts
    // file may call it anything.
    if (ipaddr == 0x7f000001u) {
        strcpy(name, "localhost");
        return 0;
    }
    char dotted[16];
    snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", ipaddr >> 24, (ipaddr >> 16) & 0xff, (ipaddr >> 8) & 0xff,
             ipaddr & 0xff);
    if (!known_failure(ipaddr) && reverse_lookup.load()(ipaddr, name)) return 0;
    strcpy(name, dotted);
    // Two threads may fail on one address at once: only the first to record
    // it complains, so each address is complained about once.
    if (record_failure(ipaddr)) elog_complain(0, "Can't lookup hostname for ip address %s", dotted);
    return -1;
}

Ip2nameLookup ip2name_set_lookup(Ip2nameLookup lookup) { return reverse_lookup.exchange(lookup ? lookup : resolve_name); }

int ignoreSIGPIPE(void) {
    if (!ignore_signal(SIGPIPE)) elog_die(1, "Unexpected failure: file %s, line %d\n", "ignoreSIGPIPE", 18);
    return 0;
}

int ignoreSIGALRM(void) {
    if (!ignore_signal(SIGALRM)) elog_die(1, "Unexpected failure: file %s, line %d\n", "ignoreSIGALRM", 18);
    return 0;
}
