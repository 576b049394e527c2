// Owning wrapper and bounded, safe reading of libplist trees: the one way
// the data source reads a property list.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <plist/plist.h>

namespace zentary {

struct PlistFree {
    void operator()(void* node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// Property lists we read are small; a larger file is refused unread.
inline constexpr std::size_t kMaxPlistSize = 1024 * 1024;

// An XML property list, or null. Binary ones, and any text holding a NUL
// byte, are refused unread: libplist aborts the process on a string with a
// NUL inside, and these bytes come from files anybody may have written.
PlistPtr parsePlist(std::string_view bytes);
// The same, when its root is a dictionary.
PlistPtr parsePlistDict(std::string_view bytes);

// The string value of `key` in a dictionary node.
std::optional<std::string> plistDictString(void* dict, const std::string& key);

}  // namespace zentary
