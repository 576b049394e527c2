#include "platform/Files.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace zentary {
namespace files {

namespace {

std::mutex sFakeMutex;
std::optional<std::uint64_t> sFakeFreeSpace;

// Reads a leading run of decimal digits; `text` moves past them.
int leadingNumber(std::string_view& text)
{
    int value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc()) return 0;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

}  // namespace

void UniqueFd::reset(int fd)
{
    if (mFd >= 0) {
        // close() may fail with EINTR, but on Linux the descriptor is gone
        // anyway; retrying could close somebody else's new descriptor.
        ::close(mFd);
    }
    mFd = fd;
}

std::filesystem::path temporaryDirectory()
{
    if (const char* dir = std::getenv("TMPDIR"); dir && *dir) {
        std::error_code ec;
        if (std::filesystem::is_directory(dir, ec)) return dir;
    }
    return "/tmp";
}

void setFakeFreeSpace(std::optional<std::uint64_t> bytes)
{
    std::lock_guard<std::mutex> guard(sFakeMutex);
    sFakeFreeSpace = bytes;
}

std::optional<std::uint64_t> freeSpace(const std::filesystem::path& path)
{
    {
        std::lock_guard<std::mutex> guard(sFakeMutex);
        if (sFakeFreeSpace) return sFakeFreeSpace;
    }
    if (const char* fake = std::getenv("ZENTARY_FAKE_FREE_SPACE"); fake && *fake) {
        std::uint64_t bytes = 0;
        std::string_view text(fake);
        auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), bytes);
        if (ec == std::errc() && end == text.data() + text.size()) return bytes;
        // A malformed override falls through to the real answer rather than
        // pretending the disk is full.
    }
    struct statvfs info {};
    if (::statvfs(path.c_str(), &info) != 0) return std::nullopt;
    std::uint64_t blocks = info.f_bavail;
    std::uint64_t size = info.f_frsize;
    if (size != 0 && blocks > UINT64_MAX / size) return UINT64_MAX;
    return blocks * size;
}

SystemVersion parseSystemVersion(std::string_view release)
{
    SystemVersion version;
    version.major = leadingNumber(release);
    if (release.size() > 1 && release.front() == '.') {
        release.remove_prefix(1);
        version.minor = leadingNumber(release);
        if (release.size() > 1 && release.front() == '.') {
            release.remove_prefix(1);
            version.patch = leadingNumber(release);
        }
    }
    return version;
}

SystemVersion systemVersion()
{
    struct utsname name {};
    if (::uname(&name) != 0) return {};
    return parseSystemVersion(std::string_view(name.release, ::strnlen(name.release, sizeof name.release)));
}

UniqueFd createExclusive(const std::filesystem::path& path)
{
    int fd;
    do {
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    } while (fd < 0 && errno == EINTR);
    return UniqueFd(fd);
}

std::optional<std::string> readSmallFile(const std::filesystem::path& path, std::size_t limit, bool followSymlink)
{
    // O_NONBLOCK keeps a FIFO planted under the name from blocking the open.
    int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (followSymlink ? 0 : O_NOFOLLOW);
    UniqueFd fd(::open(path.c_str(), flags));
    if (!fd) return std::nullopt;
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    if (info.st_size < 0 || static_cast<std::uint64_t>(info.st_size) > limit) return std::nullopt;
    // The size is only a hint (the file may grow while we read); the limit is
    // enforced on what actually arrives.
    std::string bytes;
    bytes.reserve(static_cast<std::size_t>(info.st_size));
    char chunk[8192];
    for (;;) {
        ssize_t got = ::read(fd.get(), chunk, sizeof chunk);
        if (got < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (got == 0) break;
        if (static_cast<std::size_t>(got) > limit - bytes.size()) return std::nullopt;
        bytes.append(chunk, static_cast<std::size_t>(got));
    }
    return bytes;
}

bool writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        ssize_t put = ::write(fd, bytes.data(), bytes.size());
        if (put < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(put));
    }
    return true;
}

}  // namespace files
}  // namespace zentary
