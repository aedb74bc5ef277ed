#include "support/pmtfifo.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/elog.h"
#include "testutil.h"

static void *item(std::uintptr_t n) { return reinterpret_cast<void *>(n); }
static std::uintptr_t value(void *p) { return reinterpret_cast<std::uintptr_t>(p); }
static int freed = 0;
static void count_free(void *) { ++freed; }

TEST(Pmtfifo, OrderLimitAndCheckWithoutBlocking) {
    Pmtfifo *fifo = pmtfifo_create(3, 0, 1);
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(pmtfifo_push(fifo, item(i)), 0);
    EXPECT_EQ(pmtfifo_push(fifo, item(4)), -2);  // full
    EXPECT_EQ(pmtfifo_push(fifo, nullptr), -1);  // refused by check
    void *p = nullptr;
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(pmtfifo_pop(fifo, &p), 0);
        EXPECT_EQ(value(p), std::uintptr_t(i));
    }
    EXPECT_EQ(pmtfifo_pop(fifo, &p), 0);  // empty: success with nothing
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(pmtfifo_push(fifo, item(5)), 0);
    fifo->queue = 2;  // disagrees with the one-element list
    EXPECT_EQ(pmtfifo_pop(fifo, &p), -1);
    fifo->queue = 1;
    elog_clear_register(0);
    freed = 0;
    EXPECT_EQ(pmtfifo_destroy(fifo, count_free), 0);
    EXPECT_EQ(freed, 1);
}

TEST(Pmtfifo, EleventhPushWaitsForAPop) {
    Pmtfifo *fifo = pmtfifo_create(10, 1, 0);
    for (int i = 1; i <= 10; ++i) ASSERT_EQ(pmtfifo_push(fifo, item(i)), 0);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        EXPECT_EQ(pmtfifo_push(fifo, item(11)), 0);
        done = true;
    });
    usleep(300000);
    EXPECT_FALSE(done) << "a push onto a full blocking FIFO returned";
    void *p = nullptr;
    EXPECT_EQ(pmtfifo_pop(fifo, &p), 0);
    producer.join();
    for (int i = 2; i <= 11; ++i) {
        ASSERT_EQ(pmtfifo_pop(fifo, &p), 0);
        EXPECT_EQ(value(p), std::uintptr_t(i));
    }
    pmtfifo_destroy(fifo, nullptr);
}

TEST(Pmtfifo, ReleaseWakesWaitersThenDrainsAndFails) {
    Pmtfifo *empty = pmtfifo_create(1, 1, 0), *full = pmtfifo_create(1, 1, 0);
    ASSERT_EQ(pmtfifo_push(full, item(7)), 0);
    void *got = item(1);
    int popped = 0, pushed = 0;
    std::thread consumer([&] { popped = pmtfifo_pop(empty, &got); });
    std::thread producer([&] { pushed = pmtfifo_push(full, item(8)); });
    usleep(200000);
    pmtfifo_release_block(empty);
    pmtfifo_release_block(full);
    consumer.join();
    producer.join();
    EXPECT_LT(popped, 0);
    EXPECT_EQ(got, nullptr);
    EXPECT_LT(pushed, 0);
    EXPECT_EQ(pmtfifo_pop(full, &got), 0);  // what was queued still comes out
    EXPECT_EQ(value(got), 7u);
    EXPECT_LT(pmtfifo_pop(full, &got), 0);
    EXPECT_LT(pmtfifo_push(full, item(9)), 0);
    pmtfifo_destroy(empty, nullptr);
    pmtfifo_destroy(full, nullptr);
}

TEST(Pmtfifo, TimeoutBoundsABlockingPop) {
    Pmtfifo *fifo = pmtfifo_create(1, 1, 0);
    fifo->timeout = 0.3;
    void *got = item(1);
    long long start = testutil::now_ms();
    EXPECT_EQ(pmtfifo_pop(fifo, &got), 0);
    EXPECT_EQ(got, nullptr);
    EXPECT_GE(testutil::now_ms() - start, 200);
    pmtfifo_destroy(fifo, nullptr);
}

TEST(Pmtfifo, ManyProducersOneConsumerLoseAndDuplicateNothing) {
    constexpr int producers = 4, per_producer = 10000;
    Pmtfifo *fifo = pmtfifo_create(10, 1, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < producers; ++t)
        threads.emplace_back([fifo, t] {
            for (int i = 0; i < per_producer; ++i)
                EXPECT_EQ(pmtfifo_push(fifo, item(std::uintptr_t(t) * per_producer + i + 1)), 0);
        });
    std::vector<int> seen(producers * per_producer, 0), last(producers, -1);
    for (int n = 0; n < producers * per_producer; ++n) {
        void *p = nullptr;
        ASSERT_EQ(pmtfifo_pop(fifo, &p), 0);
        ASSERT_NE(p, nullptr);
        std::uintptr_t v = value(p) - 1;
        int t = int(v / per_producer), i = int(v % per_producer);
        ASSERT_LT(t, producers);
        EXPECT_GT(i, last[t]) << "producer " << t << " out of order";
        last[t] = i;
        ++seen[v];
    }
    for (auto &th : threads) th.join();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), producers * per_producer);
    pmtfifo_destroy(fifo, nullptr);
}
