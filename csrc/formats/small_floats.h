// Small-float formats with 64-element blocks: fp4, fp6, fp8_e4m3, fp8_e5m2.
//
// A code becomes a half by shifts alone, so its exponent counts with the bias of half, 15. fp6 and fp8
// patterns have one fixed bit below the last code bit (marked 1): no code of theirs is zero.
//
//   half      | s | e e e e e | m m m m m m m m m m |
//   fp6       | s | 0 0 e e e | m m 1 0 0 0 0 0 0 0 |      code s e e e m m
//   fp8_e4m3  | s | 0 e e e e | m m m 1 0 0 0 0 0 0 |      code s e e e e m m m
//   fp8_e5m2  | s | e e e e e | m m 1 0 0 0 0 0 0 0 |      code s e e e e e m m
//
//   fp4, 34 bytes: the regions and the nibble order of q4_0. A code is a sign and an index of a magnitude:
//     0.03125, 0.5, 1, 1.5, 2, 3, 4, 6.
//
//   fp8, 68 bytes, regions        fp6, 50 bytes, regions
//     codes   0 | e0  |             low plane   two 32-bit words for each group of 16 elements
//              ...                  high plane  one 32-bit word for each group of 16 elements
//            63 | e63 |             scales      | d  half |
//     scales  0 | d float |
//
// One group of fp6, words drawn from bit 31 down to bit 0; sN is the two high bits (sign and top exponent
// bit) of element N of the group, nN its low nibble. Four elements of a step lie in one word, in bytes
// 1, 3, 0, 2:
//
//   high word   | s1 s5 s9 s13 | s3 s7 s11 s15 | s0 s4 s8 s12 | s2 s6 s10 s14 |
//   low word 0  | n1 n5        | n3 n7         | n0 n4        | n2 n6         |
//   low word 1  | n9 n13       | n11 n15       | n8 n12       | n10 n14       |
//
// So shifting the high word left by 2 and the low word left by 4 brings up the next four elements, which
// fp6_step_codes turns into four codes at once.
#pragma once

#include <cstdint>

#include "formats/integer_blocks.h"
#include "formats/packed_bits.h"
#include "formats/registry.h"
#include "runtime/scalar_types.h"

namespace quillon {

struct block_fp6_32_ql {
  uint32_t ql[8];
};
static_assert(sizeof(block_fp6_32_ql) == field_bytes(qtype_fp6, "ql"));

struct block_fp6_32_qh {
  uint32_t qh[4];
};
static_assert(sizeof(block_fp6_32_qh) == field_bytes(qtype_fp6, "qh"));

// ---- bit patterns -----------------------------------------------------------------------------------------

// Float pattern of a 4-bit fp4 code.
constexpr uint32_t fp4_float_bits(uint32_t code) {
  const uint32_t index = code & 7;
  const uint32_t magnitude = index >= 2 ? 0x3F000000u + (index << 22) : (index == 1 ? 0x3F000000u : 0x3D000000u);
  return ((code & 8) << 28) | magnitude;
}
constexpr float fp4_to_float(uint32_t code) {
  return bit_cast<float>(fp4_float_bits(code));
}

// Half pattern of a 4-bit fp4 code: the same magnitudes, built in the top byte alone.
constexpr uint16_t fp4_half_bits(uint32_t code) {
  const uint32_t index = code & 7;
  const uint32_t top = index < 2 ? 16 * index + 40 : 2 * index + 56;
  return static_cast<uint16_t>(((code & 8) << 12) | (top << 8));
}

// fp6_step_codes puts a code into a byte as s00eeemm; the two clear bits are bits 14 and 13 of the half.
constexpr uint16_t fp6_half_bits(uint32_t spread_code) {
  return static_cast<uint16_t>(((spread_code & 0x9F) << 8) | 0x0080);
}

// Who reads fp8_e4m3 with the fixed bit: the matrix-vector kernel and the fast dense expansion.
constexpr uint16_t fp8_e4m3_half_bits(uint32_t byte) {
  return static_cast<uint16_t>(((byte & 0x80) << 8) | ((byte & 0x7F) << 7) | 0x0040);
}

// Who reads it without: the matrix engine. Codes 0x00 and 0x80 are zero here.
constexpr uint16_t fp8_e4m3_half_bits_bare(uint32_t byte) {
  return static_cast<uint16_t>(((byte & 0x80) << 8) | ((byte & 0x7F) << 7));
}

// All readers of fp8_e5m2. Exponent 31 is a NaN for every code: the fixed bit is set.
constexpr uint16_t fp8_e5m2_half_bits(uint32_t byte) {
  return static_cast<uint16_t>((byte << 8) | 0x0080);
}

// ---- fp6, four elements at a time -------------------------------------------------------------------------

// The byte with element p of a step, and the element in a byte.
constexpr int fp6_byte_of_element(int p) {
  return (0x2031 >> (4 * p)) & 3;
}
constexpr int fp6_element_of_byte(int byte) {
  return (0x1302 >> (4 * byte)) & 3;
}

// The spread codes of the four elements at the top of every byte of `high` and `low`, one in each byte.
template <typename Words>
constexpr Words fp6_step_codes(Words high, Words low) {
  const Words low_five = (high & 0x40404040u) | ((low >> 2) & 0x3C3C3C3Cu);
  return (high & 0x80808080u) | (low_five >> 2);
}

// The spread code of element r of a group, from its words: steps 0 and 1 use low word 0, the others word 1.
constexpr uint32_t fp6_code(uint32_t high, uint32_t low0, uint32_t low1, int r) {
  const int step = r / 4;
  const uint32_t codes = fp6_step_codes(high << (2 * step), (step < 2 ? low0 : low1) << (4 * (step % 2)));
  return byte_of(codes, fp6_byte_of_element(r % 4)) & 0x9F;
}

// ---- fp4, fp6: arithmetic in T ----------------------------------------------------------------------------

template <typename T>
inline T decode_fp4(const weight_parts& weight, int64_t b, int e) {
  const float value = fp4_to_float(static_cast<uint32_t>(code_split_nibbles(quants_q4_0(weight, b), e)));
  return multiply(convert<T>(scale_q4_0(weight, b)), convert<T>(value));
}

inline half scale_fp6(const weight_parts& weight, int64_t b) {
  return load_half(weight.part[2] + 2 * b);
}

// The unscaled value.
inline half value_fp6(const weight_parts& weight, int64_t b, int e) {
  const uint8_t* low = weight.part[0] + sizeof(block_fp6_32_ql) * b + 8 * (e / 16);
  const uint8_t* high = weight.part[1] + sizeof(block_fp6_32_qh) * b + 4 * (e / 16);
  return half_from_bits(fp6_half_bits(fp6_code(load_u32(high), load_u32(low), load_u32(low + 4), e % 16)));
}

template <typename T>
inline T decode_fp6(const weight_parts& weight, int64_t b, int e) {
  return multiply(convert<T>(value_fp6(weight, b, e)), convert<T>(scale_fp6(weight, b)));
}

// ---- fp8 --------------------------------------------------------------------------------------------------

inline uint8_t code_fp8(const weight_parts& weight, int64_t b, int e) {
  return weight.part[0][64 * b + e];
}
inline float scale_fp8(const weight_parts& weight, int64_t b) {
  return load_float(weight.part[1] + 4 * b);
}

// Arithmetic in T, the scale always applied.
template <typename T>
inline T decode_fp8_e4m3(const weight_parts& weight, int64_t b, int e) {
  const half value = half_from_bits(fp8_e4m3_half_bits(code_fp8(weight, b, e)));
  return multiply(convert<T>(value), convert<T>(scale_fp8(weight, b)));
}

// The matrix-vector kernel and all dequantizers: no scale. For half the pattern passes as it is, NaNs too.
template <typename T>
inline T decode_fp8_e5m2(const weight_parts& weight, int64_t b, int e) {
  return convert<T>(half_from_bits(fp8_e5m2_half_bits(code_fp8(weight, b, e))));
}

// The fused MLP, which applies the scale to a sum of eight products, and the matrix engine.
template <typename T>
inline T decode_fp8_e5m2_scaled(const weight_parts& weight, int64_t b, int e) {
  return multiply(decode_fp8_e5m2<T>(weight, b, e), convert<T>(scale_fp8(weight, b)));
}

// ---- other readers ----------------------------------------------------------------------------------------

// The fast dense expansions compute in half and convert to T last; T is float or half. A float scale is
// rounded to half first.
template <typename T>
inline T expand_fp4(const weight_parts& weight, int64_t b, int e) {
  const uint32_t code = static_cast<uint32_t>(code_split_nibbles(quants_q4_0(weight, b), e));
  return convert<T>(multiply(half_from_bits(fp4_half_bits(code)), scale_q4_0(weight, b)));
}
template <typename T>
inline T expand_fp6(const weight_parts& weight, int64_t b, int e) {
  return convert<T>(decode_fp6<half>(weight, b, e));
}
template <typename T>
inline T expand_fp8_e4m3(const weight_parts& weight, int64_t b, int e) {
  return convert<T>(decode_fp8_e4m3<half>(weight, b, e));
}
template <typename T>
inline T expand_fp8_e5m2(const weight_parts& weight, int64_t b, int e) {
  return decode_fp8_e5m2<T>(weight, b, e);
}

// Operands of the matrix engine, half or bfloat16: unscaled, the scale goes onto the accumulated sum.
template <typename M>
inline M operand_fp8_e4m3(const weight_parts& weight, int64_t b, int e) {
  return convert<M>(half_from_bits(fp8_e4m3_half_bits_bare(code_fp8(weight, b, e))));
}
template <typename M>
inline M operand_fp8_e5m2(const weight_parts& weight, int64_t b, int e) {
  return convert<M>(half_from_bits(fp8_e5m2_half_bits(code_fp8(weight, b, e))));
}

}  // namespace quillon
