// The capability store: every TWAIN capability of the scanner model, read
// from the model's definition file, with its current, default and valid
// values and the dependencies between capabilities.
//
// One store lives from MSG_OPENDS to MSG_CLOSEDS. The engine, the file
// transfer set-up, the image group and the dialog read and write values
// through the value interface; the client reaches it through the six
// DAT_CAPABILITY operations. Every public operation takes the store's
// read/write lock for its whole duration, so a reader never sees a set half
// propagated.
#pragma once

#include <pthread.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capabilities/CapabilityRecord.h"
#include "capabilities/CapabilityValue.h"
#include "twain/twain.h"

namespace zentary {

class Capabilities {
public:
    // Loads the model's definition file from `capabilitiesDir` (the bundle's
    // Resources/Capabilities): the model name with every blank made "_",
    // plus ".plist". Returns null when it is missing or malformed; then
    // *error (if given) says precisely why (file, key, problem), for a log
    // line. `performReadirisWorkaround` reads a client's TW_FIX32 one-value
    // as Readiris writes it.
    static std::unique_ptr<Capabilities> initWithModel(const std::string& model, bool performReadirisWorkaround,
                                                       const std::filesystem::path& capabilitiesDir,
                                                       std::string* error);
    ~Capabilities();
    Capabilities(const Capabilities&) = delete;
    Capabilities& operator=(const Capabilities&) = delete;

    // Replaces the whole model; on failure the old one stays.
    bool changeToModel(const std::string& model, const std::filesystem::path& capabilitiesDir, std::string* error);

    // Value interface. Copies that belong to the caller; nothing for an
    // unknown capability.
    std::optional<CapabilityValue> currentValue(TW_UINT16 cap) const;
    std::optional<CapabilityValue> defaultValue(TW_UINT16 cap) const;
    // Every value valid in some state seen at loading, unordered.
    std::optional<std::vector<CapabilityValue>> allValidValues(TW_UINT16 cap) const;
    // The values valid now, in the order offered to the client; empty means
    // no limit.
    std::optional<std::vector<CapabilityValue>> currentValidValues(TW_UINT16 cap) const;
    // 0 or a TWCC_ condition code: TWCC_BUMMER for an unknown capability,
    // TWCC_BADVALUE for a value not allowed (or not of the capability's
    // type), TWCC_CAPSEQERROR for one allowed only with other values of the
    // capabilities it depends on.
    TW_UINT16 setCurrentValue(TW_UINT16 cap, const CapabilityValue& value);

    // DG_CONTROL / DAT_CAPABILITY. Each returns TWRC_SUCCESS or TWRC_FAILURE
    // and writes *conditionCode (which may be null) only on failure. A get
    // puts a new handle, owned by the client, into cap->hContainer; a set
    // only reads the client's container.
    TW_UINT16 getTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 getCurrentTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 getDefaultTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 setTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 resetTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 querySupportTwain(TW_CAPABILITY* cap, TW_UINT16* conditionCode);

private:
    enum class Fill { Get, Current, Default, Query };

    explicit Capabilities(bool performReadirisWorkaround);
    bool setModel(const std::string& model, const std::filesystem::path& capabilitiesDir, std::string* error);

    // Record accessors and the rules of change; the caller holds mLock.
    CapabilityRecord* capabilityForNumericKey(TW_UINT16 cap) const;
    static bool supportsOperation(const CapabilityRecord& record, std::int64_t operation);
    const ValidValuesEntry* validValuesUsingDependencies(const CapabilityRecord& record, TW_UINT16* error) const;
    TW_UINT16 setCurrentValueInDictionary(CapabilityRecord& record, const CapabilityValue& value);
    TW_UINT16 constrainCurrentValidValuesInDictionary(CapabilityRecord& record,
                                                      const std::vector<CapabilityValue>& validValues,
                                                      const CapabilityValue* currentValue);
    TW_UINT16 resetValuesInDictionary(CapabilityRecord& record);
    TW_UINT16 updateDependentCapabilities(const CapabilityRecord& record);

    // TWAIN side.
    enum class Operation { Get, GetCurrent, GetDefault, Set, Reset, QuerySupport };
    TW_UINT16 operateTwain(Operation operation, TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 fillTwainCapability(TW_CAPABILITY* cap, Fill fill, const CapabilityRecord& record,
                                  TW_UINT16* conditionCode);
    TW_UINT16 setTwainCapability(TW_CAPABILITY* cap, CapabilityRecord& record, TW_UINT16* conditionCode);

    template <typename Getter>
    auto copyUnderReadLock(TW_UINT16 cap, Getter getter) const;

    std::unique_ptr<CapabilityMap> mCapabilities;
    mutable pthread_rwlock_t mLock;
    bool mLockReady = false;
    bool mReadirisWorkaround;
};

}  // namespace zentary
