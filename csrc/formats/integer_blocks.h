// Integer formats with 64-element blocks: q4_0, q4_0 woq, q4_1, q5_0, q5_1, q8_0.
//
// Bytes are drawn with their high nibble on the left; eN is the code of element N of the block.
//
//   q4_0, 34 bytes, regions             q4_0 woq, 34 bytes, regions          q4_1, 36 bytes, regions
//     quants  0 | e32   e0 |              quants  0 |  e1   e0 |               quants  as q4_0
//             1 | e33   e1 |                      1 |  e3   e2 |               pairs   0 | d  half |
//                  ...                                 ...                             2 | m  half |
//            31 | e63  e31 |                     31 | e63  e62 |
//     scales  0 | d  half  |              scales  0 | d  half  |
//
//   q5_0 and q5_1, 44 bytes, records               q8_0, 68 bytes, regions
//      0 | d  half |                                 quants  0 | e0  int8 |
//      2 | m  half | q5_0: never read                               ...
//      4 | qh, 64-bit word: bit N is bit 4 of eN |          63 | e63 int8 |
//     12 | qs, 32 bytes as the quants of q4_0 |      scales  0 | d  float |
//
// For every format `code_<format>` takes the integer code of an element out of a block, and
// `decode_<format><T>` gives the value of element e of block b of a whole weight. A name with a further word
// behind the format is the rule of the readers that the word names.
#pragma once

#include <cstdint>

#include "formats/packed_bits.h"
#include "formats/registry.h"
#include "runtime/scalar_types.h"

namespace quillon {

struct block_q4_0_qs {
  uint8_t qs[32];
};
static_assert(sizeof(block_q4_0_qs) == field_bytes(qtype_q4_0, "qs"));

struct block_q4_1_dm {
  half d;
  half m;
};
static_assert(sizeof(block_q4_1_dm) == field_bytes(qtype_q4_1, "dm"));

// Bytes, so that the record has the alignment that it has in a weight; use load_half and load_u64.
struct block_q5_1 {
  uint8_t d[2];
  uint8_t m[2];
  uint8_t qh[8];
  uint8_t qs[32];
};
static_assert(sizeof(block_q5_1) == bytes_per_block(qtype_q5_1));

struct block_q8_0_qs {
  int8_t qs[64];
};
static_assert(sizeof(block_q8_0_qs) == field_bytes(qtype_q8_0, "qs"));

// ---- codes ------------------------------------------------------------------------------------------------

// The 4-bit code of an element where byte j holds elements j (low nibble) and j + 32 (high nibble): q4_0,
// q4_1, fp4, and the qs field of q5_0 and q5_1.
inline int code_split_nibbles(const uint8_t* qs, int e) {
  const uint8_t byte = qs[e % 32];
  return static_cast<int>(e < 32 ? low_nibble(byte) : high_nibble(byte));
}

// -8 to 7.
inline int code_q4_0(const uint8_t* qs, int e) {
  return code_split_nibbles(qs, e) - 8;
}

// -8 to 7; byte j holds elements 2j (low nibble) and 2j + 1 (high nibble).
inline int code_q4_0_woq(const uint8_t* qs, int e) {
  const uint8_t byte = qs[e / 2];
  return static_cast<int>(e % 2 == 0 ? low_nibble(byte) : high_nibble(byte)) - 8;
}

// 0 to 15.
inline int code_q4_1(const uint8_t* qs, int e) {
  return code_split_nibbles(qs, e);
}

// 0 to 31.
inline int code_q5_1(const block_q5_1& block, int e) {
  const int fifth = static_cast<int>((load_u64(block.qh) >> e) & 1);
  return code_split_nibbles(block.qs, e) + 16 * fifth;
}

// -16 to 15.
inline int code_q5_0(const block_q5_1& block, int e) {
  return code_q5_1(block, e) - 16;
}

// -128 to 127.
inline int code_q8_0(const int8_t* qs, int e) {
  return qs[e];
}

// ---- fields of a weight -----------------------------------------------------------------------------------

inline const uint8_t* quants_q4_0(const weight_parts& weight, int64_t b) {
  return weight.part[0] + sizeof(block_q4_0_qs) * b;
}

// q4_0, q4_0 woq, nf4 and fp4.
inline half scale_q4_0(const weight_parts& weight, int64_t b) {
  return load_half(weight.part[1] + 2 * b);
}

inline half scale_q4_1(const weight_parts& weight, int64_t b) {
  return load_half(weight.part[1] + 4 * b);
}
inline half minimum_q4_1(const weight_parts& weight, int64_t b) {
  return load_half(weight.part[1] + 4 * b + 2);
}

inline const int8_t* quants_q8_0(const weight_parts& weight, int64_t b) {
  return reinterpret_cast<const int8_t*>(weight.part[0]) + sizeof(block_q8_0_qs) * b;
}

// q8_0, fp8_e4m3 and fp8_e5m2.
inline float scale_q8_0(const weight_parts& weight, int64_t b) {
  return load_float(weight.part[1] + 4 * b);
}

inline const block_q5_1& record_q5_1(const weight_parts& weight, int64_t b) {
  return reinterpret_cast<const block_q5_1*>(weight.part[0])[b];
}

// ---- q4_0, q4_1, q8_0: arithmetic in T --------------------------------------------------------------------

template <typename T>
inline T decode_q4_0(const weight_parts& weight, int64_t b, int e) {
  return multiply(convert<T>(scale_q4_0(weight, b)), convert<T>(code_q4_0(quants_q4_0(weight, b), e)));
}

// The matrix-vector and MLP kernels apply the scale to a sum of products of codes, not to each element.
template <typename T>
inline T decode_q4_0_woq(const weight_parts& weight, int64_t b, int e) {
  return multiply(convert<T>(scale_q4_0(weight, b)), convert<T>(code_q4_0_woq(quants_q4_0(weight, b), e)));
}

// The by-batch road of q4_0 woq runs the kernel of q4_0, which takes the nibbles in the order of q4_0.
template <typename T>
inline T decode_q4_0_woq_in_q4_0_order(const weight_parts& weight, int64_t b, int e) {
  return decode_q4_0<T>(weight, b, e);
}

template <typename T>
inline T decode_q4_1(const weight_parts& weight, int64_t b, int e) {
  const T product = multiply(convert<T>(scale_q4_1(weight, b)), convert<T>(code_q4_1(quants_q4_0(weight, b), e)));
  return add(product, convert<T>(minimum_q4_1(weight, b)));
}

// The float scale is rounded to T first.
template <typename T>
inline T decode_q8_0(const weight_parts& weight, int64_t b, int e) {
  return multiply(convert<T>(scale_q8_0(weight, b)), convert<T>(code_q8_0(quants_q8_0(weight, b), e)));
}

// ---- q5_0, q5_1: arithmetic in float, one conversion at the end -------------------------------------------

template <typename T>
inline T decode_q5_0(const weight_parts& weight, int64_t b, int e) {
  const block_q5_1& block = record_q5_1(weight, b);
  const float d = convert<float>(load_half(block.d));
  return convert<T>(multiply(d, convert<float>(code_q5_0(block, e))));
}

template <typename T>
inline T decode_q5_1(const weight_parts& weight, int64_t b, int e) {
  const block_q5_1& block = record_q5_1(weight, b);
  const float d = convert<float>(load_half(block.d));
  const float m = convert<float>(load_half(block.m));
  return convert<T>(add(multiply(d, convert<float>(code_q5_1(block, e))), m));
}

// The matrix-vector kernel of q5_0 is as the dequantizer, but multiplies in double for double. No bit
// differs: a half times a five-bit integer is exact in float.
template <typename T>
inline T decode_q5_0_matvec(const weight_parts& weight, int64_t b, int e) {
  using Arithmetic = std::conditional_t<std::is_same_v<T, double>, double, float>;
  const block_q5_1& block = record_q5_1(weight, b);
  const Arithmetic d = convert<Arithmetic>(load_half(block.d));
  return convert<T>(multiply(d, convert<Arithmetic>(code_q5_0(block, e))));
}

// The matrix-vector kernel of q5_1 computes in T.
template <typename T>
inline T decode_q5_1_matvec(const weight_parts& weight, int64_t b, int e) {
  const block_q5_1& block = record_q5_1(weight, b);
  const T product = multiply(convert<T>(load_half(block.d)), convert<T>(code_q5_1(block, e)));
  return add(product, convert<T>(load_half(block.m)));
}

// ---- other readers ----------------------------------------------------------------------------------------

// The fast dense expansions compute in half and convert to T last; T is float or half.
template <typename T>
inline T expand_q4_0(const weight_parts& weight, int64_t b, int e) {
  return convert<T>(decode_q4_0<half>(weight, b, e));
}
template <typename T>
inline T expand_q4_1(const weight_parts& weight, int64_t b, int e) {
  return convert<T>(decode_q4_1<half>(weight, b, e));
}
template <typename T>
inline T expand_q8_0(const weight_parts& weight, int64_t b, int e) {
  return convert<T>(decode_q8_0<half>(weight, b, e));
}

// Operands of the matrix engine, half or bfloat16: bare codes, the scale goes onto the accumulated sum.
template <typename M>
inline M operand_q4_0(const weight_parts& weight, int64_t b, int e) {
  return convert<M>(code_q4_0(quants_q4_0(weight, b), e));
}
template <typename M>
inline M operand_q8_0(const weight_parts& weight, int64_t b, int e) {
  return convert<M>(code_q8_0(quants_q8_0(weight, b), e));
}

}  // namespace quillon
