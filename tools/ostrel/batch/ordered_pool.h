// A pool of worker threads that takes work in order and gives the results
// back in the same order, whatever order they finish in.
//
// Each thread first makes its own worker (a function object with whatever
// state it needs, for example an engine with the model loaded); the pool's
// constructor waits until every thread has made one and rethrows the first
// failure. Work is handed out in submission order to whichever thread is
// free; next() gives results in submission order. The caller keeps the
// number of items in flight bounded (full() / in_flight()), so memory stays
// bounded however long the run is. cancel_pending() drops the work no thread
// has started (its results never come); work already running finishes.
//
// A worker that throws has the exception passed on by next() for its item.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace ostrel_tool {

template <typename Work, typename Result>
class OrderedPool {
public:
    using Worker = std::function<Result(Work &)>;
    using WorkerFactory = std::function<Worker(int thread_index)>;

    OrderedPool(int threads, size_t window, const WorkerFactory &make_worker) : window_(window < 1 ? 1 : window) {
        const int n = threads < 1 ? 1 : threads;
        int ready = 0;
        std::exception_ptr setup_failure;
        for (int i = 0; i < n; ++i) {
            threads_.emplace_back([this, i, &make_worker, &ready, &setup_failure] {
                Worker worker;
                {
                    std::exception_ptr failure;
                    try {
                        worker = make_worker(i);
                    } catch (...) {
                        failure = std::current_exception();
                    }
                    std::lock_guard<std::mutex> lock(mutex_);
                    if (failure && !setup_failure) {
                        setup_failure = failure;
                    }
                    ++ready;
                    if (failure) {
                        closed_ = true;
                    }
                }
                setup_done_.notify_all();
                if (worker) {
                    run(worker);
                }
            });
        }
        std::unique_lock<std::mutex> lock(mutex_);
        setup_done_.wait(lock, [&] { return ready == n; });
        if (setup_failure) {
            closed_ = true;
            lock.unlock();
            work_ready_.notify_all();
            join();
            std::rethrow_exception(setup_failure);
        }
    }

    ~OrderedPool() {
        cancel_pending();
        close();
        join();
    }

    OrderedPool(const OrderedPool &) = delete;
    OrderedPool &operator=(const OrderedPool &) = delete;

    // Items submitted and not yet given back by next().
    size_t in_flight() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<size_t>(submitted_ - given_back_);
    }
    bool full() const { return in_flight() >= window_; }

    void submit(Work work) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.emplace_back(submitted_++, std::move(work));
        }
        work_ready_.notify_one();
    }

    // The next result in submission order. With wait, blocks until it is
    // there; returns nothing when no item is in flight (or, without wait,
    // when the next one is not finished yet).
    std::optional<Result> next(bool wait) {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            auto it = done_.find(given_back_);
            if (it != done_.end()) {
                Slot slot = std::move(it->second);
                done_.erase(it);
                ++given_back_;
                if (slot.failure) {
                    std::rethrow_exception(slot.failure);
                }
                if (slot.result) {
                    return std::move(slot.result);
                }
                continue;  // a cancelled item
            }
            if (given_back_ == submitted_ || !wait) {
                return std::nullopt;
            }
            result_ready_.wait(lock);
        }
    }

    // Drops the work no thread has started yet.
    void cancel_pending() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto &item : queue_) {
            done_.emplace(item.first, Slot{});
        }
        queue_.clear();
        result_ready_.notify_all();
    }

    // No more work will come; the threads end when the queue is empty.
    void close() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
        }
        work_ready_.notify_all();
    }

private:
    struct Slot {
        std::optional<Result> result;
        std::exception_ptr failure;
    };

    void run(Worker &worker) {
        for (;;) {
            std::pair<uint64_t, Work> item;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                work_ready_.wait(lock, [&] { return !queue_.empty() || closed_; });
                if (queue_.empty()) {
                    return;
                }
                item = std::move(queue_.front());
                queue_.pop_front();
            }
            Slot slot;
            try {
                slot.result = worker(item.second);
            } catch (...) {
                slot.failure = std::current_exception();
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                done_.emplace(item.first, std::move(slot));
            }
            result_ready_.notify_all();
        }
    }

    void join() {
        for (auto &t : threads_) {
            if (t.joinable()) {
                t.join();
            }
        }
    }

    const size_t window_;
    mutable std::mutex mutex_;
    std::condition_variable setup_done_;
    std::condition_variable work_ready_;
    std::condition_variable result_ready_;
    std::deque<std::pair<uint64_t, Work>> queue_;
    std::map<uint64_t, Slot> done_;
    uint64_t submitted_ = 0;
    uint64_t given_back_ = 0;
    bool closed_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace ostrel_tool
