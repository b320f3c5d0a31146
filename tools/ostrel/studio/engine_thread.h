// The one thread on which the studio calls the library.
//
// The library keeps the last picture it detected on per calling thread: its
// colour planes at full size (3 bytes a pixel, 72 MB for a 24-megapixel
// picture) and its feature map, for as long as the thread lives. Calls made
// from the HTTP server's workers would leave such a record on every worker
// that ever asked for a detection. Made from this one thread, there is one
// record, and a picture detected again (the sensitivity slider) finds its
// features whichever worker serves the request. The workspace runs every
// operation that touches its engine here, one at a time.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <type_traits>

namespace ostrel_tool {
namespace studio {

class EngineThread {
public:
    EngineThread();
    // Finishes the work already handed over, then ends the thread.
    ~EngineThread();
    EngineThread(const EngineThread &) = delete;
    EngineThread &operator=(const EngineThread &) = delete;

    // Runs work on the engine thread and waits for it; returns its result
    // or rethrows its exception. Called on the engine thread itself (work
    // that runs more work), it runs at once.
    template <class Work>
    auto run(Work &&work) -> std::invoke_result_t<Work &> {
        using Result = std::invoke_result_t<Work &>;
        if (std::this_thread::get_id() == thread_.get_id()) {
            return work();
        }
        std::packaged_task<Result()> task(std::ref(work));
        std::future<Result> result = task.get_future();
        post([&task] { task(); });
        return result.get();
    }

private:
    void post(std::function<void()> job);
    void loop();

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> jobs_;
    bool ending_ = false;
    std::thread thread_;  // last: started once the members above exist
};

}  // namespace studio
}  // namespace ostrel_tool
