// Code-book formats with 64-element blocks: nf4 and nf3.
//
// Bytes are drawn with their high bits on the left; eN is the code of element N of the block.
//
//   nf4, 34 bytes, regions        nf3, 26 bytes, regions
//     quants  0 |  e0  e32 |        quants  0 | qh, 64-bit word: bit N is bit 2 of eN |
//             1 |  e1  e33 |                8 |  e0  e1  e2  e3 | bits 0 and 1 of four codes
//                  ...                      9 |  e4  e5  e6  e7 |
//            31 | e31  e63 |                        ...
//     scales  0 | d  half  |               23 | e60 e61 e62 e63 |
//                                   scales  0 | d  half |
//
// The nibbles of nf4 lie the other way round than those of q4_0 and fp4. The two formats are no twins in
// rounding either: nf4 computes in T, nf3 in float.
#pragma once

#include <cstdint>

#include "formats/integer_blocks.h"
#include "formats/packed_bits.h"
#include "formats/registry.h"
#include "runtime/scalar_types.h"

namespace quillon {

struct block_nf3_qs {
  uint8_t qh[8];
  uint8_t qs[16];
};
static_assert(sizeof(block_nf3_qs) == field_bytes(qtype_nf3, "qs"));

inline constexpr float dequantNF4[16] = {
    -1.0f,
    -0.6961928009986877f,
    -0.5250730514526367f,
    -0.39491748809814453f,
    -0.28444138169288635f,
    -0.18477343022823334f,
    -0.09105003625154495f,
    0.0f,
    0.07958029955625534f,
    0.16093020141124725f,
    0.24611230194568634f,
    0.33791524171829224f,
    0.44070982933044434f,
    0.5626170039176941f,
    0.7229568362236023f,
    1.0f,
};

inline constexpr float dequantNF3[8] = {
    -1.0f,
    -0.4786292016506195f,
    -0.217141792178154f,
    0.0f,
    0.16093020141124725f,
    0.33791524171829224f,
    0.5626170039176941f,
    1.0f,
};

// Index into dequantNF4; byte j holds elements j (high nibble) and j + 32 (low nibble).
inline int code_nf4(const uint8_t* qs, int e) {
  const uint8_t byte = qs[e % 32];
  return static_cast<int>(e < 32 ? high_nibble(byte) : low_nibble(byte));
}

// Index into dequantNF3.
inline int code_nf3(const block_nf3_qs& block, int e) {
  const int low = (block.qs[e / 4] >> (6 - 2 * (e % 4))) & 3;
  const int high = static_cast<int>((load_u64(block.qh) >> e) & 1);
  return 4 * high + low;
}

inline const block_nf3_qs& quants_nf3(const weight_parts& weight, int64_t b) {
  return reinterpret_cast<const block_nf3_qs*>(weight.part[0])[b];
}
inline half scale_nf3(const weight_parts& weight, int64_t b) {
  return load_half(weight.part[1] + 2 * b);
}

// Arithmetic in T.
template <typename T>
inline T decode_nf4(const weight_parts& weight, int64_t b, int e) {
  const float value = dequantNF4[code_nf4(quants_q4_0(weight, b), e)];
  return multiply(convert<T>(value), convert<T>(scale_q4_0(weight, b)));
}

// Arithmetic in float.
template <typename T>
inline T decode_nf3(const weight_parts& weight, int64_t b, int e) {
  const float value = dequantNF3[code_nf3(quants_nf3(weight, b), e)];
  return convert<T>(multiply(value, convert<float>(scale_nf3(weight, b))));
}

}  // namespace quillon
