// The orders in which a chunk's elements are summed. The chunk's activations lie in RUNS runs of neighbours in the row;
// run r of chunk c starts at element `start(c, r)`, and the sum takes at place i element `place_of(i)` of run
// `run_of(i)`.
//
//   neighbours<CHUNK>   the chunk's elements as they stand in the row
//
//   split<DISTANCE>     sixteen elements in eight bytes whose two nibbles stand for elements DISTANCE apart: the first
//                       nibble of byte 0, the second, the first of byte 1, ... For DISTANCE 32 (q4_0, q4_1, nf4, fp4),
//                       where four chunks are a block:
//
//                         byte     0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31
//                         element  0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31
//                             and 32 .... 39 | 40 ... 47 | 48 ... 55 | 56 ... 63
//                                  chunk 0   |  chunk 1  |  chunk 2  |  chunk 3
//
//                       For DISTANCE 16 (q4_k), two chunks are a sub-block in the same way.
//
//   fp6_order           sixteen neighbours, each four of them in the order 2, 3, 0, 1 (fp6, fp6_k)
#pragma once

#include "formats/small_floats.h"

namespace quillon {

template <int CHUNK>
struct neighbours {
  static constexpr int RUNS = 1;
  static constexpr int start(int chunk, int /*run*/) { return CHUNK * chunk; }
  static constexpr int run_of(int /*i*/) { return 0; }
  static constexpr int place_of(int i) { return i; }
};

template <int DISTANCE>
struct split {
  static constexpr int RUNS = 2;
  static constexpr int CHUNKS = DISTANCE / 8;  // that share 2 * DISTANCE elements
  static constexpr int start(int chunk, int run) {
    return (chunk - chunk % CHUNKS) * 16 + chunk % CHUNKS * 8 + run * DISTANCE;
  }
  static constexpr int run_of(int i) { return i % 2; }
  static constexpr int place_of(int i) { return i / 2; }
};

struct fp6_order {
  static constexpr int RUNS = 1;
  static constexpr int start(int chunk, int /*run*/) { return 16 * chunk; }
  static constexpr int run_of(int /*i*/) { return 0; }
  static constexpr int place_of(int i) { return i / 4 * 4 + fp6_element_of_byte(byte_at(i % 4)); }
  // The byte of a step's codes that stands for each place of four.
  static constexpr int byte_at(int place) { return (0x3120 >> (4 * place)) & 3; }
};

}  // namespace quillon
