// Translation tables come from the bundle on disk, which anyone with write
// access to the install can change: the parser must survive any bytes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/StringsTable.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto table = zentary::parseStringsTable(bytes);
    if (!table) return 0;
    // What comes out is shown to the user and logged as JSON: it must be
    // well-formed UTF-8 without NULs, whatever went in.
    for (const auto& [key, value] : *table) {
        if (!zentary::isValidUtf8(key) || !zentary::isValidUtf8(value)) __builtin_trap();
        if (key.find('\0') != std::string::npos || value.find('\0') != std::string::npos) __builtin_trap();
    }
    return 0;
}
