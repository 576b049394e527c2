// The option list of one open device, made from the capability store that
// the TWAIN data source uses too: mode and resolution are values of the
// store (so the store's rules decide what is valid), the scan area is kept
// here in millimetres within the glass size that the store reports.
#pragma once

#include <sane/sane.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zentary {
class Capabilities;
}

namespace zentary::sane {

enum OptionIndex {
    kOptCount,
    kOptModeGroup,
    kOptMode,
    kOptResolution,
    kOptPreview,
    kOptGeometryGroup,
    kOptTlX,
    kOptTlY,
    kOptBrX,
    kOptBrY,
    kOptionCount
};

// What the options ask the scanner for; the area in the scanner's own unit,
// hundredths of an inch from the glass's top-left corner.
struct ScanRequest {
    bool gray = false;
    std::int32_t dpi = 0;
    std::int32_t left = 0, top = 0, right = 0, bottom = 0;
};

class SaneOptions {
public:
    // False, with the reason, when the store lacks a value the options need.
    bool load(Capabilities* capabilities, std::string* error);

    const SANE_Option_Descriptor* descriptor(SANE_Int option) const;
    SANE_Status control(SANE_Int option, SANE_Action action, void* value, SANE_Int* info);
    ScanRequest request() const;

private:
    // Stores the nearest value the option allows and writes it back to `value`.
    SANE_Status setValue(SANE_Int option, void* value, SANE_Int* info);
    std::optional<std::size_t> matchModeName(std::string_view text) const;
    SANE_Word nearestResolution(SANE_Word asked) const;
    SANE_Status getValue(SANE_Int option, void* value) const;
    int currentPixelType() const;
    SANE_Int currentResolution() const;

    Capabilities* mCapabilities = nullptr;
    std::array<SANE_Option_Descriptor, kOptionCount> mDescriptors{};
    std::vector<std::string> mModeNames;
    std::vector<int> mModePixelTypes;
    std::vector<SANE_String_Const> mModeList;  // points into mModeNames, null-terminated
    std::vector<SANE_Word> mResolutionList;   // count, then the values
    SANE_Range mXRange{}, mYRange{};
    std::int32_t mGlassWidth = 0, mGlassHeight = 0;  // hundredths of an inch
    SANE_Bool mPreview = SANE_FALSE;
    std::array<SANE_Fixed, 4> mArea{};  // tl-x, tl-y, br-x, br-y in millimetres
};

}  // namespace zentary::sane
