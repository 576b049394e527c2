#include "imaging/ByteSink.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <unistd.h>

#include "imaging/FileIo.h"

namespace zentary {

bool MemorySink::write(const void* data, std::size_t length) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    try {
        mBytes.insert(mBytes.end(), bytes, bytes + length);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool MemorySink::writeAt(std::uint64_t offset, const void* data, std::size_t length) {
    if (offset > mBytes.size() || length > mBytes.size() - offset) return false;
    std::memcpy(mBytes.data() + offset, data, length);
    return true;
}

bool FixedMemorySink::write(const void* data, std::size_t length) {
    if (length > mCapacity - mPosition) return false;
    if (length > 0) std::memcpy(mMemory + mPosition, data, length);
    mPosition += length;
    return true;
}

bool FixedMemorySink::writeAt(std::uint64_t offset, const void* data, std::size_t length) {
    if (offset > mPosition || length > mPosition - offset) return false;
    if (length > 0) std::memcpy(mMemory + offset, data, length);
    return true;
}

FdSink::FdSink(int fd) : mFd(fd) {
    const off_t start = ::lseek(fd, 0, SEEK_CUR);
    mStart = start > 0 ? static_cast<std::uint64_t>(start) : 0;
}

bool FdSink::write(const void* data, std::size_t length) {
    if (!writeFully(mFd, data, length)) return false;
    mPosition += length;
    return true;
}

bool FdSink::writeAt(std::uint64_t offset, const void* data, std::size_t length) {
    if (offset > mPosition || length > mPosition - offset) return false;
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    auto at = static_cast<off_t>(mStart + offset);
    while (length > 0) {
        const ssize_t put = ::pwrite(mFd, bytes, length, at);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        bytes += put;
        at += put;
        length -= static_cast<std::size_t>(put);
    }
    return true;
}

}  // namespace zentary
