// Bytes as a client's container of any type and size, set on the shipped
// definition file's store. Byte 0 picks the capability, byte 1 the
// container type, byte 2 the Readiris reading; the rest is the container,
// allocated through the manager so that its size is known.
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>

#include "capabilities/Capabilities.h"
#include "twain/Manager.h"

namespace {

using namespace zentary;

std::unique_ptr<Capabilities> load(bool readiris)
{
    std::string error;
    auto store = Capabilities::initWithModel("Tarvell Zentary Q300 series", readiris, ZENTARY_CAPABILITIES_DIR, &error);
    if (!store) __builtin_trap();
    return store;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 3) return 0;
    auto store = load(data[2] & 1);
    const auto caps = store->currentValue(twain::CAP_SUPPORTEDCAPS)->items();
    const auto cap = static_cast<TW_UINT16>(caps[data[0] % caps.size()].number());
    const TW_UINT16 conType = static_cast<TW_UINT16>(3 + data[1] % 4);  // array .. range

    TW_HANDLE handle = Manager::allocate(size > 3 ? size - 3 : 1);
    if (!handle) return 0;
    if (size > 3) std::memcpy(Manager::lock(handle), data + 3, size - 3);
    Manager::unlock(handle);
    TW_CAPABILITY capability{cap, conType, handle};
    TW_UINT16 cc = 0;
    TW_UINT16 rc = store->setTwain(&capability, &cc);
    if (capability.hContainer != handle) __builtin_trap();  // a set never replaces the client's container
    Manager::free(handle);

    // After an accepted set the capability's value lies in its valid values.
    if (rc == twain::TWRC_SUCCESS) {
        auto current = store->currentValue(cap);
        auto valid = store->currentValidValues(cap);
        if (!current || !valid) __builtin_trap();
        if (!valid->empty() && std::find(valid->begin(), valid->end(), *current) == valid->end()) __builtin_trap();
    }
    return 0;
}
