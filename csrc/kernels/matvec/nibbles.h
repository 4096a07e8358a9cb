// What the kernels of 4-bit formats share: a chunk of sixteen elements is eight neighbouring quant bytes of a
// block, one 64-bit word, in which two orders of the elements occur:
//
//   split (q4_0, q4_1, nf4, fp4): the two nibbles of a byte stand for elements 32 apart
//
//     byte     0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31
//     element  0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31
//         and 32 .... 39 | 40 ... 47 | 48 ... 55 | 56 ... 63
//            work-item 0 |     1     |     2     |     3
//
//     Work-item 4j + c takes bytes 8c to 8c + 7 of block j of the round: eight activations at 8c of the block
//     and eight at 32 + 8c, in the order 8c, 32 + 8c, 8c + 1, 32 + 8c + 1, ...
//
//   paired (q4_0 woq): a byte stands for two neighbouring elements, so that a chunk is sixteen neighbours
//
//     byte     0 ..... 7 | 8 .... 15 | 16 ... 23 | 24 ... 31
//     element  0 .... 15 | 16 ... 31 | 32 ... 47 | 48 ... 63
//
// q4_k is split as well, over 16 elements in place of 32.
#pragma once

#include "kernels/matvec/chunks.h"

namespace quillon {

// The activations of a chunk in split order: element 2i belongs to the first nibble of byte i, 2i + 1 to the
// second. DISTANCE is that of the two elements of a byte: 16 in q4_k.
template <typename T, int DISTANCE = 32>
struct load_split {
  activations<T, 16> operator()(const T* base, int item) const {
    const int place_in_block = item % (DISTANCE / 8);
    const uint32_t x = (item - place_in_block) * 16 + place_in_block * 8;
    T first[8];
    T second[8];
    load_elements(base, x, first);
    load_elements(base, x + DISTANCE, second);
    return interleave(first, second, first_constants<8>{});
  }

 private:
  template <int... I>
  static activations<T, 16> interleave(const T (&first)[8], const T (&second)[8], constants<I...>) {
    activations<T, 16> chunk;
    ((chunk.v[2 * I] = to_lane(first[I]), chunk.v[2 * I + 1] = to_lane(second[I])), ...);
    return chunk;
  }
};

}  // namespace quillon
