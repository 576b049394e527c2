#include "ui/ScanSettings.h"

#include <algorithm>

#include "ui/SettingsFile.h"

namespace zentary {

namespace {

std::optional<SettingValue> plistNumbers(plist_t node)
{
    // Two numbers make a resolution; a few more would still compare fine, but
    // a long list is not a value of ours.
    if (!node || plist_get_node_type(node) != PLIST_ARRAY || plist_array_get_size(node) > 4) return std::nullopt;
    SettingValue numbers;
    for (uint32_t i = 0; i < plist_array_get_size(node); ++i) {
        std::optional<std::int64_t> number = plistInteger(plist_array_get_item(node, i));
        if (!number) return std::nullopt;
        numbers.push_back(*number);
    }
    return numbers;
}

std::string localizedName(plist_t entry, const UiBundle& bundle)
{
    std::optional<std::string> name = plistString(plist_dict_get_item(entry, kDisplayNameKey));
    return name ? bundle.localize(*name) : std::string();
}

}  // namespace

std::unique_ptr<ScanSettings> ScanSettings::initWithCapabilities(const UiBundle* bundle, ScanSettingsStore capabilities)
{
    if (!bundle) return nullptr;
    PlistPtr file = readSettingsDictionary(bundle->settingsPath(kScanSettingsFileName));
    if (!file) return nullptr;
    std::unique_ptr<ScanSettings> model(new ScanSettings());

    plist_t types = plist_dict_get_item(file.get(), kImageTypesKey);
    if (types && plist_get_node_type(types) == PLIST_DICT) {
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(types, &iter);
        for (;;) {
            char* key = nullptr;
            plist_t entry = nullptr;
            plist_dict_next_item(types, iter, &key, &entry);
            if (!key) break;
            std::string name(key);
            std::free(key);
            if (!entry || plist_get_node_type(entry) != PLIST_DICT) continue;
            model->mImageTypes.push_back(
                {name, localizedName(entry, *bundle), plistInteger(plist_dict_get_item(entry, kValueKey)), false});
        }
        std::free(iter);
    }

    plist_t resolutions = plist_dict_get_item(file.get(), kResolutionsKey);
    if (!resolutions || plist_get_node_type(resolutions) != PLIST_ARRAY) return nullptr;
    for (uint32_t i = 0; i < plist_array_get_size(resolutions); ++i) {
        plist_t entry = plist_array_get_item(resolutions, i);
        if (!entry || plist_get_node_type(entry) != PLIST_DICT) continue;
        model->mResolutions.push_back(
            {localizedName(entry, *bundle), plistNumbers(plist_dict_get_item(entry, kValueKey))});
    }

    model->mCapabilities = std::move(capabilities);
    model->capabilitiesChanged();
    return model;
}

bool ScanSettings::capabilitiesChanged()
{
    std::vector<std::string> names;
    auto& store = mCapabilities;
    if (!store.allValidValues || !store.currentValue) return false;

    std::optional<std::vector<SettingValue>> validTypes = store.allValidValues(kPixelTypeCapability);
    std::optional<SettingValue> currentType = store.currentValue(kPixelTypeCapability);
    if (mImageTypes.empty() || !validTypes || !currentType) return false;
    mImageTypeSelectionValue.clear();
    for (ImageType& type : mImageTypes) {
        type.enabled = type.value && std::find(validTypes->begin(), validTypes->end(),
                                               SettingValue{*type.value}) != validTypes->end();
        if (type.enabled && SettingValue{*type.value} == *currentType) mImageTypeSelectionValue = type.displayName;
    }
    if (mImageTypeSelectionValue.empty()) return false;

    std::optional<std::vector<SettingValue>> validResolutions = store.allValidValues(kXResolutionCapability);
    std::optional<SettingValue> currentResolution = store.currentValue(kXResolutionCapability);
    if (mResolutions.empty() || !validResolutions || !currentResolution) return false;
    mResolutionSelectionValue.clear();
    for (const Resolution& resolution : mResolutions) {
        if (!resolution.value ||
            std::find(validResolutions->begin(), validResolutions->end(), *resolution.value) == validResolutions->end())
            continue;
        names.push_back(resolution.displayName);
        if (*resolution.value == *currentResolution) mResolutionSelectionValue = resolution.displayName;
    }
    if (names.empty() || mResolutionSelectionValue.empty()) return false;
    setResolutionValues(&names);
    return true;
}

void ScanSettings::setResolutionValues(const std::vector<std::string>* values)
{
    if (!values) return;
    mResolutionValues = *values;
    notify(kResolutionValuesKey);
}

void ScanSettings::setImageTypeSelectionValue(const std::string& name)
{
    if (name == mImageTypeSelectionValue) return;
    mImageTypeSelectionValue = name;
    notify(kImageTypeSelectionValueKey);
    auto entry = std::find_if(mImageTypes.begin(), mImageTypes.end(),
                              [&](const ImageType& type) { return type.displayName == name; });
    if (entry == mImageTypes.end() || !entry->value) return;
    if (mCapabilities.setCurrentValue) mCapabilities.setCurrentValue(kPixelTypeCapability, {*entry->value});
    // The preference has its own codes: 2 for gray (TWPT_GRAY), 1 for the rest.
    if (mCapabilities.setImageTypePreference) mCapabilities.setImageTypePreference(*entry->value == 1 ? 2 : 1);
}

void ScanSettings::setResolutionSelectionValue(const std::string& name)
{
    if (name == mResolutionSelectionValue) return;
    mResolutionSelectionValue = name;
    notify(kResolutionSelectionValueKey);
    auto entry = std::find_if(mResolutions.begin(), mResolutions.end(),
                              [&](const Resolution& resolution) { return resolution.displayName == name; });
    if (entry == mResolutions.end() || !entry->value) return;
    if (mCapabilities.setCurrentValue) mCapabilities.setCurrentValue(kXResolutionCapability, *entry->value);
    if (mCapabilities.setResolutionPreference && !entry->value->empty())
        mCapabilities.setResolutionPreference(static_cast<std::int16_t>(entry->value->front()));
}

}  // namespace zentary
