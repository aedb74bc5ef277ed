#include "support/host.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "support/containers.h"
#include "support/elog.h"

namespace {

// Each routine serialises its own callers, as the relay's threads expect;
// ip2name_mutex also guards failure_cache.
std::mutex name2ip_mutex;
std::mutex ip2name_mutex;
// Dotted texts of addresses that could not be named, keyed by the decimal
// text of the host-order value. Never emptied: the relay meets few peers.
Arr *failure_cache;

// Runs a gethostby*_r call, doubling its scratch buffer while it answers
// ERANGE (hosts with many aliases); the hostent or nullptr.
template <typename Lookup> hostent *resolve(Lookup lookup, hostent *entry, std::vector<char> &scratch) {
    for (scratch.resize(2048);; scratch.resize(scratch.size() * 2)) {
        hostent *result = nullptr;
        int herr = 0;
        int rc = lookup(entry, scratch.data(), scratch.size(), &result, &herr);
        if (rc == ERANGE && scratch.size() < (1u << 20)) continue;
        return rc == 0 ? result : nullptr;
    }
}

// The cached text for key copied into name; false when not cached.
bool cached_failure(const char *key, char *name) {
    const char *text = failure_cache ? static_cast<const char *>(getarr(failure_cache, key)) : nullptr;
    if (!text) return false;
    strcpy(name, text);
    return true;
}

// Remembers that key could not be named; an allocation failure only costs a
// repeated look-up and complaint later.
void cache_failure(const char *key, const char *dotted) {
    if (!failure_cache) failure_cache = newarr(nullptr);
    if (!failure_cache) return;
    char *copy = strdup(dotted);
    if (copy) free(setarr(failure_cache, key, copy));
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
    char key[16];
    snprintf(key, sizeof key, "%u", ipaddr);
    char dotted[16];
    {
        std::lock_guard lock(ip2name_mutex);
        if (cached_failure(key, name)) return -1;
        if (resolve_name(ipaddr, name)) return 0;
        snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", ipaddr >> 24, (ipaddr >> 16) & 0xff,
                 (ipaddr >> 8) & 0xff, ipaddr & 0xff);
        cache_failure(key, dotted);
    }
    // Outside the lock: no lock is held while writing the log.
    strcpy(name, dotted);
    elog_complain(0, "Can't lookup hostname for ip address %s", dotted);
    return -1;
}

int ignoreSIGPIPE(void) {
    if (!ignore_signal(SIGPIPE)) elog_die(1, "Unexpected failure: file %s, line %d\n", "ignoreSIGPIPE", 18);
    return 0;
}

int ignoreSIGALRM(void) {
    if (!ignore_signal(SIGALRM)) elog_die(1, "Unexpected failure: file %s, line %d\n", "ignoreSIGALRM", 18);
    return 0;
}
