#include "stats/taverage.h"
#include "support/pthread_lock.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "stats/taverage_clock.h"
#include "support/elog.h"
#include "support/host.h"

namespace {

std::atomic<double (*)(void)> clock_now{std_now};

// The byte count of n doubles, for messages: as wide as it needs to be, so
// it prints what an int would have for every count that fits one.
long long bytes_of(long long n) { return n * static_cast<long long>(sizeof(double)); }

// nbin doubles set to 0, or nullptr with the message registered.
double *new_bins(int nbin) {
    double *bins = static_cast<double *>(calloc(static_cast<size_t>(nbin), sizeof(double)));
    if (!bins)
        elog_log(1, "taverage_create: malloc(TAverage->bins,%lld) error.\n", bytes_of(nbin));
    return bins;
}

// Grows the event slots by half plus one when all are taken; fatal when
// the memory cannot be had or the count would pass the int range (the
// caller holds the lock).
void grow_events(TAverage *avg) {
    long long n = static_cast<long long>(avg->nbin * 1.5) + 1;
    bool fits = n <= INT_MAX && static_cast<unsigned long long>(bytes_of(n)) <= SIZE_MAX;
    double *bins = fits ? static_cast<double *>(realloc(avg->bins, static_cast<size_t>(bytes_of(n)))) : nullptr;
    if (!bins) {
        pthread_mutex_unlock(&avg->mutex);
        elog_die(1, "taverage_put: realloc (%lld) error.\n", bytes_of(n));
    }
    memset(bins + avg->nbin, 0, static_cast<size_t>(n - avg->nbin) * sizeof(double));
    avg->bins = bins;
    avg->nbin = static_cast<int>(n);
}

// Event mode put: store now, keep newest first, forget what left the window.
void put_event(TAverage *avg, double now) {
    int i = static_cast<int>(std::find(avg->bins, avg->bins + avg->nbin, 0.0) - avg->bins);
    if (i == avg->nbin) grow_events(avg);
    avg->bins[i] = now;
    // Newest first, empty (0) slots last; equal times are interchangeable, so
    // any sort gives the same array.
    std::sort(avg->bins, avg->bins + avg->nbin, std::greater<double>());
    // Sorted descending, so the entries this clears are the trailing ones
    // and the array needs no second sort.
    for (int j = 0; j < avg->nbin; j++)
        if (now - avg->bins[j] > avg->twin) avg->bins[j] = 0.0;
}

// Adds value to the bin that holds now, when now is not past the newest bin
// and not before the oldest.
void add_to_bin(TAverage *avg, double now, double value) {
    double t = avg->time - now;
    if (t >= 0 && t / avg->tbin < avg->nbin) avg->bins[static_cast<int>(t / avg->tbin)] += value;
}

// Moves the newest bin's end forward in whole bins until it reaches now,
// shifting the sums toward the old end and emptying the new bins.
void advance_bins(TAverage *avg, double now) {
    // Counted in double: after a long silence with narrow bins the count
    // can pass the int range, and every bin is cleared then anyway.
    double steps = std::trunc((now - avg->time) / avg->tbin) + 1;
    avg->time += steps * avg->tbin;
    int n = steps < avg->nbin ? static_cast<int>(steps) : avg->nbin;
    if (n < avg->nbin) memmove(avg->bins + n, avg->bins, static_cast<size_t>(avg->nbin - n) * sizeof(double));
    memset(avg->bins, 0, static_cast<size_t>(n) * sizeof(double));
}

// Binned put.
void put_binned(TAverage *avg, double now, double value) {
    if (avg->time - now < 0) advance_bins(avg, now);
    add_to_bin(avg, now, value);
}

// Event mode get: count events in (ts, time], walking from the newest.
void get_events(TAverage *avg, double time, double ts, double *sum) {
    PthreadLock lock(&avg->mutex);
    for (int i = 0; i < avg->nbin; i++) {
        double t = avg->bins[i];
        if (t == 0.0 || t <= ts) break;
        if (t <= time) *sum += 1.0;
    }
}

// Index of the bin in which the asked end falls; negative in the future.
// Kept in double, whole-valued, so that a far-off time cannot overflow it.
double end_bin(double te, double tbin) {
    if (te >= 0) return std::trunc(te / tbin);
    if (te > -0.001) te = -0.001;
    return -(std::trunc((-0.001 - te) / tbin) + 1);
}

// Index of the bin in which the asked start falls; negative in the future.
double start_bin(double tsr, double tbin) {
    if (tsr > 0) {
        if (tsr < 0.001) tsr = 0.001;
        return std::trunc((tsr - 0.001) / tbin);
    }
    return -(std::trunc(-tsr / tbin) + 1);
}

// Binned get: the whole bins covering (ts, *time] and their sum.
void get_binned(TAverage *avg, double *time, double *twin, double ts, double *sum) {
    PthreadLock lock(&avg->mutex);
    double is = end_bin(avg->time - *time, avg->tbin);
    double ie = start_bin(avg->time - ts, avg->tbin);
    // The bounds come from the indices before clamping, so an interval in
    // the future still reports where it lies.
    *time = avg->time - is * avg->tbin;
    double start = avg->time - (ie + 1) * avg->tbin;
    *twin = *time - start;
    // Bins is to ie, clipped to the bins that exist.
    for (int i = 0; i < avg->nbin; i++)
        if (i >= is && i <= ie) *sum += avg->bins[i];
}

}  // namespace

void taverage_set_clock(double (*now)(void)) { clock_now.store(now ? now : std_now); }

TAverage *taverage_create(double time, double tbin, int nbin) {
    // The argument checks log with flag 1 but follow no failed call: errno
    // cleared, so they carry no error text left over from an earlier one.
    errno = 0;
    if (tbin == 0) {
        elog_log(1, "taverage_create: tbin cannot be == 0\n");
        return nullptr;
    }
    if (tbin > 0 && nbin < 1) {
        elog_log(1, "taverage_create: nbin = %d must be > 0\n", nbin);
        return nullptr;
    }
    TAverage *avg = static_cast<TAverage *>(calloc(1, sizeof(TAverage)));
    if (!avg) {
        elog_log(1, "taverage_create: malloc(TAverage,%zu) error.\n", sizeof(TAverage));
        return nullptr;
    }
    avg->tbin = tbin;
    avg->nbin = tbin > 0 ? nbin : (nbin < 1 ? 100 : nbin);
    avg->bins = new_bins(avg->nbin);
    if (!avg->bins) {
        free(avg);
        return nullptr;
    }
    // The first bin ends one width after the given start rather than on a
    // multiple of the width, so the bins line up with the caller's start.
    avg->twin = tbin > 0 ? tbin * nbin : time;
    avg->time = tbin > 0 ? time + tbin : 0.0;
    pthread_mutex_init(&avg->mutex, nullptr);
    return avg;
}

int taverage_destroy(TAverage *avg) {
    if (!avg) return 0;
    // Nobody may hold the lock now; destroying it lets checking tools say so.
    pthread_mutex_destroy(&avg->mutex);
    free(avg->bins);
    free(avg);
    return 0;
}

int taverage_put(TAverage *avg, double value) {
    PthreadLock lock(&avg->mutex);
    double now = clock_now.load()();
    if (avg->tbin < 0)
        put_event(avg, now);
    else
        put_binned(avg, now, value);
    return 0;
}

int taverage_get(TAverage *avg, double *time, double *twin, double *sum, double *ave) {
    *sum = 0.0;
    *ave = 0.0;
    double ts = *time - *twin;
    if (avg->tbin < 0) {
        get_events(avg, *time, ts, sum);
        return 0;
    }
    get_binned(avg, time, twin, ts, sum);
    if (*twin != 0)
        *ave = *sum / *twin;
    else
        *ave = *sum != 0 ? 1e30 : 0.0;
    return 0;
}
