#include "scanlib/RawFileReclaim.h"

#include "platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

namespace zentary {

namespace {

// Between its O_EXCL creation and its flock a new file is unheld for a
// moment; nothing has been written to it yet.
constexpr std::time_t kNewbornSeconds = 5;

bool looksLikeRawFile(std::string_view name)
{
    return name.size() > 10 && name.starts_with("Image_") && name.ends_with(".raw");
}

bool removeIfAbandoned(int dirFd, const char* name)
{
    // O_NONBLOCK: a FIFO planted under the name must not hang the open.
    files::UniqueFd fd(::openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) return false;
    if (st.st_size == 0 && std::time(nullptr) - st.st_mtime < kNewbornSeconds) return false;
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return false;
    // Removed under our lock, and only if the name still is the file we locked.
    struct stat now;
    if (::fstatat(dirFd, name, &now, AT_SYMLINK_NOFOLLOW) != 0 || now.st_dev != st.st_dev || now.st_ino != st.st_ino)
        return false;
    return ::unlinkat(dirFd, name, 0) == 0;
}

}  // namespace

int reclaimAbandonedRawFiles(const std::filesystem::path& directory)
{
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(directory.c_str()), ::closedir);
    if (!dir) return 0;
    int dirFd = ::dirfd(dir.get());
    int removed = 0;
    while (dirent* entry = ::readdir(dir.get())) {
        if (!looksLikeRawFile(entry->d_name)) continue;
        if (removeIfAbandoned(dirFd, entry->d_name)) ++removed;
    }
    return removed;
}

}  // namespace zentary
