#include "platform/Plist.h"

#include <cstdint>

namespace zentary {

PlistPtr parsePlist(std::string_view bytes)
{
    if (bytes.empty() || bytes.size() > kMaxPlistSize) return nullptr;
    if (bytes.find('\0') != std::string_view::npos || bytes.substr(0, 6) == "bplist") return nullptr;
    plist_t root = nullptr;
    plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    return PlistPtr(root);
}

PlistPtr parsePlistDict(std::string_view bytes)
{
    PlistPtr root = parsePlist(bytes);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return nullptr;
    return root;
}

std::optional<std::string> plistDictString(void* dict, const std::string& key)
{
    if (!dict) return std::nullopt;
    plist_t node = plist_dict_get_item(dict, key.c_str());
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    if (!text) return std::nullopt;
    return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace zentary
