// The data source's only door, DS_Entry, and the loop thread that every
// triplet but the identity request runs on.
#include "ds/DataSource.h"

#include <memory>
#include <mutex>

#include "ds/DSIdentity.h"
#include "ds/DataSourceEngine.h"
#include "platform/RunLoop.h"

namespace zentary {

using namespace twain;

namespace {

// The loop thread starts with the first triplet and stops once no engine is
// left; the library's destructor stops it for good, so no thread of ours
// outlives the code it runs.
class LoopOwner {
public:
    std::shared_ptr<LoopThread> acquire()
    {
        std::lock_guard<std::mutex> guard(mMutex);
        if (!mLoop) mLoop = std::make_shared<LoopThread>("zentary-ds");
        return mLoop;
    }

    // Drops the loop when it is idle, unless we are on it (a thread cannot
    // join itself; the next call from a client thread or unloading will).
    void releaseIfIdle(const std::shared_ptr<LoopThread>& loop)
    {
        if (loop->loop().isCurrent() || DataSourceEngine::exists()) return;
        std::lock_guard<std::mutex> guard(mMutex);
        if (mLoop == loop) mLoop.reset();
    }

    ~LoopOwner()
    {
        std::shared_ptr<LoopThread> loop;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            loop = std::move(mLoop);
        }
        if (!loop) return;
        try {
            callOn(loop->loop(), [] { DataSourceEngine::destroyOrphan(); });
        } catch (...) {
        }
    }

private:
    std::mutex mMutex;
    std::shared_ptr<LoopThread> mLoop;
};

LoopOwner gLoopOwner;

}  // namespace

TW_UINT16 entry(TW_IDENTITY* origin, TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data)
{
    if (group == DG_CONTROL && type == DAT_IDENTITY && message == MSG_GET) {
        if (data) fillIdentity(*static_cast<TW_IDENTITY*>(data));
        return TWRC_SUCCESS;
    }
    std::shared_ptr<LoopThread> loop = gLoopOwner.acquire();
    TW_UINT16 rc = callOn(loop->loop(), [&] {
        return DataSourceEngine::processOperationTriplet(origin, group, type, message, data);
    });
    gLoopOwner.releaseIfIdle(loop);
    return rc;
}

}  // namespace zentary

extern "C" __attribute__((visibility("default"))) TW_UINT16 DS_Entry(TW_IDENTITY* pOrigin, TW_UINT32 DG,
                                                                     TW_UINT16 DAT, TW_UINT16 MSG, TW_MEMREF pData)
{
    // Nothing may escape into the client: not an exception, not a failure
    // to start our thread.
    try {
        return zentary::entry(pOrigin, DG, DAT, MSG, pData);
    } catch (...) {
        return twain::TWRC_FAILURE;
    }
}
