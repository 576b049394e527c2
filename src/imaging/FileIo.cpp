#include "imaging/FileIo.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace zentary {

long long readFully(int fd, void* buffer, std::size_t length) {
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t got = ::read(fd, bytes + done, length - done);
        if (got < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return static_cast<long long>(done);
}

bool writeFully(int fd, const void* buffer, std::size_t length) {
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    while (length > 0) {
        const ssize_t put = ::write(fd, bytes, length);
        if (put < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes += put;
        length -= static_cast<std::size_t>(put);
    }
    return true;
}

OutputFile::OutputFile(const std::string& path) : mPath(path) {
    // Several transfers in one process may export at once; the pid and a
    // counter keep their temporary names apart, O_EXCL keeps us off files
    // we did not create.
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 16 && !mFd.valid(); ++attempt) {
        char suffix[64];
        std::snprintf(suffix, sizeof suffix, ".%ld.%u.part", static_cast<long>(::getpid()), counter++);
        mTemporaryPath = path + suffix;
        mFd.reset(::open(mTemporaryPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (!mFd.valid() && errno != EEXIST) break;
    }
    if (!mFd.valid()) mTemporaryPath.clear();
}

OutputFile::~OutputFile() {
    mFd.reset();
    if (!mTemporaryPath.empty()) ::unlink(mTemporaryPath.c_str());
}

bool OutputFile::commit() {
    if (!mFd.valid()) return false;
    const int fd = mFd.release();
    if (::close(fd) != 0) return false;
    if (::rename(mTemporaryPath.c_str(), mPath.c_str()) != 0) return false;
    mTemporaryPath.clear();
    return true;
}

}  // namespace zentary
