// File-system services the engine needs from the host: the temporary
// directory, free space on a volume, the kernel version and exclusive
// creation of private files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace zentary {
namespace files {

// $TMPDIR when it names an existing directory, else "/tmp".
std::filesystem::path temporaryDirectory();

// Bytes an unprivileged user may still write on the volume holding `path`
// (statvfs f_bavail * f_frsize). setFakeFreeSpace, or the environment variable
// ZENTARY_FAKE_FREE_SPACE=<bytes>, overrides the answer so that the
// "not enough disk space" path can be tested without filling a disk.
std::optional<std::uint64_t> freeSpace(const std::filesystem::path& path);
void setFakeFreeSpace(std::optional<std::uint64_t> bytes);

struct SystemVersion {
    int major = 0, minor = 0, patch = 0;
};
// From uname().release: "6.1.0-18-amd64" -> 6.1.0.
SystemVersion systemVersion();
// The parsing half of systemVersion(), for any release text.
SystemVersion parseSystemVersion(std::string_view release);

// Owns one file descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return mFd; }
    int release()
    {
        int fd = mFd;
        mFd = -1;
        return fd;
    }
    void reset(int fd = -1);
    explicit operator bool() const { return mFd >= 0; }
    bool valid() const { return mFd >= 0; }

private:
    int mFd = -1;
};

// Creates a new file with O_CREAT|O_EXCL|O_NOFOLLOW|O_CLOEXEC and mode 0600;
// an empty UniqueFd (errno set) when the name exists or cannot be created.
UniqueFd createExclusive(const std::filesystem::path& path);

// Reads a whole regular file of at most `limit` bytes; nothing when it is
// missing, not a regular file, too big or unreadable.
std::optional<std::string> readSmallFile(const std::filesystem::path& path, std::size_t limit,
                                         bool followSymlink = true);

// Writes all of `bytes` to `fd`, retrying short writes and EINTR.
bool writeAll(int fd, std::string_view bytes);

}  // namespace files
}  // namespace zentary
