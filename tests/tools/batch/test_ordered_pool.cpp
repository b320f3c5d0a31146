// The ordered worker pool: results in submission order whatever the
// finishing order, one worker per thread made on that thread, failures of
// set-up and of work passed on, cancelled work dropped, bounded in-flight work.
#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "batch/ordered_pool.h"

using namespace ostrel_tool;

TEST(OrderedPool, ResultsComeInSubmissionOrder) {
    // Even items take longer, so they finish after the odd ones behind them.
    OrderedPool<int, int> pool(3, 8, [](int) {
        return [](int &n) {
            std::this_thread::sleep_for(std::chrono::milliseconds(n % 2 == 0 ? 6 : 0));
            return n * 10;
        };
    });
    std::vector<int> got;
    for (int i = 0; i < 40; ++i) {
        while (pool.full()) {
            got.push_back(*pool.next(true));
        }
        pool.submit(i);
    }
    pool.close();
    while (auto r = pool.next(true)) {
        got.push_back(*r);
    }
    ASSERT_EQ(got.size(), 40u);
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(got[i], i * 10);
    }
}

TEST(OrderedPool, EachThreadMakesItsOwnWorker) {
    std::mutex m;
    std::set<std::thread::id> makers;
    std::set<std::thread::id> runners;
    {
        OrderedPool<int, int> pool(2, 4, [&](int) {
            std::lock_guard<std::mutex> lock(m);
            makers.insert(std::this_thread::get_id());
            return [&](int &n) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                std::lock_guard<std::mutex> lock2(m);
                runners.insert(std::this_thread::get_id());
                return n;
            };
        });
        for (int i = 0; i < 3; ++i) {
            pool.submit(i);
        }
        pool.close();
        while (pool.next(true)) {
        }
    }
    EXPECT_EQ(makers.size(), 2u);
    EXPECT_EQ(makers.count(std::this_thread::get_id()), 0u);
    for (const auto &id : runners) {
        EXPECT_EQ(makers.count(id), 1u);
    }
}

TEST(OrderedPool, SetUpFailureIsRethrown) {
    EXPECT_THROW((OrderedPool<int, int>(2, 4,
                                        [](int index) -> OrderedPool<int, int>::Worker {
                                            if (index == 1) {
                                                throw std::runtime_error("no model");
                                            }
                                            return [](int &n) { return n; };
                                        })),
                 std::runtime_error);
}

TEST(OrderedPool, WorkFailureComesWithItsItem) {
    OrderedPool<int, int> pool(2, 4, [](int) {
        return [](int &n) {
            if (n == 1) {
                throw std::runtime_error("bad item");
            }
            return n;
        };
    });
    for (int i = 0; i < 3; ++i) {
        pool.submit(i);
    }
    pool.close();
    EXPECT_EQ(*pool.next(true), 0);
    EXPECT_THROW(pool.next(true), std::runtime_error);
    EXPECT_EQ(*pool.next(true), 2);
    EXPECT_FALSE(pool.next(true).has_value());
}

TEST(OrderedPool, CancelDropsWorkNotStarted) {
    std::atomic<int> started{0};
    std::atomic<bool> release{false};
    OrderedPool<int, int> pool(1, 100, [&](int) {
        return [&](int &n) {
            ++started;
            while (!release) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            return n;
        };
    });
    for (int i = 0; i < 10; ++i) {
        pool.submit(i);
    }
    while (started == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    pool.cancel_pending();
    release = true;
    pool.close();
    std::vector<int> got;
    while (auto r = pool.next(true)) {
        got.push_back(*r);
    }
    EXPECT_EQ(got, std::vector<int>{0});  // the running item finished, the rest never started
    EXPECT_EQ(started, 1);
    EXPECT_EQ(pool.in_flight(), 0u);
}

TEST(OrderedPool, InFlightCountsUntilGivenBack) {
    OrderedPool<int, int> pool(1, 2, [](int) { return [](int &n) { return n; }; });
    pool.submit(1);
    pool.submit(2);
    EXPECT_TRUE(pool.full());
    EXPECT_EQ(*pool.next(true), 1);
    EXPECT_FALSE(pool.full());
    EXPECT_EQ(*pool.next(true), 2);
    EXPECT_FALSE(pool.next(false).has_value());
}
