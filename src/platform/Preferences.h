// Per-user key-value store, one property list per domain:
// $XDG_CONFIG_HOME (default ~/.config) / "<domain>.plist".
//
// Every read re-reads the file (another process may have written it); every
// write goes through at once as XML via a temporary file in the same
// directory, fsync and rename, so a crash leaves the old or the new file and
// a symlink planted under the name is replaced, never followed. A corrupt or
// unreadable file reads as empty, so defaults are used without troubling the
// user, and is kept aside as "<file>.corrupt" when the next write replaces it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace zentary {

class Preferences {
public:
    explicit Preferences(std::string domain);

    std::filesystem::path filePath() const;

    // Nothing when absent, unreadable or not an integer (a real counts when it
    // is integral).
    std::optional<std::int64_t> integer(const std::string& key) const;
    std::optional<std::string> string(const std::string& key) const;

    // Written through at once; false when the file could not be written, and
    // then nothing changed on disk.
    bool setInteger(const std::string& key, std::int64_t value);
    bool setString(const std::string& key, const std::string& value);

private:
    bool write(const std::string& key, void* node);

    std::string mDomain;
};

}  // namespace zentary
