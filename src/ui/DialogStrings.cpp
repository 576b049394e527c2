#include "ui/DialogStrings.h"

#include <cstdlib>

#include "ui/SettingsFile.h"

namespace zentary {

std::unique_ptr<DialogStrings> DialogStrings::init(const UiBundle* bundle)
{
    if (!bundle) return nullptr;
    PlistPtr file = readSettingsDictionary(bundle->settingsPath(kDialogStringsFileName));
    if (!file) return nullptr;
    std::unique_ptr<DialogStrings> strings(new DialogStrings());
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(file.get(), &iter);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(file.get(), iter, &key, &value);
        if (!key) break;
        std::string label(key);
        std::free(key);
        // A label that is not text cannot be shown; leave it out.
        if (std::optional<std::string> text = plistString(value))
            strings->mLocalizedStrings[label] = bundle->localize(*text);
    }
    std::free(iter);
    if (strings->mLocalizedStrings.empty()) return nullptr;
    return strings;
}

}  // namespace zentary
