// The threads of a loaded data source: the loop thread on which every
// triplet, timer and notification runs, and the messenger thread that
// carries callbacks to the client. Both start on first use and stop only
// when the library is unloaded, so no thread of ours outlives the code it
// runs, and none is ever stopped from a call that runs on it.
#pragma once

#include <memory>
#include <mutex>

#include "platform/RunLoop.h"

namespace zentary {

class DataSourceThreads {
public:
    static DataSourceThreads& instance();

    // The loop thread. It is not stopped when the last engine goes: a
    // triplet that closes the source may itself run on it (a client calling
    // back from inside our callback), and another client thread may be
    // opening a new engine there at the same moment. Unloading is the one
    // time when neither can happen.
    RunLoop& loop();
    // The thread that sends MSG_XFERREADY and MSG_CLOSEDSREQ.
    RunLoop& messenger();

    DataSourceThreads();
    ~DataSourceThreads();
    DataSourceThreads(const DataSourceThreads&) = delete;
    DataSourceThreads& operator=(const DataSourceThreads&) = delete;

private:
    std::mutex mMutex;
    std::unique_ptr<LoopThread> mLoop;
    std::unique_ptr<LoopThread> mMessenger;
};

}  // namespace zentary
