// Event loops for the data source's threads.
//
// A client of a TWAIN data source on Linux has no event loop that we could
// borrow, so the data source runs its own: one loop thread for all engine
// state, and one loop per scan thread. A RunLoop is a queue of tasks and
// timers drained by whichever thread runs it; waiting on another loop
// (callOn) keeps draining the caller's own loop, so two loops that call each
// other synchronously never deadlock.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace zentary {

class RunLoop {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;
    using TimerId = std::uint64_t;

    // Where a task may run. A thread that waits in callOn keeps its loop
    // running, nested inside whatever task is waiting; most tasks may run
    // there (that is what keeps two loops calling each other from
    // deadlocking), but some must not start while another of their kind is
    // half done: the client's triplets and the engine's timers, for example,
    // which could close the very session whose call is waiting. Those are
    // Outermost: they run only when the loop is not nested.
    enum class Nesting { Anywhere, Outermost };

    RunLoop() = default;
    ~RunLoop() = default;
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    // Queues a task; safe from any thread. Returns false, dropping the task,
    // once stop() was called: nobody would ever run it.
    bool post(Task task, Nesting nesting = Nesting::Anywhere);

    // Runs `task` after `delay`, and again every `repeat` when that is not
    // zero. Returns an id for cancel(); ids are never reused.
    TimerId schedule(std::chrono::milliseconds delay, Task task,
                     std::chrono::milliseconds repeat = std::chrono::milliseconds::zero(),
                     Nesting nesting = Nesting::Anywhere);
    // Cancels a timer. Returns false when it already fired (one-shot) or was
    // cancelled. A timer cancelled from another thread while its task runs
    // finishes that run.
    bool cancel(TimerId id);

    // Drains tasks and timers on the calling thread until stop().
    void run();
    // Drains tasks and timers until `done()` is true or `deadline` passes.
    // Returns done()'s last answer. Nested calls are allowed.
    bool runUntil(const std::function<bool()>& done, Clock::time_point deadline);
    // Drains for `duration`, the equivalent of running a run loop for a while.
    void runFor(std::chrono::milliseconds duration);
    // Makes run() return after it has run the tasks already queued; safe from
    // any thread. Timers still pending are dropped.
    void stop();

    // True when the calling thread is inside run()/runUntil() of this loop.
    bool isCurrent() const;
    // The loop the calling thread is running, or null.
    static RunLoop* current();

private:
    struct Timer {
        Clock::time_point due;
        std::chrono::milliseconds repeat;
        std::shared_ptr<Task> task;
        Nesting nesting;
    };
    struct Queued {
        Task task;
        Nesting nesting;
    };
    bool runnable(Nesting nesting) const { return nesting == Nesting::Anywhere || mDepth <= 1; }
    // Runs at most one due item; returns false when there was nothing to do.
    bool runOne(std::unique_lock<std::mutex>& lock);
    std::optional<Clock::time_point> nextDue() const;

    mutable std::mutex mMutex;
    std::condition_variable mWake;
    std::atomic<std::uint64_t> mChanges{0};  // bumped by post, schedule and stop
    std::deque<Queued> mTasks;
    int mDepth = 0;  // nesting of runUntil on the thread running this loop
    std::map<TimerId, Timer> mTimers;
    TimerId mNextTimer = 1;
    bool mStopped = false;
};

// A thread that runs one RunLoop from construction to destruction.
class LoopThread {
public:
    explicit LoopThread(std::string name);
    ~LoopThread();  // stops the loop, drains nothing further, joins
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    RunLoop& loop() { return mLoop; }
    std::thread::id id() const { return mThread.get_id(); }

private:
    RunLoop mLoop;
    std::thread mThread;
};

// Waking a sleeping thread costs tens of microseconds on an idle machine,
// more than most calls between our threads take. A thread about to sleep
// for an answer, or for the next call, first watches for it this long.
inline constexpr std::chrono::microseconds kSpinBeforeSleep{50};

// Calls `ready()` until it is true or kSpinBeforeSleep has passed; its
// last answer.
template <typename Ready>
bool spinFor(Ready&& ready)
{
    const auto until = std::chrono::steady_clock::now() + kSpinBeforeSleep;
    for (;;) {
        if (ready()) return true;
        if (std::chrono::steady_clock::now() >= until) return false;
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
}

// Thrown by callOn when the target loop has stopped and can run nothing.
struct LoopStopped : std::exception {
    const char* what() const noexcept override { return "run loop stopped"; }
};

// Calls `fn` on the thread running `target` and waits for its result. Runs
// inline when the caller already is that thread. While waiting, the caller's
// own loop (if it runs one) keeps serving calls that come the other way.
// An exception thrown by `fn` is rethrown in the caller.
template <typename Fn>
auto callOn(RunLoop& target, Fn&& fn, RunLoop::Nesting nesting = RunLoop::Nesting::Anywhere)
    -> std::invoke_result_t<Fn&>
{
    using R = std::invoke_result_t<Fn&>;
    if (target.isCurrent()) return fn();

    struct Shared {
        std::mutex mutex;
        std::condition_variable cv;
        std::atomic<bool> done{false};
        std::exception_ptr error;
        std::conditional_t<std::is_void_v<R>, char, std::optional<R>> value{};
    };
    auto shared = std::make_shared<Shared>();
    RunLoop* own = RunLoop::current();
    bool queued = target.post([shared, &fn, own] {
        try {
            if constexpr (std::is_void_v<R>) fn();
            else shared->value.emplace(fn());
        } catch (...) {
            shared->error = std::current_exception();
        }
        {
            std::lock_guard<std::mutex> guard(shared->mutex);
            shared->done = true;
        }
        shared->cv.notify_all();
        if (own) own->post([] {});  // wake the waiting loop
    }, nesting);
    if (!queued) throw LoopStopped();
    if (own) {
        // `done` is set after the value and the error: seeing it is enough.
        own->runUntil([&] { return shared->done.load(std::memory_order_acquire); },
                      RunLoop::Clock::time_point::max());
    }
    // The caller's loop may have stopped before the answer came: the call
    // still has to finish before `fn`, which it refers to, goes away.
    if (!own) spinFor([&] { return shared->done.load(std::memory_order_acquire); });
    {
        std::unique_lock<std::mutex> lock(shared->mutex);
        shared->cv.wait(lock, [&] { return shared->done.load(); });
    }
    if (shared->error) std::rethrow_exception(shared->error);
    if constexpr (!std::is_void_v<R>) return std::move(*shared->value);
}

}  // namespace zentary
