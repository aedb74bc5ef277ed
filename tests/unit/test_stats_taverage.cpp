#include "stats/taverage.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "stats/taverage_clock.h"
#include "support/elog.h"

namespace {

// Every put in this program reads the time from fake_time.
std::atomic<double> fake_time{0.0};
[[maybe_unused]] const bool clock_is_fake =
    (taverage_set_clock([] { return fake_time.load(); }), true);

void put_at(TAverage *avg, double now, double value) {
    fake_time = now;
    taverage_put(avg, value);
}
std::vector<double> slots(const TAverage *avg, int n) { return {avg->bins, avg->bins + n}; }

// Asks (time - twin, time]; checks the covered bounds and sum, then the average.
void expect_get(TAverage *avg, double time, double twin, std::vector<double> want) {
    SCOPED_TRACE("get " + std::to_string(time) + " " + std::to_string(twin));
    double sum = -1, ave = -1;
    EXPECT_EQ(taverage_get(avg, &time, &twin, &sum, &ave), 0);
    EXPECT_EQ((std::vector<double>{time, twin, sum}), std::vector<double>(&want[0], &want[3]));
    EXPECT_DOUBLE_EQ(ave, want[3]);
}

TEST(TAverage, BinnedPutsAndGets) {
    TAverage *avg = taverage_create(1000, 10, 5);  // newest bin ends at 1010
    put_at(avg, 1005, 1);    // 5 s before the end: bin 0
    put_at(avg, 1010, 2);    // exactly at the end: still bin 0
    put_at(avg, 1010.5, 4);  // past it: (int)(0.5/10)+1 = 1 step, end 1020, old bin 0 moves to 1
    put_at(avg, 995, 8);     // 25 s before 1020: bin 2
    put_at(avg, 960, 16);    // 60 s before: bin 6 does not exist, dropped
    EXPECT_EQ(avg->time, 1020);
    EXPECT_EQ(slots(avg, 5), (std::vector<double>{4, 3, 8, 0, 0}));
    // Past: end bin (int)(15/10) = 1 -> 1010; start (int)((25-0.001)/10) = 2 -> 990; 11 in 20 s.
    expect_get(avg, 1005, 10, {1010, 20, 11, 0.55});
    expect_get(avg, 1020, 20, {1020, 20, 7, 0.35});
    // Future: end bin -((int)((15-0.001)/10)+1) = -2 -> 1040; start bin 1 -> 1000; sums from bin 0.
    expect_get(avg, 1035, 30, {1040, 40, 7, 7.0 / 40});
    // A start 0.5 ms before the 1010 edge counts as on it: (int)((10.0005-0.001)/10) = bin 0.
    expect_get(avg, 1020, 10.0005, {1020, 10, 4, 0.4});
    put_at(avg, 1100, 32);  // 9 bins past the end, more than 5: all cleared, end 1020 + 9*10
    EXPECT_EQ(avg->time, 1110);
    EXPECT_EQ(slots(avg, 5), (std::vector<double>{0, 32, 0, 0, 0}));
    taverage_destroy(avg);

    // Bins of 10 ns at 1e9 s are below the double's resolution there (about 119 ns), so the
    // covered window rounds to 0 s: an empty sum averages 0, a non-empty one 1e30.
    avg = taverage_create(1e9, 1e-8, 4);
    expect_get(avg, 1e9, 1e-6, {1e9, 0, 0, 0});
    put_at(avg, 1e9, 5);
    expect_get(avg, 1e9, 1e-6, {1e9, 0, 5, 1e30});
    taverage_destroy(avg);
}

TEST(TAverage, EventsExpireAndGrow) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(taverage_create(0, 0, 5), nullptr);
    EXPECT_EQ(taverage_create(0, 1, 0), nullptr);  // binned needs a bin; events get 100 slots
    elog_clear_register(1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("taverage_create: tbin cannot be == 0"), std::string::npos) << err;
    EXPECT_NE(err.find("taverage_create: nbin = 0 must be > 0"), std::string::npos) << err;
    TAverage *avg = taverage_create(10, -1, 0);  // 10 s window
    ASSERT_EQ(avg->nbin, 100);
    for (double t : {1000.0, 1002.0, 1001.0}) put_at(avg, t, 99);
    EXPECT_EQ(slots(avg, 4), (std::vector<double>{1002, 1001, 1000, 0}));
    expect_get(avg, 1002, 1.5, {1002, 1.5, 2, 0});    // 1002 and 1001; the walk stops at 1000
    expect_get(avg, 1001.5, 10, {1001.5, 10, 2, 0});  // 1002 lies after the end: skipped
    put_at(avg, 1011, 0);  // 1000 is 11 s old and goes; 1001 is exactly 10 s old and stays
    EXPECT_EQ(slots(avg, 4), (std::vector<double>{1011, 1002, 1001, 0}));
    taverage_destroy(avg);

    avg = taverage_create(1e6, -1, 0);
    for (int i = 1; i <= 101; i++) put_at(avg, i, 0);
    ASSERT_EQ(avg->nbin, 151);  // the 101st put found no free slot: (int)(100*1.5)+1
    EXPECT_EQ((std::vector<double>{avg->bins[0], avg->bins[100], avg->bins[101], avg->bins[150]}),
              (std::vector<double>{101, 1, 0, 0}));
    EXPECT_EQ(taverage_destroy(avg) + taverage_destroy(nullptr), 0);
}

TEST(TAverage, ThreadsPutAndGetAtOnce) {
    fake_time = 100.5;
    TAverage *binned = taverage_create(100, 1, 10), *events = taverage_create(60, -1, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            double time = 101, twin = 1, sum, ave;
            for (int i = 0; i < 500; i++) {
                taverage_put(binned, 1.0);
                if (i % 10 == 0) taverage_put(events, 0);
                taverage_get(binned, &time, &twin, &sum, &ave);
            }
        });
    for (auto &t : threads) t.join();
    expect_get(binned, 101, 1, {101, 1, 2000, 2000});
    EXPECT_EQ(events->nbin, 227);  // 200 events: 100 -> 151 -> (int)(151*1.5)+1
    expect_get(events, 100.5, 1, {100.5, 1, 200, 0});
    taverage_destroy(binned);
    taverage_destroy(events);
}

}  // namespace
