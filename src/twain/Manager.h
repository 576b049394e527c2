// The data source's link to the TWAIN Data Source Manager: the manager's
// entry point for callbacks to the client, and its memory functions for
// every container and handle that the client receives.
//
// The client hands us DAT_ENTRYPOINT; without it we fall back to a
// DSM_Entry found in the process, and to our own handle allocator.
#pragma once

#include <cstddef>
#include <optional>

#include "twain/twain.h"

namespace zentary {

class Manager {
public:
    // DG_CONTROL/DAT_ENTRYPOINT/MSG_SET. Returns false when the record is
    // unusable (null, or a Size smaller than the structure).
    static bool setEntryPoint(const TW_ENTRYPOINT* entry);
    // Forgets the entry point (the manager is gone or the library unloads).
    static void reset();
    static bool hasEntryPoint();

    // Sends a triplet to `destination` through the manager's DSM_Entry.
    // Returns TWRC_FAILURE when no entry point is known.
    static TW_UINT16 send(TW_IDENTITY* origin, TW_IDENTITY* destination, TW_UINT32 group, TW_UINT16 type,
                          TW_UINT16 message, TW_MEMREF data);

    // Handles: through the manager's memory functions when given, else ours.
    // Every handle we allocate remembers its size, so that a handle coming
    // back from the client can be read only within what was allocated.
    static TW_HANDLE allocate(std::size_t size);
    static void free(TW_HANDLE handle);
    static TW_MEMREF lock(TW_HANDLE handle);
    static void unlock(TW_HANDLE handle);
    // The allocated size of a handle we made, or nothing for a handle the
    // client made itself (its size cannot be known).
    static std::optional<std::size_t> size(TW_HANDLE handle);
    // The handle now belongs to the client, who frees it as it likes: we
    // forget its size, so that a later handle at the same address is not
    // taken for this one.
    static void handOver(TW_HANDLE handle);
};

}  // namespace zentary
