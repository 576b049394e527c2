#include "capabilities/ContainerCodec.h"

#include <cstring>
#include <limits>
#include <utility>

#include "twain/Manager.h"

namespace zentary::containers {

namespace {

using namespace twain;

void setCode(TW_UINT16* conditionCode, TW_UINT16 code)
{
    if (conditionCode) *conditionCode = code;
}

template <typename T>
bool inRange(std::int64_t v)
{
    return v >= static_cast<std::int64_t>(std::numeric_limits<T>::min()) &&
           v <= static_cast<std::int64_t>(std::numeric_limits<T>::max());
}

template <typename T>
void put(std::uint8_t* at, T value)
{
    std::memcpy(at, &value, sizeof value);
}

// One list item, at its own width. False when the value has the wrong shape.
bool encodeItem(TW_UINT16 itemType, const CapabilityValue& value, std::uint8_t* at)
{
    if (itemType == TWTY_FIX32) {
        if (!value.isFix32()) return false;
        put(at, static_cast<TW_INT16>(value.items()[0].number()));
        put(at + 2, static_cast<TW_UINT16>(value.items()[1].number()));
        return true;
    }
    if (itemType == TWTY_FRAME) {
        // Left, Top, Right, Bottom: four TW_FIX32 in a row.
        if (value.isNumber() || value.items().size() != 4) return false;
        for (std::size_t i = 0; i < 4; ++i)
            if (!encodeItem(TWTY_FIX32, value.items()[i], at + 4 * i)) return false;
        return true;
    }
    if (!value.isNumber()) return false;
    std::int64_t v = value.number();
    switch (itemType) {
        case TWTY_INT8: put(at, static_cast<TW_INT8>(v)); return true;
        case TWTY_UINT8: put(at, static_cast<TW_UINT8>(v)); return true;
        case TWTY_INT16: put(at, static_cast<TW_INT16>(v)); return true;
        case TWTY_UINT16: put(at, static_cast<TW_UINT16>(v)); return true;
        case TWTY_INT32: put(at, static_cast<TW_INT32>(v)); return true;
        case TWTY_UINT32: put(at, static_cast<TW_UINT32>(v)); return true;
        case TWTY_BOOL: put(at, static_cast<TW_BOOL>(v != 0)); return true;
        default: return false;
    }
}

template <typename T>
T get(const std::uint8_t* at)
{
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

CapabilityValue decodeItem(TW_UINT16 itemType, const std::uint8_t* at)
{
    switch (itemType) {
        case TWTY_INT8: return get<TW_INT8>(at);
        case TWTY_UINT8: return get<TW_UINT8>(at);
        case TWTY_INT16: return get<TW_INT16>(at);
        case TWTY_UINT16: return get<TW_UINT16>(at);
        case TWTY_INT32: return get<TW_INT32>(at);
        case TWTY_UINT32: return get<TW_UINT32>(at);
        // The low byte decides, as a one-value's boolean does, so that the
        // same client bytes mean the same thing in every container.
        case TWTY_BOOL: return at[0] != 0 ? 1 : 0;
        case TWTY_FIX32: return CapabilityValue::fix32(get<TW_INT16>(at), get<TW_UINT16>(at + 2));
        case TWTY_FRAME:
            return CapabilityValue::list({decodeItem(TWTY_FIX32, at), decodeItem(TWTY_FIX32, at + 4),
                                          decodeItem(TWTY_FIX32, at + 8), decodeItem(TWTY_FIX32, at + 12)});
        default: return 0;
    }
}

// A locked, zeroed handle of `size` bytes; null when memory runs out.
class NewHandle {
public:
    explicit NewHandle(std::size_t size) : mHandle(Manager::allocate(size))
    {
        if (mHandle) mData = static_cast<std::uint8_t*>(Manager::lock(mHandle));
        if (mData) std::memset(mData, 0, size);
    }
    ~NewHandle()
    {
        if (mData) Manager::unlock(mHandle);
        if (mHandle) Manager::free(mHandle);
    }
    NewHandle(const NewHandle&) = delete;
    NewHandle& operator=(const NewHandle&) = delete;
    std::uint8_t* data() const { return mData; }
    // Hands the handle over unlocked; from here it is the client's.
    TW_HANDLE release()
    {
        Manager::unlock(mHandle);
        Manager::handOver(mHandle);
        mData = nullptr;
        return std::exchange(mHandle, nullptr);
    }

private:
    TW_HANDLE mHandle;
    std::uint8_t* mData = nullptr;
};

// The structure less its one declared item byte, plus the items.
std::size_t listHandleSize(std::size_t structSize, std::size_t listBytes)
{
    return listBytes > 0 ? structSize - 1 + listBytes : structSize;
}

TW_HANDLE makeList(TW_UINT16 itemType, const std::vector<CapabilityValue>& items, std::size_t structSize,
                   std::size_t listOffset, TW_UINT16 badItemCode, TW_UINT16* conditionCode,
                   std::uint8_t* header /* 8 bytes after NumItems, enumeration only */ = nullptr)
{
    std::size_t size = itemSize(itemType);
    if (size == 0 || items.size() > std::numeric_limits<TW_UINT32>::max() / size) {
        setCode(conditionCode, TWCC_BUMMER);
        return nullptr;
    }
    // Checked once for the whole list before anything is allocated, so no
    // half-filled container is ever made.
    for (const auto& item : items) {
        if (!itemFits(itemType, item) && !(itemType == TWTY_BOOL && item.isNumber())) {
            setCode(conditionCode, badItemCode);
            return nullptr;
        }
    }
    NewHandle handle(listHandleSize(structSize, items.size() * size));
    if (!handle.data()) {
        setCode(conditionCode, TWCC_LOWMEMORY);
        return nullptr;
    }
    std::uint8_t* data = handle.data();
    put(data, itemType);
    put(data + offsetof(TW_ARRAY, NumItems), static_cast<TW_UINT32>(items.size()));
    if (header) std::memcpy(data + offsetof(TW_ENUMERATION, CurrentIndex), header, 8);
    std::uint8_t* at = data + listOffset;
    for (const auto& item : items) {
        encodeItem(itemType, item, at);
        at += size;
    }
    return handle.release();
}

}  // namespace

static_assert(offsetof(TW_ARRAY, NumItems) == offsetof(TW_ENUMERATION, NumItems));

std::size_t itemSize(TW_UINT16 itemType)
{
    // The store carries no strings or handles.
    return itemType <= TWTY_FRAME ? twain::itemSize(itemType) : 0;
}

bool itemFits(TW_UINT16 itemType, const CapabilityValue& value)
{
    if (itemType == TWTY_FIX32)
        return value.isFix32() && inRange<TW_INT16>(value.items()[0].number()) &&
               inRange<TW_UINT16>(value.items()[1].number());
    if (itemType == TWTY_FRAME) {
        if (value.isNumber() || value.items().size() != 4) return false;
        for (const auto& edge : value.items())
            if (!itemFits(TWTY_FIX32, edge)) return false;
        return true;
    }
    if (!value.isNumber()) return false;
    std::int64_t v = value.number();
    switch (itemType) {
        case TWTY_INT8: return inRange<TW_INT8>(v);
        case TWTY_UINT8: return inRange<TW_UINT8>(v);
        case TWTY_INT16: return inRange<TW_INT16>(v);
        case TWTY_UINT16: return inRange<TW_UINT16>(v);
        case TWTY_INT32: return inRange<TW_INT32>(v);
        case TWTY_UINT32: return inRange<TW_UINT32>(v);
        case TWTY_BOOL: return v == 0 || v == 1;
        default: return false;
    }
}

TW_HANDLE makeOneValue(TW_UINT16 itemType, const CapabilityValue& value, TW_UINT16* conditionCode)
{
    // The Item field is always 32 bits wide and holds the value widened to
    // it, so a client that reads every one-value as 32 bits gets it right.
    // Only a frame is wider: the handle grows by what does not fit.
    std::uint8_t item[16] = {};
    std::size_t itemBytes = itemType == TWTY_FRAME ? 16 : 4;
    if (itemType == TWTY_FIX32 || itemType == TWTY_FRAME) {
        if (!encodeItem(itemType, value, item)) {
            setCode(conditionCode, TWCC_BUMMER);
            return nullptr;
        }
    } else {
        if (!value.isNumber() || itemSize(itemType) == 0) {
            setCode(conditionCode, TWCC_BUMMER);
            return nullptr;
        }
        std::int64_t v = value.number();
        TW_UINT32 widened = 0;
        switch (itemType) {
            case TWTY_INT8: widened = static_cast<TW_UINT32>(static_cast<TW_INT32>(static_cast<TW_INT8>(v))); break;
            case TWTY_INT16: widened = static_cast<TW_UINT32>(static_cast<TW_INT32>(static_cast<TW_INT16>(v))); break;
            case TWTY_INT32: widened = static_cast<TW_UINT32>(static_cast<TW_INT32>(v)); break;
            case TWTY_UINT8: widened = static_cast<TW_UINT8>(v); break;
            case TWTY_UINT16: widened = static_cast<TW_UINT16>(v); break;
            case TWTY_UINT32: widened = static_cast<TW_UINT32>(v); break;
            case TWTY_BOOL: widened = v != 0 ? 1 : 0; break;
            default: break;
        }
        put(item, widened);
    }
    NewHandle handle(sizeof(TW_ONEVALUE) - 4 + itemBytes);
    if (!handle.data()) {
        setCode(conditionCode, TWCC_LOWMEMORY);
        return nullptr;
    }
    put(handle.data(), itemType);
    std::memcpy(handle.data() + offsetof(TW_ONEVALUE, Item), item, itemBytes);
    return handle.release();
}

TW_HANDLE makeArray(TW_UINT16 itemType, const std::vector<CapabilityValue>& items, TW_UINT16* conditionCode)
{
    return makeList(itemType, items, sizeof(TW_ARRAY), offsetof(TW_ARRAY, ItemList), TWCC_BUMMER, conditionCode);
}

TW_HANDLE makeEnumeration(TW_UINT16 itemType, const std::vector<CapabilityValue>& items, TW_UINT32 currentIndex,
                          TW_UINT32 defaultIndex, TW_UINT16 badItemCode, TW_UINT16* conditionCode)
{
    std::uint8_t indices[8];
    put(indices, currentIndex);
    put(indices + 4, defaultIndex);
    static_assert(offsetof(TW_ENUMERATION, DefaultIndex) == offsetof(TW_ENUMERATION, CurrentIndex) + 4);
    return makeList(itemType, items, sizeof(TW_ENUMERATION), offsetof(TW_ENUMERATION, ItemList), badItemCode,
                    conditionCode, indices);
}

// ---- Reading the client's containers ---------------------------------------

ClientContainer::ClientContainer(TW_HANDLE handle) : mHandle(handle)
{
    if (!mHandle) return;
    mSize = Manager::size(mHandle);
    mData = static_cast<const std::uint8_t*>(Manager::lock(mHandle));
}

ClientContainer::~ClientContainer()
{
    if (mData) Manager::unlock(mHandle);
}

bool ClientContainer::readable(std::size_t offset, std::size_t length) const
{
    if (!mData) return false;
    if (!mSize) return true;  // fixed header of a handle of unknown size: the client's word
    return offset <= *mSize && length <= *mSize - offset;
}

template <typename T>
std::optional<T> ClientContainer::read(std::size_t offset) const
{
    if (!readable(offset, sizeof(T))) return std::nullopt;
    return get<T>(mData + offset);
}

std::optional<TW_UINT16> ClientContainer::itemType() const
{
    return read<TW_UINT16>(0);
}

std::optional<CapabilityValue> ClientContainer::oneValue(TW_UINT16 itemType, bool readirisFix32,
                                                         TW_UINT16* conditionCode) const
{
    if (itemSize(itemType) == 0) {
        setCode(conditionCode, TWCC_BUMMER);
        return std::nullopt;
    }
    constexpr std::size_t at = offsetof(TW_ONEVALUE, Item);
    // The Item field is 32 bits whatever the type; a shorter item sits at
    // its start, so only the bytes the type needs have to be there.
    // (A boolean is its low byte, read as any other client's TW_BOOL is.)
    std::size_t needed = itemType == TWTY_BOOL ? 1 : itemSize(itemType);
    if (!readable(at, needed)) {
        setCode(conditionCode, TWCC_BADVALUE);
        return std::nullopt;
    }
    if (itemType == TWTY_FIX32 && readirisFix32) {
        // Readiris sends the resolution as one 32-bit 16.16 number.
        TW_UINT32 whole16frac16 = get<TW_UINT32>(mData + at);
        return CapabilityValue::fix32(static_cast<TW_INT16>(whole16frac16 >> 16),
                                      static_cast<TW_UINT16>(whole16frac16 & 0xFFFF));
    }
    return decodeItem(itemType, mData + at);
}

std::optional<std::vector<CapabilityValue>> ClientContainer::items(std::size_t countOffset, std::size_t listOffset,
                                                                   TW_UINT16 itemType,
                                                                   TW_UINT16* conditionCode) const
{
    std::size_t size = itemSize(itemType);
    if (size == 0) {
        setCode(conditionCode, TWCC_BUMMER);
        return std::nullopt;
    }
    auto count = read<TW_UINT32>(countOffset);
    if (!count || (!mSize && *count > kMaxUnsizedItems) ||
        !readable(listOffset, static_cast<std::size_t>(*count) * size)) {
        setCode(conditionCode, TWCC_BADVALUE);
        return std::nullopt;
    }
    std::vector<CapabilityValue> list;
    list.reserve(*count);
    const std::uint8_t* at = mData + listOffset;
    for (TW_UINT32 i = 0; i < *count; ++i, at += size) list.push_back(decodeItem(itemType, at));
    return list;
}

std::optional<std::vector<CapabilityValue>> ClientContainer::arrayItems(TW_UINT16 itemType,
                                                                        TW_UINT16* conditionCode) const
{
    return items(offsetof(TW_ARRAY, NumItems), offsetof(TW_ARRAY, ItemList), itemType, conditionCode);
}

std::optional<std::vector<CapabilityValue>> ClientContainer::enumerationItems(TW_UINT16 itemType,
                                                                              TW_UINT32* currentIndex,
                                                                              TW_UINT16* conditionCode) const
{
    // A boolean has only two values; an enumeration of them is refused both
    // ways.
    if (itemType == TWTY_BOOL) {
        setCode(conditionCode, TWCC_BUMMER);
        return std::nullopt;
    }
    auto index = read<TW_UINT32>(offsetof(TW_ENUMERATION, CurrentIndex));
    if (!index) {
        setCode(conditionCode, TWCC_BADVALUE);
        return std::nullopt;
    }
    *currentIndex = *index;
    return items(offsetof(TW_ENUMERATION, NumItems), offsetof(TW_ENUMERATION, ItemList), itemType, conditionCode);
}

}  // namespace zentary::containers
