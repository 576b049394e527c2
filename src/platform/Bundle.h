// The data source's bundle: the directory beside the shared object that holds
// Info.plist and Resources/ (capability definitions, settings, translations).
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zentary {

class Bundle {
public:
    // "<name>.bundle" beside the shared object that contains this code (found
    // with dladdr; "ZentaryQ305.ds" -> "ZentaryQ305.bundle"), or the directory
    // named by ZENTARY_BUNDLE when that is set. Nothing unless its Info.plist
    // has CFBundleIdentifier equal to `identifier`.
    static std::optional<Bundle> withIdentifier(const std::string& identifier);
    // Any bundle directory with a readable Info.plist whose root is a dictionary.
    static std::optional<Bundle> atPath(const std::filesystem::path& dir);

    const std::filesystem::path& path() const { return mPath; }
    // path()/"Resources"/relative.
    std::filesystem::path resourcePath(std::string_view relative) const;
    // A string value of Info.plist.
    std::optional<std::string> infoString(const std::string& key) const;
    // The translation of `key` in Resources/<lang>.lproj/<table>.strings, for
    // the user's languages (LANGUAGE, then LC_ALL, LC_MESSAGES or LANG, as
    // gettext reads them: "de_DE.UTF-8" -> "de_DE", "de"; "zh_CN" -> "zh_Hans"),
    // then "en"; the key itself when no table has it.
    std::string localizedString(const std::string& key, const std::string& table = "Localizable") const;

    // The languages localizedString() tries, in order, for the current environment.
    static std::vector<std::string> preferredLanguages();

private:
    Bundle(std::filesystem::path path, std::map<std::string, std::string> info)
        : mPath(std::move(path)), mInfo(std::move(info))
    {
    }

    std::filesystem::path mPath;
    std::map<std::string, std::string> mInfo;  // the string values of Info.plist
};

}  // namespace zentary
