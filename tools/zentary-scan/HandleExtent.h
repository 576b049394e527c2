// How many bytes a handle from the data source holds, when the memory
// functions it came from cannot say (an installed TWAIN manager's cannot):
// the handle's own contents tell, and those contents are untrusted. Every
// read goes through a reader that refuses what lies beyond a limit, and
// every offset and length is checked before it is added.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "twain/twain.h"

namespace zentary {

// Copies `length` bytes at `offset` into `out`; false when they are not
// there (past the end, or past the walk's limit).
using ByteReader = std::function<bool(std::uint64_t offset, std::size_t length, void* out)>;

// A whole classic TIFF file: the end of the farthest thing it names (its
// header, each image file directory, every value stored outside a
// directory, every strip or tile). Nothing when the bytes are not a TIFF,
// or name anything at or beyond `limit`.
std::optional<std::uint64_t> tiffExtent(const ByteReader& read, std::uint64_t limit);

// A TW_ONEVALUE, TW_ARRAY, TW_ENUMERATION or TW_RANGE of plain items: its
// fixed fields and NumItems items of its item type. Nothing for another
// container or item type, or more than `maxItems` items.
std::optional<std::uint64_t> containerExtent(TW_UINT16 conType, const ByteReader& read, std::uint32_t maxItems);

}  // namespace zentary
