// Bytes as a raw scan file: header readers, conversion to an offscreen image,
// and export of what converts to TIFF and PICT in memory.
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "imaging/ByteSink.h"
#include "imaging/ImageExport.h"
#include "imaging/PictRecorder.h"
#include "imaging/RawFileReader.h"

namespace {

// Exporting a large image teaches the fuzzer nothing new per byte and
// would slow every run; the rows of a small one cover the same paths.
constexpr std::size_t kLargestExported = 1 << 20;

int scratchFile() {
    static const int fd = ::memfd_create("fuzz_raw_image", MFD_CLOEXEC);
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int fd = scratchFile();
    if (fd < 0 || ::ftruncate(fd, 0) != 0) return 0;
    if (size > 0 && ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    const std::string path = "/proc/self/fd/" + std::to_string(fd);

    zentary::RawFileHeader header;
    (void)zentary::isScanRawFile(path);
    (void)zentary::readRawScanFileHeader(&header, path);
    auto image = zentary::newGWorldFromRawFile(path);
    if (!image || image->rowBytes() * static_cast<std::size_t>(image->height()) > kLargestExported) return 0;

    std::vector<std::uint8_t> tiff;
    zentary::MemorySink sink(tiff);
    if (!zentary::writeTiff(*image, sink)) __builtin_trap();
    std::vector<std::uint8_t> picture;
    if (!zentary::recordPicture(*image, picture)) __builtin_trap();
    return 0;
}
