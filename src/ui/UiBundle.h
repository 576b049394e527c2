// What the window models need from the data source's bundle: where its
// resources are and how a text is translated. The engine fills it from the
// bundle found by its identifier; a null UiBundle means "bundle not found".
#pragma once

#include <functional>
#include <string>

namespace zentary {

inline constexpr const char* kSettingsDirectory = "Settings";

struct UiBundle {
    std::string resourcePath;
    // Looks a text up as a key in the default strings table; gives the key
    // back when there is no translation. Null means no table at all.
    std::function<std::string(const std::string& key)> localizedString;

    std::string localize(const std::string& key) const { return localizedString ? localizedString(key) : key; }
    // "<resources>/Settings/<file>", or "" when the resource path is unknown.
    std::string settingsPath(const std::string& file) const
    {
        if (resourcePath.empty() || file.empty()) return {};
        return resourcePath + "/" + kSettingsDirectory + "/" + file;
    }
};

}  // namespace zentary
