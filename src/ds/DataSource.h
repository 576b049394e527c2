// DS_Entry: the data source's only exported function.
#pragma once

#include "twain/twain.h"

extern "C" TW_UINT16 DS_Entry(TW_IDENTITY* pOrigin, TW_UINT32 DG, TW_UINT16 DAT, TW_UINT16 MSG, TW_MEMREF pData);

namespace zentary {

// DS_Entry without the exception guard.
TW_UINT16 entry(TW_IDENTITY* origin, TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data);

}  // namespace zentary
