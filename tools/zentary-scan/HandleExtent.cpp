#include "HandleExtent.h"

#include <algorithm>
#include <cstddef>
#include <set>

namespace zentary {

namespace {

using namespace twain;

// Far more than any image of ours has; each bounds a loop whose count comes
// from the file.
constexpr int kMaxDirectories = 64;
constexpr std::uint32_t kMaxPieces = 1u << 20;  // strips or tiles of one image

constexpr TW_UINT16 kStripOffsets = 273, kStripByteCounts = 279, kTileOffsets = 324, kTileByteCounts = 325;

// Bytes per value of each TIFF field type (1 to 13); 0 for any other.
std::uint64_t fieldTypeSize(std::uint16_t type)
{
    static constexpr std::uint8_t sizes[] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4};
    return type < std::size(sizes) ? sizes[type] : 0;
}

class TiffWalk {
public:
    TiffWalk(const ByteReader& read, std::uint64_t limit) : mRead(read), mLimit(limit) {}

    std::optional<std::uint64_t> run()
    {
        char order[2];
        if (!reach(0, 8) || !mRead(0, 2, order)) return std::nullopt;
        if (order[0] == 'M' && order[1] == 'M')
            mSwap = true;
        else if (order[0] != 'I' || order[1] != 'I')
            return std::nullopt;
        auto magic = get<std::uint16_t>(2);
        auto next = get<std::uint32_t>(4);
        if (magic != std::optional<std::uint16_t>(42) || !next || *next == 0) return std::nullopt;  // BigTIFF is not ours
        std::set<std::uint32_t> seen;
        for (std::uint32_t at = *next; at != 0;) {
            if (static_cast<int>(seen.size()) == kMaxDirectories || !seen.insert(at).second) return std::nullopt;
            auto following = directory(at);
            if (!following) return std::nullopt;
            at = *following;
        }
        return mEnd;
    }

private:
    struct Field {
        std::uint16_t type = 0;
        std::uint32_t count = 0;
        std::uint64_t values = 0;  // where the values are
    };

    bool reach(std::uint64_t offset, std::uint64_t length)
    {
        if (offset > mLimit || length > mLimit - offset) return false;
        mEnd = std::max(mEnd, offset + length);
        return true;
    }

    template <typename T>
    std::optional<T> get(std::uint64_t offset)
    {
        T value;
        if (offset > mLimit || sizeof value > mLimit - offset || !mRead(offset, sizeof value, &value))
            return std::nullopt;
        if (mSwap) {
            if constexpr (sizeof(T) == 2) value = static_cast<T>(__builtin_bswap16(value));
            if constexpr (sizeof(T) == 4) value = static_cast<T>(__builtin_bswap32(value));
        }
        return value;
    }

    // A SHORT or LONG value of an offsets or counts field.
    std::optional<std::uint64_t> element(const Field& field, std::uint32_t i)
    {
        if (field.type == 3) return get<std::uint16_t>(field.values + 2ull * i);
        if (field.type == 4) return get<std::uint32_t>(field.values + 4ull * i);
        return std::nullopt;
    }

    // One directory; the offset of the next, 0 for none.
    std::optional<std::uint32_t> directory(std::uint32_t at)
    {
        auto count = get<std::uint16_t>(at);
        if (!count || !reach(at, 2 + 12ull * *count + 4)) return std::nullopt;
        std::optional<Field> offsets, counts;
        for (std::uint32_t i = 0; i < *count; ++i) {
            const std::uint64_t entry = at + 2 + 12ull * i;
            auto tag = get<std::uint16_t>(entry);
            Field field;
            auto type = get<std::uint16_t>(entry + 2);
            auto n = get<std::uint32_t>(entry + 4);
            if (!tag || !type || !n) return std::nullopt;
            field.type = *type;
            field.count = *n;
            // An unknown type could be skipped by a reader, but its values
            // could lie anywhere: the extent would be a guess.
            const std::uint64_t each = fieldTypeSize(field.type);
            if (each == 0) return std::nullopt;
            const std::uint64_t bytes = each * field.count;
            if (bytes <= 4) {
                field.values = entry + 8;
            } else {
                auto offset = get<std::uint32_t>(entry + 8);
                if (!offset || !reach(*offset, bytes)) return std::nullopt;
                field.values = *offset;
            }
            if (*tag == kStripOffsets || *tag == kTileOffsets) offsets = field;
            if (*tag == kStripByteCounts || *tag == kTileByteCounts) counts = field;
        }
        if (!offsets || !counts || offsets->count != counts->count || offsets->count > kMaxPieces)
            return std::nullopt;
        for (std::uint32_t i = 0; i < offsets->count; ++i) {
            auto offset = element(*offsets, i);
            auto length = element(*counts, i);
            if (!offset || !length || !reach(*offset, *length)) return std::nullopt;
        }
        return get<std::uint32_t>(at + 2 + 12ull * *count);
    }

    const ByteReader& mRead;
    const std::uint64_t mLimit;
    bool mSwap = false;
    std::uint64_t mEnd = 0;
};

}  // namespace

std::optional<std::uint64_t> tiffExtent(const ByteReader& read, std::uint64_t limit)
{
    return TiffWalk(read, limit).run();
}

std::optional<std::uint64_t> containerExtent(TW_UINT16 conType, const ByteReader& read, std::uint32_t maxItems)
{
    TW_UINT16 itemType = 0;
    if (!read(0, sizeof itemType, &itemType)) return std::nullopt;
    const std::size_t each = itemSize(itemType);
    if (each == 0) return std::nullopt;
    auto list = [&](std::uint64_t listOffset) -> std::optional<std::uint64_t> {
        TW_UINT32 count = 0;
        if (!read(offsetof(TW_ARRAY, NumItems), sizeof count, &count) || count > maxItems) return std::nullopt;
        return listOffset + std::uint64_t(count) * each;
    };
    switch (conType) {
    case TWON_ONEVALUE: return offsetof(TW_ONEVALUE, Item) + std::max<std::uint64_t>(sizeof(TW_UINT32), each);
    case TWON_ARRAY: return list(offsetof(TW_ARRAY, ItemList));
    case TWON_ENUMERATION: return list(offsetof(TW_ENUMERATION, ItemList));
    case TWON_RANGE: return sizeof(TW_RANGE);
    default: return std::nullopt;
    }
}

}  // namespace zentary
