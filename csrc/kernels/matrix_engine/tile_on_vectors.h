// The work of loom_forward_kernel.h on the host device: a work-item has a run of columns, 64 of them at a time, and all
// activation rows, and walks through the shares of K one after the other.
//
//                     K of a block                  64 columns
//   up to 64 rows     +------------+     +-----------+-----------+
//   of activations,   | left       |     | right of panel 0, 1   |  K of a block
//   as floats         +------------+     +-----------+-----------+
//
// A block's activations are converted once for all 64 columns, and the weight of a panel is decoded once for all rows, both
// into memory that stays in the first cache. Sums of 8 rows by 32 columns are registers: two vectors of weights and one
// activation at a time in 512 bits. Registers of half that size have 4 rows by 16 columns.
#pragma once

#include "kernels/matrix_engine/operands.h"

namespace quillon {

#ifdef QUILLON_NARROW_VECTORS
inline constexpr int PANEL_COLUMNS = 16, PANEL_ROWS = 4;
#else
inline constexpr int PANEL_COLUMNS = 32, PANEL_ROWS = 8;
#endif
inline constexpr int STRIP_COLUMNS = 64, STRIP_ROWS = 64;
inline constexpr int PANELS = STRIP_COLUMNS / PANEL_COLUMNS;

using panel_row = simd::vec<float, PANEL_COLUMNS>;
template <typename MAT_T>
using panel_operands = simd::right_tile<MAT_T, PANEL_COLUMNS>;

// Whether a processor adds up products of pairs of bfloat16 in one instruction, which takes half as many of them, and
// subnormal operands and sums for zeros. The device compiler has no name for it and is given the instruction itself;
// operands are then words of two neighbours along K, as an engine takes them.
#ifdef QUILLON_BFLOAT16_PAIRS
template <typename MAT_T>
inline constexpr bool in_pairs = std::is_same_v<MAT_T, bfloat16>;
#else
template <typename MAT_T>
inline constexpr bool in_pairs = false;
#endif

// What a work-item keeps of a strip.
template <typename MAT_T>
struct strip {
  alignas(64) float left[STRIP_ROWS * 64];
  panel_operands<MAT_T> right[4];
  panel_row totals[PANELS][STRIP_ROWS];
  panel_row sums[PANELS][STRIP_ROWS];
};

// The 64 elements of an activation row in a block, as floats that have been rounded to MAT_T.
template <typename MAT_T, typename IN_T>
inline void load_activations(const IN_T* from, float* to) {
  unrolled<4>([&](auto j) {
    const auto loaded = simd::load<IN_T, 16>(from + 16 * j);
    if constexpr (in_pairs<MAT_T>)
      simd::store(reinterpret_cast<uint16_t*>(to) + 16 * j, loaded);
    else if constexpr (std::is_same_v<IN_T, bfloat16>)
      simd::store(to + 16 * j, simd::widened(loaded));
    else
      simd::store(to + 16 * j, simd::convert<float>(simd::convert<MAT_T>(loaded)));
  });
}

// Adds a block to the totals of ROWS rows. One function for all formats: they differ in what it is given.
template <typename MAT_T, int ROWS>
__attribute__((noinline)) void add_block(const float* left, const panel_operands<MAT_T>* right,
                                         const panel_row& factors, panel_row* totals) {
  simd::tile_sums<ROWS, PANEL_COLUMNS> sums;
  for (int j = 0; j < 4; ++j) sums.multiply_add(simd::left_tile<MAT_T, ROWS, 64>{left + 16 * j}, right[j]);
  unrolled<ROWS>([&](auto i) { totals[i] = add(totals[i], multiply(sums.rows[i], factors)); });
}

#ifdef QUILLON_BFLOAT16_PAIRS

// Makes words of pairs of the operands of a panel, which are exact in bfloat16, in the front half of their memory.
inline void pair_operands(float* right) {
  for (int p = 0; p < 32; ++p) {
    unrolled<PANEL_COLUMNS / LANES>([&](auto v) {
      const auto* lower = right + PANEL_COLUMNS * 2 * p + LANES * v;
      const words low = load_vector<uint32_t, LANES>(lower), high = load_vector<uint32_t, LANES>(lower + PANEL_COLUMNS);
      const words pairs = (low >> 16) | (high & 0xFFFF0000u);
      simd::store(reinterpret_cast<uint32_t*>(right) + PANEL_COLUMNS * p + LANES * v, pairs);
    });
  }
}

// A sum and the products of two pairs, in each lane.
inline lanes<float> add_pairs(lanes<float> sum, words a, words b) {
  asm("vdpbf16ps %2, %1, %0" : "+v"(sum) : "v"(a), "v"(b));
  return sum;
}

// add_block with operands in pairs.
template <int ROWS>
__attribute__((noinline)) void add_block_of_pairs(const float* left, const float* right, const panel_row& factors,
                                                  panel_row* totals) {
  constexpr int VECTORS = PANEL_COLUMNS / LANES;
  lanes<float> sums[ROWS * VECTORS] = {};
  const auto* words_of_rows = reinterpret_cast<const uint32_t*>(left);
#pragma clang loop unroll_count(4)
  for (int p = 0; p < 32; ++p) {
    words b[VECTORS];
    unrolled<VECTORS>([&](auto v) { b[v] = load_vector<uint32_t, LANES>(right + PANEL_COLUMNS * p + LANES * v); });
    unrolled<ROWS>([&](auto i) {
      const words a = words_of_rows[64 * i + p];
      unrolled<VECTORS>([&](auto v) { sums[VECTORS * i + v] = add_pairs(sums[VECTORS * i + v], a, b[v]); });
    });
  }
  unrolled<ROWS>([&](auto i) {
    panel_row of_row;
    if constexpr (VECTORS == 2)
      of_row = joined<float, LANES>(sums[2 * i], sums[2 * i + 1]);
    else
      of_row = sums[i];
    totals[i] = add(totals[i], multiply(of_row, factors));
  });
}

#endif

// The scales of the columns of a panel, `columns` of which are there, as floats. By way of memory: an element of a vector
// is not set without bringing the vector there and back.
template <typename Scale>
inline panel_row factors_of(const uint8_t* scales, uint64_t stride, int columns) {
  alignas(64) Scale stored[PANEL_COLUMNS];
  for (int c = 0; c < columns; ++c) stored[c] = load<Scale, alignof(Scale)>(scales + c * stride);
  for (int c = columns; c < PANEL_COLUMNS; ++c) stored[c] = Scale(0.0f);
  return simd::convert<float>(simd::load<Scale, PANEL_COLUMNS>(stored));
}

// Blocks `begin` to `end` - 1 of `columns` columns from `column` on, added to the totals of `rows` rows of activations, of
// which the last M_TAIL are a short tile if `is_last`.
template <typename Operands, int M_TAIL, typename MAT_T, typename IN_T>
inline void add_blocks(const engine_arguments<IN_T>& of, strip<MAT_T>& kept, const IN_T* input, int rows,
                       uint64_t column, int columns, uint64_t begin, uint64_t end) {
  constexpr int TAIL = M_TAIL % PANEL_ROWS;
  using scale = typename Operands::scale;
  const uint64_t blocks = of.blocks_per_row;
  for (uint64_t block = begin; block < end; ++block) {
    for (int i = 0; i < rows; ++i) load_activations<MAT_T>(input + (i * blocks + block) * 64, kept.left + 64 * i);
    for (int p = 0; p * PANEL_COLUMNS < columns; ++p) {
      const int there = columns - p * PANEL_COLUMNS < PANEL_COLUMNS ? columns - p * PANEL_COLUMNS : PANEL_COLUMNS;
      const uint64_t first = (column + p * PANEL_COLUMNS) * blocks + block;
      auto* right = reinterpret_cast<float*>(kept.right);
      for (int c = 0; c < there; c += LANES)
        Operands::decode(of.weight + (first + c * blocks) * Operands::QUANT_BYTES, blocks * Operands::QUANT_BYTES,
                         [=](int e, lanes<float> values) { simd::store(right + PANEL_COLUMNS * e + c, values); });
      const panel_row factors = factors_of<scale>(of.scales + first * sizeof(scale), blocks * sizeof(scale), there);
      const auto add_rows = [&](auto count, int i) {
#ifdef QUILLON_BFLOAT16_PAIRS
        if constexpr (in_pairs<MAT_T>)
          return add_block_of_pairs<count>(kept.left + 64 * i, right, factors, kept.totals[p] + i);
#endif
        add_block<MAT_T, count>(kept.left + 64 * i, kept.right, factors, kept.totals[p] + i);
      };
#ifdef QUILLON_BFLOAT16_PAIRS
      if constexpr (in_pairs<MAT_T>) pair_operands(right);
#endif
      int i = 0;
      for (; i + PANEL_ROWS <= rows; i += PANEL_ROWS) add_rows(std::integral_constant<int, PANEL_ROWS>{}, i);
      if constexpr (TAIL != 0)
        if (i < rows) add_rows(std::integral_constant<int, TAIL>{}, i);
    }
  }
}

// The sums of 16 bits, in float.
template <typename RED_T>
inline panel_row rounded(panel_row from) {
  if constexpr (std::is_same_v<RED_T, bfloat16>)
    return simd::widened(simd::convert<bfloat16>(from));
  else
    return simd::convert<float>(simd::convert<half>(from));
}

template <typename IN_T, typename MAT_T, typename RED_T, int M_TAIL, int N_TILE, int K_SPLIT>
inline void multiply_strips(const engine_arguments<IN_T>& of, int32_t qtype, uint64_t row_tiles) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t batch = 8 * (row_tiles - 1) + M_TAIL;
  // Columns come in sixteens, whose runs differ by one sixteen at the most.
  const uint64_t sixteens = of.output_size / LANES, groups = place.get_group_range(0);
  const uint64_t last_column = sixteens * (place.get_group(0) + 1) / groups * LANES;
  strip<MAT_T> kept;
  for (uint64_t column = sixteens * place.get_group(0) / groups * LANES; column < last_column;
       column += STRIP_COLUMNS) {
    const int columns = static_cast<int>(last_column - column < STRIP_COLUMNS ? last_column - column : STRIP_COLUMNS);
    for (uint64_t row = 0; row < batch; row += STRIP_ROWS) {
      const int rows = static_cast<int>(batch - row < STRIP_ROWS ? batch - row : STRIP_ROWS);
      for (int p = 0; p < PANELS; ++p)
        for (int i = 0; i < rows; ++i) kept.sums[p][i] = 0.0f;
      for (int t = 0; t < K_SPLIT; ++t) {
        for (int p = 0; p < PANELS; ++p)
          for (int i = 0; i < rows; ++i) kept.totals[p][i] = 0.0f;
        const uint64_t blocks = of.blocks_per_row;
        const auto not_past_end = [=](uint64_t block) { return block < blocks ? block : blocks; };
        with_operands_of(qtype, [&](auto operands) {
          add_blocks<decltype(operands), M_TAIL>(of, kept, of.input + row * blocks * 64, rows, column, columns,
                                                 not_past_end(t * of.blocks_per_item),
                                                 not_past_end((t + 1) * of.blocks_per_item));
        });
        for (int p = 0; p < PANELS; ++p)
          for (int i = 0; i < rows; ++i)
            kept.sums[p][i] = rounded<RED_T>(kept.sums[p][i] + rounded<RED_T>(kept.totals[p][i]));
      }
      for (int i = 0; i < rows; ++i) {
        IN_T* to = of.output + (row + i) * of.output_size + column;
        for (int c = 0; c < columns; c += LANES) {
          const auto values = load_vector<float, LANES>(
              reinterpret_cast<const float*>(&kept.sums[c / PANEL_COLUMNS][i]) + c % PANEL_COLUMNS);
          simd::store(to + c, simd::convert<IN_T>(values));
        }
      }
    }
  }
}

}  // namespace quillon
