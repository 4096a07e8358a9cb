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

// An integer of fewer than 24 bits.
inline lanes<float> to_float(lanes<int32_t> from) {
  return exact_values<float>(from);
}

#ifdef QUILLON_VECTOR_LANES

// Sums of two neighbouring products of unsigned bytes below 128 with signed ones. Processors have this as one operation,
// which limits sums to sixteen bits; the compiler finds it only where the limits are written down.
template <int COUNT, int... I>
inline vector<int16_t, COUNT / 2> sums_of_pairs(vector<uint8_t, COUNT> a, vector<int8_t, COUNT> b, constants<I...>) {
  using sums = vector<int32_t, COUNT / 2>;
  constexpr int PAIRS = COUNT / 2;
  const sums even = converted<int32_t, uint8_t, PAIRS>(__builtin_shufflevector(a, a, (2 * I)...)) *
                    converted<int32_t, int8_t, PAIRS>(__builtin_shufflevector(b, b, (2 * I)...));
  const sums odd = converted<int32_t, uint8_t, PAIRS>(__builtin_shufflevector(a, a, (2 * I + 1)...)) *
                   converted<int32_t, int8_t, PAIRS>(__builtin_shufflevector(b, b, (2 * I + 1)...));
  sums sum = even + odd;
  sum = sum < -0x8000 ? sums(-0x8000) : sum;
  sum = sum > 0x7FFF ? sums(0x7FFF) : sum;
  return converted<int16_t>(sum);
}
template <int COUNT>
inline vector<int16_t, COUNT / 2> sums_of_pairs(vector<uint8_t, COUNT> a, vector<int8_t, COUNT> b) {
  return sums_of_pairs<COUNT>(a, b, first_constants<COUNT / 2>{});
}

// The sums of the two signed halves of each word.
inline lanes<int32_t> sums_of_halves(vector<int16_t, 2 * LANES> from) {
  const auto both = bit_cast<lanes<int32_t>>(from);
  return (both << 16 >> 16) + (both >> 16);
}

// The sum of four products of unsigned bytes below 128 with signed ones.
inline lanes<int32_t> dot_bytes(words codes, words quants) {
  constexpr int BYTES = 4 * LANES;
  return sums_of_halves(
      sums_of_pairs<BYTES>(bit_cast<vector<uint8_t, BYTES>>(codes), bit_cast<vector<int8_t, BYTES>>(quants)));
}

// A byte for each element of a slice of 32.
template <typename Byte>
using slice_bytes = vector<Byte, 32>;

// The two halves of a vector, added up.
template <typename E, int COUNT, int... I>
inline vector<E, COUNT / 2> folded(vector<E, COUNT> from, constants<I...>) {
  return __builtin_shufflevector(from, from, I...) + __builtin_shufflevector(from, from, (COUNT / 2 + I)...);
}
template <typename E, int COUNT>
inline vector<E, COUNT / 2> folded(vector<E, COUNT> from) {
  return folded<E, COUNT>(from, first_constants<COUNT / 2>{});
}

// For each of sixteen slices the sum of the 32 products of its codes, `codes(slice)`, with its quants, `quants(slice)`;
// `slice` is a constant. Sums of four products must fit in sixteen bits.
template <typename Codes, typename Quants>
inline lanes<int32_t> dots_of_slices(Codes codes, Quants quants) {
  const auto eighths = [&](auto slice) __attribute__((always_inline)) {
    return folded<int16_t, 16>(sums_of_pairs<32>(codes(slice), quants(slice)));
  };
  lanes<int32_t> quarters[4];  // of slices i, 4 + i, 8 + i and 12 + i
  unrolled<4>([&](auto i) {
    const auto two = [&](auto first) __attribute__((always_inline)) {
      return joined<int16_t, 8>(eighths(first), eighths(std::integral_constant<int, first + 4>{}));
    };
    quarters[i] = sums_of_halves(joined<int16_t, 16>(two(i), two(std::integral_constant<int, i + 8>{})));
  });
  // A transposition of four by four, adding up on the way.
  const auto halves = [](lanes<int32_t> a, lanes<int32_t> b) {
    return __builtin_shufflevector(a, b, 0, 16, 1, 17, 4, 20, 5, 21, 8, 24, 9, 25, 12, 28, 13, 29) +
           __builtin_shufflevector(a, b, 2, 18, 3, 19, 6, 22, 7, 23, 10, 26, 11, 27, 14, 30, 15, 31);
  };
  const lanes<int32_t> first = halves(quarters[0], quarters[1]);
  const lanes<int32_t> second = halves(quarters[2], quarters[3]);
  return __builtin_shufflevector(first, second, 0, 1, 16, 17, 4, 5, 20, 21, 8, 9, 24, 25, 12, 13, 28, 29) +
         __builtin_shufflevector(first, second, 2, 3, 18, 19, 6, 7, 22, 23, 10, 11, 26, 27, 14, 15, 30, 31);
}

// The blocks of sixteen slices, eight neighbouring ones from each of two places.
struct q8_1_blocks {
  int8_t quants[LANES][32];
  lanes<float> d;
  lanes<float> s;

  q8_1_blocks(const block_q8_1* first, const block_q8_1* second) {
    for (int slice = 0; slice < LANES; ++slice) {
      const block_q8_1& block = slice < 8 ? first[slice] : second[slice - 8];
      __builtin_memcpy(quants[slice], block.qs, 32);
      d[slice] = convert<float>(block.d);
      s[slice] = convert<float>(block.s);
    }
  }
  slice_bytes<int8_t> quants_of(int slice) const { return load_vector<int8_t, 32>(quants[slice]); }
};
static_assert(sizeof(q8_1_blocks) == 640);  // what kernel_table.h counts with

#else

// A byte of a word, as a signed number.
inline int signed_byte_of(uint32_t word, int index) {
  return static_cast<int>(word << (24 - 8 * index)) >> 24;
}

// The sum of four products of unsigned with signed bytes.
inline int dot_bytes(uint32_t codes, uint32_t quants) {
  int sum = static_cast<int>(codes & 255u) * signed_byte_of(quants, 0);
  unrolled<3>(
      [&](auto b) { sum += static_cast<int>((codes >> (8 * (b + 1))) & 255u) * signed_byte_of(quants, b + 1); });
  return sum;
}

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
