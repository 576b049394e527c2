// The two choices remembered between sessions: image type and resolution.
#pragma once

#include <cstdint>

namespace zentary {

inline constexpr const char* kDsAppId = "com.tarvell.zentaryQ300.scands";
inline constexpr const char* kImageTypePrefsKey = "imageType";
inline constexpr const char* kResolutionPrefsKey = "resolution";

class DSPreferences {
public:
    // 1 colour, 2 gray (not TWAIN pixel types); 1 when absent or unreadable.
    static std::int32_t imageTypePreference();
    // Dots per inch; 300 when absent or unreadable.
    static std::int16_t resolutionPreference();
    // True only when the value reached the disk.
    static bool setImageTypePreference(std::int32_t imageType);
    static bool setResolutionPreference(std::int16_t resolution);
};

}  // namespace zentary
