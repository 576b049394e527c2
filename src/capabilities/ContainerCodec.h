// TWAIN containers (TW_ONEVALUE, TW_ENUMERATION, TW_ARRAY) in memory handles.
//
// This is the one place that knows where the fields of a container lie in
// the Linux layout (2-byte packing, ItemType then 32-bit fields). Everything
// else in the store works with CapabilityValue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "capabilities/CapabilityValue.h"
#include "twain/twain.h"

namespace zentary::containers {

// A client handle whose size we cannot know (the client allocated it
// without the manager we were given) is trusted for its fixed header only;
// its item list is refused beyond this many items, which is far more than
// any capability of ours can hold and keeps a wild NumItems from walking
// through the client's address space.
inline constexpr std::uint32_t kMaxUnsizedItems = 65536;

// Bytes per item in an enumeration or array list; 0 for an item type the
// store does not support (strings, handles).
std::size_t itemSize(TW_UINT16 itemType);

// Whether `value` can be written as one item of `itemType` without loss.
bool itemFits(TW_UINT16 itemType, const CapabilityValue& value);

// Builders. Each returns a new handle from Manager::allocate, owned by the
// caller, or null with *conditionCode set (TWCC_BUMMER for a value of the
// wrong shape or an unsupported item type, TWCC_LOWMEMORY when memory runs
// out). Handles are sized as the structure, less its one declared item
// byte, plus the items.
TW_HANDLE makeOneValue(TW_UINT16 itemType, const CapabilityValue& value, TW_UINT16* conditionCode);
TW_HANDLE makeArray(TW_UINT16 itemType, const std::vector<CapabilityValue>& items, TW_UINT16* conditionCode);
// `badItemCode` is the code for an item that does not fit the type.
TW_HANDLE makeEnumeration(TW_UINT16 itemType, const std::vector<CapabilityValue>& items, TW_UINT32 currentIndex,
                          TW_UINT32 defaultIndex, TW_UINT16 badItemCode, TW_UINT16* conditionCode);

// A container handed to us by the client, locked for as long as this lives.
// Every read stays inside the handle's allocated size when Manager knows it;
// reads that do not fit fail with TWCC_BADVALUE, since the container itself
// is then malformed.
class ClientContainer {
public:
    explicit ClientContainer(TW_HANDLE handle);
    ~ClientContainer();
    ClientContainer(const ClientContainer&) = delete;
    ClientContainer& operator=(const ClientContainer&) = delete;

    // The first 16-bit field of every container; nothing when the handle is
    // null, cannot be locked or is shorter than that.
    std::optional<TW_UINT16> itemType() const;

    // Each returns nothing on failure, with *conditionCode set.
    std::optional<CapabilityValue> oneValue(TW_UINT16 itemType, bool readirisFix32, TW_UINT16* conditionCode) const;
    std::optional<std::vector<CapabilityValue>> arrayItems(TW_UINT16 itemType, TW_UINT16* conditionCode) const;
    std::optional<std::vector<CapabilityValue>> enumerationItems(TW_UINT16 itemType, TW_UINT32* currentIndex,
                                                                 TW_UINT16* conditionCode) const;

private:
    bool readable(std::size_t offset, std::size_t length) const;
    template <typename T>
    std::optional<T> read(std::size_t offset) const;
    std::optional<std::vector<CapabilityValue>> items(std::size_t countOffset, std::size_t listOffset,
                                                      TW_UINT16 itemType, TW_UINT16* conditionCode) const;

    TW_HANDLE mHandle;
    const std::uint8_t* mData = nullptr;
    std::optional<std::size_t> mSize;
};

}  // namespace zentary::containers
