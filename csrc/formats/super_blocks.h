// Super-block formats with 256 elements: q2_k, q4_k, q5_k, q6_k, fp6_k.
//
// The scale of an element has two levels: a half for the super-block times a small integer for its sub-block
// of 16 or 32 elements. Bytes are drawn with their high bits on the left; eN is the code of element N.
//
//   q2_k, 84 bytes, records                              q5_k, 176 bytes, records
//      0 | scales, 16 bytes: byte k is                      0 | d    half |
//        |   | minimum | scale | of elements 16k..16k+15    2 | dmin half |
//     16 | e96  e64  e32  e0  | qs, 64 bytes: byte l of     4 | scales, 12 bytes, see below |
//     17 | e97  e65  e33  e1  |   half n starts at e128n   16 | qh, 32 bytes: bit j of byte l is bit 4 of
//             ...                                             |   element 32j + l |
//     80 | d    half |                                     48 | e32  e0 |  qs, 128 bytes: byte l of pair g
//     82 | dmin half |                                     49 | e33  e1 |    starts at e64g
//
//   q5_k scales, bytes 0 to 11; sN and mN are the 6-bit scale and minimum of sub-block N of 32 elements:
//     0..3   | s4[5:4] s0 |  ...  | s7[5:4] s3 |
//     4..7   | m4[5:4] m0 |  ...  | m7[5:4] m3 |
//     8..11  | m4[3:0] s4[3:0] |  ...  | m7[3:0] s7[3:0] |
//
//   q4_k, 148 bytes, regions
//     quants   0 | e16  e0 |   16 bytes for each sub-block of 32 elements
//     scales   0 | s0 |  1 | m0 |  ...  14 | s7 |  15 | m7 |   whole bytes, unsigned
//     pairs    0 | d half |  2 | dmin half |
//
//   q6_k, 210 bytes, regions                        fp6_k, 210 bytes, regions
//     high plane  one 32-bit word a sub-block         low plane   two words a sub-block
//     low plane   two words a sub-block               high plane  one word a sub-block
//     scales      16 signed bytes                     scales      16 signed bytes
//     scale       | d half |                          scale       | d half |
//
//   Sub-blocks of both have 16 elements. The words of fp6_k are those of fp6; q6_k has the same steps with
//   the bytes in memory order (hN two high bits, nN low nibble, bit 31 on the left):
//     high word   | h3 h7 h11 h15 | h2 h6 h10 h14 | h1 h5 h9 h13 | h0 h4 h8 h12 |
//     low word 0  | n3 n7         | n2 n6         | n1 n5        | n0 n4        |
//     low word 1  | n11 n15       | n10 n14       | n9 n13       | n8 n12       |
//
// q6_k forms its two-level scale in float, fp6_k in half, whatever the element type.
#pragma once

#include <cstdint>

#include "formats/integer_blocks.h"
#include "formats/packed_bits.h"
#include "formats/registry.h"
#include "formats/small_floats.h"
#include "runtime/scalar_types.h"

namespace quillon {

struct block_q2_K {
  uint8_t scales[16];
  uint8_t qs[64];
  uint8_t d[2];
  uint8_t dmin[2];
};
static_assert(sizeof(block_q2_K) == bytes_per_block(qtype_q2_k));

struct block_q4_K_qs {
  uint8_t qs[128];
};
static_assert(sizeof(block_q4_K_qs) == field_bytes(qtype_q4_k, "qs"));

struct block_q4_K_scales {
  uint8_t scales[16];
};
static_assert(sizeof(block_q4_K_scales) == field_bytes(qtype_q4_k, "scales"));

struct block_q5_K {
  uint8_t d[2];
  uint8_t dmin[2];
  uint8_t scales[12];
  uint8_t qh[32];
  uint8_t qs[128];
};
static_assert(sizeof(block_q5_K) == bytes_per_block(qtype_q5_k));

struct block_q6_K_qh {
  uint32_t qh[16];
};
static_assert(sizeof(block_q6_K_qh) == field_bytes(qtype_q6_k, "qh"));

struct block_q6_K_ql {
  uint32_t ql[32];
};
static_assert(sizeof(block_q6_K_ql) == field_bytes(qtype_q6_k, "ql"));

struct block_q6_K_scales {
  int8_t scales[16];
};
static_assert(sizeof(block_q6_K_scales) == field_bytes(qtype_q6_k, "scales"));

// One 16-element sub-block.
struct block_base_fp6_k_ql {
  uint32_t ql[2];
};
static_assert(sizeof(block_base_fp6_k_ql) == 8);

// ---- codes ------------------------------------------------------------------------------------------------

// 0 to 3.
inline int code_q2_k(const uint8_t* qs, int e) {
  return (qs[32 * (e / 128) + e % 32] >> (2 * (e % 128 / 32))) & 3;
}

// 0 to 15.
inline int code_q4_k(const uint8_t* qs, int e) {
  const uint8_t byte = qs[16 * (e / 32) + e % 16];
  return static_cast<int>(e % 32 < 16 ? low_nibble(byte) : high_nibble(byte));
}

// 0 to 31.
inline int code_q5_k(const block_q5_K& block, int e) {
  const uint8_t byte = block.qs[32 * (e / 64) + e % 32];
  const int low = static_cast<int>(e % 64 < 32 ? low_nibble(byte) : high_nibble(byte));
  return low + 16 * ((block.qh[e % 32] >> (e / 32)) & 1);
}

// 6-bit scale and minimum of sub-block j.
inline int scale_q5_k(const uint8_t* scales, int j) {
  return j < 4 ? scales[j] & 63 : (scales[j + 4] & 15) | ((scales[j - 4] >> 6) << 4);
}
inline int minimum_q5_k(const uint8_t* scales, int j) {
  return j < 4 ? scales[j + 4] & 63 : (scales[j + 4] >> 4) | ((scales[j] >> 6) << 4);
}

// The 6-bit codes, 0 to 63, of the four elements at the top of every byte of `high` and `low`: byte p is
// element p of the step. Shift `high` left by 2 and `low` left by 4 for the next step of the same words.
template <typename Words>
constexpr Words q6_k_step_codes(Words high, Words low) {
  return ((high >> 2) & 0x30303030u) | ((low >> 4) & 0x0F0F0F0Fu);
}

// -32 to 31: element r of a sub-block, from its words.
constexpr int code_q6_k(uint32_t high, uint32_t low0, uint32_t low1, int r) {
  const int step = r / 4;
  const uint32_t codes = q6_k_step_codes(high << (2 * step), (step < 2 ? low0 : low1) << (4 * (step % 2)));
  return static_cast<int>(byte_of(codes, r % 4)) - 32;
}

// ---- q2_k, q4_k, q5_k, q6_k: arithmetic in float, one conversion at the end -------------------------------

// (d * scale) * code - dmin * minimum, every product and the difference rounded by itself.
inline float decode_with_minimum(float d, int scale, int code, float dmin, int minimum) {
  const float positive = multiply(multiply(d, convert<float>(scale)), convert<float>(code));
  return subtract(positive, multiply(dmin, convert<float>(minimum)));
}

inline const block_q2_K& record_q2_k(const weight_parts& weight, int64_t b) {
  return reinterpret_cast<const block_q2_K*>(weight.part[0])[b];
}

template <typename T>
inline T decode_q2_k(const weight_parts& weight, int64_t b, int e) {
  const block_q2_K& block = record_q2_k(weight, b);
  const uint8_t scale = block.scales[e / 16];
  return convert<T>(decode_with_minimum(convert<float>(load_half(block.d)), scale & 15, code_q2_k(block.qs, e),
                                        convert<float>(load_half(block.dmin)), scale >> 4));
}

// scales: (scale, minimum) bytes of eight sub-blocks; pair: d, then dmin.
template <typename T>
inline T decode_q4_k(const weight_parts& weight, int64_t b, int e) {
  const uint8_t* qs = weight.part[0] + sizeof(block_q4_K_qs) * b;
  const uint8_t* scales = weight.part[1] + sizeof(block_q4_K_scales) * b;
  const uint8_t* pair = weight.part[2] + 4 * b;
  const int k = e / 32;
  return convert<T>(decode_with_minimum(convert<float>(load_half(pair)), scales[2 * k], code_q4_k(qs, e),
                                        convert<float>(load_half(pair + 2)), scales[2 * k + 1]));
}

inline const block_q5_K& record_q5_k(const weight_parts& weight, int64_t b) {
  return reinterpret_cast<const block_q5_K*>(weight.part[0])[b];
}

template <typename T>
inline T decode_q5_k(const weight_parts& weight, int64_t b, int e) {
  const block_q5_K& block = record_q5_k(weight, b);
  const int j = e / 32;
  return convert<T>(decode_with_minimum(convert<float>(load_half(block.d)), scale_q5_k(block.scales, j),
                                        code_q5_k(block, e), convert<float>(load_half(block.dmin)),
                                        minimum_q5_k(block.scales, j)));
}

// q6_k and fp6_k: signed scale byte of sub-block k, and the half of the super-block.
inline int8_t sub_block_scale_q6_k(const weight_parts& weight, int64_t b, int k) {
  return static_cast<int8_t>(weight.part[2][sizeof(block_q6_K_scales) * b + k]);
}
inline half scale_q6_k(const weight_parts& weight, int64_t b) {
  return load_half(weight.part[3] + 2 * b);
}

template <typename T>
inline T decode_q6_k(const weight_parts& weight, int64_t b, int e) {
  const int k = e / 16;
  const uint8_t* high = weight.part[0] + sizeof(block_q6_K_qh) * b + 4 * k;
  const uint8_t* low = weight.part[1] + sizeof(block_q6_K_ql) * b + 8 * k;
  const int code = code_q6_k(load_u32(high), load_u32(low), load_u32(low + 4), e % 16);
  const float scale =
      multiply(convert<float>(scale_q6_k(weight, b)), convert<float>(sub_block_scale_q6_k(weight, b, k)));
  return convert<T>(multiply(scale, convert<float>(code)));
}

// ---- fp6_k: two-level scale in half, then arithmetic in T -------------------------------------------------

// The matrix-vector kernel multiplies a sum over the sub-block's 16 elements by this, widened to T.
inline half sub_block_scale_fp6_k(const weight_parts& weight, int64_t b, int k) {
  return multiply(scale_q6_k(weight, b), convert<half>(sub_block_scale_q6_k(weight, b, k)));
}

// The unscaled value.
inline half value_fp6_k(const weight_parts& weight, int64_t b, int e) {
  const int k = e / 16;
  const uint8_t* low = weight.part[0] + 16 * sizeof(block_base_fp6_k_ql) * b + sizeof(block_base_fp6_k_ql) * k;
  const uint8_t* high = weight.part[1] + 64 * b + 4 * k;
  return half_from_bits(fp6_half_bits(fp6_code(load_u32(high), load_u32(low), load_u32(low + 4), e % 16)));
}

template <typename T>
inline T decode_fp6_k(const weight_parts& weight, int64_t b, int e) {
  return multiply(convert<T>(value_fp6_k(weight, b, e)), convert<T>(sub_block_scale_fp6_k(weight, b, e / 16)));
}

// ---- other readers ----------------------------------------------------------------------------------------

// The fast dense expansions: fp6_k in half throughout, q4_k and q6_k in float; T is float or half.
template <typename T>
inline T expand_fp6_k(const weight_parts& weight, int64_t b, int e) {
  return convert<T>(decode_fp6_k<half>(weight, b, e));
}
template <typename T>
inline T expand_q4_k(const weight_parts& weight, int64_t b, int e) {
  return decode_q4_k<T>(weight, b, e);
}
template <typename T>
inline T expand_q6_k(const weight_parts& weight, int64_t b, int e) {
  return decode_q6_k<T>(weight, b, e);
}

}  // namespace quillon
