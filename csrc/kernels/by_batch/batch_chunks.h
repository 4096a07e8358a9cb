// The skeleton of the kernels for a handful of activation rows: the chunks, rounds and the tree of
// kernels/matvec/chunks.h, where a value of the weight, decoded once, meets several activation rows.
//
//                    output rows ──►
//   activation row   |  g1 = 0  |  g1 = 1  | ...
//     b0             | row0, +1 | row0, +1 |          g0 = 0
//     b0 + 1         | row0, +1 | row0, +1 |
//     b0 + 2         | row0, +1 | ...                 g0 = 1
//
// On a GPU a work-group (g0, g1) owns a tile of two output rows by two activation rows. On the host device a work-item
// owns up to eight activation rows and walks over a run of output rows. Each output is formed alone: it goes through the
// operations of the kernel for one activation row, and has its bits.
#pragma once

#include "kernels/matvec/chunks.h"

namespace quillon {

// A value of each of several activation rows.
template <typename T, int BATCH>
struct batch_values {
  values<T> row[BATCH];

  friend batch_values operator*(const batch_values& a, values<T> weight) {
    batch_values product;
    unrolled<BATCH>([&](auto b) { product.row[b] = a.row[b] * weight; });
    return product;
  }
};
template <typename T, int BATCH>
inline batch_values<T, BATCH> multiply_add(const batch_values<T, BATCH>& a, values<T> weight,
                                           const batch_values<T, BATCH>& c) {
  batch_values<T, BATCH> sum;
  unrolled<BATCH>([&](auto b) { sum.row[b] = multiply_add(a.row[b], weight, c.row[b]); });
  return sum;
}

// The same chunk of several activation rows.
template <typename T, typename Activations, int BATCH>
struct batch_chunk {
  Activations row[BATCH];

  template <typename Place>
  batch_values<T, BATCH> v(Place i) const {
    return each([=](const Activations& x) { return x.v(i); }, first_constants<BATCH>{});
  }
  // What a sum of looked-up values begins with.
  batch_values<T, BATCH> minus_zero() const {
    return each([](const Activations& x) { return x.minus_zero(); }, first_constants<BATCH>{});
  }

 private:
  template <typename Body, int... B>
  batch_values<T, BATCH> each(Body body, constants<B...>) const {
    return {{body(row[B])...}};
  }
};

}  // namespace quillon

#ifdef QUILLON_VECTOR_LANES
#include "kernels/by_batch/batch_chunks_on_vectors.h"
#else
#include "kernels/by_batch/batch_chunks_on_items.h"
#endif
