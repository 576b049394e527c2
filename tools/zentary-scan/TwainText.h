// Names of TWAIN numbers as users and scripts read them: condition codes in
// error messages, capabilities and their values in --list.
#pragma once

#include <cstdint>
#include <string>

namespace zentary {

// "TWCC_BADVALUE"; an unknown code as "TWCC_0x1234".
std::string conditionCodeName(std::uint16_t code);
// "ICAP_XRESOLUTION"; an unknown one as "0x1234" (the capability key form).
std::string capabilityName(std::uint16_t cap);
// "TWTY_FIX32".
std::string itemTypeName(std::uint16_t itemType);
// The symbolic name of a value where the capability has named values
// ("TWPT_RGB" for ICAP_PIXELTYPE 2), else empty.
std::string valueName(std::uint16_t cap, std::uint32_t value);

}  // namespace zentary
