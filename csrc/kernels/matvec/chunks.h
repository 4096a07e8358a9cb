// The body of the matrix-vector kernels that deal out K in chunks of 8 or 16 elements: all formats with
// 64-element blocks but q5_0 and q5_1, and q4_k, q6_k and fp6_k with blocks of 256. A kernel names its chunk
// and says in two functions what its format adds:
//
//   load_chunk(base, item)       the activations of the work-item's chunk, loaded once for all rows; `base`
//                                points at those of the round's first chunk
//   add_row(acc, chunk, place)   adds one row's share of the sum to that row's accumulator; `place` reads
//                                the weight
#pragma once

#include "formats/registry.h"
#include "kernels/matvec/arithmetic.h"
#include "kernels/matvec/skeleton.h"

namespace quillon {

// Whether the chunks that remain when every work-item has had the same number of them are summed: the kernels
// of q4_k and q6_k leave them out.
enum class tail_round { summed, dropped };

// A chunk's codes of four or eight bits, shifted out of 32-bit halves of its word: a CPU device has twice as
// many of those in a register. `zero` is 0 and must not look like it: the compiler would make shifts of the
// high half shifts of the whole word again.
struct chunk_codes {
  uint32_t half_words[2];

  chunk_codes(uint64_t word, uint32_t zero)
      : half_words{static_cast<uint32_t>(word), static_cast<uint32_t>(word >> 32) + zero} {}
  uint32_t nibble(int i) const { return (half_words[i / 8] >> (4 * (i % 8))) & 15; }
  uint32_t byte_on_top(int i) const { return half_words[i / 4] << (24 - 8 * (i % 4)); }
  uint32_t byte(int i) const { return (half_words[i / 4] >> (8 * (i % 4))) & 0xFF; }
};

// Where the chunk of one work-item lies in one row: block `block + item / CHUNKS_PER_BLOCK` of the weight,
// where `block` is the same for the whole work-group. Addresses keep to "common base, plus work-item":
// neighbouring work-items then read neighbouring words, and a CPU device loads those of a sub-group as one
// vector.
template <int CHUNK, int BLOCK = 64>
struct chunk_place {
  static constexpr int CHUNKS_PER_BLOCK = BLOCK / CHUNK;
  int64_t block;
  int item;
  uint32_t zero;  // see chunk_codes

  // The chunk's word of a region that holds one for each chunk.
  template <typename Word>
  Word word_of_chunk(const void* region) const {
    return (static_cast<const Word*>(region) + block * CHUNKS_PER_BLOCK)[item];
  }
  // The codes in the chunk's word of eight bytes.
  chunk_codes codes_of_chunk(const void* region) const { return {word_of_chunk<uint64_t>(region), zero}; }
  // The entry of a region that holds one for each CHUNKS neighbouring chunks.
  template <typename Entry, int CHUNKS>
  Entry entry_of_chunks(const void* region) const {
    return (static_cast<const Entry*>(region) + block * (CHUNKS_PER_BLOCK / CHUNKS))[item / CHUNKS];
  }
  // The block's entry of a region that holds one for each block.
  template <typename Entry>
  Entry entry_of_block(const void* region) const {
    return entry_of_chunks<Entry, CHUNKS_PER_BLOCK>(region);
  }
};

// Sixteen or eight activations, in the order in which the sum of a row takes them.
template <typename T, int CHUNK>
struct activations {
  lane<T> v[CHUNK];
};

template <typename T, int CHUNK, typename Order, int... I>
inline activations<T, CHUNK> in_order(const T (&elements)[CHUNK], Order order, constants<I...>) {
  return {{to_lane(elements[order(I)])...}};
}

// Loads a chunk of neighbouring elements. The sum takes element `Order()(i)` of the chunk at place i.
struct ascending {
  constexpr int operator()(int i) const { return i; }
};
template <typename T, int CHUNK, typename Order = ascending>
struct load_neighbours {
  activations<T, CHUNK> operator()(const T* base, int item) const {
    T elements[CHUNK];
    load_elements(base, CHUNK * item, elements);
    return in_order(elements, Order{}, first_constants<CHUNK>{});
  }
};

// The sum of a chunk's products from left to right; `value(i)` is the weight's value at place i, a lane<T>,
// and gets i as a constant.
template <typename T, int CHUNK, typename Value, int... I>
__attribute__((always_inline)) inline lane<T> sum_products(const activations<T, CHUNK>& chunk, Value value,
                                                           constants<0, I...>) {
  lane<T> s = chunk.v[0] * value(std::integral_constant<int, 0>{});
  ((s = s + chunk.v[I] * value(std::integral_constant<int, I>{})), ...);
  return s;
}
template <typename T, int CHUNK, typename Value>
__attribute__((always_inline)) inline lane<T> sum_products(const activations<T, CHUNK>& chunk, Value value) {
  return sum_products(chunk, value, first_constants<CHUNK>{});
}

// The plain sum of a chunk's activations, in the same order.
template <typename T, int CHUNK, int... I>
inline lane<T> sum_activations(const activations<T, CHUNK>& chunk, constants<0, I...>) {
  lane<T> sum = chunk.v[0];
  ((sum = sum + chunk.v[I]), ...);
  return sum;
}
template <typename T, int CHUNK>
inline lane<T> sum_activations(const activations<T, CHUNK>& chunk) {
  return sum_activations(chunk, first_constants<CHUNK>{});
}

// One round of a work-item: the chunk's activations meet the weight's chunk in each row of the tile. All of
// it becomes one function, however large: arrays that went from one to another would stay in memory.
template <typename Sum, typename Chunk, typename Place, typename AddRow>
__attribute__((always_inline)) inline void add_row_inline(Sum& acc, const Chunk& chunk, const Place& at,
                                                          const AddRow& add_row) {
  [[clang::always_inline]] add_row(acc, chunk, at);
}
template <int ROW_TILE, typename Sum, typename Chunk, typename Place, typename AddRow, int... ROW>
__attribute__((always_inline)) inline void add_rows(Sum (&acc)[ROW_TILE], const Chunk& chunk, Place at,
                                                    const row_steps<ROW_TILE>& to_next_row, const AddRow& add_row,
                                                    constants<ROW...>) {
  ((add_row_inline(acc[ROW], chunk, at, add_row), at.block += to_next_row.step[ROW]), ...);
}

template <typename T, int CHUNK, int WG_SIZE, int ROW_TILE, int BLOCK = 64, tail_round TAIL = tail_round::summed,
          typename LoadChunk, typename AddRow>
inline void multiply_chunks(uint64_t state_size, const T* input, const sycl::local_accessor<T, 1>& local,
                            uint64_t output_size, T* output, LoadChunk load_chunk, AddRow add_row) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  const uint64_t row0 = place.get_group(0) * ROW_TILE;
  const int64_t first_block = row0 * state_size / BLOCK;
  const row_steps<ROW_TILE> to_next_row(row0, output_size, static_cast<int32_t>(state_size / BLOCK));
  const auto zero = static_cast<uint32_t>(state_size >> 32);  // weights have fewer than 2^31 elements

  lane<T> acc[ROW_TILE] = {};
  const auto add_round = [&](int32_t c) __attribute__((always_inline)) {
    add_rows(acc, load_chunk(input + CHUNK * c, item),
             chunk_place<CHUNK, BLOCK>{first_block + c * CHUNK / BLOCK, item, zero}, to_next_row, add_row,
             first_constants<ROW_TILE>{});
  };
  if constexpr (TAIL == tail_round::summed)
    for_each_round<CHUNK, WG_SIZE>(state_size, item, add_round);
  else
    for_each_full_round<CHUNK, WG_SIZE>(state_size, add_round);
  reduce_and_write<T, WG_SIZE, ROW_TILE>(place, acc, local, row0, output_size, output);
}

}  // namespace quillon
