#include "imaging/PackBits.h"

#include <algorithm>
#include <bit>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace zentary {

namespace {

// The first j >= i with in[j] == in[j + 1], or length. Scanned rows are
// mostly noise, so most bytes differ from their neighbour; comparing sixteen
// neighbours at a time keeps packing from costing more than the copy.
std::size_t nextEqualPair(const std::uint8_t* in, std::size_t i, std::size_t length) {
#ifdef __SSE2__
    for (; i + 17 <= length; i += 16) {
        const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 1));
        if (const unsigned equal = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(here, next))); equal != 0)
            return i + static_cast<std::size_t>(std::countr_zero(equal));
    }
#endif
    for (; i + 1 < length; ++i)
        if (in[i] == in[i + 1]) return i;
    return length;
}

// The first j in [i, limit) with in[j] != value, or limit. Flat areas of a
// page give runs up to the packet's 128 bytes; sixteen bytes a step keeps
// them cheap.
std::size_t runEnd(const std::uint8_t* in, std::size_t i, std::size_t limit, std::uint8_t value) {
#ifdef __SSE2__
    const __m128i pattern = _mm_set1_epi8(static_cast<char>(value));
    for (; i + 16 <= limit; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const auto equal = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, pattern)));
        if (equal != 0xFFFF) return i + static_cast<std::size_t>(std::countr_one(equal));
    }
#endif
    while (i < limit && in[i] == value) ++i;
    return i;
}

// Copies n <= 128 bytes in fixed-size pieces, the last one overlapping
// the one before: for such short copies the compiler otherwise emits a
// string move whose start-up cost was a fifth of all packing time.
inline void copyPacket(std::uint8_t* out, const std::uint8_t* in, std::size_t n) {
    if (n >= 16) {
        std::size_t i = 0;
        for (; i + 16 < n; i += 16) std::memcpy(out + i, in + i, 16);
        std::memcpy(out + n - 16, in + n - 16, 16);
    } else if (n >= 8) {
        std::memcpy(out, in, 8);
        std::memcpy(out + n - 8, in + n - 8, 8);
    } else if (n >= 4) {
        std::memcpy(out, in, 4);
        std::memcpy(out + n - 4, in + n - 4, 4);
    } else {
        for (std::size_t i = 0; i < n; ++i) out[i] = in[i];
    }
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
            copyPacket(out, in + literalStart, chunk);
            out += chunk;
            literalStart += chunk;
        }
    };

    std::size_t i = 0;
    while ((i = nextEqualPair(in, i, length)) < length) {
        const std::uint8_t value = in[i];
        const std::size_t run = runEnd(in, i + 2, std::min(length, i + 128), value) - i;
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
