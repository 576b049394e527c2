// The property lists of the bundle, as an installation gone wrong (or
// tampered with) could hold them: Info.plist read for the identity, and the
// dialog's ScanSettings.plist and DialogStrings.plist read into their models.
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/Bundle.h"
#include "ui/DialogStrings.h"
#include "ui/ScanSettings.h"

namespace {

// A scratch bundle for the whole run, removed when the fuzzer exits.
struct ScratchBundle {
    std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                ("zentary-fuzz-bundle-" + std::to_string(::getpid()) + ".bundle");
    ScratchBundle() { std::filesystem::create_directories(dir / "Resources/Settings"); }
    ~ScratchBundle()
    {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
};

std::filesystem::path bundleDirectory()
{
    static const ScratchBundle scratch;
    return scratch.dir;
}

void write(const std::filesystem::path& path, const std::uint8_t* data, std::size_t size)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data),
                                                                   static_cast<std::streamsize>(size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace zentary;
    const std::filesystem::path dir = bundleDirectory();
    // One input plays all three files: the first byte picks which.
    if (size == 0) return 0;
    const std::uint8_t which = data[0] % 3;
    ++data;
    --size;
    if (which == 0) {
        write(dir / "Info.plist", data, size);
        if (auto bundle = Bundle::atPath(dir)) {
            (void)bundle->infoString("CFBundleIdentifier");
            (void)bundle->infoString("CFBundleShortVersionString");
        }
        return 0;
    }
    UiBundle bundle;
    bundle.resourcePath = (dir / "Resources").string();
    if (which == 1) {
        write(dir / "Resources/Settings/ScanSettings.plist", data, size);
        ScanSettingsStore store;
        store.allValidValues = [](std::uint16_t) { return std::optional<std::vector<SettingValue>>(); };
        store.currentValue = [](std::uint16_t) { return std::optional<SettingValue>(); };
        store.setCurrentValue = [](std::uint16_t, const SettingValue&) {};
        store.setImageTypePreference = [](std::int32_t) { return true; };
        store.setResolutionPreference = [](std::int16_t) { return true; };
        (void)ScanSettings::initWithCapabilities(&bundle, store);
    } else {
        write(dir / "Resources/Settings/DialogStrings.plist", data, size);
        (void)DialogStrings::init(&bundle);
    }
    return 0;
}
