#include "WorkFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string_view>

namespace zentary {

namespace {

std::string megabytes(std::uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

constexpr std::string_view kPrefix = "zentary-scan-";
// A folder is made empty and locked a moment later: an empty one this young
// may be a live run's.
constexpr std::time_t kNewbornSeconds = 5;

bool isEmptyDirectory(int fd)
{
    std::unique_ptr<DIR, int (*)(DIR*)> dir(fdopendir(fcntl(fd, F_DUPFD_CLOEXEC, 0)), closedir);
    if (!dir) return false;
    while (dirent* entry = readdir(dir.get()))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) return false;
    return true;
}

void removeAbandonedFolders(const std::string& parent)
{
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(parent.c_str()), closedir);
    if (!dir) return;
    while (dirent* entry = readdir(dir.get())) {
        std::string_view name = entry->d_name;
        if (!name.starts_with(kPrefix) || name.size() != kPrefix.size() + 6) continue;
        files::UniqueFd fd(openat(dirfd(dir.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat st;
        if (!fd || fstat(fd.get(), &st) != 0 || st.st_uid != geteuid()) continue;
        if (std::time(nullptr) - st.st_mtime < kNewbornSeconds && isEmptyDirectory(fd.get())) continue;
        if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) continue;
        // Symlinks inside are removed, never followed.
        std::error_code ec;
        std::filesystem::remove_all(parent + "/" + entry->d_name, ec);
    }
}

}  // namespace

WorkFolder::WorkFolder()
{
    const char* tmp = std::getenv("TMPDIR");
    mParent = tmp && *tmp ? tmp : "/tmp";
    removeAbandonedFolders(mParent);
    std::string pattern = mParent + "/" + std::string(kPrefix) + "XXXXXX";
    if (!mkdtemp(pattern.data())) {
        mError = "cannot make a temporary folder in " + mParent + ": " + std::strerror(errno) +
                 " (set TMPDIR to a writable folder)";
        return;
    }
    mPath = pattern;
    mLock = files::UniqueFd(open(mPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (mLock) flock(mLock.get(), LOCK_EX | LOCK_NB);
}

WorkFolder::~WorkFolder()
{
    std::error_code ec;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ec);
}

std::string storageProblem(const std::string& folder, std::uint64_t needed, const std::string& shownAs)
{
    // A file made and removed again: what the data source's raw file needs.
    std::string probe = folder + "/.probe-XXXXXX";
    int fd = mkstemp(probe.data());
    if (fd < 0) return "cannot write in the temporary folder " + shownAs + ": " + std::strerror(errno);
    close(fd);
    unlink(probe.c_str());
    // The data source's figure may be faked for its tests; this is the disk's.
    struct statvfs info {};
    if (statvfs(folder.c_str(), &info) != 0) return {};
    std::uint64_t free = static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
    if (free >= needed) return {};
    return "the temporary folder " + shownAs + " is full: " + megabytes(free) + " free, the scan needs " +
           megabytes(needed) + " (set TMPDIR to a folder with more room)";
}

}  // namespace zentary
