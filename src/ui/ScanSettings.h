// The model behind the settings dialog: the image types and resolutions the
// user may choose, which of them the capability store allows, and the current
// choice, written through to the store and the remembered preferences.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ui/Observable.h"
#include "ui/UiBundle.h"

namespace zentary {

inline constexpr const char* kScanSettingsFileName = "ScanSettings.plist";
inline constexpr const char* kImageTypesKey = "imageTypes";
inline constexpr const char* kResolutionsKey = "resolutions";
inline constexpr const char* kDisplayNameKey = "displayName";
inline constexpr const char* kValueKey = "value";
inline constexpr const char* kEnabledKey = "enabled";
inline constexpr const char* kResolutionValuesKey = "resolutionValues";
inline constexpr const char* kImageTypeSelectionValueKey = "imageTypeSelectionValue";
inline constexpr const char* kResolutionSelectionValueKey = "resolutionSelectionValue";

inline constexpr std::uint16_t kPixelTypeCapability = 0x0101;    // ICAP_PIXELTYPE
inline constexpr std::uint16_t kXResolutionCapability = 0x1118;  // ICAP_XRESOLUTION

// A capability value as the dialog sees it: one number, or the whole part
// and the fraction of a FIX32.
using SettingValue = std::vector<std::int64_t>;

// The engine's side of the model: the capability store and the preferences.
struct ScanSettingsStore {
    std::function<std::optional<std::vector<SettingValue>>(std::uint16_t capability)> allValidValues;
    std::function<std::optional<SettingValue>(std::uint16_t capability)> currentValue;
    std::function<void(std::uint16_t capability, const SettingValue& value)> setCurrentValue;
    std::function<bool(std::int32_t imageType)> setImageTypePreference;
    std::function<bool(std::int16_t resolution)> setResolutionPreference;
};

class ScanSettings : public Observable {
public:
    struct ImageType {
        std::string key;
        std::string displayName;
        std::optional<std::int64_t> value;  // TWAIN pixel type
        bool enabled = false;
    };
    struct Resolution {
        std::string displayName;
        std::optional<SettingValue> value;
    };

    // Null when the bundle, its settings file or the resolution list is
    // missing. The model is returned even when no selection could be made.
    static std::unique_ptr<ScanSettings> initWithCapabilities(const UiBundle* bundle, ScanSettingsStore capabilities);

    // Brings the lists and selections into line with the store. True when
    // both selections and the resolution list could be set.
    bool capabilitiesChanged();

    const std::vector<ImageType>& imageTypes() const { return mImageTypes; }
    const std::vector<Resolution>& resolutions() const { return mResolutions; }

    const std::vector<std::string>& resolutionValues() const { return mResolutionValues; }
    void setResolutionValues(const std::vector<std::string>* values);
    const std::string& imageTypeSelectionValue() const { return mImageTypeSelectionValue; }
    void setImageTypeSelectionValue(const std::string& name);
    const std::string& resolutionSelectionValue() const { return mResolutionSelectionValue; }
    void setResolutionSelectionValue(const std::string& name);

private:
    ScanSettings() = default;

    std::vector<ImageType> mImageTypes;
    std::vector<Resolution> mResolutions;
    std::vector<std::string> mResolutionValues;
    std::string mImageTypeSelectionValue;
    std::string mResolutionSelectionValue;
    ScanSettingsStore mCapabilities;
};

}  // namespace zentary
