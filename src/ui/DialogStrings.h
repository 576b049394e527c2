// The label texts of the settings dialog, by label key, translated.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "ui/UiBundle.h"

namespace zentary {

inline constexpr const char* kDialogStringsFileName = "DialogStrings.plist";

class DialogStrings {
public:
    // Null when the bundle or the file is missing or the file has no labels.
    static std::unique_ptr<DialogStrings> init(const UiBundle* bundle);
    const std::map<std::string, std::string>& localizedStrings() const { return mLocalizedStrings; }

private:
    DialogStrings() = default;
    std::map<std::string, std::string> mLocalizedStrings;
};

}  // namespace zentary
