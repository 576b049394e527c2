#include "imaging/PackBits.h"

#include <bit>
#include <cstring>

namespace zentary {

namespace {

// The first j >= i with in[j] == in[j + 1], or length. Scanned rows are
// mostly noise, so most bytes differ from their neighbour; comparing eight
// neighbours at a time keeps packing from costing more than the copy.
std::size_t nextEqualPair(const std::uint8_t* in, std::size_t i, std::size_t length) {
    if constexpr (std::endian::native == std::endian::little) {
        constexpr std::uint64_t kOnes = 0x0101010101010101ull;
        constexpr std::uint64_t kHighs = 0x8080808080808080ull;
        for (; i + 9 <= length; i += 8) {
            std::uint64_t here, next;
            std::memcpy(&here, in + i, 8);
            std::memcpy(&next, in + i + 1, 8);
            const std::uint64_t differences = here ^ next;
            // The lowest flagged byte is the first zero byte of `differences`.
            const std::uint64_t zeros = (differences - kOnes) & ~differences & kHighs;
            if (zeros != 0) return i + static_cast<std::size_t>(std::countr_zero(zeros) / 8);
        }
    }
    for (; i + 1 < length; ++i)
        if (in[i] == in[i + 1]) return i;
    return length;
}

}  // namespace

// Runs of three or more equal bytes become repeat packets. A pair becomes
// one only when no literal is open: inside a literal it costs nothing, while
// a repeat would cost a packet header on each side.
std::size_t packBits(std::span<const std::uint8_t> input, std::uint8_t* output) {
    const std::uint8_t* in = input.data();
    const std::size_t length = input.size();
    std::uint8_t* out = output;
    std::size_t literalStart = 0;  // bytes from here up to i are literal

    auto flushLiteral = [&](std::size_t end) {
        while (literalStart < end) {
            const std::size_t chunk = end - literalStart < 128 ? end - literalStart : 128;
            *out++ = static_cast<std::uint8_t>(chunk - 1);
            std::memcpy(out, in + literalStart, chunk);
            out += chunk;
            literalStart += chunk;
        }
    };

    std::size_t i = 0;
    while ((i = nextEqualPair(in, i, length)) < length) {
        const std::uint8_t value = in[i];
        std::size_t run = 2;
        while (i + run < length && run < 128 && in[i + run] == value) ++run;
        if (run >= 3 || literalStart == i) {
            flushLiteral(i);
            *out++ = static_cast<std::uint8_t>(257 - run);  // -(run - 1) as a signed byte
            *out++ = value;
            i += run;
            literalStart = i;
        } else {
            i += 2;
        }
    }
    flushLiteral(length);
    return static_cast<std::size_t>(out - output);
}

}  // namespace zentary
