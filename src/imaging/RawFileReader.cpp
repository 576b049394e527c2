#include "imaging/RawFileReader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "imaging/FileIo.h"
#include "scanlib/RawFile.h"

namespace zentary {

namespace {

// Reads go straight into the image rows in blocks of about this size: large
// enough that system calls cost nothing next to the copy, small enough that
// a colour block is still in cache when its alpha bytes are set.
constexpr std::size_t kBlockBytes = 512 * 1024;
constexpr int kMaxVectors = 1024;  // IOV_MAX on Linux

bool preadHeader(int fd, RawFileHeader* header) {
    std::uint8_t bytes[kRawFileHeaderLength];
    std::size_t done = 0;
    while (done < sizeof bytes) {
        const ssize_t got = ::pread(fd, bytes + done, sizeof bytes - done, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        done += static_cast<std::size_t>(got);
    }
    std::memcpy(header, bytes, sizeof bytes);
    return true;
}

// Opening a FIFO or a device for reading could block the client's thread
// without end; a raw file is always a regular file.
UniqueFd openRegularFile(const std::string& path, struct stat* info) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid() || ::fstat(fd.get(), info) != 0 || !S_ISREG(info->st_mode)) return UniqueFd();
    return fd;
}

// The raw colour pixel is x R G B; the image wants 255 R G B, so only the
// first byte of each pixel changes and the rows can be read in place.
void setAlphaOpaque(std::uint8_t* row, int width) {
    constexpr std::uint32_t kAlpha = std::endian::native == std::endian::little ? 0x000000FFu : 0xFF000000u;
    for (int x = 0; x < width; ++x) {
        std::uint32_t pixel;
        std::memcpy(&pixel, row + 4 * x, 4);
        pixel |= kAlpha;
        std::memcpy(row + 4 * x, &pixel, 4);
    }
}

// Reads rows [first, first + count) from `offset` into the image. Returns the
// number of whole rows that arrived (fewer when the file ends early).
int readRowBlock(int fd, off_t offset, OffscreenImage& image, int first, int count, std::size_t storedRow) {
    std::array<iovec, kMaxVectors> vectors;
    int used = 0;
    const bool contiguous = image.rowBytes() == storedRow;
    for (int y = first; y < first + count; ++y) {
        if (contiguous && used == 1) {
            vectors[0].iov_len += storedRow;
            continue;
        }
        vectors[used++] = {image.row(y), storedRow};
    }
    const std::size_t wanted = storedRow * static_cast<std::size_t>(count);
    std::size_t done = 0;
    int next = 0;
    while (done < wanted) {
        const ssize_t got = ::preadv(fd, vectors.data() + next, used - next, offset + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
        // Step over the vectors that are full and trim the one under way.
        auto left = static_cast<std::size_t>(got);
        while (next < used && left >= vectors[next].iov_len) left -= vectors[next++].iov_len;
        if (next < used) {
            vectors[next].iov_base = static_cast<std::uint8_t*>(vectors[next].iov_base) + left;
            vectors[next].iov_len -= left;
        }
    }
    return static_cast<int>(done / storedRow);
}

}  // namespace

bool isScanRawFile(const std::string& path) {
    struct stat info;
    UniqueFd fd = openRegularFile(path, &info);
    std::uint32_t signature = 0;
    return fd.valid() && readFully(fd.get(), &signature, sizeof signature) == sizeof signature &&
           signature == kRawFileSignature;
}

bool readRawScanFileHeader(RawFileHeader* header, const std::string& fromFileAtPath) {
    struct stat info;
    UniqueFd fd = openRegularFile(fromFileAtPath, &info);
    return fd.valid() && readRawScanFileHeader(header, fd.get());
}

bool readRawScanFileHeader(RawFileHeader* header, int fromFile) {
    // pread leaves the descriptor's offset alone, whatever the read gives.
    if (header == nullptr || fromFile < 0) return false;
    RawFileHeader read;
    if (!preadHeader(fromFile, &read)) return false;
    *header = read;
    return true;
}

// What we refuse, and why:
// - a missing, non-regular or short file, or a header the scanner library's
//   check refuses (signature, colour type, bytes per pixel, zero sizes);
// - bits per sample other than 8: our scanner never writes the one-bit kind,
//   and guessing its bit order would hand the user a wrong image;
// - zero or more than 32767 pixels per row or rows (pictures carry 16-bit
//   coordinates), or a resolution of 0 or above 32767 dpi (16.16 fixed);
// - a file without a single whole row of pixels.
// A file that ends before its header's row count (a scan cancelled before
// the scanner finished the page) is delivered at the size the header
// promised, with the rows present and the rest white: the user keeps what
// was scanned, and the image still matches what image information reported.
std::unique_ptr<OffscreenImage> newGWorldFromRawFile(const std::string& path) {
    struct stat info;
    UniqueFd fd = openRegularFile(path, &info);
    if (!fd.valid()) return nullptr;
    RawFileHeader read;
    RawFileInfo raw;
    if (!preadHeader(fd.get(), &read) ||
        !parseRawFileHeader(&read, sizeof read, static_cast<std::uint64_t>(info.st_size), &raw))
        return nullptr;
    const RawFileHeader& header = raw.header;
    if (header.bitsPerSample != 8) return nullptr;
    constexpr std::uint32_t kLimit = OffscreenImage::kMaximumCoordinate;
    if (header.pixelsPerRow > kLimit || header.rows == 0 || header.rows > kLimit || header.resolution > kLimit)
        return nullptr;

    const int width = static_cast<int>(header.pixelsPerRow);
    const int height = static_cast<int>(header.rows);
    const auto storedRow = static_cast<std::size_t>(raw.rowBytes);
    const int rowsInFile = static_cast<int>(raw.rowsPresent);
    if (rowsInFile == 0) return nullptr;

    const bool gray = header.bytesPerPixel == 1;
    const Rect bounds{0, 0, static_cast<std::int16_t>(height), static_cast<std::int16_t>(width)};
    const auto resolution = static_cast<std::int32_t>(header.resolution);
    // A complete file already holds the image's rows as they are in memory
    // (x R G B with the first byte ignored, or gray table indices): mapping
    // it spares a copy of the whole page and the memory to hold it. A short
    // file, or one the mapping refuses, takes the copying path below.
    if (rowsInFile == height) {
        if (auto mapped = OffscreenImage::createMapped(gray ? 8 : 32, bounds, fd.get(), kRawFileHeaderLength)) {
            mapped->setResolution(long2Fix(resolution), long2Fix(resolution));
            return mapped;
        }
    }

    auto image = OffscreenImage::create(gray ? 8 : 32, bounds);
    if (!image) return nullptr;
    image->setResolution(long2Fix(resolution), long2Fix(resolution));

    const bool contiguous = image->rowBytes() == storedRow;
    const int rowsPerBlock = std::clamp(static_cast<int>(kBlockBytes / storedRow), 1, contiguous ? static_cast<int>(kLimit) : kMaxVectors);
    int y = 0;
    off_t offset = kRawFileHeaderLength;
    while (y < rowsInFile) {
        const int count = std::min(rowsPerBlock, rowsInFile - y);
        const int got = readRowBlock(fd.get(), offset, *image, y, count, storedRow);
        if (!gray)
            for (int r = y; r < y + got; ++r) setAlphaOpaque(image->row(r), width);
        y += got;
        offset += static_cast<off_t>(storedRow) * got;
        if (got < count) break;  // the file shrank under us: the rest is white
    }
    if (y == 0) return nullptr;
    for (; y < height; ++y) std::memset(image->row(y), 0xFF, image->rowBytes());
    return image;
}

}  // namespace zentary
