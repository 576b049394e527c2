// The in-memory record of one capability: what the definition file says
// about it, and the values negotiated since loading.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "capabilities/CapabilityValue.h"
#include "twain/twain.h"

namespace zentary {

// One situation the capability can be in: when every capability it depends
// on has the value given in `dependencies`, these `values` are valid.
struct ValidValuesEntry {
    std::map<TW_UINT16, CapabilityValue> dependencies;
    std::vector<CapabilityValue> values;  // empty: no limit
    CapabilityValue defaultValue;
};

struct CapabilityRecord {
    // From the definition file.
    TW_UINT16 containerType = 0;
    TW_UINT16 itemType = 0;
    std::vector<std::int64_t> supportedOperations;  // one TWQC bit per element
    std::optional<CapabilityValue> powerOnDefaultValue;
    std::vector<TW_UINT16> dependsOn;
    std::optional<std::vector<ValidValuesEntry>> validValues;  // absent only for CAP_SUPPORTEDCAPS

    // Built while loading: the capabilities whose "DependsOn" names this one.
    std::vector<TW_UINT16> dependents;

    // Run-time values.
    std::optional<CapabilityValue> currentValue;
    std::optional<CapabilityValue> defaultValue;
    std::vector<CapabilityValue> currentValidValues;  // empty: no limit
    std::vector<CapabilityValue> allValidValues;      // every value valid in some state seen at loading
    bool constrained = false;                         // the client narrowed currentValidValues
};

using CapabilityMap = std::unordered_map<TW_UINT16, CapabilityRecord>;

struct CapabilityModel {
    CapabilityMap records;
    // Keys in the order loading visited them (the file's own order).
    std::vector<TW_UINT16> order;
};

// "0x" and four upper-case hexadecimal digits: the only form in which a
// capability is named in a definition file.
std::string capabilityKey(TW_UINT16 cap);

// Parses and builds a definition file held in memory (an XML property
// list). On failure returns nothing and says why in *error, naming `fileName`,
// the key and the problem.
std::optional<CapabilityModel> loadCapabilityModel(const std::string& xml, const std::string& fileName,
                                                   std::string* error);

}  // namespace zentary
