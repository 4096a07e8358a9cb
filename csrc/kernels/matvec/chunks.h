// The skeleton of the matrix-vector kernels that deal out K in chunks of 8 or 16 elements: all formats with 64-element
// blocks but q5_0 and q5_1, and q4_k, q6_k and fp6_k with blocks of 256.
//
// A work-group owns ROW_TILE output rows and has WG_SIZE lanes. The row of K elements is cut into chunks, and chunk c
// goes to lane c mod WG_SIZE, so a round covers WG_SIZE neighbouring chunks of a row:
//
//             K ──►
//   row0     | lane 0 | lane 1 | ... | lane WG-1 | lane 0 | lane 1 | ...
//   row0 + 1 | lane 0 | lane 1 | ... | lane WG-1 | lane 0 | lane 1 | ...
//              └────────── round 0 ────────────┘ └─ round 1 ...
//
// There is one accumulator for each row and lane, of type T, like every product and sum. A tree over the lanes, from a
// stride of WG_SIZE / 2 down to 1, adds the accumulators of a row.
//
//   chunks_on_items.h     a lane is a work-item, and the tree goes over local memory
//   chunks_on_vectors.h   a work-item has all the lanes, and walks over many rows
//
// A kernel names a reader, which says where the codes of a chunk are and what they mean, and gives in a function what
// one row's chunk adds to that row's accumulator:
//
//   add_row(acc, x, at)   `x` holds the chunk's activations, `at` says where the chunk lies in the row's weight
//
// What a reader tells the skeleton:
//
//   CHUNK, BLOCK   elements of a chunk; of a block, the unit in which the weight is counted from its start
//   UNIT           elements of the smallest part of a block whose number is formed from the row's start
//   order          which element of the row the sum of a chunk takes at place i (readers/orders.h)
//   sum, scale     the sum of a chunk's products, unscaled, and what it is multiplied by
#pragma once

namespace quillon {

// Whether the chunks that remain behind the full rounds are summed: the kernels of q4_k and q6_k leave them out.
enum class tail_round { summed, dropped };

}  // namespace quillon

#ifdef QUILLON_VECTOR_LANES
#include "kernels/matvec/chunks_on_vectors.h"
#else
#include "kernels/matvec/chunks_on_items.h"
#endif

namespace quillon {

// The kernels whose chunks add their sum times a scale.
template <typename T, int WG_SIZE, int ROW_TILE, typename Reader>
inline void multiply_scaled_chunks(const Reader& reader, uint64_t state_size, const T* input,
                                   const sycl::local_accessor<T, 1>& local, uint64_t output_size, T* output) {
  multiply_chunks<T, WG_SIZE, ROW_TILE, Reader, tail_round::summed, false>(
      state_size, input, local, output_size, output, [=](values<T>& acc, const auto& x, const auto& at) {
        acc = multiply_add(reader.template sum<T>(x, at), reader.template scale<T>(at), acc);
      });
}

}  // namespace quillon
