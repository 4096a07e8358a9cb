// The body of the matrix-vector kernels that deal out K in chunks of 8 or 16 elements: all formats with
// 64-element blocks but q5_0 and q5_1, and q4_k, q6_k and fp6_k with blocks of 256. A kernel names its chunk and says in two functions what its format
// adds:
//
//   load_chunk(base, item)       the activations of the work-item's chunk, loaded once for all rows; `base`
//   points at
//                                those of the round's first chunk
//   add_row(acc, chunk, place)   adds one row's share of the sum to that row's accumulator; `place` reads the
//   weight
#pragma once

#include "formats/registry.h"
#include "kernels/matvec/arithmetic.h"
#include "kernels/matvec/skeleton.h"

namespace quillon {

// Whether the chunks that remain when every work-item has had the same number of them are summed: the kernels
// of q4_k and q6_k leave them out.
enum class tail_round { summed, dropped };

// Where the chunk of one work-item lies in one row: block `block + item / CHUNKS_PER_BLOCK` of the weight,
// where `block` is the same for the whole work-group. Addresses keep to "common base, plus work-item":
// neighbouring work-items then read neighbouring words, and a CPU device loads those of a sub-group as one
// vector.
template <int CHUNK, int BLOCK = 64>
struct chunk_place {
  static constexpr int CHUNKS_PER_BLOCK = BLOCK / CHUNK;
  int64_t block;
  int item;

  // The chunk's word of a region that holds one for each chunk.
  template <typename Word>
  Word word_of_chunk(const void* region) const {
    return (static_cast<const Word*>(region) + block * CHUNKS_PER_BLOCK)[item];
  }
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

// The activations of a chunk of neighbouring elements.
template <typename T, int CHUNK>
struct load_neighbours {
  activations<T, CHUNK> operator()(const T* base, int item) const {
    activations<T, CHUNK> chunk;
    T elements[CHUNK];
    load_elements(base, CHUNK * item, elements);
    unrolled<CHUNK>([&](auto i) { chunk.v[i] = to_lane(elements[i]); });
    return chunk;
  }
};

template <typename T, int CHUNK, int WG_SIZE, int ROW_TILE, int BLOCK = 64,
          tail_round TAIL = tail_round::summed, typename LoadChunk, typename AddRow>
inline void multiply_chunks(uint64_t state_size, const T* input, const sycl::local_accessor<T, 1>& local,
                            uint64_t output_size, T* output, LoadChunk load_chunk, AddRow add_row) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  const uint64_t row0 = place.get_group(0) * ROW_TILE;
  const int64_t first_block = row0 * state_size / BLOCK;
  const row_steps<ROW_TILE> to_next_row(row0, output_size, static_cast<int32_t>(state_size / BLOCK));

  lane<T> acc[ROW_TILE];
  unrolled<ROW_TILE>([&](auto t) { acc[t] = integer_lane<T>(0); });

  const auto add_round = [&](int32_t c) {
    const auto chunk = load_chunk(input + CHUNK * c, item);
    chunk_place<CHUNK, BLOCK> at{first_block + c * CHUNK / BLOCK, item};
    unrolled<ROW_TILE>([&](auto t) {
      add_row(acc[t], chunk, at);
      at.block += to_next_row.step[t];
    });
  };
  if constexpr (TAIL == tail_round::summed)
    for_each_round<CHUNK, WG_SIZE>(state_size, item, add_round);
  else
    for_each_full_round<CHUNK, WG_SIZE>(state_size, add_round);
  reduce_and_write<T, WG_SIZE, ROW_TILE>(place, acc, local, row0, output_size, output);
}

}  // namespace quillon
