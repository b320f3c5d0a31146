#include "studio/counting_gate.h"

namespace ostrel_tool {
namespace studio {

CountingGate::Ticket &CountingGate::Ticket::operator=(Ticket &&other) noexcept {
    if (this != &other) {
        release();
        gate_ = other.gate_;
        amount_ = other.amount_;
        other.gate_ = nullptr;
    }
    return *this;
}

void CountingGate::Ticket::release() {
    if (gate_ != nullptr) {
        gate_->give_back(amount_);
        gate_ = nullptr;
    }
}

CountingGate::Ticket CountingGate::acquire(size_t amount, std::chrono::milliseconds wait) {
    if (amount > capacity_) {
        return {};
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (!freed_.wait_for(lock, wait, [&] { return used_ + amount <= capacity_; })) {
        return {};
    }
    used_ += amount;
    return Ticket(this, amount);
}

size_t CountingGate::in_use() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return used_;
}

void CountingGate::give_back(size_t amount) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        used_ -= amount;
    }
    freed_.notify_all();
}

}  // namespace studio
}  // namespace ostrel_tool
