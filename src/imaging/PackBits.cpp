#include "imaging/PackBits.h"

#include <cstring>

namespace zentary {

// Runs of three or more equal bytes become repeat packets. A pair becomes
// one only when no literal is open: inside a literal it costs nothing, while
// a repeat would cost a packet header on each side.
std::size_t packBits(std::span<const std::uint8_t> input, std::uint8_t* output) {
    const std::uint8_t* in = input.data();
    const std::size_t length = input.size();
    std::uint8_t* out = output;
    std::size_t literalStart = 0;
    std::size_t literalLength = 0;

    auto flushLiteral = [&] {
        while (literalLength > 0) {
            const std::size_t chunk = literalLength < 128 ? literalLength : 128;
            *out++ = static_cast<std::uint8_t>(chunk - 1);
            std::memcpy(out, in + literalStart, chunk);
            out += chunk;
            literalStart += chunk;
            literalLength -= chunk;
        }
    };

    std::size_t i = 0;
    while (i < length) {
        const std::uint8_t value = in[i];
        std::size_t run = 1;
        while (i + run < length && run < 128 && in[i + run] == value) ++run;
        if (run >= 3 || (run == 2 && literalLength == 0)) {
            flushLiteral();
            *out++ = static_cast<std::uint8_t>(257 - run);  // -(run - 1) as a signed byte
            *out++ = value;
            i += run;
            literalStart = i;
        } else {
            if (literalLength == 0) literalStart = i;
            literalLength += run;
            i += run;
        }
    }
    flushLiteral();
    return static_cast<std::size_t>(out - output);
}

}  // namespace zentary
