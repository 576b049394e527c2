// Bytes as a picture for the emulated glass (emulator:image=PATH): the PNG,
// JPEG and TIFF decoders behind it, and the glass-to-picture mapping read
// at both ends of every row and column.
#include <cstddef>
#include <cstdint>
#include <string>

#include "emulator/PageImage.h"
#include "emulator/TestChart.h"

namespace {

// Enough for any header trick; larger pictures only cost the fuzzer time.
constexpr std::uint64_t kLargestPicture = 1u << 22;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string error;
    auto page = zentary::PageImage::decode({data, size}, &error, kLargestPicture);
    if (!page) {
        if (error.empty()) __builtin_trap();
        return 0;
    }
    using namespace zentary::chart;
    unsigned sum = 0;
    for (std::uint32_t gy : {0u, kGlassHeight / 2, kGlassHeight - 1})
        for (std::uint32_t gx : {0u, kGlassWidth / 3, kGlassWidth - 1}) {
            std::uint32_t x = page->column(gx), y = page->row(gy);
            if (x > page->width() || y > page->height()) __builtin_trap();
            sum += page->gray(x, y) + page->color(x, y).r;
        }
    return sum == ~0u;
}
