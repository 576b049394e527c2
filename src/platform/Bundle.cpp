#include "platform/Bundle.h"

#include <cstdint>
#include <cstdlib>

#include <dlfcn.h>

#include "platform/Files.h"
#include "platform/Plist.h"
#include "platform/StringsTable.h"

namespace zentary {

namespace {

// The directory of the shared object (or executable) that holds this function.
std::optional<std::filesystem::path> ownBundleDirectory()
{
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void*>(&ownBundleDirectory), &info) == 0 || !info.dli_fname ||
        !*info.dli_fname)
        return std::nullopt;
    std::filesystem::path object(info.dli_fname);
    std::error_code ec;
    auto absolute = std::filesystem::absolute(object, ec);
    if (ec) return std::nullopt;
    absolute = absolute.lexically_normal();
    return absolute.parent_path() / (absolute.stem().string() + ".bundle");
}

// "de_DE.UTF-8" -> "de"; nothing for "C", "POSIX" or anything that is not a
// plain language code (the result becomes part of a path).
std::optional<std::string> languageOf(std::string_view locale)
{
    auto end = locale.find_first_of("_.@");
    auto language = locale.substr(0, end);
    if (language.size() < 2 || language.size() > 3) return std::nullopt;
    std::string out;
    for (char c : language) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c < 'a' || c > 'z') return std::nullopt;
        out.push_back(c);
    }
    return out;
}

bool isPlainName(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

}  // namespace

std::optional<Bundle> Bundle::atPath(const std::filesystem::path& dir)
{
    auto bytes = files::readSmallFile(dir / "Info.plist", kMaxPlistSize);
    if (!bytes) return std::nullopt;
    PlistPtr root = parsePlistDict(*bytes);
    if (!root) return std::nullopt;
    std::map<std::string, std::string> info;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(root.get(), &it);
    if (!it) return std::nullopt;
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(root.get(), it, &key, &value);
        if (!key) break;
        std::string name(key);
        std::free(key);
        if (!value || plist_get_node_type(value) != PLIST_STRING) continue;
        std::uint64_t length = 0;
        const char* text = plist_get_string_ptr(value, &length);
        if (text) info.emplace(std::move(name), std::string(text, static_cast<std::size_t>(length)));
    }
    std::free(it);
    return Bundle(dir, std::move(info));
}

std::optional<Bundle> Bundle::withIdentifier(const std::string& identifier)
{
    std::optional<std::filesystem::path> dir;
    if (const char* fromEnv = std::getenv("ZENTARY_BUNDLE"); fromEnv && *fromEnv)
        dir = std::filesystem::path(fromEnv);
    else
        dir = ownBundleDirectory();
    if (!dir) return std::nullopt;
    auto bundle = atPath(*dir);
    if (!bundle || bundle->infoString("CFBundleIdentifier") != identifier) return std::nullopt;
    return bundle;
}

std::filesystem::path Bundle::resourcePath(std::string_view relative) const
{
    return mPath / "Resources" / relative;
}

std::optional<std::string> Bundle::infoString(const std::string& key) const
{
    auto it = mInfo.find(key);
    if (it == mInfo.end()) return std::nullopt;
    return it->second;
}

std::vector<std::string> Bundle::preferredLanguages()
{
    std::vector<std::string> languages;
    // POSIX precedence: the first of these that is set and not empty decides.
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (!value || !*value) continue;
        if (auto language = languageOf(value)) languages.push_back(*language);
        break;
    }
    if (languages.empty() || languages.front() != "en") languages.push_back("en");
    return languages;
}

std::string Bundle::localizedString(const std::string& key, const std::string& table) const
{
    if (!isPlainName(table)) return key;
    for (const auto& language : preferredLanguages()) {
        auto file = resourcePath(language + ".lproj/" + table + ".strings");
        auto bytes = files::readSmallFile(file, kMaxStringsTableSize);
        if (!bytes) continue;
        auto strings = parseStringsTable(*bytes);
        if (!strings) continue;
        if (auto it = strings->find(key); it != strings->end()) return it->second;
    }
    return key;
}

}  // namespace zentary
