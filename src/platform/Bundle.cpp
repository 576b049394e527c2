#include "platform/Bundle.h"

#include <algorithm>
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

// The table names one locale entry ("de_DE.UTF-8", "pt_BR", "zh_CN") may
// be found under, most specific first: "de_DE", "de". Chinese tables are
// named by script, as the desktop's own translations are: zh_CN, zh_SG and a
// bare zh read zh_Hans, zh_TW, zh_HK and zh_MO read zh_Hant. Nothing for
// "C", "POSIX" or anything that is not a plain language code (the result
// becomes part of a path).
std::vector<std::string> tableNamesOf(std::string_view locale)
{
    auto end = locale.find_first_of("_.@");
    auto language = locale.substr(0, end);
    if (language.size() < 2 || language.size() > 3) return {};
    std::string lang;
    for (char c : language) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c < 'a' || c > 'z') return {};
        lang.push_back(c);
    }
    // The territory (or script) between '_' and the codeset or modifier.
    std::string region;
    if (end != std::string_view::npos && locale[end] == '_') {
        auto rest = locale.substr(end + 1);
        rest = rest.substr(0, rest.find_first_of(".@"));
        bool plain = rest.size() >= 2 && rest.size() <= 4;
        for (char c : rest)
            plain = plain && ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'));
        if (plain) {
            for (std::size_t i = 0; i < rest.size(); ++i) {
                char c = rest[i];
                // "br" -> "BR", "hans" -> "Hans"
                bool upper = rest.size() == 2 || i == 0;
                if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
                if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
                region.push_back(c);
            }
        }
    }
    if (lang == "zh") {
        if (region == "TW" || region == "HK" || region == "MO" || region == "Hant") return {"zh_Hant"};
        return {"zh_Hans"};
    }
    if (region.empty()) return {lang};
    return {lang + "_" + region, lang};
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
    auto add = [&](std::string_view locale) {
        for (std::string& name : tableNamesOf(locale))
            if (std::find(languages.begin(), languages.end(), name) == languages.end())
                languages.push_back(std::move(name));
    };
    // As gettext chooses: the first of LC_ALL, LC_MESSAGES and LANG that is
    // set and not empty is the locale; unless that locale is C (or none is
    // set), the colon-separated LANGUAGE list goes before it.
    std::string_view locale;
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (!value || !*value) continue;
        locale = value;
        break;
    }
    bool plainC = locale.empty() || locale == "C" || locale == "POSIX" || locale.rfind("C.", 0) == 0;
    const char* list = std::getenv("LANGUAGE");
    if (!plainC && list) {
        std::string_view rest(list);
        while (!rest.empty()) {
            auto colon = rest.find(':');
            add(rest.substr(0, colon));
            if (colon == std::string_view::npos) break;
            rest.remove_prefix(colon + 1);
        }
    }
    add(locale);
    if (std::find(languages.begin(), languages.end(), "en") == languages.end()) languages.push_back("en");
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
