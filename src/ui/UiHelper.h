// The window helper process and the socket to it.
//
// The data source is loaded into somebody else's process and must not bring
// a window toolkit with it, so windows are drawn by `zentary-ui`, started
// with posix_spawn the first time something is shown. The helper's end of a
// socketpair is its fd 3; ours is close-on-exec. A thread of ours does all
// the socket I/O so that a slow or hung helper never blocks the engine's
// loop: sends are queued, and what the helper says is posted to the loop.
// A helper that dies is started again, with every window it had on screen
// shown again, a bounded number of times; after that the helper counts as
// failed and the failure handler is told once.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Files.h"
#include "platform/RunLoop.h"
#include "ui/UiProtocol.h"

namespace zentary {

using files::UniqueFd;

class UiHelper {
public:
    struct Options {
        std::string executable;              // <bundle>/Resources/zentary-ui
        std::vector<std::string> arguments;  // extra arguments, e.g. "--test"
        int maxRestarts = 2;
        // Output queued for a helper that does not read; past this it is
        // taken as hung and killed.
        std::size_t maxQueuedBytes = 1024 * 1024;

        // The helper as shipped: Resources/zentary-ui of the bundle.
        static Options forResources(const std::string& resourcePath)
        {
            Options options;
            options.executable = resourcePath + "/zentary-ui";
            return options;
        }
    };
    using MessageHandler = std::function<void(const UiMessage&)>;
    using LogHandler = std::function<void(const std::string&)>;

    UiHelper(RunLoop& loop, Options options);
    // Closes the socket, gives the helper a moment to leave, kills it if it
    // does not, and reaps it.
    ~UiHelper();
    UiHelper(const UiHelper&) = delete;
    UiHelper& operator=(const UiHelper&) = delete;

    // Called on the loop for every well-formed message from the helper.
    void setMessageHandler(MessageHandler handler);
    // Called on the loop once, when the helper is given up.
    void setFailureHandler(std::function<void()> handler);
    // Diagnostics (dropped lines, restarts); default: stderr.
    void setLogHandler(LogHandler handler);

    // Queues a message, starting the helper when it is not running. Messages
    // that put a window on screen are remembered until the window is closed,
    // to show it again in a restarted helper. False once the helper failed.
    bool send(const UiMessage& message);

    bool failed() const { return mFailed; }
    pid_t pid() const;
    // Starts so far, the first one included.
    int starts() const { return mStarts; }

private:
    struct Child;
    bool start();
    void childDied(const std::shared_ptr<Child>& child);
    void remember(const UiMessage& message);
    void giveUp();
    void log(const std::string& text);

    RunLoop& mLoop;
    Options mOptions;
    MessageHandler mHandler;
    std::function<void()> mFailureHandler;
    LogHandler mLog;
    std::shared_ptr<Child> mChild;
    // Windows on screen, by name, in the order they were shown.
    std::vector<std::pair<std::string, UiMessage>> mShown;
    int mStarts = 0;
    bool mFailed = false;
    // Lets tasks posted by the I/O thread find out that we are gone.
    std::shared_ptr<std::atomic<UiHelper*>> mSelf;
};

}  // namespace zentary
