#include "ds/DataSourceThreads.h"

#include "ds/DataSourceEngine.h"
#include "platform/NotificationCenter.h"
#include "twain/Manager.h"

namespace zentary {

namespace {
DataSourceThreads gThreads;
}

DataSourceThreads& DataSourceThreads::instance()
{
    return gThreads;
}

DataSourceThreads::DataSourceThreads()
{
    // Statics are destroyed in the reverse order of their construction:
    // touching the notification centre and the manager link here makes them
    // outlive us, and so the engine and the messenger that we stop on
    // unloading.
    NotificationCenter::defaultCenter();
    Manager::hasEntryPoint();
}

RunLoop& DataSourceThreads::loop()
{
    std::lock_guard<std::mutex> guard(mMutex);
    if (!mLoop) mLoop = std::make_unique<LoopThread>("zentary-ds");
    return mLoop->loop();
}

RunLoop& DataSourceThreads::messenger()
{
    std::lock_guard<std::mutex> guard(mMutex);
    if (!mMessenger) mMessenger = std::make_unique<LoopThread>("zentary-notify");
    return mMessenger->loop();
}

DataSourceThreads::~DataSourceThreads()
{
    std::unique_ptr<LoopThread> loop;
    std::unique_ptr<LoopThread> messenger;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        loop = std::move(mLoop);
        messenger = std::move(mMessenger);
    }
    // A client that unloads us with the source still open: the engine goes
    // on its own thread, as on MSG_CLOSEDS.
    if (loop) {
        try {
            callOn(loop->loop(), [] { DataSourceEngine::destroyOrphan(); });
        } catch (...) {
        }
    } else {
        DataSourceEngine::destroyOrphan();
    }
    loop.reset();
    messenger.reset();
}

}  // namespace zentary
