// Bytes as the contents of a handle of unknown size: the first byte says
// whether they are walked as a TIFF file or as a capability container (of
// the container type in the second byte). Every read must stay inside the
// bytes, and a TIFF's extent inside them too.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "HandleExtent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2) return 0;
    const bool container = data[0] & 1;
    const std::uint16_t conType = data[1];
    data += 2;
    size -= 2;
    zentary::ByteReader read = [&](std::uint64_t offset, std::size_t length, void* out) {
        if (offset > size || length > size - offset) return false;
        std::memcpy(out, data + offset, length);
        return true;
    };
    if (container) {
        (void)zentary::containerExtent(conType, read, 65536);
        return 0;
    }
    auto extent = zentary::tiffExtent(read, size);
    if (extent && (*extent > size || *extent < 8)) __builtin_trap();
    return 0;
}
