// Bytes as a capability definition file: the load must refuse or build a
// store; a built store must then answer every message without fault.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "capabilities/Capabilities.h"
#include "fuzz/FuzzScratch.h"
#include "twain/Manager.h"

namespace {

using namespace zentary;

void exercise(Capabilities& store, TW_UINT16 cap)
{
    using Message = TW_UINT16 (Capabilities::*)(TW_CAPABILITY*, TW_UINT16*);
    for (Message message : {&Capabilities::getTwain, &Capabilities::getCurrentTwain, &Capabilities::getDefaultTwain,
                            &Capabilities::querySupportTwain, &Capabilities::resetTwain}) {
        TW_CAPABILITY capability{cap, 0, nullptr};
        TW_UINT16 cc = 0;
        if ((store.*message)(&capability, &cc) != twain::TWRC_SUCCESS) continue;
        // Hand what we answered straight back, as clients do.
        TW_UINT16 setCc = 0;
        store.setTwain(&capability, &setCc);
        Manager::free(capability.hContainer);
    }
    if (auto value = store.currentValue(cap)) store.setCurrentValue(cap, *value);
    if (auto values = store.allValidValues(cap))
        for (const auto& value : *values) store.setCurrentValue(cap, value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::filesystem::path& dir = fuzz::scratchDirectory();
    {
        std::ofstream out(dir / "Fuzz.plist", std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    std::string error;
    auto store = Capabilities::initWithModel("Fuzz", false, dir, &error);
    if (!store) {
        if (error.empty()) __builtin_trap();  // every refusal must say why
        return 0;
    }
    auto caps = store->currentValue(twain::CAP_SUPPORTEDCAPS);
    if (!caps || caps->items().empty()) __builtin_trap();
    for (const auto& cap : caps->items()) exercise(*store, static_cast<TW_UINT16>(cap.number()));
    return 0;
}
