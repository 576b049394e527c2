#include "capabilities/Capabilities.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "capabilities/ContainerCodec.h"

namespace zentary {

namespace {

using namespace twain;

// Definition files are a few kilobytes; anything far larger is not one.
constexpr std::uintmax_t kMaxDefinitionFileSize = 1 << 20;

class LockGuard {
public:
    LockGuard(pthread_rwlock_t& lock, bool exclusive)
        : mLock(lock), mLocked((exclusive ? pthread_rwlock_wrlock(&lock) : pthread_rwlock_rdlock(&lock)) == 0)
    {
    }
    ~LockGuard()
    {
        if (mLocked) pthread_rwlock_unlock(&mLock);
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;
    explicit operator bool() const { return mLocked; }

private:
    pthread_rwlock_t& mLock;
    bool mLocked;
};

bool contains(const std::vector<CapabilityValue>& list, const CapabilityValue& value)
{
    return std::find(list.begin(), list.end(), value) != list.end();
}

TW_UINT16 fail(TW_UINT16* conditionCode, TW_UINT16 code)
{
    if (conditionCode) *conditionCode = code;
    return TWRC_FAILURE;
}

// A lookup that found no entry without an error of its own is TWCC_BUMMER.
TW_UINT16 noEntry(TW_UINT16 error)
{
    return error != TWCC_SUCCESS ? error : TWCC_BUMMER;
}

bool fitsRecord(const CapabilityRecord& record, const CapabilityValue& value)
{
    if (record.containerType != TWON_ARRAY) return containers::itemFits(record.itemType, value);
    if (value.isNumber()) return false;
    return std::all_of(value.items().begin(), value.items().end(),
                       [&](const CapabilityValue& item) { return containers::itemFits(record.itemType, item); });
}

}  // namespace

// ---- Initialization ---------------------------------------------------------

Capabilities::Capabilities(bool performReadirisWorkaround) : mReadirisWorkaround(performReadirisWorkaround)
{
    mLockReady = pthread_rwlock_init(&mLock, nullptr) == 0;
}

Capabilities::~Capabilities()
{
    if (mLockReady) pthread_rwlock_destroy(&mLock);
}

std::unique_ptr<Capabilities> Capabilities::initWithModel(const std::string& model, bool performReadirisWorkaround,
                                                          const std::filesystem::path& capabilitiesDir,
                                                          std::string* error)
{
    std::unique_ptr<Capabilities> store(new Capabilities(performReadirisWorkaround));
    if (!store->mLockReady) {
        if (error) *error = "capability store: the read/write lock cannot be created";
        return nullptr;
    }
    if (!store->setModel(model, capabilitiesDir, error)) return nullptr;
    return store;
}

bool Capabilities::changeToModel(const std::string& model, const std::filesystem::path& capabilitiesDir,
                                 std::string* error)
{
    LockGuard lock(mLock, true);
    if (!lock) return false;
    return setModel(model, capabilitiesDir, error);
}

bool Capabilities::setModel(const std::string& model, const std::filesystem::path& capabilitiesDir,
                            std::string* error)
{
    std::string fileName = model;
    std::replace(fileName.begin(), fileName.end(), ' ', '_');
    const std::filesystem::path path = capabilitiesDir / (fileName + ".plist");

    std::error_code ec;
    auto size = std::filesystem::file_size(path, ec);
    if (ec || size > kMaxDefinitionFileSize) {
        if (error) *error = path.string() + ": " + (ec ? ec.message() : std::string("larger than 1 MiB"));
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::string xml{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (!in.good() && !in.eof()) {
        if (error) *error = path.string() + ": cannot be read";
        return false;
    }
    auto loaded = loadCapabilityModel(xml, path.string(), error);
    if (!loaded) return false;
    mCapabilities = std::make_unique<CapabilityMap>(std::move(loaded->records));
    return true;
}

// ---- Value interface --------------------------------------------------------

template <typename Getter>
auto Capabilities::copyUnderReadLock(TW_UINT16 cap, Getter getter) const
{
    using Result = decltype(getter(std::declval<const CapabilityRecord&>()));
    LockGuard lock(mLock, false);
    if (!lock) return Result{};
    const CapabilityRecord* record = capabilityForNumericKey(cap);
    return record ? getter(*record) : Result{};
}

std::optional<CapabilityValue> Capabilities::currentValue(TW_UINT16 cap) const
{
    return copyUnderReadLock(cap, [](const CapabilityRecord& r) { return r.currentValue; });
}

std::optional<CapabilityValue> Capabilities::defaultValue(TW_UINT16 cap) const
{
    return copyUnderReadLock(cap, [](const CapabilityRecord& r) { return r.defaultValue; });
}

std::optional<std::vector<CapabilityValue>> Capabilities::allValidValues(TW_UINT16 cap) const
{
    return copyUnderReadLock(cap, [](const CapabilityRecord& r) {
        // CAP_SUPPORTEDCAPS has no valid values of its own.
        return r.validValues ? std::optional(r.allValidValues) : std::nullopt;
    });
}

std::optional<std::vector<CapabilityValue>> Capabilities::currentValidValues(TW_UINT16 cap) const
{
    return copyUnderReadLock(cap, [](const CapabilityRecord& r) {
        return r.validValues ? std::optional(r.currentValidValues) : std::nullopt;
    });
}

TW_UINT16 Capabilities::setCurrentValue(TW_UINT16 cap, const CapabilityValue& value)
{
    LockGuard lock(mLock, true);
    if (!lock) return TWCC_BUMMER;
    CapabilityRecord* record = capabilityForNumericKey(cap);
    if (!record) return TWCC_BUMMER;
    // A capability whose valid values are unlimited would otherwise take a
    // value that no container of its type can carry.
    if (!fitsRecord(*record, value)) return TWCC_BADVALUE;
    return setCurrentValueInDictionary(*record, value);
}

// ---- Records and the rules of change ----------------------------------------

CapabilityRecord* Capabilities::capabilityForNumericKey(TW_UINT16 cap) const
{
    if (!mCapabilities) return nullptr;
    auto it = mCapabilities->find(cap);
    return it == mCapabilities->end() ? nullptr : &it->second;
}

bool Capabilities::supportsOperation(const CapabilityRecord& record, std::int64_t operation)
{
    // Each element names one operation; a combined mask matches none.
    return std::find(record.supportedOperations.begin(), record.supportedOperations.end(), operation) !=
           record.supportedOperations.end();
}

const ValidValuesEntry* Capabilities::validValuesUsingDependencies(const CapabilityRecord& record,
                                                                   TW_UINT16* error) const
{
    *error = TWCC_SUCCESS;
    if (!record.validValues) {
        *error = TWCC_LOWMEMORY;
        return nullptr;
    }
    std::map<TW_UINT16, CapabilityValue> criteria;
    for (TW_UINT16 dependency : record.dependsOn) {
        const CapabilityRecord* other = capabilityForNumericKey(dependency);
        if (!other || !other->currentValue) {
            *error = TWCC_LOWMEMORY;
            return nullptr;
        }
        criteria.emplace(dependency, *other->currentValue);
    }
    for (const auto& entry : *record.validValues)
        if (entry.dependencies == criteria) return &entry;
    return nullptr;
}

TW_UINT16 Capabilities::setCurrentValueInDictionary(CapabilityRecord& record, const CapabilityValue& value)
{
    if (record.currentValue == value) return TWCC_SUCCESS;
    const auto& allowed = record.currentValidValues;
    if (!allowed.empty() && !contains(allowed, value)) {
        // Tell the client whether the value could become valid by changing
        // what this capability depends on.
        TW_UINT16 error;
        const ValidValuesEntry* entry = validValuesUsingDependencies(record, &error);
        if (!entry) return noEntry(error);
        if (contains(entry->values, value)) return TWCC_BADVALUE;  // excluded by the client's own narrowing
        return contains(record.allValidValues, value) ? TWCC_CAPSEQERROR : TWCC_BADVALUE;
    }
    auto old = std::exchange(record.currentValue, value);
    if (TW_UINT16 code = updateDependentCapabilities(record)) {
        record.currentValue = std::move(old);
        return code;
    }
    return TWCC_SUCCESS;
}

TW_UINT16 Capabilities::constrainCurrentValidValuesInDictionary(CapabilityRecord& record,
                                                                const std::vector<CapabilityValue>& validValues,
                                                                const CapabilityValue* currentValue)
{
    const auto& present = record.currentValidValues;
    // A client may only narrow; unlimited values therefore cannot be narrowed.
    std::vector<CapabilityValue> narrowed;
    for (const auto& value : validValues) {
        if (!contains(present, value)) return TWCC_BADVALUE;
        if (!contains(narrowed, value)) narrowed.push_back(value);
    }
    // The same set in another order is no narrowing: the order we offer stays.
    const bool newList = narrowed.size() != present.size();
    const auto& inForce = newList ? narrowed : present;

    const bool newCurrent = currentValue && record.currentValue != *currentValue;
    const std::optional<CapabilityValue>& tested = newCurrent ? std::optional(*currentValue) : record.currentValue;
    if (!tested || !contains(inForce, *tested)) return TWCC_BADVALUE;
    std::optional<CapabilityValue> newDefault;
    if (!record.defaultValue || !contains(inForce, *record.defaultValue)) newDefault = validValues.front();

    if (newCurrent) {
        auto old = std::exchange(record.currentValue, *currentValue);
        if (TW_UINT16 code = updateDependentCapabilities(record)) {
            record.currentValue = std::move(old);
            return code;
        }
    }
    if (newList) {
        record.currentValidValues = std::move(narrowed);
        record.constrained = true;
    }
    if (newDefault) record.defaultValue = std::move(newDefault);
    return TWCC_SUCCESS;
}

TW_UINT16 Capabilities::resetValuesInDictionary(CapabilityRecord& record)
{
    TW_UINT16 error;
    const ValidValuesEntry* entry = validValuesUsingDependencies(record, &error);
    if (!entry) return noEntry(error);
    if (!record.powerOnDefaultValue) return TWCC_LOWMEMORY;
    const CapabilityValue& powerOn = *record.powerOnDefaultValue;
    if (!contains(entry->values, powerOn)) return TWCC_CAPSEQERROR;
    std::vector<CapabilityValue> values = entry->values;
    CapabilityValue defaultValue = entry->defaultValue;
    if (record.currentValue != powerOn) {
        auto old = std::exchange(record.currentValue, powerOn);
        if (TW_UINT16 code = updateDependentCapabilities(record)) {
            record.currentValue = std::move(old);
            return code;
        }
    }
    // Undoes the client's narrowing; "constrained" stays as a record that
    // the client once narrowed.
    record.currentValidValues = std::move(values);
    record.defaultValue = std::move(defaultValue);
    return TWCC_SUCCESS;
}

TW_UINT16 Capabilities::updateDependentCapabilities(const CapabilityRecord& record)
{
    // Depth first, in the order of "Dependents". The load refused cycles and
    // deep chains, so this recursion is bounded.
    const std::vector<TW_UINT16> dependents = record.dependents;
    for (TW_UINT16 key : dependents) {
        CapabilityRecord* dependent = capabilityForNumericKey(key);
        if (!dependent) return TWCC_BUMMER;
        TW_UINT16 error;
        const ValidValuesEntry* entry = validValuesUsingDependencies(*dependent, &error);
        if (!entry) return noEntry(error);
        std::vector<CapabilityValue> values = entry->values;
        if (!values.empty()) {
            CapabilityValue defaultValue = contains(values, entry->defaultValue) ? entry->defaultValue : values.front();
            dependent->defaultValue = defaultValue;
            if (!dependent->currentValue || !contains(values, *dependent->currentValue)) {
                dependent->currentValue = std::move(defaultValue);
                if (TW_UINT16 code = updateDependentCapabilities(*dependent)) return code;
            }
        }
        dependent->currentValidValues = std::move(values);
    }
    return TWCC_SUCCESS;
}

// ---- TWAIN capability operations --------------------------------------------

TW_UINT16 Capabilities::getTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    return operateTwain(Operation::Get, cap, conditionCode);
}

TW_UINT16 Capabilities::getCurrentTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    return operateTwain(Operation::GetCurrent, cap, conditionCode);
}

TW_UINT16 Capabilities::getDefaultTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    return operateTwain(Operation::GetDefault, cap, conditionCode);
}

TW_UINT16 Capabilities::setTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    return operateTwain(Operation::Set, cap, conditionCode);
}

TW_UINT16 Capabilities::resetTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    return operateTwain(Operation::Reset, cap, conditionCode);
}

TW_UINT16 Capabilities::querySupportTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    return operateTwain(Operation::QuerySupport, cap, conditionCode);
}

TW_UINT16 Capabilities::operateTwain(Operation operation, TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    const bool changes = operation == Operation::Set || operation == Operation::Reset;
    LockGuard lock(mLock, changes);
    if (!lock) return fail(conditionCode, TWCC_BUMMER);
    if (!cap) return fail(conditionCode, TWCC_BADVALUE);
    if (operation == Operation::Set && !cap->hContainer) return fail(conditionCode, TWCC_BADVALUE);
    CapabilityRecord* record = capabilityForNumericKey(cap->Cap);
    if (!record) return fail(conditionCode, TWCC_CAPUNSUPPORTED);

    static constexpr std::int64_t kBits[] = {TWQC_GET, TWQC_GETCURRENT, TWQC_GETDEFAULT, TWQC_SET, TWQC_RESET, 0};
    if (operation != Operation::QuerySupport && !supportsOperation(*record, kBits[static_cast<int>(operation)]))
        return fail(conditionCode, TWCC_CAPBADOPERATION);

    switch (operation) {
        case Operation::Get: return fillTwainCapability(cap, Fill::Get, *record, conditionCode);
        case Operation::GetCurrent: return fillTwainCapability(cap, Fill::Current, *record, conditionCode);
        case Operation::GetDefault: return fillTwainCapability(cap, Fill::Default, *record, conditionCode);
        case Operation::QuerySupport: return fillTwainCapability(cap, Fill::Query, *record, conditionCode);
        case Operation::Set: return setTwainCapability(cap, *record, conditionCode);
        case Operation::Reset:
            // The client learns only that the reset was refused, whatever the
            // store's reason.
            if (resetValuesInDictionary(*record) != TWCC_SUCCESS) return fail(conditionCode, TWCC_CAPBADOPERATION);
            return fillTwainCapability(cap, Fill::Current, *record, conditionCode);
    }
    return fail(conditionCode, TWCC_BUMMER);
}

TW_UINT16 Capabilities::fillTwainCapability(TW_CAPABILITY* cap, Fill fill, const CapabilityRecord& record,
                                            TW_UINT16* conditionCode)
{
    TW_UINT16 code = TWCC_SUCCESS;
    auto store = [&](TW_HANDLE handle) {
        cap->hContainer = handle;
        return handle ? TWRC_SUCCESS : fail(conditionCode, code);
    };
    const std::optional<CapabilityValue>& value = fill == Fill::Default ? record.defaultValue : record.currentValue;

    if (fill == Fill::Query) {
        std::int64_t bitmap = 0;
        for (std::int64_t bit : record.supportedOperations) bitmap |= bit;
        cap->ConType = TWON_ONEVALUE;
        // TWTY_INT16, as clients of this data source have always been sent.
        return store(containers::makeOneValue(TWTY_INT16, bitmap, &code));
    }
    cap->ConType = record.containerType;
    switch (record.containerType) {
        case TWON_ENUMERATION:
            if (fill != Fill::Get) {
                cap->ConType = TWON_ONEVALUE;
                if (!value) return fail(conditionCode, TWCC_BUMMER);
                return store(containers::makeOneValue(record.itemType, *value, &code));
            } else {
                if (!record.currentValue || !record.defaultValue) return fail(conditionCode, TWCC_BUMMER);
                cap->hContainer = nullptr;
                if (record.itemType == TWTY_BOOL) return fail(conditionCode, TWCC_BUMMER);
                const auto& list = record.currentValidValues;
                auto current = std::find(list.begin(), list.end(), *record.currentValue);
                auto defaultItem = std::find(list.begin(), list.end(), *record.defaultValue);
                if (current == list.end() || defaultItem == list.end()) return fail(conditionCode, TWCC_BUMMER);
                return store(containers::makeEnumeration(record.itemType, list,
                                                         static_cast<TW_UINT32>(current - list.begin()),
                                                         static_cast<TW_UINT32>(defaultItem - list.begin()),
                                                         TWCC_LOWMEMORY, &code));
            }
        case TWON_ONEVALUE:
            if (!value) return fail(conditionCode, TWCC_BUMMER);
            return store(containers::makeOneValue(record.itemType, *value, &code));
        case TWON_ARRAY:
            if (!value) return fail(conditionCode, TWCC_BUMMER);
            cap->hContainer = nullptr;
            if (value->isNumber()) return fail(conditionCode, TWCC_BUMMER);
            return store(containers::makeArray(record.itemType, value->items(), &code));
        default:
            // TW_RANGE and anything else: the store holds no such values.
            return fail(conditionCode, TWCC_BUMMER);
    }
}

TW_UINT16 Capabilities::setTwainCapability(TW_CAPABILITY* cap, CapabilityRecord& record, TW_UINT16* conditionCode)
{
    containers::ClientContainer container(cap->hContainer);
    // The store converts no item type into another.
    auto itemType = container.itemType();
    if (!itemType || *itemType != record.itemType) return fail(conditionCode, TWCC_BADVALUE);

    TW_UINT16 code = TWCC_SUCCESS;
    switch (cap->ConType) {
        case TWON_ONEVALUE: {
            if (record.containerType != TWON_ONEVALUE && record.containerType != TWON_ENUMERATION)
                return fail(conditionCode, TWCC_BADVALUE);
            auto value = container.oneValue(*itemType, mReadirisWorkaround, &code);
            if (!value) return fail(conditionCode, code);
            code = setCurrentValueInDictionary(record, *value);
            break;
        }
        case TWON_ARRAY: {
            if (record.containerType != TWON_ARRAY) return fail(conditionCode, TWCC_BADVALUE);
            auto items = container.arrayItems(*itemType, &code);
            if (!items) return fail(conditionCode, code);
            code = setCurrentValueInDictionary(record, CapabilityValue::list(std::move(*items)));
            break;
        }
        case TWON_ENUMERATION: {
            if (record.containerType != TWON_ENUMERATION) return fail(conditionCode, TWCC_BADVALUE);
            TW_UINT32 currentIndex = 0;
            auto items = container.enumerationItems(*itemType, &currentIndex, &code);
            if (!items) return fail(conditionCode, code);
            // The client's DefaultIndex is not ours to take.
            if (currentIndex >= items->size()) return fail(conditionCode, TWCC_BUMMER);
            code = constrainCurrentValidValuesInDictionary(record, *items, &(*items)[currentIndex]);
            break;
        }
        default: return fail(conditionCode, TWCC_BUMMER);
    }
    return code == TWCC_SUCCESS ? TWRC_SUCCESS : fail(conditionCode, code);
}

}  // namespace zentary
