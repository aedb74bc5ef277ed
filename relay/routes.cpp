// The routing map: which host port each client last sent through.
//
// Anyone who can reach a host port adds an entry by sending one datagram, so
// the map is bounded: a fixed pool of entries, a hash index over it, and a
// list from most to least recently used; when the pool is full the least
// recently used entry is taken over. Every operation is a short chain walk,
// never a scan, and nothing is allocated after creation, so a flood of
// senders cannot grow the relay or slow its forwarding.
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>

#include <cstdint>

#include "relay/korvane.h"

namespace {

// "255.255.255.255:65535" and its terminating NUL fit.
constexpr size_t kKeyMax = 24;

// Slots are numbered from 1; 0 means none, so a zero-filled pool is empty.
struct Route {
    char key[kKeyMax];
    KorvanePort *port;
    int newer, older;  // the recency list
    int chain;         // next slot in the same hash bucket
};

}  // namespace

struct RouteMap {
    int capacity;
    int count;
    int newest, oldest;
    unsigned nbuckets;  // a power of two, at least twice the capacity
    std::uint64_t seed; // so that nobody can choose senders that share a bucket
    int *buckets;
    Route *routes;      // routes[0] is never used
};

namespace {

unsigned bucket_of(const RouteMap *map, const char *key) {
    std::uint64_t h = map->seed;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(key); *p; p++)
        h = (h ^ *p) * 0x100000001b3ULL;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return static_cast<unsigned>(h) & (map->nbuckets - 1);
}

int find(const RouteMap *map, const char *key) {
    int i = map->buckets[bucket_of(map, key)];
    while (i != 0 && strcmp(map->routes[i].key, key) != 0) i = map->routes[i].chain;
    return i;
}

void unlink_recency(RouteMap *map, int i) {
    Route &r = map->routes[i];
    if (r.newer) map->routes[r.newer].older = r.older;
    else map->newest = r.older;
    if (r.older) map->routes[r.older].newer = r.newer;
    else map->oldest = r.newer;
}

void make_newest(RouteMap *map, int i) {
    Route &r = map->routes[i];
    r.newer = 0;
    r.older = map->newest;
    if (map->newest) map->routes[map->newest].newer = i;
    map->newest = i;
    if (!map->oldest) map->oldest = i;
}

void unlink_bucket(RouteMap *map, int i) {
    int *link = &map->buckets[bucket_of(map, map->routes[i].key)];
    while (*link != i) link = &map->routes[*link].chain;
    *link = map->routes[i].chain;
}

}  // namespace

RouteMap *routemap_create(int capacity) {
    if (capacity < 1) return nullptr;
    auto *map = static_cast<RouteMap *>(calloc(1, sizeof(RouteMap)));
    if (!map) return nullptr;
    map->capacity = capacity;
    map->nbuckets = 2;
    while (map->nbuckets < 2u * static_cast<unsigned>(capacity)) map->nbuckets *= 2;
    if (getrandom(&map->seed, sizeof map->seed, GRND_NONBLOCK) != sizeof map->seed)
        map->seed = static_cast<std::uint64_t>(time(nullptr)) ^
                    reinterpret_cast<std::uintptr_t>(map);
    // Zero-filled pages cost nothing until used, so memory grows with the
    // number of clients up to the bound and no further.
    map->buckets = static_cast<int *>(calloc(map->nbuckets, sizeof(int)));
    map->routes = static_cast<Route *>(calloc(static_cast<size_t>(capacity) + 1, sizeof(Route)));
    if (!map->buckets || !map->routes) {
        free(map->buckets);
        free(map->routes);
        free(map);
        return nullptr;
    }
    return map;
}

KorvanePort *routemap_get(RouteMap *map, const char *client) {
    int i = find(map, client);
    if (i == 0) return nullptr;
    // A route that replies still use is as alive as one its client sends on.
    unlink_recency(map, i);
    make_newest(map, i);
    return map->routes[i].port;
}

int routemap_set(RouteMap *map, const char *client, KorvanePort *port) {
    if (strlen(client) >= kKeyMax) return -1;
    int i = find(map, client);
    if (i != 0) {
        unlink_recency(map, i);
    } else {
        if (map->count < map->capacity) {
            i = ++map->count;
        } else {
            i = map->oldest;
            unlink_recency(map, i);
            unlink_bucket(map, i);
        }
        Route &r = map->routes[i];
        strcpy(r.key, client);
        int &head = map->buckets[bucket_of(map, client)];
        r.chain = head;
        head = i;
    }
    map->routes[i].port = port;
    make_newest(map, i);
    return 0;
}
