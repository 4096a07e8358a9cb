// The registry of storage formats: codes, names, block sizes, and where the regions of a weight start.
//
// A weight is one flat run of bytes, cut in one of two ways:
//
//   records  | block 0: all fields | block 1: all fields | ...
//   regions  | field A of all blocks | field B of all blocks | ...
//
// Element i of the flat numbering is row i / state_size, column i % state_size; blocks follow one another in
// that numbering. What the bytes of a block mean is told in the header of the format's family.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quillon {

// Codes of the formats, the `qtype` of every operator.
enum qtype_code : int {
  qtype_q4_0 = 2,
  qtype_q4_1 = 3,
  qtype_q5_0 = 6,
  qtype_q5_1 = 7,
  qtype_q8_0 = 8,
  qtype_q8_1 = 9,
  qtype_nf4 = 10,
  qtype_nf3 = 11,
  qtype_fp8_e4m3 = 15,
  qtype_fp4 = 16,
  qtype_fp8_e5m2 = 19,
  qtype_iq2_xxs = 21,
  qtype_q2_k = 23,
  qtype_iq1_s = 24,
  qtype_q6_k = 26,
  qtype_q4_k = 27,
  qtype_q5_k = 28,
  qtype_fp6 = 29,
  qtype_fp6_k = 30,
  qtype_q4_0_woq = 34,
};

inline constexpr int qtype_count = 36;

enum class storage_kind : int { none, records, regions };

struct format_entry {
  int qtype;
  const char* name;  // empty where a code has sizes and no format
  storage_kind storage;
  int32_t elements_per_block;  // 0 where a code is unused
  int64_t bytes_per_block;
};

// The one place that holds block sizes. Indexed by qtype.
inline constexpr format_entry format_table[qtype_count] = {
    {0, "", storage_kind::none, 0, 0},
    {1, "", storage_kind::none, 0, 0},
    {2, "q4_0", storage_kind::regions, 64, 34},
    {3, "q4_1", storage_kind::regions, 64, 36},
    {4, "", storage_kind::none, 0, 0},
    {5, "", storage_kind::none, 0, 0},
    {6, "q5_0", storage_kind::records, 64, 44},
    {7, "q5_1", storage_kind::records, 64, 44},
    {8, "q8_0", storage_kind::regions, 64, 68},
    {9, "q8_1", storage_kind::records, 32, 36},
    {10, "nf4", storage_kind::regions, 64, 34},
    {11, "nf3", storage_kind::regions, 64, 26},
    {12, "", storage_kind::none, 0, 0},
    {13, "", storage_kind::none, 0, 0},
    {14, "", storage_kind::none, 0, 0},
    {15, "fp8_e4m3", storage_kind::regions, 64, 68},
    {16, "fp4", storage_kind::regions, 64, 34},
    {17, "", storage_kind::none, 0, 0},
    {18, "", storage_kind::none, 0, 0},
    {19, "fp8_e5m2", storage_kind::regions, 64, 68},
    {20, "", storage_kind::none, 0, 0},
    {21, "iq2_xxs", storage_kind::records, 256, 66},
    {22, "", storage_kind::none, 256, 74},
    {23, "q2_k", storage_kind::records, 256, 84},
    {24, "iq1_s", storage_kind::records, 256, 50},
    {25, "", storage_kind::none, 256, 56},
    {26, "q6_k", storage_kind::regions, 256, 210},
    {27, "q4_k", storage_kind::regions, 256, 148},
    {28, "q5_k", storage_kind::records, 256, 176},
    {29, "fp6", storage_kind::regions, 64, 50},
    {30, "fp6_k", storage_kind::regions, 256, 210},
    {31, "", storage_kind::none, 0, 0},
    {32, "", storage_kind::none, 0, 0},
    {33, "", storage_kind::none, 0, 0},
    {34, "q4_0_woq", storage_kind::regions, 64, 34},
    {35, "", storage_kind::none, 0, 0},
};

constexpr int32_t elements_per_block(int qtype) {
  return format_table[qtype].elements_per_block;
}
constexpr int64_t bytes_per_block(int qtype) {
  return format_table[qtype].bytes_per_block;
}

constexpr bool format_table_is_indexed_by_qtype() {
  for (int qtype = 0; qtype < qtype_count; ++qtype) {
    if (format_table[qtype].qtype != qtype) return false;
  }
  return true;
}
static_assert(format_table_is_indexed_by_qtype());

// ---- region offsets ---------------------------------------------------------------------------------------
//
// The start of a region is computed from a 32-bit element count, which wraps at 2^32 elements and is negative
// from 2^31 on: the offsets then point before the tensor. That is a limit of these formats' addressing and
// part of it, so every rule below states its widths. Products are formed unsigned, where wrapping is defined.

// state_size x output_size as a signed 32-bit product.
constexpr int32_t element_count_32(uint64_t state_size, uint64_t output_size) {
  return static_cast<int32_t>(static_cast<uint32_t>(state_size) * static_cast<uint32_t>(output_size));
}

// Byte offsets from the start of the weight, in storage order; region 0 starts at 0.
struct region_offsets {
  int64_t start[4];
};

// q4_0, nf4, fp4 (quants, half scales) and q4_1 (quants, pairs): half a byte for each element.
constexpr region_offsets nibble_region_offsets(uint64_t state_size, uint64_t output_size) {
  return {{0, element_count_32(state_size, output_size) >> 1, 0, 0}};
}

// q4_0 woq: whole blocks of the unsigned count.
constexpr region_offsets q4_0_woq_region_offsets(uint64_t state_size, uint64_t output_size) {
  const uint32_t count = static_cast<uint32_t>(element_count_32(state_size, output_size));
  return {{0, static_cast<int64_t>(count / 64u * 32u), 0, 0}};
}

// q8_0 (quants, float scales): one byte for each element.
constexpr region_offsets q8_0_region_offsets(uint64_t state_size, uint64_t output_size) {
  return {{0, element_count_32(state_size, output_size), 0, 0}};
}

// fp8_e4m3, fp8_e5m2 (codes, float scales): one byte for each element of whole blocks.
constexpr region_offsets fp8_region_offsets(uint64_t state_size, uint64_t output_size) {
  return {{0, element_count_32(state_size, output_size) & ~int32_t{63}, 0, 0}};
}

// nf3 (quants, half scales).
constexpr region_offsets nf3_region_offsets(uint64_t state_size, uint64_t output_size) {
  return {{0, element_count_32(state_size, output_size) / 64 * 24, 0, 0}};
}

// fp6 (low plane, high plane, half scales).
constexpr region_offsets fp6_region_offsets(uint64_t state_size, uint64_t output_size) {
  const int64_t blocks = element_count_32(state_size, output_size) / 64;
  return {{0, blocks * 32, blocks * 48, 0}};
}

// Super-blocks of q4_k and q6_k: the full product shifted, then cut to 32 bits.
constexpr int64_t shifted_super_blocks(uint64_t state_size, uint64_t output_size) {
  return static_cast<int32_t>(static_cast<uint32_t>((state_size * output_size) >> 8));
}

// q4_k (quants, sub-block scales, pairs).
constexpr region_offsets q4_k_region_offsets(uint64_t state_size, uint64_t output_size) {
  const int64_t blocks = shifted_super_blocks(state_size, output_size);
  return {{0, blocks * 128, blocks * 144, 0}};
}

// q6_k (high plane, low plane, sub-block scales, half scales).
constexpr region_offsets q6_k_region_offsets(uint64_t state_size, uint64_t output_size) {
  const int64_t blocks = shifted_super_blocks(state_size, output_size);
  return {{0, blocks * 64, blocks * 192, blocks * 208}};
}

// fp6_k (low plane, high plane, sub-block scales, half scales): the planes lie in the order opposite to q6_k.
constexpr region_offsets fp6_k_region_offsets(uint64_t state_size, uint64_t output_size) {
  const int64_t blocks = element_count_32(state_size, output_size) / 256;
  return {{0, blocks * 128, blocks * 192, blocks * 208}};
}

// The scale offset of the matrix-vector and MLP kernels of q4_0, q4_1, nf4, fp4 and q4_0 woq: whole blocks,
// the division truncating toward zero. It equals the rules above for every count that is a multiple of 64 and
// does not wrap.
constexpr int32_t matvec_nibble_scale_offset(uint64_t state_size, uint64_t output_size) {
  return element_count_32(state_size, output_size) / 64 * 32;
}

// The scale offset of the matrix-vector kernel of q8_0, cut to whole blocks like the fp8 formats.
constexpr int32_t matvec_q8_0_scale_offset(uint64_t state_size, uint64_t output_size) {
  return element_count_32(state_size, output_size) & ~int32_t{63};
}

// Super-blocks as the matrix-vector kernels of q4_k, q6_k and fp6_k count them.
constexpr int32_t matvec_super_blocks(uint64_t state_size, uint64_t output_size) {
  return element_count_32(state_size, output_size) / 256;
}

// fp6 as its tile dequantizer finds it: shifts of the 32-bit count, arithmetic for the high plane and logical
// for the scales.
constexpr region_offsets tile_fp6_region_offsets(uint64_t state_size, uint64_t output_size) {
  const int32_t count = element_count_32(state_size, output_size);
  return {{0, int64_t{32} * (count >> 6), int64_t{3} * (static_cast<uint32_t>(count) >> 2), 0}};
}

// The regions of any format by its code; every start is 0 for a format stored as records.
constexpr region_offsets regions_of(int qtype, uint64_t state_size, uint64_t output_size) {
  switch (qtype) {
    case qtype_q4_0:
    case qtype_q4_1:
    case qtype_nf4:
    case qtype_fp4:
      return nibble_region_offsets(state_size, output_size);
    case qtype_q4_0_woq:
      return q4_0_woq_region_offsets(state_size, output_size);
    case qtype_q8_0:
      return q8_0_region_offsets(state_size, output_size);
    case qtype_fp8_e4m3:
    case qtype_fp8_e5m2:
      return fp8_region_offsets(state_size, output_size);
    case qtype_nf3:
      return nf3_region_offsets(state_size, output_size);
    case qtype_fp6:
      return fp6_region_offsets(state_size, output_size);
    case qtype_q4_k:
      return q4_k_region_offsets(state_size, output_size);
    case qtype_q6_k:
      return q6_k_region_offsets(state_size, output_size);
    case qtype_fp6_k:
      return fp6_k_region_offsets(state_size, output_size);
    default:
      return {{0, 0, 0, 0}};
  }
}

// The regions as the fast dense expansions and the matrix engine find them: from the full 64-bit count.
constexpr region_offsets dense_region_offsets(int qtype, int64_t elements) {
  const int64_t blocks = elements / 64;
  const int64_t super_blocks = elements / 256;
  switch (qtype) {
    case qtype_q4_0:
    case qtype_q4_1:
    case qtype_fp4:
      return {{0, blocks * 32, 0, 0}};
    case qtype_q8_0:
    case qtype_fp8_e4m3:
    case qtype_fp8_e5m2:
      return {{0, blocks * 64, 0, 0}};
    case qtype_fp6:
      return {{0, blocks * 32, blocks * 48, 0}};
    case qtype_q4_k:
      return {{0, super_blocks * 128, super_blocks * 144, 0}};
    case qtype_q6_k:
      return {{0, super_blocks * 64, super_blocks * 192, super_blocks * 208}};
    case qtype_fp6_k:
      return {{0, super_blocks * 128, super_blocks * 192, super_blocks * 208}};
    default:
      return {{0, 0, 0, 0}};
  }
}

// The parts of one weight as a reader addresses them: region i, or the records at part[0].
struct weight_parts {
  const uint8_t* part[4];
};

constexpr weight_parts weight_parts_at(const uint8_t* weight, const region_offsets& offsets) {
  return {{weight + offsets.start[0], weight + offsets.start[1], weight + offsets.start[2], weight + offsets.start[3]}};
}

}  // namespace quillon
