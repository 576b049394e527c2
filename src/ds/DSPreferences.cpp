#include "ds/DSPreferences.h"

#include <limits>
#include <optional>

#include "platform/Preferences.h"

namespace zentary {

namespace {

// A stored number that does not fit the type is refused, as a lossy
// conversion would be, and the default is used instead.
template <typename T>
T readInteger(const char* key, T fallback)
{
    std::optional<std::int64_t> value = Preferences(kDsAppId).integer(key);
    if (!value || *value < std::numeric_limits<T>::min() || *value > std::numeric_limits<T>::max()) return fallback;
    return static_cast<T>(*value);
}

}  // namespace

std::int32_t DSPreferences::imageTypePreference()
{
    return readInteger<std::int32_t>(kImageTypePrefsKey, 1);
}

std::int16_t DSPreferences::resolutionPreference()
{
    return readInteger<std::int16_t>(kResolutionPrefsKey, 300);
}

bool DSPreferences::setImageTypePreference(std::int32_t imageType)
{
    return Preferences(kDsAppId).setInteger(kImageTypePrefsKey, imageType);
}

bool DSPreferences::setResolutionPreference(std::int16_t resolution)
{
    return Preferences(kDsAppId).setInteger(kResolutionPrefsKey, resolution);
}

}  // namespace zentary
