// What the kernels of 8-bit formats share: a chunk of eight neighbouring elements is eight neighbouring bytes
// of a block, one 64-bit word.
#pragma once

#include "kernels/matvec/chunks.h"

namespace quillon {

// The sum of the chunk's eight products, from left to right; `value(byte)` gives a byte's value as a lane<T>.
// The bytes are shifted out of 32-bit halves of the word: a CPU device has twice as many of those in a
// register.
template <typename T, typename Value>
inline lane<T> sum_bytes(const activations<T, 8>& chunk, uint64_t codes, Value value) {
  const uint32_t half_words[2] = {static_cast<uint32_t>(codes), static_cast<uint32_t>(codes >> 32)};
  lane<T> s;
  unrolled<8>([&](auto i) {
    const lane<T> factor = value((half_words[i / 4] >> (8 * (i % 4))) & 0xFF);
    s = i == 0 ? chunk.v[0] * factor : s + chunk.v[i] * factor;
  });
  return s;
}

}  // namespace quillon
