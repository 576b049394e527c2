// Raw scan file headers as a reader meets them: any 32 bytes and any file size.
#include "scanlib/RawFile.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace zentary;
    std::uint64_t fileSize = 0;
    if (size >= 8) {
        std::memcpy(&fileSize, data, 8);
        data += 8;
        size -= 8;
    }
    RawFileInfo info;
    if (parseRawFileHeader(data, size, fileSize, &info)) {
        // What a reader will rely on must hold for every accepted header.
        if (info.rowsPresent > info.header.rows) __builtin_trap();
        if (info.rowBytes == 0) __builtin_trap();
        if (fileSize < 32 + info.rowBytes * info.rowsPresent) __builtin_trap();
    }
    return 0;
}
