// How a reader sums the products of a chunk's activations with its values, from left to right. `x.v(i)` is the activation
// at place i, for one row of activations or for several at once: whatever can be multiplied by a value and added up.
#pragma once

#include "kernels/lanes.h"

namespace quillon {

// `value(i)` is the value at place i and gets i as a constant.
template <typename Chunk, typename Value, int... I>
__attribute__((always_inline)) inline auto sum_products(const Chunk& x, Value value, constants<0, I...>) {
  auto s = x.v(std::integral_constant<int, 0>{}) * value(std::integral_constant<int, 0>{});
  ((s = multiply_add(x.v(std::integral_constant<int, I>{}), value(std::integral_constant<int, I>{}), s)), ...);
  return s;
}
template <int CHUNK, typename Chunk, typename Value>
__attribute__((always_inline)) inline auto sum_products(const Chunk& x, Value value) {
  return sum_products(x, value, first_constants<CHUNK>{});
}

// What a chunk's sum of products is multiplied by, and what the sum of its activations is.
template <typename T>
struct scale_and_minimum {
  values<T> scale;
  values<T> minimum;
};

#ifdef QUILLON_VECTOR_LANES

// A table of up to sixteen floats, rounded to T, for `look_up`.
template <typename T, int COUNT>
inline lanes<float> rounded_table(const float (&entries)[COUNT]) {
  lanes<float> table = {};
#pragma unroll
  for (int i = 0; i < COUNT; ++i) table[i] = entries[i];
  if constexpr (is_in_float<T>)
    return rounded_values<T>(table).value;
  else
    return table;
}

// The values of the nibbles that begin at bit SHIFT.
template <typename T, int SHIFT>
inline values<T> looked_up_nibbles(lanes<float> table, words from) {
  return exact_values<T>(look_up(table, (from >> SHIFT) & 15u));
}

// Such a sum for values that are looked up: in each byte of the words one nibble is the index of a value, and the other that
// of the next. A loop that stays one: the compiler takes half a minute over sixteen permutations in a row. The sum begins
// with -0, to which the first product is added without a change.
enum class first_nibble { low, high };

template <typename T, first_nibble FIRST, typename Chunk, typename Pairs>
inline auto sum_looked_up(const Chunk& x, const Pairs& pairs, lanes<float> table) {
  constexpr int FIRST_SHIFT = FIRST == first_nibble::low ? 0 : 4;
  auto s = x.minus_zero();
  unrolled<2>([&](auto word) {
    auto rest = pairs[word];
#pragma clang loop unroll(disable)
    for (int i = 0; i < 8; i += 2) {
      s = multiply_add(x.v(8 * word + i), looked_up_nibbles<T, FIRST_SHIFT>(table, rest), s);
      s = multiply_add(x.v(8 * word + i + 1), looked_up_nibbles<T, 4 - FIRST_SHIFT>(table, rest), s);
      rest >>= 8;
    }
  });
  return s;
}

#endif

}  // namespace quillon
