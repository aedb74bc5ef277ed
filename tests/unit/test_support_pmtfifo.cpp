#include "support/pmtfifo.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/elog.h"

namespace {

using Values = std::vector<std::uintptr_t>;
void *item(std::uintptr_t n) { return reinterpret_cast<void *>(n); }

// n pops: each the value popped, 0 when nothing came, or 1000 times the failure's -result.
Values pop_n(Pmtfifo *fifo, int n) {
    Values out;
    for (void *p = item(99); n-- > 0; p = item(99)) {
        int rc = pmtfifo_pop(fifo, &p);
        out.push_back(rc == 0 ? reinterpret_cast<std::uintptr_t>(p) : std::uintptr_t(-rc) * 1000);
    }
    return out;
}

}  // namespace

TEST(Pmtfifo, OrderLimitCheckAndReleaseWithoutBlocking) {
    Pmtfifo *fifo = pmtfifo_create(3, 0, 1);
    std::vector<int> got;
    for (std::uintptr_t i : {1, 2, 3, 4, 0}) got.push_back(pmtfifo_push(fifo, item(i)));
    EXPECT_EQ(got, (std::vector<int>{0, 0, 0, -2, -1}));  // full; nullptr refused by check
    EXPECT_EQ(pop_n(fifo, 4), (Values{1, 2, 3, 0}));     // in order, then nothing, no error
    void *p = nullptr;
    EXPECT_EQ((std::vector<int>{pmtfifo_create(0, 1, 0) != nullptr, pmtfifo_push(nullptr, p),
                                pmtfifo_pop(nullptr, &p), pmtfifo_pop(fifo, nullptr),
                                pmtfifo_release_block(nullptr), pmtfifo_destroy(nullptr, nullptr)}),
              (std::vector<int>{0, -1, -1, -1, -1, 0}));
    // A checked FIFO whose list disagrees with its count, links or tail fails push and pop.
    for (int i = 1; i <= 2; ++i) ASSERT_EQ(pmtfifo_push(fifo, item(i)), 0);
    MtfifoElement *a = fifo->head, *b = a->next;
    auto damaged = [&](auto damage) {
        damage();
        Values rc = {pop_n(fifo, 1)[0], std::uintptr_t(-pmtfifo_push(fifo, item(7)))};
        fifo->queue = 2, fifo->tail = b, b->prev = a;
        return rc;
    };
    for (auto rc : {damaged([&] { fifo->queue = 3; }), damaged([&] { fifo->queue = -1; }),
                    damaged([&] { fifo->tail = a; }), damaged([&] { b->prev = nullptr; })})
        EXPECT_EQ(rc, (Values{1000, 1}));
    // Released, it answers at once even with pointers queued; destroy frees those.
    EXPECT_EQ(pmtfifo_release_block(fifo), 0);
    EXPECT_EQ(std::pair(pmtfifo_push(fifo, item(5)), pop_n(fifo, 1)), std::pair(-3, Values{3000}));
    elog_clear_register(0);
    static int freed = 0;
    EXPECT_EQ(pmtfifo_destroy(fifo, [](void *) { ++freed; }), 0);
    EXPECT_EQ(freed, 2);
}

// Blocking: a push waits for room, a pop for an item (up to the time-out); release wakes both.
TEST(Pmtfifo, BlockingWaitsForRoomItemTimeOutOrRelease) {
    Pmtfifo *fifo = pmtfifo_create(10, 1, 0), *empty = pmtfifo_create(1, 1, 0);
    for (int i = 1; i <= 10; ++i) ASSERT_EQ(pmtfifo_push(fifo, item(i)), 0);
    std::atomic<bool> done{false};
    std::thread producer([&] { EXPECT_EQ(pmtfifo_push(fifo, item(11)), 0), done = true; });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(done) << "a push onto a full blocking FIFO returned";
    EXPECT_EQ(pop_n(fifo, 11), (Values{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));  // a pop lets it in
    producer.join();
    fifo->timeout = 0.3;
    EXPECT_EQ(pop_n(fifo, 1), Values{0});  // a blocking pop on an empty FIFO gives up, no error
    fifo->timeout = 0;
    for (int i = 1; i <= 10; ++i) ASSERT_EQ(pmtfifo_push(fifo, item(i)), 0);
    Values popped;
    int pushed = 0;
    std::thread consumer([&] { popped = pop_n(empty, 1); });
    producer = std::thread([&] { pushed = pmtfifo_push(fifo, item(11)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(pmtfifo_release_block(empty) + pmtfifo_release_block(fifo), 0);
    consumer.join();
    producer.join();
    EXPECT_EQ(std::pair(popped, pushed), std::pair(Values{3000}, -3));
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
