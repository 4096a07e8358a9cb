// q8_1, the one format of activations: 32 elements in 36 bytes, records.
//
//   0 | d half |  scale, absmax / 127
//   2 | s half |  sum of the 32 source values themselves, not of the quants
//   4 | e0 int8 |  ...  | e31 int8 |
//
// The quants are formed with the float scale, readers get the half scale; that difference is part of the
// format.
#pragma once

#include <cstdint>

#include "formats/packed_bits.h"
#include "formats/registry.h"
#include "runtime/scalar_types.h"

namespace quillon {

struct block_q8_1 {
  half d;
  half s;
  int8_t qs[32];
};
static_assert(sizeof(block_q8_1) == bytes_per_block(qtype_q8_1));

// The float 1/127; the scale is a product with it, not a division by 127.
inline constexpr float q8_1_inverse_127 = 0.007874015718698502f;

inline float scale_q8_1(float absmax) {
  return multiply(absmax, q8_1_inverse_127);
}

// To the nearest integer with halves away from zero; exact for any |x| below 2^23.
constexpr float round_half_away(float x) {
  const float whole = static_cast<float>(static_cast<int32_t>(x));
  const float rest = x - whole;
  return rest >= 0.5f ? whole + 1.0f : (rest <= -0.5f ? whole - 1.0f : whole);
}

// The float that a source value counts as.
template <typename T>
constexpr float source_q8_1(T x) {
  return convert<float>(x);
}

// The float nearest to x / scale, rounded to an integer as above, from a `quotient` that is off by a few
// units in its last place: a GPU divides by multiplying with an approximate reciprocal. Magnitudes of the
// quotient are below 2^11, and neither x nor scale is so small that its 40th bit would be subnormal.
inline float round_quotient(float x, float scale, float quotient) {
  const float magnitude = x < 0.0f ? -x : x;
  const float whole = static_cast<float>(static_cast<int32_t>(quotient < 0.0f ? -quotient : quotient));
  const float tie = whole + 0.5f;
  // magnitude - tie * scale, exact where it decides: both halves of the scale have 12 bits and the tie as
  // many, and the differences of so near numbers are floats.
  const float high = bit_cast<float>(bit_cast<uint32_t>(scale) & 0xFFFFF000u);
  const float rest = (magnitude - tie * high) - tie * (scale - high);
  // Quotients from the middle between the tie and the float below it on are rounded to the tie or above.
  const float below = bit_cast<float>(bit_cast<uint32_t>(tie) - 1);
  const float rounded = rest >= -(0.5f * (tie - below)) * scale ? whole + 1.0f : whole;
  return x < 0.0f ? -rounded : rounded;
}

// The quant of a source value under the float scale of its block. double is divided in double, correctly
// rounded everywhere, and narrowed before the rounding; all other types are divided in float. The scale is 0
// for a block of zeros and where it underflows: the quants are 0 then, not quotients by zero.
template <typename T>
inline int8_t quant_q8_1(T x, float scale) {
  if (scale == 0.0f) return 0;
  if constexpr (std::is_same_v<T, double>) {
    return static_cast<int8_t>(round_half_away(static_cast<float>(x / static_cast<double>(scale))));
  } else {
    // Away from the subnormal numbers; a power of two changes no quotient.
    const float lift = scale < 0x1p-60f ? 0x1p100f : 1.0f;
    const float lifted_x = source_q8_1(x) * lift;
    const float lifted_scale = scale * lift;
    return static_cast<int8_t>(round_quotient(lifted_x, lifted_scale, lifted_x / lifted_scale));
  }
}

// Arithmetic in float. The dot kernels use the fields and never a decoded element.
template <typename T>
inline T decode_q8_1(const weight_parts& weight, int64_t b, int e) {
  const uint8_t* block = weight.part[0] + sizeof(block_q8_1) * b;
  const float quant = static_cast<float>(static_cast<int8_t>(block[4 + e]));
  return convert<T>(multiply(convert<float>(load_half(block)), quant));
}

}  // namespace quillon
