// Identity constants of this data source.
#pragma once

namespace zentary {

inline constexpr const char* kBundleIdentifier = "com.tarvell.zentaryQ305.scands";
inline constexpr const char* kManufacturer = "Tarvell Co.";
inline constexpr const char* kFamily = "Tarvell Zentary";
inline constexpr const char* kName = "Tarvell Zentary Q305 MFP";
inline constexpr const char* kVersionInfo = "0.0 (0)";
inline constexpr const char* kModelName = "Tarvell Zentary Q300 series";

}  // namespace zentary
