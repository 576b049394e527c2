#include "WorkFolder.h"

#include <stdlib.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace zentary {

namespace {

std::string megabytes(std::uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

}  // namespace

WorkFolder::WorkFolder()
{
    const char* tmp = std::getenv("TMPDIR");
    mParent = tmp && *tmp ? tmp : "/tmp";
    std::string pattern = mParent + "/zentary-scan-XXXXXX";
    if (mkdtemp(pattern.data()))
        mPath = pattern;
    else
        mError = "cannot make a temporary folder in " + mParent + ": " + std::strerror(errno) +
                 " (set TMPDIR to a writable folder)";
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
