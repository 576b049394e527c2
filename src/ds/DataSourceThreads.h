// The threads of a loaded data source: the loop thread on which every
// triplet, timer and notification runs, and the messenger thread that
// carries callbacks to the client. Both stop, at the latest, when the
// library is unloaded, so no thread of ours outlives the code it runs.
#pragma once

#include <memory>
#include <mutex>

#include "platform/RunLoop.h"

namespace zentary {

class DataSourceThreads {
public:
    static DataSourceThreads& instance();

    // The loop thread, started on first use.
    std::shared_ptr<LoopThread> acquireLoop();
    // Stops the loop thread once no engine is left, unless called on it (a
    // thread cannot join itself; the next call from a client thread, or
    // unloading, will).
    void releaseLoopIfIdle(const std::shared_ptr<LoopThread>& loop);
    // The thread that sends MSG_XFERREADY and MSG_CLOSEDSREQ.
    RunLoop& messenger();

    DataSourceThreads();
    ~DataSourceThreads();
    DataSourceThreads(const DataSourceThreads&) = delete;
    DataSourceThreads& operator=(const DataSourceThreads&) = delete;

private:
    std::mutex mMutex;
    std::shared_ptr<LoopThread> mLoop;
    std::unique_ptr<LoopThread> mMessenger;
};

}  // namespace zentary
