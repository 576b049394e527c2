// Reading the settings property lists of the bundle with libplist.
#pragma once

#include <plist/plist.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/Plist.h"

namespace zentary {


// Settings files are a few hundred bytes; anything beyond this is not ours.
inline constexpr std::size_t kMaxSettingsFileSize = 1024 * 1024;

// The file's root when it is a readable XML dictionary, else null.
PlistPtr readSettingsDictionary(const std::string& path);

// Small accessors that check the node's type first.
std::optional<std::string> plistString(plist_t node);
std::optional<std::int64_t> plistInteger(plist_t node);

}  // namespace zentary
