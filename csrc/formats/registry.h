// The registry of storage formats: codes, names, block sizes, fields, and where the regions of a weight start. The
// build writes Python's copy of it from this header (tables/write_python_tables.cpp).
//
// A weight is one flat run of bytes, cut in one of two ways:
//
//   records  | block 0: all fields | block 1: all fields | ...
//   regions  | field A of all blocks | field B of all blocks | ...
//
// Element i of the flat numbering is row i / state_size, column i % state_size; blocks follow one another in
// that numbering. What the bytes of a block mean is told in the header with its decode rule.
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

// Largest number of elements of a weight: the starts of regions are formed from a 32-bit count.
inline constexpr int64_t max_elements = INT32_MAX;

enum class storage_kind : int { none, records, regions };

// A region starts behind the regions before it, which have `bytes` for each block. Readers form the start from the
// sizes of the weight in different ways, which agree for a whole number of blocks below 2^31 elements:
enum class region_rule : int {
  none,                // records have no regions
  by_elements,         // count * bytes / elements of a block, rounded down: a share for each element
  blocks_down,         // whole blocks of the count, rounded down
  blocks_toward_zero,  // whole blocks of the count, truncated
  blocks_unsigned,     // whole blocks of the count taken as unsigned
  blocks_of_product,   // whole blocks of the 64-bit product, cut to 32 signed bits
};

struct format_field {
  const char* name;
  int32_t bytes;  // of one block
};

inline constexpr int max_fields = 5;

struct format_entry {
  int qtype;
  const char* name;            // empty where a code has sizes and no format
  int32_t elements_per_block;  // 0 where a code is unused
  int64_t bytes_per_block;
  storage_kind storage;
  format_field fields[max_fields];  // in storage order: those of a record, or each a region
  region_rule rule;                 // of the dequantizers
  region_rule matvec_rule;          // of the matrix-vector and MLP kernels
};

struct format_rows {
  format_entry row[22];
  constexpr const format_entry* begin() const { return row; }
  constexpr const format_entry* end() const { return row + sizeof(row) / sizeof(row[0]); }
};

constexpr format_rows make_format_rows() {
  using S = storage_kind;
  using R = region_rule;
  // clang-format off
  return {{
      {qtype_q4_0, "q4_0", 64, 34, S::regions, {{"qs", 32}, {"d", 2}}, R::by_elements, R::blocks_toward_zero},
      {qtype_q4_1, "q4_1", 64, 36, S::regions, {{"qs", 32}, {"dm", 4}}, R::by_elements, R::blocks_toward_zero},
      {qtype_q5_0, "q5_0", 64, 44, S::records, {{"d", 2}, {"m", 2}, {"qh", 8}, {"qs", 32}}, R::none, R::none},
      {qtype_q5_1, "q5_1", 64, 44, S::records, {{"d", 2}, {"m", 2}, {"qh", 8}, {"qs", 32}}, R::none, R::none},
      {qtype_q8_0, "q8_0", 64, 68, S::regions, {{"qs", 64}, {"d", 4}}, R::by_elements, R::blocks_down},
      {qtype_q8_1, "q8_1", 32, 36, S::records, {{"d", 2}, {"s", 2}, {"qs", 32}}, R::none, R::none},
      {qtype_nf4, "nf4", 64, 34, S::regions, {{"qs", 32}, {"d", 2}}, R::by_elements, R::blocks_toward_zero},
      {qtype_nf3, "nf3", 64, 26, S::regions, {{"qs", 24}, {"d", 2}}, R::blocks_toward_zero, R::blocks_toward_zero},
      {qtype_fp8_e4m3, "fp8_e4m3", 64, 68, S::regions, {{"qs", 64}, {"d", 4}}, R::blocks_down, R::blocks_down},
      {qtype_fp4, "fp4", 64, 34, S::regions, {{"qs", 32}, {"d", 2}}, R::by_elements, R::blocks_toward_zero},
      {qtype_fp8_e5m2, "fp8_e5m2", 64, 68, S::regions, {{"qs", 64}, {"d", 4}}, R::blocks_down, R::blocks_down},
      {qtype_iq2_xxs, "iq2_xxs", 256, 66, S::records, {{"d", 2}, {"qs", 64}}, R::none, R::none},
      {22, "", 256, 74, S::none, {}, R::none, R::none},
      {qtype_q2_k, "q2_k", 256, 84, S::records, {{"scales", 16}, {"qs", 64}, {"d", 2}, {"dmin", 2}}, R::none, R::none},
      {qtype_iq1_s, "iq1_s", 256, 50, S::records, {{"d", 2}, {"qs", 32}, {"qh", 16}}, R::none, R::none},
      {25, "", 256, 56, S::none, {}, R::none, R::none},
      // The planes of q6_k and fp6_k lie in opposite orders.
      {qtype_q6_k, "q6_k", 256, 210, S::regions, {{"qh", 64}, {"ql", 128}, {"scales", 16}, {"d", 2}},
       R::blocks_of_product, R::blocks_toward_zero},
      {qtype_q4_k, "q4_k", 256, 148, S::regions, {{"qs", 128}, {"scales", 16}, {"dm", 4}},
       R::blocks_of_product, R::blocks_toward_zero},
      {qtype_q5_k, "q5_k", 256, 176, S::records, {{"d", 2}, {"dmin", 2}, {"scales", 12}, {"qh", 32}, {"qs", 128}},
       R::none, R::none},
      {qtype_fp6, "fp6", 64, 50, S::regions, {{"ql", 32}, {"qh", 16}, {"d", 2}},
       R::blocks_toward_zero, R::blocks_toward_zero},
      {qtype_fp6_k, "fp6_k", 256, 210, S::regions, {{"ql", 128}, {"qh", 64}, {"scales", 16}, {"d", 2}},
       R::blocks_toward_zero, R::blocks_toward_zero},
      {qtype_q4_0_woq, "q4_0_woq", 64, 34, S::regions, {{"qs", 32}, {"d", 2}},
       R::blocks_unsigned, R::blocks_toward_zero},
  }};
  // clang-format on
}

// One row for each code that has block sizes, in order of code. Nothing else holds them.
inline constexpr format_rows formats = make_format_rows();

constexpr bool rows_ascend_and_add_up() {
  int last = -1;
  for (const format_entry& entry : formats) {
    if (entry.qtype <= last || entry.qtype >= qtype_count) return false;
    last = entry.qtype;
    int64_t bytes = 0;
    for (const format_field& field : entry.fields) bytes += field.bytes;
    if (entry.storage != storage_kind::none && bytes != entry.bytes_per_block) return false;
    if ((entry.storage == storage_kind::regions) != (entry.rule != region_rule::none)) return false;
  }
  return true;
}
static_assert(rows_ascend_and_add_up());

// The rows by code, for look-ups that take a constant time; zeros and an empty name where a code is unused.
struct format_index {
  format_entry entry[qtype_count];
  constexpr const format_entry& operator[](int qtype) const { return entry[qtype]; }
};

constexpr format_index make_format_index() {
  format_index index{};
  for (int qtype = 0; qtype < qtype_count; ++qtype) {
    index.entry[qtype].qtype = qtype;
    index.entry[qtype].name = "";
  }
  for (const format_entry& entry : formats) index.entry[entry.qtype] = entry;
  return index;
}

inline constexpr format_index format_table = make_format_index();

constexpr int32_t elements_per_block(int qtype) {
  return format_table[qtype].elements_per_block;
}
constexpr int64_t bytes_per_block(int qtype) {
  return format_table[qtype].bytes_per_block;
}

constexpr bool same_text(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) ++a, ++b;
  return *a == *b;
}

// Bytes of the named field of one block; 0 if the format has none of that name.
constexpr int32_t field_bytes(int qtype, const char* name) {
  for (const format_field& field : format_table[qtype].fields)
    if (field.bytes > 0 && same_text(field.name, name)) return field.bytes;
  return 0;
}

// All formats but that of quantized activations.
constexpr bool is_weight_format(const format_entry& entry) {
  return entry.storage != storage_kind::none && entry.qtype != qtype_q8_1;
}

// ---- region offsets ---------------------------------------------------------------------------------------
//
// The start of a region is computed from a 32-bit element count, which wraps at 2^32 elements and is negative
// from 2^31 on: the offsets then point before the tensor. That is a limit of these formats' addressing and
// part of it, so every rule states its widths. Products are formed unsigned, where wrapping is defined.

// state_size x output_size as a signed 32-bit product.
constexpr int32_t element_count_32(uint64_t state_size, uint64_t output_size) {
  return static_cast<int32_t>(static_cast<uint32_t>(state_size) * static_cast<uint32_t>(output_size));
}

constexpr int64_t divide_down(int64_t a, int64_t b) {
  return a / b - (a % b < 0);
}

// The start of a region that lies behind `bytes` of every block of `elements` elements.
constexpr int64_t region_start(region_rule rule, int32_t bytes, int32_t elements, uint64_t state_size,
                               uint64_t output_size) {
  const int32_t count = element_count_32(state_size, output_size);
  switch (rule) {
    case region_rule::by_elements:
      return divide_down(int64_t{count} * bytes, elements);
    case region_rule::blocks_down:
      return divide_down(count, elements) * bytes;
    case region_rule::blocks_toward_zero:
      return int64_t{count / elements} * bytes;
    case region_rule::blocks_unsigned:
      return int64_t{static_cast<uint32_t>(count) / static_cast<uint32_t>(elements)} * bytes;
    case region_rule::blocks_of_product: {
      const uint64_t blocks = state_size * output_size / static_cast<uint64_t>(elements);
      return int64_t{static_cast<int32_t>(static_cast<uint32_t>(blocks))} * bytes;
    }
    case region_rule::none:
      break;
  }
  return 0;
}

// Byte offsets from the start of the weight, in storage order; region 0 starts at 0, and so do those that a format
// does not have.
struct region_offsets {
  int64_t start[4];
};

// START gives the start of a region from the bytes of a block that lie in front of it.
template <typename Start>
constexpr region_offsets region_offsets_by(const format_entry& entry, const Start& start) {
  region_offsets offsets{};
  if (entry.storage != storage_kind::regions) return offsets;
  int32_t bytes = entry.fields[0].bytes;
  for (int region = 1; region < 4 && entry.fields[region].bytes > 0; ++region) {
    offsets.start[region] = start(bytes);
    bytes += entry.fields[region].bytes;
  }
  return offsets;
}

// The regions of any format by its code.
constexpr region_offsets regions_of(int qtype, uint64_t state_size, uint64_t output_size) {
  const format_entry& entry = format_table[qtype];
  return region_offsets_by(entry, [&](int32_t bytes) {
    return region_start(entry.rule, bytes, entry.elements_per_block, state_size, output_size);
  });
}

// The regions as the matrix-vector and MLP kernels find them.
constexpr region_offsets matvec_regions_of(int qtype, uint64_t state_size, uint64_t output_size) {
  const format_entry& entry = format_table[qtype];
  return region_offsets_by(entry, [&](int32_t bytes) {
    return region_start(entry.matvec_rule, bytes, entry.elements_per_block, state_size, output_size);
  });
}

// The regions as the fast dense expansions and the matrix engine find them: from the full 64-bit count.
constexpr region_offsets dense_region_offsets(int qtype, int64_t elements) {
  const format_entry& entry = format_table[qtype];
  return region_offsets_by(entry, [&](int32_t bytes) { return elements / entry.elements_per_block * bytes; });
}

// The scale offset of the matrix-vector kernels of q4_0, q4_1, nf4, fp4 and q4_0 woq.
constexpr int32_t matvec_nibble_scale_offset(uint64_t state_size, uint64_t output_size) {
  return static_cast<int32_t>(matvec_regions_of(qtype_q4_0, state_size, output_size).start[1]);
}

// The same of q8_0 and fp8_e4m3.
constexpr int32_t matvec_q8_0_scale_offset(uint64_t state_size, uint64_t output_size) {
  return static_cast<int32_t>(matvec_regions_of(qtype_q8_0, state_size, output_size).start[1]);
}

// Super-blocks as the matrix-vector kernels of q4_k, q6_k and fp6_k count them.
constexpr int32_t matvec_super_blocks(uint64_t state_size, uint64_t output_size) {
  return element_count_32(state_size, output_size) / 256;
}

constexpr region_offsets nf3_region_offsets(uint64_t state_size, uint64_t output_size) {
  return regions_of(qtype_nf3, state_size, output_size);
}

constexpr region_offsets fp6_region_offsets(uint64_t state_size, uint64_t output_size) {
  return regions_of(qtype_fp6, state_size, output_size);
}

// fp6 as its tile dequantizer finds it: shifts of the 32-bit count, arithmetic for the high plane and logical
// for the scales.
constexpr region_offsets tile_fp6_region_offsets(uint64_t state_size, uint64_t output_size) {
  const int32_t count = element_count_32(state_size, output_size);
  return {{0, int64_t{32} * (count >> 6), int64_t{3} * (static_cast<uint32_t>(count) >> 2), 0}};
}

// The parts of one weight as a reader addresses them: region i, or the records at part[0].
struct weight_parts {
  const uint8_t* part[4];
};

constexpr weight_parts weight_parts_at(const uint8_t* weight, const region_offsets& offsets) {
  return {{weight + offsets.start[0], weight + offsets.start[1], weight + offsets.start[2], weight + offsets.start[3]}};
}

}  // namespace quillon
