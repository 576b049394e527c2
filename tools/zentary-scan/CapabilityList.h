// zentary-scan --list: the source's identity and every capability it
// supports with its current, default and valid values, read through the
// capability triplets as any client would.
#pragma once

#include <string>
#include <vector>

#include "TwainLink.h"

namespace zentary {

struct CapabilityValues {
    bool available = false;
    std::string container;  // "TWON_ENUMERATION", ...
    std::string itemType;
    std::vector<std::string> valid;  // every item; a range as "min..max step n"
    std::string current;
    std::string defaultValue;
};

// Items of an answer are read only within the handle the source allocated.
CapabilityValues capabilityValues(TwainLink& source, TW_UINT16 cap);
std::string joinValues(const std::vector<std::string>& values, const char* separator);

std::string listTable(TwainLink& source);
std::string listJson(TwainLink& source);

}  // namespace zentary
