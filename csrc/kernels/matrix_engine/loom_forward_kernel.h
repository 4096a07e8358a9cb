// The product with a batch of activation rows on a device with a matrix engine, the weight being decoded on the way:
// output[b][n] = sum over k of input[b][k] * W[n][k], for q4_0, q8_0, fp8_e4m3 and fp8_e5m2.
//
//   IN_T     element type of input and output             M_TAIL   activation rows of the last row tile, 1 to 8; all
//   MAT_T    of the engine's operands                               others have 8
//   ACC_T    of its sums                                  N_TILE   output columns of a tile, the engine's width
//   RED_T    of partial tiles and of their sum            K_SPLIT  work-items of a work-group, which share the blocks
//                                                                  of K among them
//
// A column of the output is a row of the weight, of `blocks_per_row` blocks of 64 elements. A work-group has a tile:
//
//                                  K, in blocks
//                   | item 0: blocks_per_item | item 1 | ... | item 7 |
//   8 or M_TAIL     +-------------------------+--------+-----+--------+          N_TILE columns
//   activation rows | A                                               |       +------------------+
//                   +-------------------------------------------------+     B | item 0           |
//                                                                             | item 1           |  K
//   A block, 8 by 64 by N_TILE, is four operations of the engine:             | ...              |
//                                                                             +------------------+
//     slice j: A 8 x 16, MAT_T     B 16 x N_TILE, MAT_T, codes without scale
//     C = sum over j of A * B, in ACC_T; the tile's running total += C * scales of the columns
//
//   local memory  | row 0: total of item 0, of item 1, ... of item 7 | row 1: ... |     RED_T
//   work-item i adds up row i, from item 0 to item 7 in RED_T, and stores it as IN_T.
//
// So a result has passed RED_T, of 16 bits, whatever IN_T is. On the host device a work-item has a strip of columns and all
// activation rows (tile_on_vectors.h), of which `row_tiles` tells the number; it does the same in the same order, and the
// sum of an element does not depend on the batch.
#pragma once

#include "kernels/matrix_engine/operands.h"
#include "kernels/simd.h"
#ifdef QUILLON_VECTOR_LANES
#include "kernels/matrix_engine/tile_on_vectors.h"
#else
#include "kernels/matrix_engine/tile_on_engine.h"
#endif

template <typename IN_T, typename MAT_T, typename ACC_T, typename RED_T, int M_TAIL, int N_TILE, int K_SPLIT>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void loom_forward_kernel(const IN_T* input, const uint8_t* weight, const uint8_t* scales, IN_T* output,
                         uint64_t blocks_per_row, uint64_t blocks_per_item, uint64_t output_size, int32_t qtype
#ifdef QUILLON_VECTOR_LANES
                         ,
                         uint64_t row_tiles
#endif
) {
  using namespace quillon;
  static_assert(std::is_same_v<ACC_T, float>);
  const engine_arguments<IN_T> arguments{input, weight, scales, output, blocks_per_row, blocks_per_item, output_size};
#ifdef QUILLON_VECTOR_LANES
  multiply_strips<IN_T, MAT_T, RED_T, M_TAIL, N_TILE, K_SPLIT>(arguments, qtype, row_tiles);
#else
  simd::local_memory<8 * K_SPLIT * N_TILE * sizeof(RED_T)> partial_tiles;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  if (M_TAIL == 8 || place.get_group(1) + 1 == place.get_group_range(1))
    multiply_tile<IN_T, MAT_T, RED_T, M_TAIL, N_TILE, K_SPLIT>(arguments, qtype, partial_tiles);
  else
    multiply_tile<IN_T, MAT_T, RED_T, 8, N_TILE, K_SPLIT>(arguments, qtype, partial_tiles);
#endif
}
