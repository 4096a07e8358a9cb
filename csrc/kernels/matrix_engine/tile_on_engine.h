// A work-item's share of a tile on a GPU: see loom_forward_kernel.h.
#pragma once

#include "kernels/matrix_engine/operands.h"

namespace quillon {

// The 64 elements of an activation row in a block, as words of two operands.
template <typename IN_T, typename MAT_T>
inline simd::vec<uint32_t, 32> load_activations(uint64_t address) {
  const auto loaded = simd::load<IN_T, 64>(reinterpret_cast<const IN_T*>(address));
  if constexpr (std::is_same_v<IN_T, MAT_T>)
    return simd::bits_as<uint32_t>(loaded);
  else
    return simd::bits_as<uint32_t>(simd::convert<MAT_T>(loaded));
}

// The total of `count` blocks for ROWS activation rows and COLUMNS columns, which start at the pointers. Addresses are
// vectors: on GPUs without integers of 64 bits each addition takes several instructions.
template <typename Operands, typename MAT_T, int ROWS, int COLUMNS, typename IN_T>
inline simd::tile_sums<ROWS, COLUMNS> total_of_blocks(uint64_t blocks_per_row, const IN_T* input, const uint8_t* weight,
                                                      const uint8_t* scales, uint64_t count) {
  constexpr int BYTES = Operands::QUANT_BYTES, ROW_BYTES = 64 * sizeof(IN_T);
  using scale = typename Operands::scale;
  auto rows = simd::addresses<8>(input, blocks_per_row * ROW_BYTES);
  auto columns = simd::addresses<COLUMNS>(weight, blocks_per_row * BYTES);
  const simd::vec<uint32_t, COLUMNS> column_offsets(0, static_cast<uint32_t>(blocks_per_row * BYTES));
  const simd::vec<uint32_t, COLUMNS> scale_offsets(0, static_cast<uint32_t>(blocks_per_row * sizeof(scale)));
  simd::tile_sums<ROWS, COLUMNS> total;
  for (; count > 0; --count) {
    // Hints for the block behind this one; a weight's block lies in one line of a cache.
    const uint64_t one = count > 1;
    const simd::vec<uint64_t, 8> next_rows = rows + one * ROW_BYTES;
    unrolled<ROWS>([&](auto i) { simd::prefetch<ROW_BYTES>(reinterpret_cast<const void*>(uint64_t{next_rows[i]})); });
    simd::prefetch_each<COLUMNS>(weight + one * BYTES, column_offsets);
    simd::prefetch_each<COLUMNS>(scales + one * sizeof(scale), scale_offsets);

    simd::left_tile<MAT_T, ROWS> left[4];
    unrolled<ROWS>([&](auto i) {
      const auto row = load_activations<IN_T, MAT_T>(rows[i]);
      unrolled<4>([&](auto j) { left[j].template set_row<i>(simd::select<8 * j, 8>(row)); });
    });
    simd::right_tile<MAT_T, COLUMNS> right[4];
    Operands::template decode<MAT_T, COLUMNS>(columns, right);
    simd::tile_sums<ROWS, COLUMNS> sums;
    unrolled<4>([&](auto j) { sums.multiply_add(left[j], right[j]); });
    total.add_scaled(sums, simd::convert<float>(simd::gather<scale, COLUMNS>(scales, scale_offsets)));
    rows = next_rows;
    columns += BYTES;
    weight += BYTES;
    scales += sizeof(scale);
  }
  return total;
}

// a + b in RED_T.
template <typename RED_T, typename Vec>
inline Vec add_rounded(Vec a, Vec b) {
  if constexpr (std::is_same_v<RED_T, bfloat16>)
    return simd::convert<bfloat16>(add(simd::widened(a), simd::widened(b)));
  else
    return add(a, b);
}

template <typename IN_T, typename MAT_T, typename RED_T, int ROWS, int COLUMNS, int K_SPLIT, typename Memory>
inline void multiply_tile(const engine_arguments<IN_T>& of, int32_t qtype, Memory& partial_tiles) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t column = COLUMNS * place.get_group(0), row = 8 * place.get_group(1);
  const auto item = static_cast<uint32_t>(place.get_local_id(0));
  const uint64_t blocks = of.blocks_per_row;
  const auto not_past_end = [=](uint64_t block) { return block < blocks ? block : blocks; };
  const uint64_t begin = not_past_end(item * of.blocks_per_item), end = not_past_end((item + 1) * of.blocks_per_item);

  simd::tile_sums<ROWS, COLUMNS> total;
  with_operands_of(qtype, [&](auto operands) {
    using Operands = decltype(operands);
    const uint64_t block = column * blocks + begin;
    total = total_of_blocks<Operands, MAT_T, ROWS, COLUMNS>(
        blocks, of.input + (row * blocks + begin) * 64, of.weight + block * Operands::QUANT_BYTES,
        of.scales + block * sizeof(typename Operands::scale), end - begin);
  });

  constexpr uint32_t PART = COLUMNS * sizeof(RED_T);
  unrolled<ROWS>([&](auto i) {
    partial_tiles.store(i * K_SPLIT * PART + item * PART, simd::convert<RED_T>(total.template row<i>()));
  });
  partial_tiles.barrier();
  if (item < ROWS) {
    const auto parts = partial_tiles.template load<RED_T, K_SPLIT * COLUMNS>(item * K_SPLIT * PART);
    auto sum = simd::all<RED_T, COLUMNS>(RED_T(0.0f));
    unrolled<K_SPLIT>([&](auto t) { sum = add_rounded<RED_T>(sum, simd::select<t * COLUMNS, COLUMNS>(parts)); });
    IN_T* to = of.output + (row + item) * of.output_size + column;
    if constexpr (std::is_same_v<IN_T, RED_T>)
      simd::store(to, sum);
    else
      simd::store(to, simd::convert<IN_T>(sum));
  }
}

}  // namespace quillon
