// Building and reading the TWAIN records a client sends, for tests that
// drive the loaded data source through the minimal manager.
#pragma once

#include <cstdlib>
#include <cstring>
#include <optional>

#include "DataSourceManager.h"
#include "support/TestEnvironment.h"
#include "twain/twain.h"

namespace zentary::test {

inline TW_UINT32 fix32Item(TW_INT16 whole, TW_UINT16 frac = 0)
{
    TW_FIX32 fix{whole, frac};
    TW_UINT32 item = 0;
    std::memcpy(&item, &fix, sizeof(fix));
    return item;
}

// MSG_SET of a one-value container; returns the return code.
inline TW_UINT16 setOneValue(DataSourceManager& source, TW_UINT16 cap, TW_UINT16 itemType, TW_UINT32 item)
{
    auto* one = static_cast<TW_ONEVALUE*>(std::calloc(1, sizeof(TW_ONEVALUE)));
    one->ItemType = itemType;
    one->Item = item;
    TW_CAPABILITY capability{cap, twain::TWON_ONEVALUE, one};
    TW_UINT16 rc = source.call(twain::DG_CONTROL, twain::DAT_CAPABILITY, twain::MSG_SET, &capability);
    std::free(one);
    return rc;
}

// MSG_GETCURRENT answered as a one-value: its item, or nothing.
inline std::optional<TW_UINT32> currentOneValue(DataSourceManager& source, TW_UINT16 cap)
{
    TW_CAPABILITY capability{cap, 0, nullptr};
    if (source.call(twain::DG_CONTROL, twain::DAT_CAPABILITY, twain::MSG_GETCURRENT, &capability) !=
        twain::TWRC_SUCCESS)
        return std::nullopt;
    std::optional<TW_UINT32> item;
    if (capability.ConType == twain::TWON_ONEVALUE && capability.hContainer)
        item = test::value(static_cast<TW_ONEVALUE*>(capability.hContainer)->Item);
    std::free(capability.hContainer);  // the manager's allocator is calloc
    return item;
}

// The condition code of a call that had to fail; TWRC_SUCCESS's 0 stands
// for TWCC_SUCCESS, so a call that succeeded reads as 0xFFFF.
inline TW_UINT16 failCode(DataSourceManager& source, TW_UINT16 rc)
{
    return rc == twain::TWRC_FAILURE ? source.conditionCode() : 0xFFFF;
}

inline TW_UINT16 enable(DataSourceManager& source, bool showUI)
{
    TW_USERINTERFACE ui{static_cast<TW_BOOL>(showUI ? 1 : 0), 1, nullptr};
    return source.call(twain::DG_CONTROL, twain::DAT_USERINTERFACE, twain::MSG_ENABLEDS, &ui);
}

inline TW_UINT16 disable(DataSourceManager& source)
{
    TW_USERINTERFACE ui{0, 0, nullptr};
    return source.call(twain::DG_CONTROL, twain::DAT_USERINTERFACE, twain::MSG_DISABLEDS, &ui);
}

inline TW_UINT16 pending(DataSourceManager& source, TW_UINT16 message, TW_UINT16* count = nullptr)
{
    TW_PENDINGXFERS transfers{0xBEEF, {0}};
    TW_UINT16 rc = source.call(twain::DG_CONTROL, twain::DAT_PENDINGXFERS, message, &transfers);
    if (count) *count = transfers.Count;
    return rc;
}

}  // namespace zentary::test
