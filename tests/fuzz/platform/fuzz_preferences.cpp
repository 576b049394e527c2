// The preferences file lives in the user's home and may hold anything (another
// program, a broken disk, a hostile user): reading it must never crash, and
// writing over it must keep working.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/Preferences.h"

namespace {

const std::string kDomain = "com.tarvell.zentaryQ300.scands";

// One private configuration directory for the whole run.
const std::string& configDirectory()
{
    static const std::string dir = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/zentary-fuzz-prefs-XXXXXX";
        if (!::mkdtemp(pattern.data())) std::abort();
        ::setenv("XDG_CONFIG_HOME", pattern.c_str(), 1);
        return pattern;
    }();
    static const bool cleanup = [] {
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        });
        return true;
    }();
    (void)cleanup;
    return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string file = configDirectory() + "/" + kDomain + ".plist";
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    zentary::Preferences prefs(kDomain);
    (void)prefs.integer("imageType");
    (void)prefs.integer("resolution");
    (void)prefs.string("nativeFormat");
    // Now and then write over it too: that merges the parsed tree into a new
    // XML file, which runs the plist writer over whatever the reader built.
    if (size % 8 == 0) {
        if (!prefs.setInteger("resolution", 600)) std::abort();
        if (prefs.integer("resolution") != 600) std::abort();
    }
    return 0;
}
