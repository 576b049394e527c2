// Writing and checking raw scan files (layout in RawFileHeader.h).
#pragma once

#include "platform/Files.h"
#include "scanlib/RawFileHeader.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/uio.h>

namespace zentary {

// An exclusive flock on a raw scan file, held for as long as this process
// owns the file. A data source that opens sweeps its temporary folder for
// raw files nobody holds (reclaimAbandonedRawFiles): those of clients that
// died. The kernel drops the lock with the process, however it ends, and
// never while it lives.
class RawFileLock {
public:
    RawFileLock() = default;
    explicit RawFileLock(files::UniqueFd fd) : mFd(std::move(fd)) {}

    bool held() const { return mFd.valid(); }
    int fd() const { return mFd.get(); }
    // The owner has removed the file: the lock guards nothing any more, and
    // the open descriptor only keeps the file's blocks allocated.
    bool fileRemoved() const;
    void release() { mFd.reset(); }

private:
    files::UniqueFd mFd;
};

// Owns one raw scan file while a job writes it. The file is created new
// (O_EXCL, mode 0600): a path that already exists, or a symlink planted
// there, is refused instead of followed. Until commit() the file counts as
// unfinished, and an unfinished file is unlinked when the writer lets go of
// it, so an error, a cancel or a thread that goes away never leaves a
// half-written scan behind. The writer holds the file's lock from its
// creation; commit() hands the lock on to whoever owns the finished scan.
class RawFileWriter {
public:
    RawFileWriter() = default;
    ~RawFileWriter();
    RawFileWriter(const RawFileWriter&) = delete;
    RawFileWriter& operator=(const RawFileWriter&) = delete;

    int create(const std::string& path);  // 0 or kScanLibErrCreateFile
    bool isOpen() const { return mFile.held(); }
    int writeHeader(const RawFileHeader& header);  // 0 or kScanLibErrWriteFile
    // Appends `rows` rows of `rowBytes` bytes, taken every `pitchBytes` from
    // `base`; gathers many rows per system call and copies nothing.
    int appendRows(const std::uint8_t* base, std::uint32_t rows, std::size_t rowBytes, std::size_t pitchBytes);
    // Rewrites the header's row count in place.
    int finalizeRows(std::uint32_t rows);  // 0 or kScanLibErrWriteFile
    // Keeps the file; the lock that comes back owns it from now on.
    RawFileLock commit();
    // Closes the file and removes it.
    void discard();

private:
    int writeAll(const void* data, std::size_t size);
    RawFileLock mFile;
    std::string mPath;
    static constexpr int kMaxIov = 256;
    iovec mIov[kMaxIov];
};

struct RawFileInfo {
    RawFileHeader header;
    std::uint64_t rowBytes;     // bytes per pixel x pixels per row
    std::uint32_t rowsPresent;  // whole rows the file really holds, at most header.rows
};

// Checks a header read from a file of `fileSize` bytes. Only what readers can
// use passes: the signature, colour type 0 or 1 with 4 or 1 bytes per pixel,
// 8 (or 1, gray only) bits per sample, a resolution and a width that are not
// zero and rows that fit the file as far as the file goes.
bool parseRawFileHeader(const void* bytes, std::size_t size, std::uint64_t fileSize, RawFileInfo* info);
// Reads and checks the header of the file at `path`.
bool readRawFileInfo(const std::string& path, RawFileInfo* info);

}  // namespace zentary
