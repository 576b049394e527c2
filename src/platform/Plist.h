// Owning wrapper and bounded reading of libplist trees, shared by Bundle and
// Preferences.
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

// An XML or binary property list whose root is a dictionary, or null.
PlistPtr parsePlistDict(std::string_view bytes);

// The string value of `key` in a dictionary node.
std::optional<std::string> plistDictString(void* dict, const std::string& key);

}  // namespace zentary
