// A counting semaphore with a deadline: what bounds the memory the studio's
// request threads may take at once (the request bodies held in memory, the
// pictures being decoded). A request takes a ticket for its amount before it
// allocates, waits while others hold the rest, and gives up with "busy" when
// the time runs out; the ticket gives the amount back when it ends.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace ostrel_tool {
namespace studio {

class CountingGate {
public:
    class Ticket {
    public:
        Ticket() = default;
        Ticket(Ticket &&other) noexcept : gate_(other.gate_), amount_(other.amount_) { other.gate_ = nullptr; }
        Ticket &operator=(Ticket &&other) noexcept;
        ~Ticket() { release(); }
        Ticket(const Ticket &) = delete;
        Ticket &operator=(const Ticket &) = delete;

        bool valid() const { return gate_ != nullptr; }
        void release();

    private:
        friend class CountingGate;
        Ticket(CountingGate *gate, size_t amount) : gate_(gate), amount_(amount) {}
        CountingGate *gate_ = nullptr;
        size_t amount_ = 0;
    };

    explicit CountingGate(size_t capacity) : capacity_(capacity) {}

    // Waits until amount fits beside what others hold, at most `wait`. An
    // invalid ticket when the time ran out or amount exceeds the capacity.
    Ticket acquire(size_t amount, std::chrono::milliseconds wait);

    size_t capacity() const { return capacity_; }
    size_t in_use() const;

private:
    void give_back(size_t amount);

    const size_t capacity_;
    mutable std::mutex mutex_;
    std::condition_variable freed_;
    size_t used_ = 0;
};

}  // namespace studio
}  // namespace ostrel_tool
