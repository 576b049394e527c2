// The data source's only door, DS_Entry. Every triplet but the identity
// request runs on the data source's loop thread.
#include "ds/DataSource.h"

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
    // Outermost: a triplet never starts while the engine is in the middle
    // of another operation that waits for the scan thread. A client calling
    // back from inside our callback on the loop thread runs inline.
    return callOn(
        DataSourceThreads::instance().loop(),
        [&] { return DataSourceEngine::processOperationTriplet(origin, group, type, message, data); },
        RunLoop::Nesting::Outermost);
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
