// Grid formats with 256-element super-blocks: iq2_xxs and iq1_s. Eight neighbouring elements are one point of
// a fixed table; a super-block has eight groups of four such vectors.
//
//   iq2_xxs, 66 bytes, records             iq1_s, 50 bytes, records
//     0 | d half |                            0 | d half |
//     2 | group 0, 8 bytes |                  2 | qs, 32 bytes: byte 4g + v, low 8 bits of the index
//          ...                                  |   of vector v of group g |
//    58 | group 7 |                          34 | qh, eight 16-bit words, one for each group |
//
//   Group of iq2_xxs: four index bytes, then a 32-bit word (bit 31 on the left):
//     | i0 | i1 | i2 | i3 |   | scale 4 | signs3 7 | signs2 7 | signs1 7 | signs0 7 |
//
//   Word of qh of iq1_s (bit 15 on the left): the sign of the shift, the scale, the high index bits.
//     | sign 1 | t 3 | i3 3 | i2 3 | i1 3 | i0 3 |
//
// Both compute in float and convert once at the end. A reader of a whole vector fetches its grid word once;
// the functions of one element below are the rule that it is held to.
#pragma once

#include <cstdint>

#include "formats/grid_signs.h"
#include "formats/iq1s_grid.h"
#include "formats/iq2xxs_grid.h"
#include "formats/packed_bits.h"
#include "formats/registry.h"
#include "runtime/scalar_types.h"

namespace quillon {

struct block_iq2_xxs {
  uint8_t d[2];
  uint8_t qs[64];
};
static_assert(sizeof(block_iq2_xxs) == bytes_per_block(qtype_iq2_xxs));

struct block_iq1_s {
  uint8_t d[2];
  uint8_t qs[32];
  uint8_t qh[16];
};
static_assert(sizeof(block_iq1_s) == bytes_per_block(qtype_iq1_s));

// ---- iq2_xxs ----------------------------------------------------------------------------------------------

// Magnitudes of vector v of group g, byte p for position p.
inline uint64_t grid_iq2_xxs(const block_iq2_xxs& block, int g, int v) {
  return iq2xxs_grid[block.qs[8 * g + v]];
}

// Signs and scale of group g.
inline uint32_t word_iq2_xxs(const block_iq2_xxs& block, int g) {
  return load_u32(block.qs + 8 * g + 4);
}

// Bit p is set where position p of vector v is negative.
inline uint8_t signs_iq2_xxs(uint32_t word, int v) {
  return ksigns_iq2xs[(word >> (7 * v)) & 127];
}

// The factor of a whole group.
inline float scale_iq2_xxs(half d, uint32_t word) {
  const float scale = add(static_cast<float>(word >> 28), 0.5f);
  return multiply(multiply(scale, convert<float>(d)), 0.25f);
}

inline const block_iq2_xxs& record_iq2_xxs(const weight_parts& weight, int64_t b) {
  return reinterpret_cast<const block_iq2_xxs*>(weight.part[0])[b];
}

template <typename T>
inline T decode_iq2_xxs(const weight_parts& weight, int64_t b, int e) {
  const block_iq2_xxs& block = record_iq2_xxs(weight, b);
  const int g = e / 32, v = e % 32 / 8, p = e % 8;
  const uint32_t word = word_iq2_xxs(block, g);
  const float magnitude = static_cast<float>(byte_of(grid_iq2_xxs(block, g, v), p));
  const float value = multiply(scale_iq2_xxs(load_half(block.d), word), magnitude);
  return convert<T>(signs_iq2_xxs(word, v) & kmask_iq2xs[p] ? -value : value);
}

// ---- iq1_s ------------------------------------------------------------------------------------------------

// High index bits, scale and shift of group g.
inline uint32_t word_iq1_s(const block_iq1_s& block, int g) {
  return load_u16(block.qh + 2 * g);
}

// Values of vector v of group g, packed as iq1s_grid tells.
inline uint32_t grid_iq1_s(const block_iq1_s& block, int g, int v) {
  const uint32_t high = (word_iq1_s(block, g) >> (3 * v)) & 7;
  return iq1s_grid[block.qs[4 * g + v] | (high << 8)];
}

// 0, 1 or 2.
constexpr int value_of_iq1s_grid(uint32_t grid, int p) {
  return static_cast<int>(p < 4 ? low_nibble_of(grid, p) : high_nibble_of(grid, p - 4));
}

// The shift of a whole group.
constexpr float delta_iq1_s(uint32_t word) {
  return word & 0x8000u ? -1.125f : -0.875f;
}

// The factor of a whole group: d times an odd number from 1 to 15.
inline float scale_iq1_s(half d, uint32_t word) {
  return multiply(convert<float>(d), static_cast<float>(2 * ((word >> 12) & 7) + 1));
}

inline const block_iq1_s& record_iq1_s(const weight_parts& weight, int64_t b) {
  return reinterpret_cast<const block_iq1_s*>(weight.part[0])[b];
}

template <typename T>
inline T decode_iq1_s(const weight_parts& weight, int64_t b, int e) {
  const block_iq1_s& block = record_iq1_s(weight, b);
  const int g = e / 32, v = e % 32 / 8, p = e % 8;
  const uint32_t word = word_iq1_s(block, g);
  const float value = static_cast<float>(value_of_iq1s_grid(grid_iq1_s(block, g, v), p));
  return convert<T>(multiply(scale_iq1_s(load_half(block.d), word), add(delta_iq1_s(word), value)));
}

}  // namespace quillon
