#include "platform/Preferences.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <mutex>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Files.h"
#include "platform/Plist.h"

namespace zentary {

namespace {

// Serialises the read-modify-write of writers in this process; other
// processes may still race us, and then the last rename wins whole.
std::mutex sWriteMutex;

std::filesystem::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home == '/') return home;
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found && found->pw_dir)
        return found->pw_dir;
    return {};
}

std::filesystem::path configDirectory()
{
    // A relative XDG_CONFIG_HOME is invalid and must be ignored.
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/') return config;
    auto home = homeDirectory();
    if (home.empty()) return {};
    return home / ".config";
}

enum class FileState { Missing, Valid, Corrupt };

struct Loaded {
    FileState state = FileState::Missing;
    PlistPtr dict;
};

Loaded load(const std::filesystem::path& file)
{
    Loaded loaded;
    auto bytes = files::readSmallFile(file, kMaxPlistSize);
    if (!bytes) {
        struct stat info {};
        // Anything under the name that we cannot read counts as corrupt: it
        // is kept aside rather than silently lost on the next write.
        loaded.state = (::lstat(file.c_str(), &info) != 0 && errno == ENOENT) ? FileState::Missing
                                                                             : FileState::Corrupt;
        return loaded;
    }
    loaded.dict = parsePlistDict(*bytes);
    loaded.state = loaded.dict ? FileState::Valid : FileState::Corrupt;
    return loaded;
}

// A temporary file that is removed unless it was renamed into place.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::filesystem::path& target)
    {
        std::string pattern = (target.parent_path() / ".").string();
        pattern += target.filename().string();
        pattern += ".XXXXXX";
        mFd = files::UniqueFd(::mkostemp(pattern.data(), O_CLOEXEC));
        if (mFd) mPath = pattern;
    }
    ~TemporaryFile()
    {
        if (!mPath.empty()) ::unlink(mPath.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int fd() const { return mFd.get(); }
    bool valid() const { return static_cast<bool>(mFd); }
    bool closeChecked() { return ::close(mFd.release()) == 0; }
    bool renameTo(const std::filesystem::path& target)
    {
        if (::rename(mPath.c_str(), target.c_str()) != 0) return false;
        mPath.clear();
        return true;
    }

private:
    files::UniqueFd mFd;
    std::filesystem::path mPath;
};

void syncDirectory(const std::filesystem::path& dir)
{
    files::UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) ::fsync(fd.get());
}

}  // namespace

Preferences::Preferences(std::string domain) : mDomain(std::move(domain)) {}

std::filesystem::path Preferences::filePath() const
{
    auto dir = configDirectory();
    if (dir.empty()) return {};
    return dir / (mDomain + ".plist");
}

std::optional<std::int64_t> Preferences::integer(const std::string& key) const
{
    auto file = filePath();
    if (file.empty()) return std::nullopt;
    Loaded loaded = load(file);
    if (!loaded.dict) return std::nullopt;
    plist_t node = plist_dict_get_item(loaded.dict.get(), key.c_str());
    if (!node) return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_UINT: {
        // libplist 2.2 keeps every integer in 64 bits and writes negative
        // values as such; reading them back as two's complement round-trips
        // every int64_t we write.
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return static_cast<std::int64_t>(value);
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        // -2^63 is exact in a double; 2^63 is the first value out of range.
        if (!std::isfinite(value) || value != std::trunc(value) || value < -9223372036854775808.0 ||
            value >= 9223372036854775808.0)
            return std::nullopt;
        return static_cast<std::int64_t>(value);
    }
    default:
        return std::nullopt;
    }
}

std::optional<std::string> Preferences::string(const std::string& key) const
{
    auto file = filePath();
    if (file.empty()) return std::nullopt;
    Loaded loaded = load(file);
    return plistDictString(loaded.dict.get(), key);
}

bool Preferences::setInteger(const std::string& key, std::int64_t value)
{
    return write(key, plist_new_uint(static_cast<std::uint64_t>(value)));
}

bool Preferences::setString(const std::string& key, const std::string& value)
{
    if (value.find('\0') != std::string::npos) return false;
    return write(key, plist_new_string(value.c_str()));
}

bool Preferences::write(const std::string& key, void* node)
{
    PlistPtr item(node);
    auto file = filePath();
    if (!item || file.empty() || key.find('\0') != std::string::npos) return false;

    std::lock_guard<std::mutex> guard(sWriteMutex);
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);

    Loaded loaded = load(file);
    PlistPtr dict = std::move(loaded.dict);
    if (!dict) dict.reset(plist_new_dict());
    if (!dict) return false;
    plist_dict_set_item(dict.get(), key.c_str(), item.release());

    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(dict.get(), &xml, &length);
    if (!xml) return false;
    std::unique_ptr<char, void (*)(char*)> xmlOwner(xml, plist_to_xml_free);

    TemporaryFile temporary(file);
    if (!temporary.valid()) return false;
    if (!files::writeAll(temporary.fd(), std::string_view(xml, length))) return false;
    if (::fsync(temporary.fd()) != 0 || !temporary.closeChecked()) return false;

    if (loaded.state == FileState::Corrupt) {
        auto aside = file;
        aside += ".corrupt";
        if (::rename(file.c_str(), aside.c_str()) != 0) return false;
    }
    if (!temporary.renameTo(file)) return false;
    syncDirectory(file.parent_path());
    return true;
}

}  // namespace zentary
