// Where an exporter's bytes go: a file descriptor or a block of memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zentary {

class ByteSink {
public:
    virtual ~ByteSink() = default;
    // Appends; false when the bytes could not be stored.
    virtual bool write(const void* data, std::size_t length) = 0;
    // Overwrites bytes already written (headers that carry a final size).
    virtual bool writeAt(std::uint64_t offset, const void* data, std::size_t length) = 0;
    virtual std::uint64_t position() const = 0;
};

// Appends to a caller's vector.
class MemorySink final : public ByteSink {
public:
    explicit MemorySink(std::vector<std::uint8_t>& bytes) : mBytes(bytes) {}
    bool write(const void* data, std::size_t length) override;
    bool writeAt(std::uint64_t offset, const void* data, std::size_t length) override;
    std::uint64_t position() const override { return mBytes.size(); }

private:
    std::vector<std::uint8_t>& mBytes;
};

// Writes through a descriptor the caller owns, from its current offset on.
class FdSink final : public ByteSink {
public:
    explicit FdSink(int fd);
    bool write(const void* data, std::size_t length) override;
    bool writeAt(std::uint64_t offset, const void* data, std::size_t length) override;
    std::uint64_t position() const override { return mPosition; }

private:
    int mFd;
    std::uint64_t mStart = 0;
    std::uint64_t mPosition = 0;
};

}  // namespace zentary
