// The skeleton of chunks.h for GPUs: a lane is a work-item. A work-item walks over the rounds of its work-group's rows
// with one accumulator for each row; the work-items' accumulators meet in local memory, and work-item 0 writes.
//
// The activations of a chunk are loaded once and serve all rows of the tile.
#pragma once

#include "formats/registry.h"
#include "kernels/kernel.h"
#include "kernels/lanes.h"
#include "kernels/matvec/items.h"
#include "readers/orders.h"
#include "readers/places.h"

namespace quillon {

// Where the chunk of one work-item lies in one row, for rows that start on a block: at `block`, the same for the whole
// work-group, plus the work-item. Neighbouring work-items then read neighbouring words.
template <int CHUNK, int BLOCK>
struct chunk_place {
  static constexpr int CHUNKS_PER_BLOCK = BLOCK / CHUNK;
  int64_t block;
  int item;
  uint32_t low_nibbles;  // of chunk_codes

  void advance(int32_t blocks) { block += blocks; }

  template <typename Entry, int CHUNKS>
  Entry entry_of_chunks(const void* region) const {
    return (static_cast<const Entry*>(region) + block * (CHUNKS_PER_BLOCK / CHUNKS))[item / CHUNKS];
  }
  template <typename Entry>
  Entry entry_by_unit(const void* region) const {
    return entry_of_chunks<Entry, 1>(region);
  }
  int64_t block_of_item() const { return block + item / CHUNKS_PER_BLOCK; }
  int chunk_of_block() const { return item % CHUNKS_PER_BLOCK; }
};

// The same for rows that need not start on a block. `unit` is the work-item's own: parts of a block of UNIT elements,
// counted from the start of the weight, where a row's start is rounded down to a whole one. Which part of its unit and
// of its block a work-item reads follows from its number alone.
template <int CHUNK, int BLOCK, int UNIT>
struct loose_chunk_place {
  static constexpr int CHUNKS_PER_BLOCK = BLOCK / CHUNK;
  static constexpr int CHUNKS_PER_UNIT = UNIT / CHUNK;
  uint32_t unit;
  int item;
  uint32_t low_nibbles;  // of chunk_codes

  void advance(uint32_t units) { unit += units; }
  uint32_t block_of_item() const { return unit / (BLOCK / UNIT); }
  int chunk_of_block() const { return item % CHUNKS_PER_BLOCK; }

  template <typename Entry, int CHUNKS>
  Entry entry_of_chunks(const void* region) const {
    const uint32_t entry = block_of_item() * (CHUNKS_PER_BLOCK / CHUNKS) + chunk_of_block() / CHUNKS;
    return static_cast<const Entry*>(region)[entry];
  }
  template <typename Entry>
  Entry entry_by_unit(const void* region) const {
    const uint32_t entry = unit * CHUNKS_PER_UNIT + item % CHUNKS_PER_UNIT;
    return static_cast<const Entry*>(region)[entry];
  }
};

// The activations of a work-item's chunk, in the order in which the sum of a row takes them, and their plain sum in the
// same order where the reader wants it.
template <typename T, int CHUNK, bool WITH_SUM>
struct activations {
  values<T> at[CHUNK];
  values<T> of_all;

  template <typename Place>
  values<T> v(Place i) const {
    return at[i];
  }
  values<T> sum() const { return of_all; }
};

template <typename T, int CHUNK, bool WITH_SUM, typename Order, int... I>
inline activations<T, CHUNK, WITH_SUM> load_activations(const T* base, int item, constants<I...>) {
  constexpr int RUN = CHUNK / Order::RUNS;
  T elements[Order::RUNS][RUN];
  unrolled<Order::RUNS>([&](auto run) { load_elements(base, Order::start(item, run), elements[run]); });
  activations<T, CHUNK, WITH_SUM> x{{element_values<T>(elements[Order::run_of(I)][Order::place_of(I)])...}, {}};
  if constexpr (WITH_SUM) {
    x.of_all = x.at[0];
    ((I > 0 ? void(x.of_all = x.of_all + x.at[I]) : void()), ...);
  }
  return x;
}

// One round of a work-item: the chunk's activations meet the weight's chunk in each row of the tile. All of it becomes
// one function, however large: arrays that went from one to another would stay in memory.
template <typename Sum, typename Chunk, typename Place, typename AddRow>
__attribute__((always_inline)) inline void add_row_inline(Sum& acc, const Chunk& x, const Place& at,
                                                          const AddRow& add_row) {
  [[clang::always_inline]] add_row(acc, x, at);
}
template <int ROW_TILE, typename Sum, typename Chunk, typename Place, typename AddRow, int... ROW>
__attribute__((always_inline)) inline void add_rows(Sum (&acc)[ROW_TILE], const Chunk& x, Place at,
                                                    const row_steps<ROW_TILE>& to_next_row, const AddRow& add_row,
                                                    constants<ROW...>) {
  ((add_row_inline(acc[ROW], x, at, add_row), at.advance(to_next_row.step[ROW])), ...);
}

// Calls `body(c)` for the first chunk c of each round in which every work-item has a chunk, which is c + item, and, if
// the remaining chunks are summed, for the round behind them in which only the first work-items have one. Full rounds
// have a uniform count: a CPU device runs them unmasked.
template <int CHUNK, int WG_SIZE, tail_round TAIL, typename Body>
inline void for_each_round(uint64_t state_size, int item, Body body) {
  const auto chunks = static_cast<int32_t>(state_size / CHUNK);
  const int32_t full = chunks / WG_SIZE * WG_SIZE;
  for (int32_t c = 0; c < full; c += WG_SIZE) body(c);
  if (TAIL == tail_round::summed && full + item < chunks) body(full);
}

// Adds to a work-item's accumulators what its chunks of the rows from `row0` to the end of the tile give.
template <typename T, int WG_SIZE, int ROW_TILE, typename Reader, tail_round TAIL, bool WITH_SUM, typename AddRow>
__attribute__((always_inline)) inline void sum_chunks(uint64_t state_size, const T* input, int item, uint64_t row0,
                                                      uint64_t output_size, values<T> (&acc)[ROW_TILE],
                                                      AddRow add_row) {
  constexpr int CHUNK = Reader::CHUNK;
  constexpr int BLOCK = Reader::BLOCK;
  constexpr int UNIT = Reader::UNIT;
  // Sixteen doubles are half of a GPU's registers, which leaves too few for all rows of a tile at once.
  constexpr bool TILE_AT_ONCE = CHUNK * sizeof(T) <= 64;
  const uint32_t low_nibbles = 0x0F0F0F0Fu + static_cast<uint32_t>(state_size >> 32);  // no row has 2^32 elements

  const auto load_chunk = [&](int32_t c) __attribute__((always_inline)) {
    return load_activations<T, CHUNK, WITH_SUM, typename Reader::order>(input + CHUNK * c, item,
                                                                        first_constants<CHUNK>{});
  };
  if (TILE_AT_ONCE && state_size % BLOCK == 0) {
    const int64_t first = row0 * state_size / BLOCK;
    const row_steps<ROW_TILE> to_next_row(row0, output_size, static_cast<int32_t>(state_size / BLOCK));
    for_each_round<CHUNK, WG_SIZE, TAIL>(state_size, item, [&](int32_t c) __attribute__((always_inline)) {
      add_rows(acc, load_chunk(c), chunk_place<CHUNK, BLOCK>{first + c * CHUNK / BLOCK, item, low_nibbles}, to_next_row,
               add_row, first_constants<ROW_TILE>{});
    });
  } else {
    // One row after the other, and the last round like the others: a second copy of the code above would take registers
    // from it. Rows that do start on a block are right here as well.
    const row_steps<ROW_TILE> to_next_row(row0, output_size, static_cast<int32_t>(state_size / UNIT));
    const auto chunks = static_cast<int32_t>(state_size / CHUNK);
    const int32_t summed = TAIL == tail_round::summed ? chunks : chunks / WG_SIZE * WG_SIZE;
    loose_chunk_place<CHUNK, BLOCK, UNIT> at{static_cast<uint32_t>((row0 * state_size + CHUNK * item) / UNIT), item,
                                             low_nibbles};
    unrolled<ROW_TILE>([&](auto t) {
      for (int32_t c = 0; c + item < summed; c += WG_SIZE) {
        auto at_round = at;
        at_round.advance(static_cast<uint32_t>(c) * CHUNK / UNIT);
        add_row_inline(acc[t], load_chunk(c), at_round, add_row);
      }
      at.advance(to_next_row.step[t]);
    });
  }
}

template <typename T, int WG_SIZE, int ROW_TILE, typename Reader, tail_round TAIL, bool WITH_SUM, typename AddRow>
inline void multiply_chunks(uint64_t state_size, const T* input, const sycl::local_accessor<T, 1>& local,
                            uint64_t output_size, T* output, AddRow add_row) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  const uint64_t row0 = place.get_group(0) * ROW_TILE;
  values<T> acc[ROW_TILE] = {};
  sum_chunks<T, WG_SIZE, ROW_TILE, Reader, TAIL, WITH_SUM>(state_size, input, item, row0, output_size, acc, add_row);
  reduce_and_write<T, WG_SIZE, ROW_TILE>(place, item, acc, local, row0, output_size, output);
}

}  // namespace quillon
