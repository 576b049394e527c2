// The settings model's view of the capability store and preferences,
// recording every write, for the interface tests.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "ui/ScanSettings.h"

namespace zentary {

struct FakeStore {
    std::vector<SettingValue> validTypes{{1}, {2}};
    SettingValue currentType{2};
    std::vector<SettingValue> validResolutions{{150, 0}, {300, 0}, {600, 0}};
    SettingValue currentResolution{300, 0};
    std::vector<std::pair<std::uint16_t, SettingValue>> sets;
    std::vector<std::int32_t> typePrefs;
    std::vector<std::int16_t> resolutionPrefs;

    ScanSettingsStore store()
    {
        ScanSettingsStore s;
        s.allValidValues = [this](std::uint16_t cap) -> std::optional<std::vector<SettingValue>> {
            return cap == kPixelTypeCapability ? validTypes : validResolutions;
        };
        s.currentValue = [this](std::uint16_t cap) -> std::optional<SettingValue> {
            return cap == kPixelTypeCapability ? currentType : currentResolution;
        };
        s.setCurrentValue = [this](std::uint16_t cap, const SettingValue& v) { sets.emplace_back(cap, v); };
        s.setImageTypePreference = [this](std::int32_t v) { typePrefs.push_back(v); return true; };
        s.setResolutionPreference = [this](std::int16_t v) { resolutionPrefs.push_back(v); return true; };
        return s;
    }
};

}  // namespace zentary
