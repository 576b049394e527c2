#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/RunLoop.h"
#include <gtest/gtest.h>

namespace zentary {
namespace {

using namespace std::chrono_literals;

// The deadline only keeps a broken loop from hanging the suite.
bool runUntil(RunLoop& loop, const std::function<bool()>& done)
{
    return loop.runUntil(done, RunLoop::Clock::now() + 10s);
}

TEST(RunLoop, TimersFireInDueOrderAndCancelledOnesNever)
{
    RunLoop loop;
    std::vector<int> fired;
    loop.schedule(30ms, [&] { fired.push_back(30); });
    loop.schedule(10ms, [&] { fired.push_back(10); });
    auto cancelled = loop.schedule(20ms, [&] { fired.push_back(20); });
    auto oneShot = loop.schedule(0ms, [&] { fired.push_back(0); });
    EXPECT_TRUE(loop.cancel(cancelled));
    EXPECT_FALSE(loop.cancel(cancelled));
    ASSERT_TRUE(runUntil(loop, [&] { return fired.size() >= 3; }));
    loop.runFor(40ms);  // the cancelled timer's time passes as well
    EXPECT_EQ(fired, (std::vector<int>{0, 10, 30}));
    EXPECT_FALSE(loop.cancel(oneShot));  // already fired
}

// Two timers that both became due while the loop was busy must still run in
// the order of their due times, as a platform run loop does.
TEST(RunLoop, OverdueTimersRunInDueOrder)
{
    RunLoop loop;
    std::vector<int> fired;
    loop.schedule(50ms, [&] { fired.push_back(50); });
    loop.schedule(0ms, [&] { fired.push_back(0); });
    std::this_thread::sleep_for(80ms);  // the loop is "busy": both are overdue
    ASSERT_TRUE(runUntil(loop, [&] { return fired.size() == 2; }));
    EXPECT_EQ(fired, (std::vector<int>{0, 50}));
}

TEST(RunLoop, RepeatingTimerRunsUntilCancelledFromItsOwnTask)
{
    RunLoop loop;
    int runs = 0;
    RunLoop::TimerId id = 0;
    id = loop.schedule(
        1ms,
        [&] {
            if (++runs == 3) {
                EXPECT_TRUE(loop.cancel(id));
            }
        },
        2ms);
    ASSERT_TRUE(runUntil(loop, [&] { return runs == 3; }));
    loop.runFor(20ms);
    EXPECT_EQ(runs, 3);
}

TEST(RunLoop, PostsFromOtherThreadsRunOnTheLoopInOrder)
{
    LoopThread worker("test-loop");
    std::vector<std::vector<int>> seen(4);  // touched on the loop thread only
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t)
        posters.emplace_back([&, t] {
            for (int i = 0; i < 1000; ++i)
                worker.loop().post([&, t, i] {
                    if (std::this_thread::get_id() == worker.id()) seen[t].push_back(i);
                });
        });
    for (auto& poster : posters) poster.join();
    // callOn queues behind every post above; inside it, a call back to the
    // same loop must run inline rather than wait for itself.
    auto copy = callOn(worker.loop(), [&] { return callOn(worker.loop(), [&] { return seen; }); });
    for (const auto& s : copy) {
        ASSERT_EQ(s.size(), 1000u);
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(s[i], i);
    }
}

TEST(RunLoop, CallOnBothWaysBetweenTwoLoopsDoesNotDeadlock)
{
    LoopThread engine("engine"), scan("scan");
    // engine -> scan -> engine -> scan: each waiting side serves the call that
    // comes back to it.
    int value = callOn(engine.loop(), [&] {
        return 1 + callOn(scan.loop(), [&] {
                   return 10 + callOn(engine.loop(), [&] {
                              EXPECT_EQ(std::this_thread::get_id(), engine.id());
                              return 100 + callOn(scan.loop(), [&] { return 1000; });
                          });
               });
    });
    EXPECT_EQ(value, 1111);

    // Both loops calling each other at the same moment, many times over.
    std::atomic<int> count{0};
    auto ping = [&](RunLoop& from, RunLoop& to) {
        for (int i = 0; i < 200; ++i)
            callOn(from, [&] { callOn(to, [&] { ++count; }); });
    };
    std::thread a([&] { ping(engine.loop(), scan.loop()); });
    std::thread b([&] { ping(scan.loop(), engine.loop()); });
    a.join();
    b.join();
    EXPECT_EQ(count, 400);
}

TEST(RunLoop, CallOnPropagatesExceptions)
{
    LoopThread worker("test-loop");
    try {
        callOn(worker.loop(), []() -> int { throw std::runtime_error("scanner gone"); });
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "scanner gone");
    }
    EXPECT_EQ(callOn(worker.loop(), [] { return 5; }), 5);  // the loop survived
}

TEST(RunLoop, StoppedLoopRefusesWork)
{
    RunLoop loop;
    bool ran = false;
    loop.schedule(0ms, [&] { ran = true; });
    ASSERT_TRUE(loop.post([] {}));
    loop.stop();
    EXPECT_FALSE(loop.post([&] { ran = true; }));
    EXPECT_THROW(callOn(loop, [] { return 1; }), LoopStopped);
    loop.run();  // returns at once: only the task queued before stop() is left
    EXPECT_FALSE(ran);
}

// A thread waiting in callOn must not return before the call ran, even when
// its own loop is stopped meanwhile (LoopThread's destructor does that).
TEST(RunLoop, CallOnWaitsEvenWhenTheCallersLoopStops)
{
    LoopThread scan("scan");
    std::promise<void> started, release;
    auto releaseFuture = release.get_future().share();
    std::atomic<bool> ran{false};
    std::promise<bool> ranWhenReturned;
    {
        LoopThread engine("engine");
        engine.loop().post([&] {
            callOn(scan.loop(), [&] {
                started.set_value();
                releaseFuture.wait();
                ran = true;
            });
            ranWhenReturned.set_value(ran);
        });
        started.get_future().wait();
        engine.loop().stop();
        std::this_thread::sleep_for(50ms);  // let the engine loop see the stop
        release.set_value();
    }
    EXPECT_TRUE(ranWhenReturned.get_future().get());
}

// While a task waits in callOn, its loop serves calls coming back (or the two
// threads would deadlock) but starts no Outermost task or timer: those wait
// until the waiting task is done, so they never see it half finished.
TEST(RunLoop, OutermostWorkWaitsForTheWaitingTaskToFinish)
{
    LoopThread engine("engine"), scan("scan");
    std::vector<std::string> order;  // touched on the engine thread only
    std::promise<void> finished;
    engine.loop().post([&] {
        order.push_back("begin");
        engine.loop().post([&] { order.push_back("outermost task"); }, RunLoop::Nesting::Outermost);
        engine.loop().schedule(0ms, [&] { order.push_back("outermost timer"); }, 0ms, RunLoop::Nesting::Outermost);
        callOn(scan.loop(), [&] {
            // The scan thread calls back while the engine waits for it.
            callOn(engine.loop(), [&] { order.push_back("call back"); });
            std::this_thread::sleep_for(20ms);
        });
        order.push_back("end");
    });
    engine.loop().schedule(
        100ms, [&] { finished.set_value(); }, 0ms, RunLoop::Nesting::Outermost);
    ASSERT_EQ(finished.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(order, (std::vector<std::string>{"begin", "call back", "end", "outermost task", "outermost timer"}));
}

}  // namespace
}  // namespace zentary
