#include "scanlib/RawFile.h"

#include "scanlib/ScanProtocol.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zentary {

bool RawFileLock::fileRemoved() const
{
    struct stat st;
    return held() && ::fstat(mFd.get(), &st) == 0 && st.st_nlink == 0;
}

RawFileWriter::~RawFileWriter()
{
    discard();
}

int RawFileWriter::create(const std::string& path)
{
    discard();
    files::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd) return kScanLibErrCreateFile;
    // Nobody else can hold a file this new. A file system without flock
    // leaves it unlocked, and then no sweeper can lock it to remove it either.
    ::flock(fd.get(), LOCK_EX | LOCK_NB);
    mFile = RawFileLock(std::move(fd));
    mPath = path;
    return 0;
}

int RawFileWriter::writeAll(const void* data, std::size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = ::write(mFile.fd(), p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return kScanLibErrWriteFile;
        p += n;
        size -= std::size_t(n);
    }
    return 0;
}

int RawFileWriter::writeHeader(const RawFileHeader& header)
{
    if (!mFile.held()) return kScanLibErrWriteFile;
    return writeAll(&header, sizeof header);
}

int RawFileWriter::appendRows(const std::uint8_t* base, std::uint32_t rows, std::size_t rowBytes,
                              std::size_t pitchBytes)
{
    if (!mFile.held()) return kScanLibErrWriteFile;
    if (rows == 0 || rowBytes == 0) return 0;
    if (pitchBytes == rowBytes) return writeAll(base, rowBytes * rows);
    std::uint32_t row = 0;
    while (row < rows) {
        int n = 0;
        for (; n < kMaxIov && row + std::uint32_t(n) < rows; ++n) {
            mIov[n].iov_base = const_cast<std::uint8_t*>(base + std::size_t(row + std::uint32_t(n)) * pitchBytes);
            mIov[n].iov_len = rowBytes;
        }
        std::size_t total = std::size_t(n) * rowBytes;
        ssize_t written = ::writev(mFile.fd(), mIov, n);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return kScanLibErrWriteFile;
        if (std::size_t(written) != total) {
            // Rare partial gather: finish these rows one by one.
            std::size_t done = std::size_t(written);
            for (int i = 0; i < n; ++i) {
                if (done >= rowBytes) {
                    done -= rowBytes;
                    continue;
                }
                const auto* start = static_cast<const std::uint8_t*>(mIov[i].iov_base);
                if (int r = writeAll(start + done, rowBytes - done); r != 0) return r;
                done = 0;
            }
        }
        row += std::uint32_t(n);
    }
    return 0;
}

int RawFileWriter::finalizeRows(std::uint32_t rows)
{
    if (!mFile.held()) return kScanLibErrWriteFile;
    RawFileHeader header;
    if (::pread(mFile.fd(), &header, sizeof header, 0) != ssize_t(sizeof header)) return kScanLibErrWriteFile;
    header.rows = rows;
    if (::pwrite(mFile.fd(), &header, sizeof header, 0) != ssize_t(sizeof header)) return kScanLibErrWriteFile;
    return 0;
}

RawFileLock RawFileWriter::commit()
{
    mPath.clear();
    return std::move(mFile);
}

void RawFileWriter::discard()
{
    if (!mFile.held()) return;
    // Unlinked before the lock goes, so no sweeper ever sees it unheld.
    ::unlink(mPath.c_str());
    mFile.release();
    mPath.clear();
}

bool parseRawFileHeader(const void* bytes, std::size_t size, std::uint64_t fileSize, RawFileInfo* info)
{
    // A file shorter than a header has none, whatever bytes we were handed.
    if (!bytes || !info || size < sizeof(RawFileHeader) || fileSize < sizeof(RawFileHeader)) return false;
    RawFileHeader h;
    std::memcpy(&h, bytes, sizeof h);
    if (h.signature != kRawFileSignature) return false;
    bool color = h.colorType == std::uint32_t(kColorTypeColor);
    bool gray = h.colorType == std::uint32_t(kColorTypeGray);
    if (!color && !gray) return false;
    if (color && (h.bytesPerPixel != 4 || h.bitsPerSample != 8)) return false;
    if (gray && (h.bytesPerPixel != 1 || (h.bitsPerSample != 8 && h.bitsPerSample != 1))) return false;
    if (h.resolution == 0 || h.pixelsPerRow == 0) return false;
    std::uint64_t rowBytes = std::uint64_t(h.bytesPerPixel) * h.pixelsPerRow;
    std::uint64_t present = (fileSize - sizeof h) / rowBytes;
    info->header = h;
    info->rowBytes = rowBytes;
    info->rowsPresent = present < h.rows ? std::uint32_t(present) : h.rows;
    return true;
}

bool readRawFileInfo(const std::string& path, RawFileInfo* info)
{
    struct Fd {
        int fd;
        ~Fd()
        {
            if (fd >= 0) ::close(fd);
        }
    } file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return false;
    RawFileHeader header;
    struct stat st;
    bool ok = ::fstat(file.fd, &st) == 0 && ::pread(file.fd, &header, sizeof header, 0) == ssize_t(sizeof header);
    return ok && parseRawFileHeader(&header, sizeof header, std::uint64_t(st.st_size), info);
}

}  // namespace zentary
