// How kernels read q4_1.
//
// One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0      byte 1            byte 31
//           | e32  e0 | e33  e1 |  ...  | e63  e31 |      a chunk is eight neighbouring bytes, sixteen elements
//   pairs   | d half | m half |                           W = d * e + m; m meets the sum of a chunk's activations
#pragma once

#include "readers/expansion.h"
#include "readers/orders.h"
#include "readers/places.h"
#include "readers/sums.h"

namespace quillon {

struct q4_1_reader {
  static constexpr int CHUNK = 16, BLOCK = 64, UNIT = 64;
  using order = split<32>;
  const uint8_t* quants;
  const uint8_t* pairs;

  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const auto codes = codes_of_chunk(at, quants);
    return sum_products<CHUNK>(x, [=](auto i) { return codes.template nibble<T, i>(0); });
  }
  template <typename T, typename Place>
  scale_and_minimum<T> scale(const Place& at) const {
    const half_pair pair = halves_of_block(at, pairs);
    return {rounded_halves<T>(pair.first), rounded_halves<T>(pair.second)};
  }
};

// Expanded in T, the product rounded before the sum.
struct q4_1_expander : split_nibbles<q4_1_expander> {
  const uint8_t* pairs;

  template <typename T>
  auto value(int64_t block) const {
    const values<T> d = scale_values<T>(load_half(pairs + 4 * block));
    const values<T> m = scale_values<T>(load_half(pairs + 4 * block + 2));
    return [d, m](words byte) {
      return two_values{add(multiply(d, biased_codes<T>(byte & 15u, 0)), m),
                        add(multiply(d, biased_codes<T>(byte >> 4, 0)), m)};
    };
  }
};

}  // namespace quillon
