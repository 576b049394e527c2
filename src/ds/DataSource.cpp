// The data source's only door, DS_Entry. Every triplet but the identity
// request runs on the data source's loop thread.
#include "ds/DataSource.h"

#include <memory>

#include "ds/DSIdentity.h"
#include "ds/DataSourceEngine.h"
#include "ds/DataSourceThreads.h"

namespace zentary {

using namespace twain;

TW_UINT16 entry(TW_IDENTITY* origin, TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data)
{
    if (group == DG_CONTROL && type == DAT_IDENTITY && message == MSG_GET) {
        if (data) fillIdentity(*static_cast<TW_IDENTITY*>(data));
        return TWRC_SUCCESS;
    }
    DataSourceThreads& threads = DataSourceThreads::instance();
    std::shared_ptr<LoopThread> loop = threads.acquireLoop();
    // Outermost: a triplet never starts while the engine is in the middle
    // of another operation that waits for the scan thread.
    TW_UINT16 rc = callOn(
        loop->loop(),
        [&] { return DataSourceEngine::processOperationTriplet(origin, group, type, message, data); },
        RunLoop::Nesting::Outermost);
    threads.releaseLoopIfIdle(loop);
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
