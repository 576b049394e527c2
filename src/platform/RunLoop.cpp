#include "platform/RunLoop.h"

#include <pthread.h>

namespace zentary {

namespace {
thread_local RunLoop* tCurrent = nullptr;
}

bool RunLoop::post(Task task, Nesting nesting)
{
    {
        std::lock_guard<std::mutex> guard(mMutex);
        if (mStopped) return false;
        mTasks.push_back({std::move(task), nesting});
        mChanges.fetch_add(1, std::memory_order_release);
    }
    mWake.notify_all();
    return true;
}

RunLoop::TimerId RunLoop::schedule(std::chrono::milliseconds delay, Task task, std::chrono::milliseconds repeat,
                                   Nesting nesting)
{
    TimerId id;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        id = mNextTimer++;
        if (mStopped) return id;
        mTimers.emplace(id, Timer{Clock::now() + delay, repeat, std::make_shared<Task>(std::move(task)), nesting});
        mChanges.fetch_add(1, std::memory_order_release);
    }
    mWake.notify_all();
    return id;
}

bool RunLoop::cancel(TimerId id)
{
    std::lock_guard<std::mutex> guard(mMutex);
    return mTimers.erase(id) > 0;
}

std::optional<RunLoop::Clock::time_point> RunLoop::nextDue() const
{
    std::optional<Clock::time_point> due;
    for (const auto& [id, timer] : mTimers)
        if (runnable(timer.nesting) && (!due || timer.due < *due)) due = timer.due;
    return due;
}

bool RunLoop::runOne(std::unique_lock<std::mutex>& lock)
{
    for (auto it = mTasks.begin(); it != mTasks.end(); ++it) {
        if (!runnable(it->nesting)) continue;
        Task task = std::move(it->task);
        mTasks.erase(it);
        lock.unlock();
        task();
        lock.lock();
        return true;
    }
    // The most overdue timer first, whatever order they were made in.
    auto now = Clock::now();
    auto next = mTimers.end();
    for (auto it = mTimers.begin(); it != mTimers.end(); ++it)
        if (it->second.due <= now && runnable(it->second.nesting) &&
            (next == mTimers.end() || it->second.due < next->second.due))
            next = it;
    if (next == mTimers.end()) return false;
    std::shared_ptr<Task> task = next->second.task;
    if (next->second.repeat.count() > 0)
        next->second.due = now + next->second.repeat;
    else
        mTimers.erase(next);
    lock.unlock();
    (*task)();
    lock.lock();
    return true;
}

bool RunLoop::runUntil(const std::function<bool()>& done, Clock::time_point deadline)
{
    RunLoop* previous = tCurrent;
    tCurrent = this;
    std::unique_lock<std::mutex> lock(mMutex);
    ++mDepth;
    bool finished = false;
    for (;;) {
        lock.unlock();
        finished = done();
        lock.lock();
        if (finished || Clock::now() >= deadline) break;
        if (runOne(lock)) continue;
        if (mStopped && mTasks.empty()) break;
        auto wakeAt = deadline;
        if (auto due = nextDue(); due && *due < wakeAt) wakeAt = *due;
        if (wakeAt - Clock::now() > kSpinBeforeSleep) {
            // The next call usually follows within microseconds: watch for
            // it before paying for a sleep and a wake-up.
            const std::uint64_t seen = mChanges.load(std::memory_order_acquire);
            lock.unlock();
            const bool changed = spinFor([&] { return mChanges.load(std::memory_order_acquire) != seen; });
            lock.lock();
            // Changes are counted under the lock: one made after the watch
            // but before the lock was retaken is seen here, not slept through.
            if (changed || mChanges.load(std::memory_order_acquire) != seen) continue;
        }
        if (wakeAt == Clock::time_point::max())
            mWake.wait(lock);
        else
            mWake.wait_until(lock, wakeAt);
    }
    --mDepth;
    tCurrent = previous;
    return finished;
}

void RunLoop::run()
{
    runUntil([] { return false; }, Clock::time_point::max());
}

void RunLoop::runFor(std::chrono::milliseconds duration)
{
    runUntil([] { return false; }, Clock::now() + duration);
}

void RunLoop::stop()
{
    {
        std::lock_guard<std::mutex> guard(mMutex);
        mStopped = true;
        mTimers.clear();
        mChanges.fetch_add(1, std::memory_order_release);
    }
    mWake.notify_all();
}

bool RunLoop::isCurrent() const
{
    return tCurrent == this;
}

RunLoop* RunLoop::current()
{
    return tCurrent;
}

LoopThread::LoopThread(std::string name)
    : mThread([this, name = std::move(name)] {
          pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
          mLoop.run();
      })
{
}

LoopThread::~LoopThread()
{
    mLoop.stop();
    if (mThread.joinable()) mThread.join();
}

}  // namespace zentary
