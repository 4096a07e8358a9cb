// How kernels read q8_1, the activations of the kernels that multiply integers: a lane takes a slice of a super-block of
// the weight, and with it
//
//   q8_1_blocks   a whole block, for slices of 32 neighbouring elements
//
//   one block   0 | d half | 2 | s half | 4 | q0 q1 q2 q3 | q4 q5 q6 q7 | ... | q28 q29 q30 q31 |
//                                             word 0        word 1            word 7
#pragma once

#include "formats/q8_1.h"
#include "kernels/lanes.h"

namespace quillon {

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

// An integer of fewer than 24 bits.
inline lanes<float> to_float(lanes<int32_t> from) {
  return exact_values<float>(from);
}

#ifdef QUILLON_VECTOR_LANES

// The blocks of sixteen lanes: eight neighbouring ones from each of two places.
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

#else

// Loads of records are of 32 or 64 bits throughout: a device takes a vector of narrower ones apart.

// Two neighbouring halves, loaded as a word.
struct two_halves {
  float first;
  float second;

  explicit two_halves(uint32_t word)
      : first(convert<float>(half_from_bits(static_cast<uint16_t>(word)))),
        second(convert<float>(half_from_bits(static_cast<uint16_t>(word >> 16)))) {}
};

// The block of slice `slice` of super-block `number` of a row.
struct q8_1_blocks {
  const block_q8_1& block;
  float d;
  float s;

  q8_1_blocks(const block_q8_1* row, int32_t number, uint32_t slice) : block((row + 8 * number)[slice]) {
    const two_halves head(load<uint32_t, 4>(&block));
    d = head.first;
    s = head.second;
  }
  uint32_t quant_word(int i) const { return load<uint32_t, 4>(block.qs + 4 * i); }
};

// Slice `slice` of super-block `number` of a row times its activations, of which a super-block has eight blocks.
template <typename Reader>
inline float dot_of_slice(const typename Reader::block* row, const block_q8_1* activations, int32_t number,
                          uint32_t slice) {
  return Reader::dot(Reader::load(row, number, slice), typename Reader::activations(activations, number, slice));
}

#endif

}  // namespace quillon
