// Time-binned averages: sums of values over fixed time bins (tbin > 0) or
// counts of events in a sliding window (tbin < 0). Every operation locks the
// record's own mutex, so several threads may put and get at once.
#pragma once

#include <pthread.h>

struct TAverage {
    pthread_mutex_t mutex;  // guards every field below
    double tbin;            // bin width in s; > 0 binned, < 0 event mode
    double twin;            // binned: tbin * nbin; events: window length in s
    int nbin;               // entries in bins
    double *bins;           // binned: sums, 0 = newest; events: times, newest first, 0 = empty
    double time;            // binned: end of the newest bin (epoch seconds)
};

// Binned (tbin > 0): nbin bins, the first starting at time. Event mode
// (tbin < 0): a window of `time` seconds, nbin slots (100 when < 1).
// nullptr on failure, with the message registered.
TAverage *taverage_create(double time, double tbin, int nbin);
// Frees the record and its bins; accepts nullptr; returns 0.
int taverage_destroy(TAverage *avg);

// Records value now (binned), or the moment of one event; returns 0.
int taverage_put(TAverage *avg, double value);
// Sum and average rate over the interval (*time - *twin, *time]; binned
// mode replaces *time and *twin by the whole bins covered. Returns 0.
int taverage_get(TAverage *avg, double *time, double *twin, double *sum, double *ave);
