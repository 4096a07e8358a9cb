// The frame of the kernels against q8_1 activations: slices of a row, and how their sums meet.
//
// A lane takes slices; eight (q2_k: sixteen) lanes share a super-block, and the 32 lanes of a row take four (two)
// neighbouring super-blocks at a time:
//
//   q8_1 blocks, 36 bytes      | 0 | 1 | 2 | 3 | 4 | 5 | 6 | 7 | 8 | 9 | ... | 31 | 32 ...
//   slices of 32 elements   lane 0   1   2   3   4   5   6   7   8   9   ...   31    0 ...
//   super-blocks of the row    |             0                 |     1 | ...       |  4 ...
//
// A slice's sum is an integer, scaled once to float; a lane adds up its slices in float.
//
// The form of vectors takes the slices of sixteen lanes at once.
#pragma once

#include "formats/q8_1.h"
#include "kernels/kernel.h"
#include "kernels/lanes.h"
#ifdef QUILLON_VECTOR_LANES
#include "kernels/matvec/vectors.h"
#else
#include <sycl/group_barrier.hpp>
#endif

namespace quillon {

// Lanes of one row.
inline constexpr int q8_1_lanes = 32;

// A byte of each word, as a signed number.
inline lanes<int32_t> signed_byte_of(words word, int index) {
  return bit_cast<lanes<int32_t>>(word << (24 - 8 * index)) >> 24;
}

// The sum of four products of unsigned with signed bytes.
inline lanes<int32_t> dot_bytes(words codes, words quants) {
  lanes<int32_t> sum = bit_cast<lanes<int32_t>>(codes & 255u) * signed_byte_of(quants, 0);
  unrolled<3>([&](auto b) {
    sum += bit_cast<lanes<int32_t>>((codes >> (8 * (b + 1))) & 255u) * signed_byte_of(quants, b + 1);
  });
  return sum;
}

// The entries of a table in memory by their index; of double words the two halves.
struct two_words {
  words half[2];
};
#ifdef QUILLON_VECTOR_LANES
template <typename Entry>
inline lanes<Entry> entries_of(const Entry* table, words index) {
  lanes<Entry> entries;
#pragma unroll
  for (int i = 0; i < LANES; ++i) entries[i] = table[index[i]];
  return entries;
}
inline words look_up(const uint32_t* table, words index) {
  return entries_of(table, index);
}
inline two_words look_up(const uint64_t* table, words index) {
  const lanes<uint64_t> entries = entries_of(table, index);
  return {{__builtin_convertvector(entries, words), __builtin_convertvector(entries >> 32, words)}};
}
#else
inline uint32_t look_up(const uint32_t* table, uint32_t index) {
  return table[index];
}
inline two_words look_up(const uint64_t* table, uint32_t index) {
  const uint64_t entry = table[index];
  return {{static_cast<uint32_t>(entry), static_cast<uint32_t>(entry >> 32)}};
}
#endif

// An integer of fewer than 24 bits.
inline lanes<float> to_float(lanes<int32_t> from) {
  return exact_values<float>(from);
}

#ifdef QUILLON_VECTOR_LANES

// Two vectors of eight, one behind the other.
template <typename E>
inline lanes<E> joined(vector<E, 8> first, vector<E, 8> second) {
  return __builtin_shufflevector(first, second, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}

// A number for the first eight lanes, and one for the others.
template <typename E>
inline lanes<E> in_octets(E first, E second) {
  return joined<E>(vector<E, 8>(first), vector<E, 8>(second));
}

// Eight neighbouring words from each of two places.
inline words words_of_two(const uint8_t* first, const uint8_t* second) {
  return joined<uint32_t>(load_vector<uint32_t, 8>(first), load_vector<uint32_t, 8>(second));
}

// The q8_1 blocks of sixteen lanes: eight neighbouring ones from each of two places.
struct q8_1_blocks {
  words quants[8];  // word i of each block
  lanes<float> d;
  lanes<float> s;

  q8_1_blocks(const block_q8_1* first, const block_q8_1* second) {
    uint32_t words_of[9][LANES];
    for (int lane = 0; lane < LANES; ++lane) {
      const block_q8_1* block = lane < 8 ? first + lane : second + (lane - 8);
      for (int i = 0; i < 9; ++i)
        words_of[i][lane] = load<uint32_t, 4>(reinterpret_cast<const uint8_t*>(block) + 4 * i);
    }
    const words heads = load_vector<uint32_t, LANES>(words_of[0]);
    d = as_floats<half>(halves_of_bits<half>(heads & 0xFFFFu));
    s = as_floats<half>(halves_of_bits<half>(heads >> 16));
    for (int i = 0; i < 8; ++i) quants[i] = load_vector<uint32_t, LANES>(words_of[i + 1]);
  }
  words quant_word(int i) const { return quants[i]; }
};
static_assert(sizeof(q8_1_blocks) == 640);  // what kernel_table.h counts with

// Walks over the rows of a work-item. `Activations(first, second)` is what all rows need of the activations of sixteen
// lanes' slices, of which the lower eight lie in super-block `first` and the upper in `second`, or all in one; it is made
// once and kept in local memory. `dot(row, first, second, x)` is a row's share, the row given by its first super-block, and
// `write(row, sums)` gets the lanes' sums. BLOCKS super-blocks are sixteen slices; where the last ones are fewer, the upper
// lanes count for nothing.
template <int BLOCKS, typename Activations, typename Local, typename Dot, typename Write>
inline void for_each_row_of_slices(uint64_t output_size, int32_t blocks_per_row, const block_q8_1* activations,
                                   const Local& local, Dot dot, Write write) {
  constexpr int VECTORS = q8_1_lanes / LANES;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t groups = place.get_group_range(0) * place.get_group_range(1);
  const uint64_t last = output_size * (place.get_group_linear_id() + 1) / groups;
  constexpr uint64_t ALIGNMENT = alignof(Activations);
  const auto start = reinterpret_cast<uint64_t>(&local[0]);
  auto* arranged = reinterpret_cast<Activations*>((start + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT);
  const auto second_of = [=](int32_t first) {
    return first + BLOCKS - 1 < blocks_per_row ? first + BLOCKS - 1 : first;
  };
  for (int32_t block = 0; block < blocks_per_row; block += BLOCKS)
    arranged[block / BLOCKS] = Activations(activations + 8 * block, activations + 8 * second_of(block));

  for (uint64_t row = output_size * place.get_group_linear_id() / groups; row < last; ++row) {
    const uint64_t blocks = row * blocks_per_row;
    lanes<float> sums[VECTORS] = {};
    for (int32_t block = 0; block < blocks_per_row; block += BLOCKS) {
      lanes<float>& sum = sums[block / BLOCKS % VECTORS];
      const lanes<float> changed = add(sum, dot(blocks + block, blocks + second_of(block), arranged[block / BLOCKS]));
      sum = block + BLOCKS <= blocks_per_row ? changed : in_first_lanes<float>(LANES / 2, changed, sum);
    }
    write(row, sums);
  }
}

// The tree over a row's lanes, in T.
template <typename T>
inline T tree_of_sums(const lanes<float> (&sums)[2]) {
  values<T> acc[2] = {rounded_values<T>(sums[0]), rounded_values<T>(sums[1])};
  return sum_of_lanes<T, 2>(acc);
}

#else

// Loads here are of 32 or 64 bits throughout: a device takes a vector of narrower ones apart.

// Two neighbouring halves, loaded as a word.
struct two_halves {
  float first;
  float second;

  explicit two_halves(uint32_t word)
      : first(convert<float>(half_from_bits(static_cast<uint16_t>(word)))),
        second(convert<float>(half_from_bits(static_cast<uint16_t>(word >> 16)))) {}
};

// The q8_1 block of a work-item's slice.
struct q8_1_blocks {
  const block_q8_1& block;
  float d;
  float s;

  explicit q8_1_blocks(const block_q8_1& from) : block(from) {
    const two_halves head(load<uint32_t, 4>(&from));
    d = head.first;
    s = head.second;
  }
  uint32_t quant_word(int i) const { return load<uint32_t, 4>(block.qs + 4 * i); }
};

// Adds up `VEC_DOT(row, q8_1 blocks, super-block, slice)` over the slices of one work-item. SLICES is the number of slices
// of a super-block.
template <int SLICES, auto VEC_DOT, typename Block>
inline float sum_of_slices(const Block* row, const block_q8_1* activations, int32_t blocks_per_row, int lane) {
  constexpr int STEP = q8_1_lanes / SLICES;
  const int first = lane / SLICES;
  const int slice = lane % SLICES;
  float sum = 0.0f;
  const auto add_block = [&](int32_t block) {
    sum = add(sum, VEC_DOT(row[block + first], activations + 8 * (block + first), slice));
  };
  // All work-items have a block in each of these rounds: a uniform count, which a CPU device runs unmasked.
  const int32_t full = blocks_per_row / STEP * STEP;
  for (int32_t block = 0; block < full; block += STEP) add_block(block);
  if (full + first < blocks_per_row) add_block(full);
  return sum;
}

// Adds up the work-items' sums of a row: a tree in T, from a stride of 16 down to 1, in the row's 32 elements of local
// memory, then the write by the first work-item. `active` is false for the work-items of a row that does not exist: they
// have nothing to write, and meet the others at the barriers.
template <typename T>
inline void reduce_and_write_row(const sycl::nd_item<2>& place, float sum, T* local, int lane, bool active, T* output) {
  local[lane] = convert<T>(sum);
  sycl::group_barrier(place.get_group());
  for (int stride = q8_1_lanes / 2; stride > 0; stride /= 2) {
    if (lane < stride) local[lane] = local[lane] + local[lane + stride];
    sycl::group_barrier(place.get_group());
  }
  if (lane == 0 && active) *output = local[0];
}

#endif

}  // namespace quillon
