// The skeleton of batch_chunks.h for GPUs: a lane is a work-item.
#pragma once

#include "kernels/matvec/items.h"

namespace quillon {

inline constexpr int BATCH_TILE = 2;

template <typename T, int WG_SIZE, int ROW_TILE, typename Reader>
inline void multiply_scaled_chunks_by_batch(const Reader& reader, uint64_t state_size, uint64_t batch, const T* input,
                                            const sycl::local_accessor<T, 1>& local, uint64_t output_size, T* output) {
  constexpr int CHUNK = Reader::CHUNK;
  constexpr int BLOCK = Reader::BLOCK;
  constexpr int UNIT = Reader::UNIT;
  using chunk = activations<T, CHUNK, false>;
  // Two chunks of doubles are all of a GPU's registers.
  constexpr bool TILE_AT_ONCE = BATCH_TILE * CHUNK * sizeof(T) <= 128;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int item = static_cast<int>(place.get_local_id(1));
  const uint64_t row0 = place.get_group(1) * ROW_TILE;
  const uint64_t b0 = place.get_group(0) * BATCH_TILE;
  const bool is_pair = b0 + 1 < batch;
  const uint32_t low_nibbles = 0x0F0F0F0Fu + static_cast<uint32_t>(state_size >> 32);  // no row has 2^32 elements
  // Without a second activation row the first is taken twice, in place of what lies behind it.
  const T* const first_input = input + b0 * state_size;
  const T* const second_input = first_input + (is_pair ? state_size : 0);

  batch_values<T, BATCH_TILE> acc[ROW_TILE] = {};
  const auto load_chunk = [&](const T* from, int32_t c) __attribute__((always_inline)) {
    return load_activations<T, CHUNK, false, typename Reader::order>(from + CHUNK * c, item, first_constants<CHUNK>{});
  };
  const auto add_row = [&](auto& sum, const auto& x, const auto& at) __attribute__((always_inline)) {
    sum = multiply_add(reader.template sum<T>(x, at), reader.template scale<T>(at), sum);
  };
  if (TILE_AT_ONCE && state_size % BLOCK == 0) {
    const int64_t first = row0 * state_size / BLOCK;
    const row_steps<ROW_TILE> to_next_row(row0, output_size, static_cast<int32_t>(state_size / BLOCK));
    for_each_round<CHUNK, WG_SIZE, tail_round::summed>(state_size, item, [&](int32_t c) __attribute__((always_inline)) {
      const batch_chunk<T, chunk, BATCH_TILE> x{{load_chunk(first_input, c), load_chunk(second_input, c)}};
      add_rows(acc, x, chunk_place<CHUNK, BLOCK>{first + c * CHUNK / BLOCK, item, low_nibbles}, to_next_row, add_row,
               first_constants<ROW_TILE>{});
    });
  } else {
    // One output after the other, as for one activation row.
    const row_steps<ROW_TILE> to_next_row(row0, output_size, static_cast<int32_t>(state_size / UNIT));
    const auto chunks = static_cast<int32_t>(state_size / CHUNK);
    loose_chunk_place<CHUNK, BLOCK, UNIT> at{static_cast<uint32_t>((row0 * state_size + CHUNK * item) / UNIT), item,
                                             low_nibbles};
    unrolled<ROW_TILE>([&](auto t) {
      unrolled<BATCH_TILE>([&](auto b) {
        for (int32_t c = 0; c + item < chunks; c += WG_SIZE) {
          auto at_round = at;
          at_round.advance(static_cast<uint32_t>(c) * CHUNK / UNIT);
          add_row_inline(acc[t].row[b], load_chunk(b == 0 ? first_input : second_input, c), at_round, add_row);
        }
      });
      at.advance(to_next_row.step[t]);
    });
  }

  // Element (b, t, l) of `local` stands at (b * ROW_TILE + t) * WG_SIZE + l.
  values<T> sums[BATCH_TILE * ROW_TILE];
  unrolled<BATCH_TILE * ROW_TILE>([&](auto i) { sums[i] = acc[i % ROW_TILE].row[i / ROW_TILE]; });
  add_up_items<T, WG_SIZE>(place.get_group(), item, item, sums, local);
  if (item == 0) {
    for (uint64_t b = 0; b < (is_pair ? 2 : 1); ++b)
      for (uint64_t t = 0; t < ROW_TILE && row0 + t < output_size; ++t)
        output[(b0 + b) * output_size + row0 + t] = local[(b * ROW_TILE + t) * WG_SIZE];
  }
}

}  // namespace quillon
