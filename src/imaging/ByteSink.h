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

// Keeps no bytes, only counts them: a first pass that sizes the memory a
// second pass then writes into.
class CountingSink final : public ByteSink {
public:
    bool write(const void*, std::size_t length) override {
        mPosition += length;
        return true;
    }
    bool writeAt(std::uint64_t offset, const void*, std::size_t length) override {
        return offset <= mPosition && length <= mPosition - offset;
    }
    std::uint64_t position() const override { return mPosition; }

private:
    std::uint64_t mPosition = 0;
};

// Fills a block of memory the caller owns; a write past its end fails.
class FixedMemorySink final : public ByteSink {
public:
    FixedMemorySink(void* memory, std::size_t capacity)
        : mMemory(static_cast<std::uint8_t*>(memory)), mCapacity(capacity) {}
    bool write(const void* data, std::size_t length) override;
    bool writeAt(std::uint64_t offset, const void* data, std::size_t length) override;
    std::uint64_t position() const override { return mPosition; }

private:
    std::uint8_t* mMemory;
    std::size_t mCapacity;
    std::size_t mPosition = 0;
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
