#include "support/pmtfifo.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "support/elog.h"
#include "testutil.h"

using Values = std::vector<std::uintptr_t>;
static void *item(std::uintptr_t n) { return reinterpret_cast<void *>(n); }
// n pops: each the value popped, 0 when nothing came, or 1000 times the failure's -result.
static Values pop_n(Pmtfifo *fifo, int n) {
    Values out;
    for (void *p = item(99); n-- > 0; p = item(99)) {
        int rc = pmtfifo_pop(fifo, &p);
        out.push_back(rc == 0 ? reinterpret_cast<std::uintptr_t>(p) : std::uintptr_t(-rc) * 1000);
    }
    return out;
}

TEST(Pmtfifo, OrderLimitCheckAndReleaseWithoutBlocking) {
    Pmtfifo *fifo = pmtfifo_create(3, 0, 1);
    std::vector<int> got;
    for (std::uintptr_t i : {1, 2, 3, 4, 0}) got.push_back(pmtfifo_push(fifo, item(i)));
    EXPECT_EQ(got, (std::vector<int>{0, 0, 0, -2, -1}));  // full; nullptr refused by check
    EXPECT_EQ(pop_n(fifo, 4), (Values{1, 2, 3, 0}));     // in order, then nothing, no error
    void *p = nullptr;
    errno = EAGAIN;  // each failure below registers one message, with no stale error text
    EXPECT_EQ((std::vector<int>{pmtfifo_create(0, 1, 0) != nullptr, pmtfifo_push(nullptr, p), pmtfifo_pop(nullptr, &p),
                                pmtfifo_pop(fifo, nullptr), pmtfifo_release_block(nullptr),
                                pmtfifo_destroy(nullptr, nullptr)}), (std::vector<int>{0, -1, -1, -1, -1, 0}));
    testing::internal::CaptureStderr(), elog_clear_register(1);
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStderr(), std::regex(".* pmtfifo_"), ""),
              "push: nullptr refused\ncreate: maxqueue 0 is less than 1\npush: no FIFO\npop: no FIFO\n"
              "pop: no result address\nrelease_block: no FIFO\n");
    // Released, it answers at once even with pointers queued; destroy frees those.
    static int freed = 0;
    EXPECT_EQ(pmtfifo_push(fifo, item(1)) + pmtfifo_push(fifo, item(2)) + pmtfifo_release_block(fifo), 0);
    EXPECT_EQ((std::pair{pmtfifo_push(fifo, item(5)), pop_n(fifo, 1)}), std::pair(-3, Values{3000}));
    EXPECT_EQ((std::pair{pmtfifo_destroy(fifo, [](void *) { ++freed; }), freed}), std::pair(0, 2));
}

// Blocking: a push waits for room, a pop for an item (up to the time-out); release wakes both. Two producers that keep
// the queue of 10 full lose and duplicate nothing, each one's items in order.
TEST(Pmtfifo, BlockingWaitsForRoomItemTimeOutOrRelease) {
    Pmtfifo *fifo = pmtfifo_create(10, 1, 0), *empty = pmtfifo_create(1, 1, 0);
    auto twin = [fifo](int odd) { for (int i = 1; i <= 5000; ++i) pmtfifo_push(fifo, item(2 * i + odd)); };
    std::thread twins[] = {std::thread(twin, 0), std::thread(twin, 1)};
    std::uintptr_t next[] = {2, 3};
    for (std::uintptr_t v : pop_n(fifo, 10000)) EXPECT_EQ(v, std::exchange(next[v % 2], v + 2));
    for (auto &t : twins) t.join();
    long long start = (fifo->timeout = 1.2, testutil::now_ms());  // a blocking pop on an empty FIFO gives up
    EXPECT_EQ(pop_n(fifo, 1), Values{0});                             // after the time-out, with no error
    EXPECT_GE(testutil::now_ms() - start, 1100);
    for (int i = 1; i <= 10; ++i) ASSERT_EQ(pmtfifo_push(fifo, item(i)), 0);
    start = (fifo->timeout = 0.3, testutil::now_ms());  // and so does a push onto a full one
    EXPECT_EQ(pmtfifo_push(fifo, item(11)), -2);
    EXPECT_GE(testutil::now_ms() - start, 250);
    fifo->timeout = 0;
    std::pair<Values, int> got;  // what the blocked pop and push give back
    std::thread consumer([&] { got.first = pop_n(empty, 1); });
    std::thread producer([&] { got.second = pmtfifo_push(fifo, item(11)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(pmtfifo_release_block(empty) + pmtfifo_release_block(fifo), 0);
    consumer.join(), producer.join();
    EXPECT_EQ(got, std::pair(Values{3000}, -3));
    pmtfifo_destroy(empty, nullptr), pmtfifo_destroy(fifo, nullptr);
}
