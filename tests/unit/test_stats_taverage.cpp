#include "stats/taverage.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <regex>

#include "stats/taverage_clock.h"
#include "support/elog.h"

using V = std::vector<double>;
static double fake_time = 0;  // every put in this program reads the time from here
[[maybe_unused]] static bool fake = (taverage_set_clock([] { return fake_time; }), true);
static void put_at(TAverage *avg, double now, double v) { fake_time = now, taverage_put(avg, v); }
static V slots(const TAverage *avg, int n) { return {avg->bins, avg->bins + n}; }
// Asks (time - twin, time]: the covered bounds, the sum and the average.
static V get(TAverage *avg, double time, double twin) {
    double sum = -1, ave = -1;
    return taverage_get(avg, &time, &twin, &sum, &ave) == 0 ? V{time, twin, sum, ave} : V{};
}

TEST(TAverage, BinnedPutsAndGets) {
    // Newest bin ends at 1010; the bins are lent a guarded array, so that a step past them shows.
    TAverage *avg = taverage_create(1000, 10, 5);
    double guard[12] = {1e6, 0, 0, 0, 0, 0, 1e6, 1e6, 1e6, 1e6, 1e6, 1e6}, *own = std::exchange(avg->bins, guard + 1);
    V ends;
    // Bin 0 from 5 s before its end to the end itself; 0.5 s past it: one step to 1020, the old bin 0 moves to 1;
    // 25 s before 1020: bin 2; 60 s before: bin 6 does not exist, dropped.
    for (auto [now, value] : {std::pair(1005.0, 1.0), {1010, 2}, {1010.5, 4}, {995, 8}, {960, 16}})
        put_at(avg, now, value), ends.push_back(avg->time);
    EXPECT_EQ(std::pair(ends, slots(avg, 5)), std::pair(V{1010, 1010, 1020, 1020, 1020}, V{4, 3, 8, 0, 0}));
    const struct Row { const char *behaviour; double time, twin; V want; } rows[] = {
        {"past: end bin 1 (1010), start bin 2 (990)", 1005, 10, {1010, 20, 11, 0.55}},
        {"future: end bin -2 (1040), the sum from bin 0", 1035, 30, {1040, 40, 7, 7.0 / 40}},
        {"a start 0.5 ms before the 1010 edge lies on it", 1020, 10.0005, {1020, 10, 4, 0.4}},
        {"an end 0.5 ms after the 1030 edge lies on it", 1030.0005, 20.0005, {1030, 20, 4, 0.2}},
        {"an end 2 ms after it lies in the next bin", 1030.002, 20.002, {1040, 30, 4, 4.0 / 30}},
        {"far-off window: every bin", 1e12 + 1010, 1e12 + 1020, {1e12 + 1010, 1e12 + 1020, 15, 15 / (1e12 + 1020)}},
        {"a window from the newest bin's end on: nothing yet", 1030, 10, {1030, 10, 0, 0}},
        {"a window wholly in the future: nothing", 1060, 20, {1060, 20, 0, 0}},
        {"a far-off past: nothing", -1e12, 10, {-1e12, 10, 0, 0}}};
    for (const Row &r : rows) EXPECT_EQ(get(avg, r.time, r.twin), r.want) << r.behaviour;
    put_at(avg, 1100, 32);  // 9 bins past the end, more than 5: all cleared, end 1020 + 9*10
    EXPECT_EQ(std::pair(avg->time, slots(avg, 5)), std::pair(1110.0, V{0, 32, 0, 0, 0}));
    EXPECT_EQ(std::count(guard, guard + 12, 1e6), 7) << "a bin past the five was written";
    avg->bins = own;
    // Bins of 2^-14 s, narrower than the 1 ms margin: an end 2^-11 s past the newest bin lies in the next. Bins of
    // 10 ns at 1e9 s, finer than a double there: the window rounds to 0 s, so an empty sum averages 0, a full one 1e30.
    const double tiny = 1.0 / 16384, late = tiny + 1.0 / 2048;
    TAverage *narrow = taverage_create(1, tiny, 4), *fine = taverage_create(1e9, 1e-8, 1);  // one bin is enough
    EXPECT_EQ(get(narrow, 1 + late, late), (V{1 + 2 * tiny, 2 * tiny, 0, 0}));
    EXPECT_EQ(get(fine, 1e9, 1e-6), (V{1e9, 0, 0, 0}));
    put_at(fine, 1e9, 5);
    EXPECT_EQ(get(fine, 1e9, 1e-6), (V{1e9, 0, 5, 1e30}));
    EXPECT_EQ(V({avg->twin, narrow->twin, fine->twin}), V({50, 4 * tiny, 1e-8}));  // all bins' span
    taverage_destroy(avg), taverage_destroy(narrow), taverage_destroy(fine);
}

// Events: a 10 s window of times, newest first, in 100 slots that grow by half when full; destroy frees the record
// and its slots (10000 of them hold nothing).
TEST(TAverage, EventsExpireAndGrow) {
    TAverage *avg = taverage_create(10, -1, 0), *many = taverage_create(1e6, -1, 0), *none = taverage_create(-1, -1, 1);
    double guarded[101] = {}, *own = std::exchange(avg->bins, guarded);  // a guard after 100 slots
    guarded[100] = 1;
    for (double t : {1000.0, 1002.0, 1001.0}) put_at(avg, t, 99);
    EXPECT_EQ(get(avg, 1002, 1.5), (V{1002, 1.5, 2, 0}));    // the walk stops at 1000
    EXPECT_EQ(get(avg, 1001.5, 10), (V{1001.5, 10, 2, 0}));  // 1002 is after the end
    put_at(avg, 1011, 0);  // 1000 is 11 s old and goes; 1001 is exactly 10 s old and stays
    EXPECT_EQ(std::pair(slots(avg, 4), guarded[100]), std::pair(V{1011, 1002, 1001, 0}, 1.0));
    for (int i = 1; i <= 98; i++) put_at(avg, 1011 + i / 128.0, 0);  // 1001 goes; 100 slots taken
    EXPECT_EQ(get(avg, 1012, 1e6), (V{1012, 1e6, 100, 0}));
    avg->bins = own;
    for (int i = 1; i <= 101; i++) put_at(many, i, 0);  // the 101st finds no free slot: 100*1.5+1
    put_at(none, 5, 0);  // a negative window forgets even the put just made
    double *b = many->bins;
    EXPECT_EQ(std::tuple(many->nbin, none->nbin, V{b[0], b[100], b[101], b[150], *none->bins}),
              std::tuple(151, 1, V{101, 1, 0, 0, 0}));  // a count given is kept, even 1
    for (TAverage *a : {avg, many, none, (TAverage *)nullptr}) EXPECT_EQ(taverage_destroy(a), 0);
    size_t held = mallinfo2().uordblks;
    for (int i = 0; i < 10000; i++) taverage_destroy(taverage_create(0, 1, 10));
    EXPECT_LT(mallinfo2().uordblks - held, 100000u);
}

// The argument checks carry no error text left over from an earlier call. (Running out of memory, the only
// other way to fail, is left untested here as everywhere.)
TEST(TAverage, RefusesAZeroBinOrCount) {
    errno = EAGAIN;
    testing::internal::CaptureStderr();
    std::vector<TAverage *> made = {taverage_create(0, 0, 5), taverage_create(0, 1, 0)};
    std::string err = (elog_clear_register(1), testing::internal::GetCapturedStderr());
    EXPECT_EQ(made, std::vector<TAverage *>(2, nullptr));
    EXPECT_EQ(std::regex_replace(err, std::regex(".* taverage_create: "), ""), "tbin cannot be == 0\nnbin = 0 must be > 0\n");
}
