// The backend's configuration file, zentary.conf, found the way SANE finds
// every backend's file: in the directories of SANE_CONFIG_DIR (a trailing
// ":" adds the default ones), else in "." and the installed sane.d.
//
// Lines (blank lines and "#" comments ignored; unknown lines too, so an
// older backend reads a newer file, with a warning in the debug log):
//   capabilities <directory>   where the capability definition files live
//   emulator                   list the built-in emulated scanner as a device
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace zentary::sane {

struct SaneConfig {
    std::filesystem::path capabilitiesDir;
    bool listEmulator = false;
};

// The configuration in `text`, over the defaults in `config`.
void parseSaneConfig(std::string_view text, SaneConfig* config);
// The directories searched, in order, for `environment` (SANE_CONFIG_DIR or null).
std::vector<std::filesystem::path> saneConfigDirs(const char* environment);
// Defaults, overridden by the first zentary.conf found.
SaneConfig loadSaneConfig();

}  // namespace zentary::sane
