#include "support/pmtfifo.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/elog.h"
#include "testutil.h"

namespace {

using Values = std::vector<std::uintptr_t>;
void *item(std::uintptr_t n) { return reinterpret_cast<void *>(n); }

// Pops n times, each expected to succeed; the values popped, 0 where nothing came.
Values pop_n(Pmtfifo *fifo, int n) {
    Values out;
    for (void *p = nullptr; n-- > 0; out.push_back(reinterpret_cast<std::uintptr_t>(p)))
        EXPECT_EQ(pmtfifo_pop(fifo, &p), 0);
    return out;
}

int freed = 0;

}  // namespace

TEST(Pmtfifo, OrderLimitAndCheckWithoutBlocking) {
    Pmtfifo *fifo = pmtfifo_create(3, 0, 1);
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(pmtfifo_push(fifo, item(i)), 0);
    EXPECT_EQ(pmtfifo_push(fifo, item(4)), -2);   // full
    EXPECT_EQ(pmtfifo_push(fifo, nullptr), -1);   // refused by check
    EXPECT_EQ(pop_n(fifo, 4), (Values{1, 2, 3, 0}));  // in order, then empty: nothing, no error
    EXPECT_EQ(pmtfifo_push(fifo, item(5)), 0);
    fifo->queue = 2;  // disagrees with the one-element list
    void *p = nullptr;
    EXPECT_EQ(pmtfifo_pop(fifo, &p), -1);
    fifo->queue = 1;
    elog_clear_register(0);
    EXPECT_EQ(pmtfifo_destroy(fifo, [](void *) { ++freed; }), 0);
    EXPECT_EQ(freed, 1);
}

// Blocking: a push waits for room, a pop for an item (up to the time-out); release wakes both.
TEST(Pmtfifo, BlockingWaitsForRoomItemTimeOutOrRelease) {
    Pmtfifo *fifo = pmtfifo_create(10, 1, 0), *empty = pmtfifo_create(1, 1, 0);
    for (int i = 1; i <= 10; ++i) ASSERT_EQ(pmtfifo_push(fifo, item(i)), 0);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        EXPECT_EQ(pmtfifo_push(fifo, item(11)), 0);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(done) << "a push onto a full blocking FIFO returned";
    // The first pop lets the eleventh in.
    EXPECT_EQ(pop_n(fifo, 11), (Values{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    producer.join();
    fifo->timeout = 0.3;
    long long start = testutil::now_ms();
    EXPECT_EQ(pop_n(fifo, 1), Values{0});  // a blocking pop on an empty FIFO gives up, no error
    EXPECT_GE(testutil::now_ms() - start, 200);
    fifo->timeout = 0;
    for (int i = 1; i <= 10; ++i) ASSERT_EQ(pmtfifo_push(fifo, item(i)), 0);
    void *got = item(1);
    int popped = 0, pushed = 0;
    std::thread consumer([&] { popped = pmtfifo_pop(empty, &got); });
    producer = std::thread([&] { pushed = pmtfifo_push(fifo, item(11)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(pmtfifo_release_block(empty) + pmtfifo_release_block(fifo), 0);
    consumer.join();
    producer.join();
    EXPECT_EQ(std::tuple(popped, got, pushed), std::tuple(-3, nullptr, -3));
    // What was queued still comes out, then nothing more.
    EXPECT_EQ(pop_n(fifo, 10), (Values{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(pmtfifo_pop(fifo, &got), -3);
    EXPECT_EQ(pmtfifo_push(fifo, item(9)), -3);
    pmtfifo_destroy(empty, nullptr);
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
    std::vector<int> next(producers, 0);  // each producer's items in order, none lost or twice
    for (std::uintptr_t v : pop_n(fifo, producers * per_producer))  // at() fails on a 0
        EXPECT_EQ(int((v - 1) % per_producer), next.at((v - 1) / per_producer)++);
    for (auto &th : threads) th.join();
    pmtfifo_destroy(fifo, nullptr);
}
