#include "studio/engine_thread.h"

namespace ostrel_tool {
namespace studio {

EngineThread::EngineThread() : thread_([this] { loop(); }) {}

EngineThread::~EngineThread() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
    }
    ready_.notify_one();
    thread_.join();
}

void EngineThread::post(std::function<void()> job) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
}

void EngineThread::loop() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
            if (jobs_.empty()) {
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();  // a packaged task: its exception goes to the waiting caller
    }
}

}  // namespace studio
}  // namespace ostrel_tool
