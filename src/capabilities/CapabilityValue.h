// A capability value as the store and its users see it: a number for the
// integral item types and booleans, a list for TW_FIX32 (whole, fraction) and
// for array capabilities.
#pragma once

#include <cstdint>
#include <variant>
#include <vector>

namespace zentary {

class CapabilityValue {
public:
    // A number keeps no width or signedness: a UINT16 300 and an INT32 300
    // must compare equal, so that the client's item width never decides
    // whether a value is valid.
    CapabilityValue(std::int64_t number = 0) : mValue(number) {}

    static CapabilityValue list(std::vector<CapabilityValue> items)
    {
        CapabilityValue value;
        value.mValue = std::move(items);
        return value;
    }
    // Kept as the exact pair and never as a real number: (300, 0) and
    // (300, 1) are different resolutions.
    static CapabilityValue fix32(std::int16_t whole, std::uint16_t frac) { return list({whole, frac}); }

    bool isNumber() const { return std::holds_alternative<std::int64_t>(mValue); }
    // 0 for a list, so that a caller that skipped isNumber() never crashes.
    std::int64_t number() const { return isNumber() ? std::get<std::int64_t>(mValue) : 0; }
    // Empty for a number.
    const std::vector<CapabilityValue>& items() const
    {
        static const std::vector<CapabilityValue> kNone;
        return isNumber() ? kNone : std::get<std::vector<CapabilityValue>>(mValue);
    }

    bool isFix32() const { return !isNumber() && items().size() == 2 && items()[0].isNumber() && items()[1].isNumber(); }

    friend bool operator==(const CapabilityValue&, const CapabilityValue&) = default;

private:
    std::variant<std::int64_t, std::vector<CapabilityValue>> mValue;
};

}  // namespace zentary
