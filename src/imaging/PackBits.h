// Apple PackBits run-length coding, as PICT bit-map rows use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zentary {

// Most bytes packBits can produce from `length` input bytes: one header per
// 128 literal bytes, and one more for a literal cut short by a run.
constexpr std::size_t packBitsBound(std::size_t length) {
    return length + length / 128 + 1;
}

// Packs `input` into `output`, which must hold packBitsBound(input.size())
// bytes. Returns the packed length.
std::size_t packBits(std::span<const std::uint8_t> input, std::uint8_t* output);

}  // namespace zentary
