// Reading a capability definition file.
//
// The file comes from our own bundle, but it is data: a hand edit can break
// it, so everything is checked here, at open, and a broken file is reported
// with the file, the key and the problem instead of surfacing later as a
// capability that mysteriously fails.
#include <plist/plist.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "capabilities/CapabilityRecord.h"
#include "capabilities/ContainerCodec.h"
#include "platform/Plist.h"

namespace zentary {

namespace {

using namespace twain;

// Values nest at most as an array of frames of TW_FIX32 pairs; anything deeper is not a
// value, and a depth limit keeps a hostile file from exhausting the stack.
constexpr int kMaxValueDepth = 4;
// Dependency chains are followed recursively when building and propagating;
// real models need two or three levels.
constexpr int kMaxDependencyDepth = 32;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

class Loader {
public:
    Loader(std::string fileName, std::string* error) : mFileName(std::move(fileName)), mError(error) {}

    std::optional<CapabilityModel> load(const std::string& xml);

private:
    bool fail(const std::string& where, const std::string& problem)
    {
        if (mError) *mError = mFileName + ": " + where + ": " + problem;
        return false;
    }

    std::optional<TW_UINT16> parseKey(const char* text) const;
    bool parseValue(plist_t node, int depth, CapabilityValue& out) const;
    bool parseInteger(plist_t node, std::int64_t& out) const;
    bool parseKeyList(plist_t node, const std::string& where, const char* name, std::vector<TW_UINT16>& out);
    bool parseConformingValue(plist_t node, const CapabilityRecord& record, const std::string& where,
                              const char* name, CapabilityValue& out);
    bool parseRecord(const std::string& key, plist_t node, CapabilityRecord& record);
    bool parseEntry(const std::string& where, plist_t node, CapabilityRecord& record, ValidValuesEntry& entry);
    bool checkGraph();
    bool visit(TW_UINT16 cap, int depth, std::map<TW_UINT16, int>& state);
    bool finishBuildingCapability(TW_UINT16 cap);
    bool buildAndSetInitialValues(TW_UINT16 cap, const std::map<TW_UINT16, CapabilityValue>& criteria);

    std::string mFileName;
    std::string* mError;
    CapabilityModel mModel;
};

std::optional<TW_UINT16> Loader::parseKey(const char* text) const
{
    // Every lookup formats the number as "0x%04.4X"; a key in any other
    // spelling could never be found, so it is refused here.
    if (!text || std::strlen(text) != 6 || text[0] != '0' || text[1] != 'x') return std::nullopt;
    unsigned value = 0;
    for (int i = 2; i < 6; ++i) {
        char c = text[i];
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return std::nullopt;
        value = value * 16 + digit;
    }
    return static_cast<TW_UINT16>(value);
}

bool Loader::parseInteger(plist_t node, std::int64_t& out) const
{
    if (plist_get_node_type(node) == PLIST_UINT) {
        std::uint64_t raw = 0;
        plist_get_uint_val(node, &raw);
        // libplist keeps negative integers as their two's complement.
        out = static_cast<std::int64_t>(raw);
        return true;
    }
    if (plist_get_node_type(node) == PLIST_BOOLEAN) {
        std::uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        out = flag ? 1 : 0;
        return true;
    }
    return false;
}

bool Loader::parseValue(plist_t node, int depth, CapabilityValue& out) const
{
    std::int64_t number;
    if (parseInteger(node, number)) {
        out = number;
        return true;
    }
    if (plist_get_node_type(node) != PLIST_ARRAY || depth >= kMaxValueDepth) return false;
    std::vector<CapabilityValue> items;
    std::uint32_t count = plist_array_get_size(node);
    items.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        CapabilityValue item;
        if (!parseValue(plist_array_get_item(node, i), depth + 1, item)) return false;
        items.push_back(std::move(item));
    }
    out = CapabilityValue::list(std::move(items));
    return true;
}

bool Loader::parseKeyList(plist_t node, const std::string& where, const char* name, std::vector<TW_UINT16>& out)
{
    if (plist_get_node_type(node) != PLIST_ARRAY) return fail(where, std::string("\"") + name + "\" is not an array");
    std::uint32_t count = plist_array_get_size(node);
    for (std::uint32_t i = 0; i < count; ++i) {
        plist_t item = plist_array_get_item(node, i);
        char* text = nullptr;
        if (plist_get_node_type(item) == PLIST_STRING) plist_get_string_val(item, &text);
        std::unique_ptr<char, FreeDeleter> owned(text);
        auto cap = parseKey(text);
        if (!cap)
            return fail(where, std::string("\"") + name + "\" element " + std::to_string(i) +
                                   " is not a capability key of the form 0x%04.4X");
        out.push_back(*cap);
    }
    return true;
}

bool Loader::parseConformingValue(plist_t node, const CapabilityRecord& record, const std::string& where,
                                  const char* name, CapabilityValue& out)
{
    if (!node) return fail(where, std::string("\"") + name + "\" is missing");
    if (!parseValue(node, 0, out)) return fail(where, std::string("\"") + name + "\" is not a capability value");
    // An array capability's value is the whole list; any other holds one item.
    bool fits;
    if (record.containerType == TWON_ARRAY) {
        fits = !out.isNumber();
        for (const auto& item : out.items()) fits = fits && containers::itemFits(record.itemType, item);
    } else {
        fits = containers::itemFits(record.itemType, out);
    }
    if (!fits)
        return fail(where, std::string("\"") + name + "\" does not fit item type " + std::to_string(record.itemType));
    return true;
}

bool Loader::parseEntry(const std::string& where, plist_t node, CapabilityRecord& record, ValidValuesEntry& entry)
{
    if (plist_get_node_type(node) != PLIST_DICT) return fail(where, "is not a dictionary");
    plist_t dependencies = plist_dict_get_item(node, "Dependencies");
    if (!dependencies) return fail(where, "\"Dependencies\" is missing");
    if (plist_get_node_type(dependencies) != PLIST_DICT) return fail(where, "\"Dependencies\" is not a dictionary");
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(dependencies, &iter);
    std::unique_ptr<void, FreeDeleter> ownedIter(iter);
    for (;;) {
        char* text = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dependencies, iter, &text, &value);
        std::unique_ptr<char, FreeDeleter> owned(text);
        if (!value) break;
        auto cap = parseKey(text);
        if (!cap) return fail(where, "\"Dependencies\" key is not of the form 0x%04.4X");
        CapabilityValue parsed;
        if (!parseValue(value, 0, parsed)) return fail(where, "\"Dependencies\" value is not a capability value");
        entry.dependencies[*cap] = std::move(parsed);
    }
    plist_t values = plist_dict_get_item(node, "Values");
    if (!values) return fail(where, "\"Values\" is missing");
    if (plist_get_node_type(values) != PLIST_ARRAY) return fail(where, "\"Values\" is not an array");
    std::uint32_t count = plist_array_get_size(values);
    for (std::uint32_t i = 0; i < count; ++i) {
        CapabilityValue value;
        std::string name = "Values element " + std::to_string(i);
        if (!parseConformingValue(plist_array_get_item(values, i), record, where, name.c_str(), value)) return false;
        entry.values.push_back(std::move(value));
    }
    return parseConformingValue(plist_dict_get_item(node, "DefaultValue"), record, where, "DefaultValue",
                                entry.defaultValue);
}

bool Loader::parseRecord(const std::string& where, plist_t node, CapabilityRecord& record)
{
    if (plist_get_node_type(node) != PLIST_DICT) return fail(where, "record is not a dictionary");
    auto integerKey = [&](const char* name, std::int64_t max, TW_UINT16& out) {
        plist_t item = plist_dict_get_item(node, name);
        std::int64_t value;
        if (!item) return fail(where, std::string("\"") + name + "\" is missing");
        if (plist_get_node_type(item) != PLIST_UINT || !parseInteger(item, value) || value < 0 || value > max)
            return fail(where, std::string("\"") + name + "\" is not an integer from 0 to " + std::to_string(max));
        out = static_cast<TW_UINT16>(value);
        return true;
    };
    // Container types other than array, enumeration and one-value load, and
    // then answer only MSG_QUERYSUPPORT. Item types beyond TW_FRAME (strings,
    // handles) have no value form in the store at all.
    if (!integerKey("ContainerType", 0xFFFF, record.containerType)) return false;
    if (!integerKey("ItemType", TWTY_FRAME, record.itemType)) return false;

    plist_t operations = plist_dict_get_item(node, "SupportedOperations");
    if (!operations) return fail(where, "\"SupportedOperations\" is missing");
    if (plist_get_node_type(operations) != PLIST_ARRAY) return fail(where, "\"SupportedOperations\" is not an array");
    for (std::uint32_t i = 0, n = plist_array_get_size(operations); i < n; ++i) {
        std::int64_t bit;
        plist_t item = plist_array_get_item(operations, i);
        if (plist_get_node_type(item) != PLIST_UINT || !parseInteger(item, bit))
            return fail(where, "\"SupportedOperations\" element " + std::to_string(i) + " is not an integer");
        record.supportedOperations.push_back(bit);
    }

    CapabilityValue powerOn;
    if (!parseConformingValue(plist_dict_get_item(node, "PowerOnDefaultValue"), record, where, "PowerOnDefaultValue",
                              powerOn))
        return false;
    record.powerOnDefaultValue = std::move(powerOn);

    if (plist_t dependsOn = plist_dict_get_item(node, "DependsOn"))
        if (!parseKeyList(dependsOn, where, "DependsOn", record.dependsOn)) return false;
    if (plist_t dependents = plist_dict_get_item(node, "Dependents"))
        if (!parseKeyList(dependents, where, "Dependents", record.dependents)) return false;
    // A file that carries negotiated values would skip the building of its
    // record and of the links to it; that is never what its author meant.
    if (plist_dict_get_item(node, "CurrentValue")) return fail(where, "\"CurrentValue\" must not be in the file");

    plist_t validValues = plist_dict_get_item(node, "ValidValues");
    if (!validValues) return fail(where, "\"ValidValues\" is missing");
    if (plist_get_node_type(validValues) != PLIST_ARRAY) return fail(where, "\"ValidValues\" is not an array");
    record.validValues.emplace();
    for (std::uint32_t i = 0, n = plist_array_get_size(validValues); i < n; ++i) {
        ValidValuesEntry entry;
        if (!parseEntry(where + ": \"ValidValues\" entry " + std::to_string(i), plist_array_get_item(validValues, i),
                        record, entry))
            return false;
        record.validValues->push_back(std::move(entry));
    }
    return true;
}

// Depth-first walk of "DependsOn": 1 = on the current path, 2 = done.
bool Loader::visit(TW_UINT16 cap, int depth, std::map<TW_UINT16, int>& state)
{
    const std::string where = "key " + capabilityKey(cap);
    if (depth > kMaxDependencyDepth)
        return fail(where, "\"DependsOn\" chain deeper than " + std::to_string(kMaxDependencyDepth));
    int& mark = state[cap];
    if (mark == 2) return true;
    if (mark == 1) return fail(where, "\"DependsOn\" cycle through this key");
    mark = 1;
    for (TW_UINT16 dependency : mModel.records.at(cap).dependsOn)
        if (!visit(dependency, depth + 1, state)) return false;
    state[cap] = 2;
    return true;
}

bool Loader::checkGraph()
{
    for (TW_UINT16 cap : mModel.order) {
        const auto& record = mModel.records.at(cap);
        for (const auto* keys : {&record.dependsOn, &record.dependents})
            for (TW_UINT16 other : *keys)
                if (!mModel.records.count(other))
                    return fail("key " + capabilityKey(cap),
                                (keys == &record.dependsOn ? "\"DependsOn\" names " : "\"Dependents\" names ") +
                                    capabilityKey(other) + ", which the file does not define");
    }
    std::map<TW_UINT16, int> state;
    for (TW_UINT16 cap : mModel.order)
        if (!visit(cap, 0, state)) return false;
    return true;
}

bool Loader::buildAndSetInitialValues(TW_UINT16 cap, const std::map<TW_UINT16, CapabilityValue>& criteria)
{
    auto& record = mModel.records.at(cap);
    std::vector<CapabilityValue> all;
    const ValidValuesEntry* chosen = nullptr;
    // Only the entries up to the one that applies now add to the values that
    // are valid in some state.
    for (const auto& entry : *record.validValues) {
        for (const auto& value : entry.values)
            if (std::find(all.begin(), all.end(), value) == all.end()) all.push_back(value);
        if (entry.dependencies == criteria) {
            chosen = &entry;
            break;
        }
    }
    if (!chosen)
        return fail("key " + capabilityKey(cap),
                    "no \"ValidValues\" entry applies to the power-on values of its \"DependsOn\" capabilities");
    record.currentValidValues = chosen->values;
    record.currentValue = *record.powerOnDefaultValue;
    record.defaultValue = chosen->defaultValue;
    record.allValidValues = std::move(all);
    return true;
}

bool Loader::finishBuildingCapability(TW_UINT16 cap)
{
    auto& record = mModel.records.at(cap);
    if (record.currentValue) return true;  // built earlier, through a record that depends on it
    std::map<TW_UINT16, CapabilityValue> criteria;
    for (TW_UINT16 dependency : record.dependsOn) {
        if (!finishBuildingCapability(dependency)) return false;
        auto& other = mModel.records.at(dependency);
        other.dependents.push_back(cap);
        criteria[dependency] = *other.currentValue;
    }
    return buildAndSetInitialValues(cap, criteria);
}

std::optional<CapabilityModel> Loader::load(const std::string& xml)
{
    if (xml.size() > std::numeric_limits<std::uint32_t>::max()) {
        fail("file", "too large");
        return std::nullopt;
    }
    PlistPtr root = parsePlistDict(xml);
    plist_t rootNode = root.get();
    if (!root) {
        fail("file", "not an XML property list with a dictionary at its root");
        return std::nullopt;
    }
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(rootNode, &iter);
    std::unique_ptr<void, FreeDeleter> ownedIter(iter);
    for (;;) {
        char* text = nullptr;
        plist_t node = nullptr;
        plist_dict_next_item(rootNode, iter, &text, &node);
        std::unique_ptr<char, FreeDeleter> owned(text);
        if (!node) break;
        std::string where = std::string("key ") + (text ? text : "");
        auto cap = parseKey(text);
        if (!cap) {
            fail(where, "not of the form 0x%04.4X");
            return std::nullopt;
        }
        if (*cap == CAP_SUPPORTEDCAPS) {
            fail(where, "CAP_SUPPORTEDCAPS is made by the data source and must not be in the file");
            return std::nullopt;
        }
        if (mModel.records.count(*cap)) {
            fail(where, "defined twice");
            return std::nullopt;
        }
        CapabilityRecord record;
        if (!parseRecord(where, node, record)) return std::nullopt;
        mModel.records.emplace(*cap, std::move(record));
        mModel.order.push_back(*cap);
    }
    if (!checkGraph()) return std::nullopt;
    for (TW_UINT16 cap : mModel.order)
        if (!finishBuildingCapability(cap)) return std::nullopt;

    // CAP_SUPPORTEDCAPS lists itself first, then every capability of the file.
    CapabilityRecord supported;
    supported.containerType = TWON_ARRAY;
    supported.itemType = TWTY_UINT16;
    supported.supportedOperations = {TWQC_GET, TWQC_GETDEFAULT, TWQC_GETCURRENT};
    std::vector<CapabilityValue> caps{CapabilityValue(CAP_SUPPORTEDCAPS)};
    for (TW_UINT16 cap : mModel.order) caps.emplace_back(cap);
    supported.currentValue = CapabilityValue::list(caps);
    supported.defaultValue = CapabilityValue::list(std::move(caps));
    mModel.records.emplace(CAP_SUPPORTEDCAPS, std::move(supported));
    return std::move(mModel);
}

}  // namespace

std::string capabilityKey(TW_UINT16 cap)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", static_cast<unsigned>(cap));
    return text;
}

std::optional<CapabilityModel> loadCapabilityModel(const std::string& xml, const std::string& fileName,
                                                   std::string* error)
{
    return Loader(fileName, error).load(xml);
}

}  // namespace zentary
