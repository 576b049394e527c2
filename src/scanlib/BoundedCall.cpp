#include "scanlib/BoundedCall.h"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace zentary {

bool callWithin(RunLoop& target, std::chrono::milliseconds bound, std::function<void()> fn)
{
    if (target.isCurrent()) {
        fn();
        return true;
    }
    struct Shared {
        std::mutex mutex;
        std::condition_variable cv;
        bool done = false;
        // The loop waiting for us, while it waits. It is cleared under the
        // mutex before the waiter returns, so the wake-up below never reaches
        // a loop that has gone.
        RunLoop* waiter = nullptr;
    };
    auto shared = std::make_shared<Shared>();
    RunLoop* own = RunLoop::current();
    shared->waiter = own;
    bool queued = target.post([shared, fn = std::move(fn)] {
        fn();
        std::lock_guard<std::mutex> guard(shared->mutex);
        shared->done = true;
        shared->cv.notify_all();
        if (shared->waiter) shared->waiter->post([] {});
    });
    if (!queued) return false;
    auto deadline = RunLoop::Clock::now() + bound;
    bool done;
    if (own) {
        done = own->runUntil(
            [&] {
                std::lock_guard<std::mutex> guard(shared->mutex);
                return shared->done;
            },
            deadline);
    } else {
        std::unique_lock<std::mutex> lock(shared->mutex);
        done = shared->cv.wait_until(lock, deadline, [&] { return shared->done; });
    }
    std::lock_guard<std::mutex> guard(shared->mutex);
    shared->waiter = nullptr;
    return done || shared->done;
}

}  // namespace zentary
