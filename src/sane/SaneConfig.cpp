#include "sane/SaneConfig.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "sane/SaneDebug.h"

namespace zentary::sane {

namespace {

constexpr std::size_t kMaxConfigBytes = 64 * 1024;  // a config file is a few lines

std::string_view trim(std::string_view text)
{
    const char* blanks = " \t\r\n";
    std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    std::size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

}  // namespace

void parseSaneConfig(std::string_view text, SaneConfig* config)
{
    int number = 0;
    while (!text.empty()) {
        ++number;
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        if (std::size_t hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
        line = trim(line);
        if (line == "emulator") {
            config->listEmulator = true;
            continue;
        }
        if (line.empty()) continue;
        constexpr std::string_view kCapabilities = "capabilities";
        if (line.size() > kCapabilities.size() && line.substr(0, kCapabilities.size()) == kCapabilities &&
            (line[kCapabilities.size()] == ' ' || line[kCapabilities.size()] == '\t')) {
            config->capabilitiesDir = std::string(trim(line.substr(kCapabilities.size())));
            debug(kDebugInfo, "zentary.conf: capabilities in %s", config->capabilitiesDir.c_str());
            continue;
        }
        // Ignored, so that an older backend reads a newer file, but said:
        // a misspelt keyword would otherwise do nothing without a trace.
        debug(kDebugWarning, "zentary.conf line %d: unknown keyword \"%.*s\" ignored", number, int(line.size()),
              line.data());
    }
}

std::vector<std::filesystem::path> saneConfigDirs(const char* environment)
{
    // The same defaults as the SANE loader's, so that the loader and we read
    // the same directory in every set-up.
    std::vector<std::filesystem::path> defaults{".", ZENTARY_SANE_CONFIG_DIR};
    if (!environment || !*environment) return defaults;
    std::vector<std::filesystem::path> dirs;
    std::string_view text(environment);
    bool appendDefaults = text.back() == ':';
    while (!text.empty()) {
        std::size_t colon = text.find(':');
        std::string_view dir = text.substr(0, colon);
        if (!dir.empty()) dirs.emplace_back(std::string(dir));
        if (colon == std::string_view::npos) break;
        text = text.substr(colon + 1);
    }
    if (appendDefaults) dirs.insert(dirs.end(), defaults.begin(), defaults.end());
    return dirs;
}

SaneConfig loadSaneConfig()
{
    SaneConfig config;
    config.capabilitiesDir = ZENTARY_SANE_CAPABILITIES_DIR;
    for (const std::filesystem::path& dir : saneConfigDirs(std::getenv("SANE_CONFIG_DIR"))) {
        std::ifstream file(dir / "zentary.conf", std::ios::binary);
        if (!file) continue;
        std::string text(kMaxConfigBytes, '\0');
        file.read(text.data(), std::streamsize(text.size()));
        text.resize(std::size_t(file.gcount()));
        debug(kDebugInfo, "reading %s", (dir / "zentary.conf").c_str());
        parseSaneConfig(text, &config);
        return config;
    }
    debug(kDebugWarning, "no zentary.conf found; capability definitions expected in %s",
          config.capabilitiesDir.c_str());
    return config;
}

}  // namespace zentary::sane
