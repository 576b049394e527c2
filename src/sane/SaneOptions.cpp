#include "sane/SaneOptions.h"

#include <sane/saneopts.h>

#include <algorithm>
#include <cmath>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "capabilities/Capabilities.h"
#include "twain/twain.h"

namespace zentary::sane {

using namespace twain;

namespace {

constexpr double kMillimetresPerHundredth = 0.254;

// A TW_FIX32 value of the store as a real number; nothing when it is not one.
std::optional<double> fix32Value(const std::optional<CapabilityValue>& value)
{
    if (!value || !value->isFix32()) return std::nullopt;
    return double(value->items()[0].number()) + double(value->items()[1].number()) / 65536.0;
}

// The scanner counts in hundredths of an inch; the options speak SANE_Fixed
// millimetres. Each hundredth has exactly one option value, so a value read
// back and set again is never inexact.
constexpr double kFixedPerHundredth = kMillimetresPerHundredth * 65536.0;

std::int32_t hundredthsOf(SANE_Fixed millimetres)
{
    return std::int32_t(std::lround(double(millimetres) / kFixedPerHundredth));
}

SANE_Fixed millimetresOf(std::int32_t hundredths)
{
    return SANE_Fixed(std::lround(double(hundredths) * kFixedPerHundredth));
}

SANE_Option_Descriptor group(const char* title)
{
    SANE_Option_Descriptor d{};
    d.name = "";
    d.title = title;
    d.desc = "";
    d.type = SANE_TYPE_GROUP;
    d.constraint_type = SANE_CONSTRAINT_NONE;
    return d;
}

SANE_Option_Descriptor settable(const char* name, const char* title, const char* desc, SANE_Value_Type type,
                                SANE_Unit unit, SANE_Int size)
{
    SANE_Option_Descriptor d{};
    d.name = name;
    d.title = title;
    d.desc = desc;
    d.type = type;
    d.unit = unit;
    d.size = size;
    d.cap = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT;
    d.constraint_type = SANE_CONSTRAINT_NONE;
    return d;
}

}  // namespace

bool SaneOptions::load(Capabilities* capabilities, std::string* error)
{
    mCapabilities = capabilities;

    // Modes: the pixel types the store allows, under SANE's standard names.
    // A pixel type SANE has no plain name for is left out rather than shown
    // under a made-up one.
    mModeNames.clear();
    mModePixelTypes.clear();
    if (auto types = capabilities->currentValidValues(ICAP_PIXELTYPE)) {
        for (const CapabilityValue& type : *types) {
            if (!type.isNumber()) continue;
            if (type.number() == TWPT_RGB) mModeNames.emplace_back(SANE_VALUE_SCAN_MODE_COLOR);
            else if (type.number() == TWPT_GRAY) mModeNames.emplace_back(SANE_VALUE_SCAN_MODE_GRAY);
            else continue;
            mModePixelTypes.push_back(int(type.number()));
        }
    }
    if (mModeNames.empty() || currentPixelType() < 0) {
        *error = "the capability definitions offer no colour or gray pixel type";
        return false;
    }
    mModeList.clear();
    std::size_t longest = 0;
    for (const std::string& name : mModeNames) {
        mModeList.push_back(name.c_str());
        longest = std::max(longest, name.size());
    }
    mModeList.push_back(nullptr);

    mResolutionList.assign(1, 0);
    if (auto resolutions = capabilities->currentValidValues(ICAP_XRESOLUTION)) {
        for (const CapabilityValue& value : *resolutions) {
            // Only whole dpi: the scanner has no fractional resolutions.
            if (value.isFix32() && value.items()[1].number() == 0 && value.items()[0].number() > 0)
                mResolutionList.push_back(SANE_Word(value.items()[0].number()));
        }
    }
    mResolutionList[0] = SANE_Word(mResolutionList.size() - 1);
    if (mResolutionList[0] == 0 || currentResolution() <= 0) {
        *error = "the capability definitions offer no whole-dpi resolution";
        return false;
    }

    std::optional<double> width = fix32Value(capabilities->currentValue(ICAP_PHYSICALWIDTH));
    std::optional<double> height = fix32Value(capabilities->currentValue(ICAP_PHYSICALHEIGHT));
    if (!width || !height || *width <= 0 || *height <= 0) {
        *error = "the capability definitions give no physical size";
        return false;
    }
    mGlassWidth = std::int32_t(std::lround(*width * 100));
    mGlassHeight = std::int32_t(std::lround(*height * 100));
    // The scanner counts in hundredths of an inch: the glass as it counts it
    // (11.7 in rather than the 11.69999 of a TW_FIX32) is what may be asked for.
    // The quantisation tells frontends the step the scanner can really take.
    mXRange = {0, millimetresOf(mGlassWidth), SANE_FIX(kMillimetresPerHundredth)};
    mYRange = {0, millimetresOf(mGlassHeight), SANE_FIX(kMillimetresPerHundredth)};
    mArea = {0, 0, mXRange.max, mYRange.max};
    mPreview = SANE_FALSE;

    mDescriptors[kOptCount] = settable(SANE_NAME_NUM_OPTIONS, SANE_TITLE_NUM_OPTIONS, SANE_DESC_NUM_OPTIONS,
                                       SANE_TYPE_INT, SANE_UNIT_NONE, sizeof(SANE_Word));
    mDescriptors[kOptCount].cap = SANE_CAP_SOFT_DETECT;
    mDescriptors[kOptModeGroup] = group(SANE_I18N("Scan Mode"));
    mDescriptors[kOptMode] = settable(SANE_NAME_SCAN_MODE, SANE_TITLE_SCAN_MODE, SANE_DESC_SCAN_MODE,
                                      SANE_TYPE_STRING, SANE_UNIT_NONE, SANE_Int(longest + 1));
    mDescriptors[kOptMode].constraint_type = SANE_CONSTRAINT_STRING_LIST;
    mDescriptors[kOptMode].constraint.string_list = mModeList.data();
    mDescriptors[kOptResolution] = settable(SANE_NAME_SCAN_RESOLUTION, SANE_TITLE_SCAN_RESOLUTION,
                                            SANE_DESC_SCAN_RESOLUTION, SANE_TYPE_INT, SANE_UNIT_DPI,
                                            sizeof(SANE_Word));
    mDescriptors[kOptResolution].constraint_type = SANE_CONSTRAINT_WORD_LIST;
    mDescriptors[kOptResolution].constraint.word_list = mResolutionList.data();
    mDescriptors[kOptPreview] = settable(SANE_NAME_PREVIEW, SANE_TITLE_PREVIEW, SANE_DESC_PREVIEW, SANE_TYPE_BOOL,
                                         SANE_UNIT_NONE, sizeof(SANE_Word));
    mDescriptors[kOptGeometryGroup] = group(SANE_I18N("Geometry"));
    struct Corner {
        OptionIndex index;
        const char *name, *title, *desc;
        const SANE_Range* range;
    };
    const Corner corners[] = {
        {kOptTlX, SANE_NAME_SCAN_TL_X, SANE_TITLE_SCAN_TL_X, SANE_DESC_SCAN_TL_X, &mXRange},
        {kOptTlY, SANE_NAME_SCAN_TL_Y, SANE_TITLE_SCAN_TL_Y, SANE_DESC_SCAN_TL_Y, &mYRange},
        {kOptBrX, SANE_NAME_SCAN_BR_X, SANE_TITLE_SCAN_BR_X, SANE_DESC_SCAN_BR_X, &mXRange},
        {kOptBrY, SANE_NAME_SCAN_BR_Y, SANE_TITLE_SCAN_BR_Y, SANE_DESC_SCAN_BR_Y, &mYRange},
    };
    for (const Corner& corner : corners) {
        mDescriptors[corner.index] =
            settable(corner.name, corner.title, corner.desc, SANE_TYPE_FIXED, SANE_UNIT_MM, sizeof(SANE_Word));
        mDescriptors[corner.index].constraint_type = SANE_CONSTRAINT_RANGE;
        mDescriptors[corner.index].constraint.range = corner.range;
    }
    return true;
}

const SANE_Option_Descriptor* SaneOptions::descriptor(SANE_Int option) const
{
    if (option < 0 || option >= kOptionCount) return nullptr;
    return &mDescriptors[std::size_t(option)];
}

SANE_Status SaneOptions::control(SANE_Int option, SANE_Action action, void* value, SANE_Int* info)
{
    if (info) *info = 0;
    if (option < 0 || option >= kOptionCount || !value) return SANE_STATUS_INVAL;
    if (mDescriptors[std::size_t(option)].type == SANE_TYPE_GROUP) return SANE_STATUS_INVAL;
    switch (action) {
    case SANE_ACTION_GET_VALUE: return getValue(option, value);
    case SANE_ACTION_SET_VALUE:
        if (!SANE_OPTION_IS_SETTABLE(mDescriptors[std::size_t(option)].cap)) return SANE_STATUS_INVAL;
        return setValue(option, value, info);
    default: return SANE_STATUS_INVAL;  // nothing here can choose itself (SANE_ACTION_SET_AUTO)
    }
}

SANE_Status SaneOptions::getValue(SANE_Int option, void* value) const
{
    SANE_Word word = 0;
    switch (option) {
    case kOptCount: word = kOptionCount; break;
    case kOptMode: {
        int type = currentPixelType();
        for (std::size_t i = 0; i < mModePixelTypes.size(); ++i)
            if (mModePixelTypes[i] == type) {
                std::memcpy(value, mModeNames[i].c_str(), mModeNames[i].size() + 1);
                return SANE_STATUS_GOOD;
            }
        return SANE_STATUS_INVAL;
    }
    case kOptResolution: word = currentResolution(); break;
    case kOptPreview: word = mPreview; break;
    case kOptTlX:
    case kOptTlY:
    case kOptBrX:
    case kOptBrY: word = mArea[std::size_t(option - kOptTlX)]; break;
    default: return SANE_STATUS_INVAL;
    }
    std::memcpy(value, &word, sizeof word);
    return SANE_STATUS_GOOD;
}

SANE_Status SaneOptions::setValue(SANE_Int option, void* value, SANE_Int* info)
{
    // Values are constrained the way every SANE backend does it, never
    // refused for being off the grid or out of range: frontends compute
    // corners from sizes (scanimage's -x) and round resolutions themselves,
    // and expect the nearest possible value back, flagged as inexact.
    bool inexact = false;
    if (option == kOptMode) {
        // The caller's buffer holds at most `size` bytes: never look further
        // for the terminating NUL.
        std::size_t size = std::size_t(mDescriptors[kOptMode].size);
        char* text = static_cast<char*>(value);
        std::size_t length = strnlen(text, size);
        if (length == size) return SANE_STATUS_INVAL;
        std::optional<std::size_t> chosen = matchModeName(std::string_view(text, length));
        if (!chosen) return SANE_STATUS_INVAL;
        if (mCapabilities->setCurrentValue(ICAP_PIXELTYPE, CapabilityValue(mModePixelTypes[*chosen])) != 0)
            return SANE_STATUS_INVAL;
        const std::string& name = mModeNames[*chosen];
        if (name != std::string_view(text, length)) {
            std::memcpy(text, name.c_str(), name.size() + 1);
            inexact = true;
        }
    } else {
        SANE_Word word;
        std::memcpy(&word, value, sizeof word);
        SANE_Word stored = word;
        switch (option) {
        case kOptResolution: {
            stored = nearestResolution(word);
            if (mCapabilities->setCurrentValue(ICAP_XRESOLUTION, CapabilityValue::fix32(std::int16_t(stored), 0)) !=
                0)
                return SANE_STATUS_INVAL;
            break;
        }
        case kOptPreview:
            if (word != SANE_FALSE && word != SANE_TRUE) return SANE_STATUS_INVAL;
            mPreview = word;
            break;
        case kOptTlX:
        case kOptTlY:
        case kOptBrX:
        case kOptBrY: {
            std::int32_t limit = option == kOptTlX || option == kOptBrX ? mGlassWidth : mGlassHeight;
            stored = millimetresOf(std::clamp(hundredthsOf(word), 0, limit));
            mArea[std::size_t(option - kOptTlX)] = stored;
            break;
        }
        default: return SANE_STATUS_INVAL;
        }
        if (stored != word) {
            std::memcpy(value, &stored, sizeof stored);
            inexact = true;
        }
    }
    if (info) *info |= SANE_INFO_RELOAD_PARAMS | (inexact ? SANE_INFO_INEXACT : 0);
    return SANE_STATUS_GOOD;
}

std::optional<std::size_t> SaneOptions::matchModeName(std::string_view text) const
{
    // An exact name first (ignoring case), else the one name it begins.
    auto equalIgnoringCase = [](std::string_view a, std::string_view b) {
        return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
                   return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
               });
    };
    std::optional<std::size_t> prefixOf;
    int prefixes = 0;
    for (std::size_t i = 0; i < mModeNames.size(); ++i) {
        std::string_view name = mModeNames[i];
        if (equalIgnoringCase(name, text)) return i;
        if (!text.empty() && text.size() < name.size() && equalIgnoringCase(name.substr(0, text.size()), text)) {
            prefixOf = i;
            ++prefixes;
        }
    }
    if (prefixes == 1) return prefixOf;
    return std::nullopt;
}

SANE_Word SaneOptions::nearestResolution(SANE_Word asked) const
{
    // Ties go to the higher resolution: more detail rather than less.
    SANE_Word best = mResolutionList[1];
    for (auto it = mResolutionList.begin() + 1; it != mResolutionList.end(); ++it) {
        std::int64_t distance = std::llabs(std::int64_t(*it) - asked);
        std::int64_t bestDistance = std::llabs(std::int64_t(best) - asked);
        if (distance < bestDistance || (distance == bestDistance && *it > best)) best = *it;
    }
    return best;
}

int SaneOptions::currentPixelType() const
{
    std::optional<CapabilityValue> value = mCapabilities->currentValue(ICAP_PIXELTYPE);
    return value && value->isNumber() ? int(value->number()) : -1;
}

SANE_Int SaneOptions::currentResolution() const
{
    std::optional<double> dpi = fix32Value(mCapabilities->currentValue(ICAP_XRESOLUTION));
    return dpi ? SANE_Int(*dpi) : 0;
}

ScanRequest SaneOptions::request() const
{
    ScanRequest request;
    request.gray = currentPixelType() == TWPT_GRAY;
    // A preview is for framing the page: the lowest resolution is fastest.
    request.dpi = mPreview ? *std::min_element(mResolutionList.begin() + 1, mResolutionList.end())
                           : currentResolution();
    // Corners given the wrong way round still mean the same rectangle.
    std::int32_t x1 = hundredthsOf(mArea[0]), y1 = hundredthsOf(mArea[1]);
    std::int32_t x2 = hundredthsOf(mArea[2]), y2 = hundredthsOf(mArea[3]);
    request.left = std::clamp(std::min(x1, x2), 0, mGlassWidth);
    request.right = std::clamp(std::max(x1, x2), 0, mGlassWidth);
    request.top = std::clamp(std::min(y1, y2), 0, mGlassHeight);
    request.bottom = std::clamp(std::max(y1, y2), 0, mGlassHeight);
    // An area thinner than the scanner's step (scanimage -x 0.1) is one step
    // wide rather than nothing: the frontend asked for an image.
    auto widen = [](std::int32_t& low, std::int32_t& high, std::int32_t limit) {
        if (high > low) return;
        if (high < limit) ++high;
        else --low;
    };
    widen(request.left, request.right, mGlassWidth);
    widen(request.top, request.bottom, mGlassHeight);
    return request;
}

}  // namespace zentary::sane
