// File descriptors and files written for the user, owned by RAII types.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Files.h"

namespace zentary {

using files::UniqueFd;

// Reads up to `length` bytes, retrying short reads and EINTR; returns the
// count read (less only at end of file) or -1 on error.
long long readFully(int fd, void* buffer, std::size_t length);
// Writes all of `length` bytes at the current position; false on any error.
bool writeFully(int fd, const void* buffer, std::size_t length);

// A file for the user: written under a unique temporary name beside the
// target and renamed over it by commit(), so that a failed export never
// leaves a half-written image under the user's name. An uncommitted file is
// unlinked when this goes away.
class OutputFile {
public:
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool valid() const { return mFd.valid(); }
    int fd() const { return mFd.get(); }
    // Flushes, closes and renames; false (and the temporary removed) on failure.
    bool commit();

private:
    std::string mPath;
    std::string mTemporaryPath;
    UniqueFd mFd;
};

}  // namespace zentary
