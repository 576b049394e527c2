#include "CapabilityList.h"

#include <cstdio>
#include <cstring>
#include <optional>

#include "TwainText.h"
#include "platform/UiLog.h"

namespace zentary {

using namespace twain;

namespace {

// A container in a handle of unknown size (through an installed manager)
// reaches as far as its type and NumItems say; far more items than any
// scanner's capability has are refused.
OwnedHandle::Extent containerWalk(TW_UINT16 conType)
{
    constexpr std::uint32_t kMaxItems = 65536;
    return [conType](const ByteReader& read) { return containerExtent(conType, read, kMaxItems); };
}

double fix32(const std::uint8_t* at)
{
    TW_FIX32 fix;
    std::memcpy(&fix, at, sizeof(fix));
    return fix.Whole + fix.Frac / 65536.0;
}

std::string formatItem(TW_UINT16 cap, TW_UINT16 type, const std::uint8_t* at)
{
    char text[96];
    switch (type) {
    case TWTY_FIX32: std::snprintf(text, sizeof(text), "%g", fix32(at)); return text;
    case TWTY_FRAME:
        std::snprintf(text, sizeof(text), "%g,%g,%g,%g", fix32(at), fix32(at + 4), fix32(at + 8), fix32(at + 12));
        return text;
    case TWTY_STR32:
    case TWTY_STR64:
    case TWTY_STR128:
    case TWTY_STR255: return std::string(reinterpret_cast<const char*>(at), strnlen(reinterpret_cast<const char*>(at), itemSize(type)));
    default: break;
    }
    std::int64_t value = 0;
    switch (type) {
    case TWTY_INT8: value = static_cast<std::int8_t>(at[0]); break;
    case TWTY_UINT8: value = at[0]; break;
    case TWTY_INT16: { std::int16_t v; std::memcpy(&v, at, 2); value = v; break; }
    case TWTY_UINT16:
    case TWTY_BOOL: { std::uint16_t v; std::memcpy(&v, at, 2); value = v; break; }
    case TWTY_INT32: { std::int32_t v; std::memcpy(&v, at, 4); value = v; break; }
    case TWTY_UINT32: { std::uint32_t v; std::memcpy(&v, at, 4); value = v; break; }
    default: return "?";
    }
    if (type == TWTY_BOOL) return value ? "true" : "false";
    std::string name = valueName(cap, static_cast<std::uint32_t>(value));
    return name.empty() ? std::to_string(value) : name;
}

// One answer of the source, checked against the size of its handle.
struct Answer {
    TW_UINT16 conType = 0;
    TW_UINT16 itemType = 0;
    std::vector<std::string> items;
    std::optional<std::size_t> currentIndex, defaultIndex;
};

std::optional<Answer> ask(TwainLink& source, TW_UINT16 cap, TW_UINT16 message)
{
    TW_CAPABILITY capability{cap, TWON_DONTCARE16, nullptr};
    TW_UINT16 rc = source.call(DG_CONTROL, DAT_CAPABILITY, message, &capability);
    OwnedHandle owned(source, capability.hContainer);
    if (rc != TWRC_SUCCESS) {
        source.conditionCode();  // clear it: a refused question is not an error here
        return std::nullopt;
    }
    std::span<const std::uint8_t> container = owned.bytes(containerWalk(capability.ConType));
    if (container.size() < 2) return std::nullopt;
    const std::optional<std::size_t> size = container.size();
    const std::uint8_t* bytes = container.data();
    Answer answer;
    answer.conType = capability.ConType;
    std::memcpy(&answer.itemType, bytes, 2);
    std::size_t each = itemSize(answer.itemType);
    if (each == 0) return std::nullopt;
    auto item = [&](std::size_t offset) -> std::optional<std::string> {
        if (offset + each > *size) return std::nullopt;
        return formatItem(cap, answer.itemType, bytes + offset);
    };
    auto u32 = [&](std::size_t offset) -> std::optional<std::uint32_t> {
        if (offset + 4 > *size) return std::nullopt;
        std::uint32_t v;
        std::memcpy(&v, bytes + offset, 4);
        return v;
    };
    switch (capability.ConType) {
    case TWON_ONEVALUE: {
        auto value = item(2);
        if (!value) return std::nullopt;
        answer.items.push_back(*value);
        break;
    }
    case TWON_ENUMERATION:
    case TWON_ARRAY: {
        bool enumeration = capability.ConType == TWON_ENUMERATION;
        auto count = u32(2);
        std::size_t first = enumeration ? 14 : 6;
        if (!count || *count > (*size) / each) return std::nullopt;
        for (std::uint32_t i = 0; i < *count; ++i) {
            auto value = item(first + i * each);
            if (!value) return std::nullopt;
            answer.items.push_back(*value);
        }
        if (enumeration) {
            auto current = u32(6), def = u32(10);
            if (current && *current < *count) answer.currentIndex = *current;
            if (def && *def < *count) answer.defaultIndex = *def;
        }
        break;
    }
    case TWON_RANGE: {
        auto low = item(2), high = item(6), step = item(10), def = item(14), current = item(18);
        if (!low || !high || !step || !def || !current) return std::nullopt;
        answer.items = {*low + ".." + *high + " step " + *step, *def, *current};
        answer.defaultIndex = 1;
        answer.currentIndex = 2;
        break;
    }
    default: return std::nullopt;
    }
    return answer;
}

std::string containerName(TW_UINT16 conType)
{
    switch (conType) {
    case TWON_ONEVALUE: return "TWON_ONEVALUE";
    case TWON_ENUMERATION: return "TWON_ENUMERATION";
    case TWON_ARRAY: return "TWON_ARRAY";
    case TWON_RANGE: return "TWON_RANGE";
    default: return "?";
    }
}

std::string single(const std::optional<Answer>& answer)
{
    if (!answer || answer->items.empty()) return "";
    if (answer->conType == TWON_ARRAY) return joinValues(answer->items, ",");
    if (answer->currentIndex) return answer->items[*answer->currentIndex];
    return answer->items.front();
}

std::vector<TW_UINT16> supportedCapabilities(TwainLink& source)
{
    std::vector<TW_UINT16> caps;
    TW_CAPABILITY capability{CAP_SUPPORTEDCAPS, TWON_DONTCARE16, nullptr};
    TW_UINT16 rc = source.call(DG_CONTROL, DAT_CAPABILITY, MSG_GET, &capability);
    OwnedHandle owned(source, capability.hContainer);
    std::span<const std::uint8_t> container = owned.bytes(containerWalk(capability.ConType));
    if (rc != TWRC_SUCCESS || capability.ConType != TWON_ARRAY || container.size() < 6) return caps;
    const std::optional<std::size_t> size = container.size();
    const std::uint8_t* bytes = container.data();
    std::uint32_t count;
    std::memcpy(&count, bytes + 2, 4);
    for (std::uint32_t i = 0; i < count && 6 + 2 * (i + 1) <= *size; ++i) {
        std::uint16_t cap;
        std::memcpy(&cap, bytes + 6 + 2 * i, 2);
        caps.push_back(cap);
    }
    return caps;
}

std::string identityVersion(const TW_IDENTITY& id)
{
    return std::to_string(id.Version.MajorNum) + "." + std::to_string(id.Version.MinorNum) + " (" +
           std::string(id.Version.Info, strnlen(id.Version.Info, sizeof(id.Version.Info))) + ")";
}

std::string field(const char (&text)[34])
{
    return std::string(text, strnlen(text, sizeof(text)));
}

}  // namespace

std::string joinValues(const std::vector<std::string>& values, const char* separator)
{
    std::string out;
    for (const std::string& value : values) out += (out.empty() ? "" : separator) + value;
    return out;
}

CapabilityValues capabilityValues(TwainLink& source, TW_UINT16 cap)
{
    CapabilityValues values;
    std::optional<Answer> all = ask(source, cap, MSG_GET);
    if (!all) return values;
    values.available = true;
    values.container = containerName(all->conType);
    values.itemType = itemTypeName(all->itemType);
    values.valid = all->conType == TWON_RANGE ? std::vector<std::string>{all->items[0]} : all->items;
    values.current = single(all);
    std::optional<Answer> current = ask(source, cap, MSG_GETCURRENT);
    if (current) values.current = single(current);
    std::optional<Answer> def = ask(source, cap, MSG_GETDEFAULT);
    if (def) values.defaultValue = single(def);
    else if (all->defaultIndex) values.defaultValue = all->items[*all->defaultIndex];
    return values;
}

std::string listTable(TwainLink& source)
{
    const TW_IDENTITY& id = source.source();
    std::string out = field(id.ProductName) + " by " + field(id.Manufacturer) + ", version " + identityVersion(id) +
                      ", TWAIN " + std::to_string(id.ProtocolMajor) + "." + std::to_string(id.ProtocolMinor) + "\n";
    char line[512];
    std::snprintf(line, sizeof(line), "%-26s %-14s %-14s %s\n", "CAPABILITY", "CURRENT", "DEFAULT", "VALID");
    out += line;
    for (TW_UINT16 cap : supportedCapabilities(source)) {
        CapabilityValues values = capabilityValues(source, cap);
        if (!values.available) continue;
        std::string valid = cap == CAP_SUPPORTEDCAPS ? "(this list)" : joinValues(values.valid, ", ");
        // The list of capabilities is this table itself.
        bool self = cap == CAP_SUPPORTEDCAPS;
        std::snprintf(line, sizeof(line), "%-26s %-14s %-14s %s\n", capabilityName(cap).c_str(),
                      self ? "" : values.current.c_str(), self ? "" : values.defaultValue.c_str(), valid.c_str());
        out += line;
    }
    return out;
}

std::string listJson(TwainLink& source)
{
    const TW_IDENTITY& id = source.source();
    std::string out = "{\"identity\":{\"manufacturer\":" + jsonQuoted(field(id.Manufacturer)) +
                      ",\"productFamily\":" + jsonQuoted(field(id.ProductFamily)) +
                      ",\"productName\":" + jsonQuoted(field(id.ProductName)) +
                      ",\"version\":" + jsonQuoted(identityVersion(id)) + ",\"protocol\":" +
                      jsonQuoted(std::to_string(id.ProtocolMajor) + "." + std::to_string(id.ProtocolMinor)) +
                      "},\"capabilities\":[";
    bool first = true;
    for (TW_UINT16 cap : supportedCapabilities(source)) {
        CapabilityValues values = capabilityValues(source, cap);
        if (!values.available) continue;
        std::string valid;
        for (const std::string& value : values.valid) valid += (valid.empty() ? "" : ",") + jsonQuoted(value);
        out += std::string(first ? "" : ",") + "\n{\"name\":" + jsonQuoted(capabilityName(cap)) +
               ",\"id\":" + std::to_string(cap) + ",\"container\":" + jsonQuoted(values.container) +
               ",\"type\":" + jsonQuoted(values.itemType) + ",\"current\":" + jsonQuoted(values.current) +
               ",\"default\":" + jsonQuoted(values.defaultValue) + ",\"valid\":[" + valid + "]}";
        first = false;
    }
    return out + "\n]}\n";
}

}  // namespace zentary
