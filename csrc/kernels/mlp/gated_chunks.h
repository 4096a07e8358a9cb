// The skeleton of the fused MLP over the readers of matvec/chunks.h: a work-group's rows of the gate, then those of the up
// projection, in the chunks and rounds of a product with one weight, so that each sum has that product's bits.
//
//   work-items   Lines of WG_SIZE elements in local memory, one for each row of the tile and either weight, gate first, get
//                the work-items' sums and are added up by one tree. Local memory has an element more for each row that the
//                last tile lacks.
//   vectors      A work-item walks over a run of rows, of which the kernel is told the number.
#pragma once

#include "kernels/matvec/chunks.h"
#include "kernels/mlp/gated.h"

// The number of rows, the last parameter of a kernel in the form of vectors.
#ifdef QUILLON_VECTOR_LANES
#define QUILLON_ROWS_PARAMETER , uint64_t rows
#define QUILLON_ROWS , rows
#else
#define QUILLON_ROWS_PARAMETER
#define QUILLON_ROWS
#endif

namespace quillon {

#ifdef QUILLON_VECTOR_LANES

template <typename T, int WG_SIZE, int ROW_TILE, typename Reader>
inline void multiply_gated_chunks(const Reader& gate, const Reader& up, uint64_t state_size, const T* input,
                                  const sycl::local_accessor<T, 1>& local, int32_t act_type, T* output, uint64_t rows) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const uint64_t groups = place.get_group_range(0);
  const arranged_row<T, WG_SIZE, Reader, tail_round::summed, false> arranged(state_size, input, local);
  const Reader readers[2] = {gate, up};
  write_gated_rows<T, T>(act_type, rows * place.get_group(0) / groups, rows * (place.get_group(0) + 1) / groups, output,
                         [&](int which, uint64_t row) __attribute__((always_inline)) {
                           const Reader reader = readers[which];
                           return arranged.multiply(row, rows, [=](values<T>& acc, const auto& x, const auto& at) {
                             acc = multiply_add(reader.template sum<T>(x, at), reader.template scale<T>(at), acc);
                           });
                         });
}

#else

template <typename T, int WG_SIZE, int ROW_TILE, typename Reader>
inline void multiply_gated_chunks(const Reader& gate, const Reader& up, uint64_t state_size, const T* input,
                                  const sycl::local_accessor<T, 1>& local, int32_t act_type, T* output) {
  constexpr uint64_t LINES = 2 * ROW_TILE;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const int item = static_cast<int>(place.get_local_id(0));
  const uint64_t row0 = place.get_group(0) * ROW_TILE;
  const bool is_last = place.get_group(0) + 1 == place.get_group_range(0);
  const uint64_t end = row0 + ROW_TILE - (is_last ? local.size() - LINES * WG_SIZE : 0);

  const auto sum_rows_of = [&](const Reader& reader, values<T>(&acc)[ROW_TILE]) __attribute__((always_inline)) {
    sum_chunks<T, WG_SIZE, ROW_TILE, Reader, tail_round::summed, false>(
        state_size, input, item, row0, end, acc, [=](values<T>& sum, const auto& x, const auto& at) {
          sum = multiply_add(reader.template sum<T>(x, at), reader.template scale<T>(at), sum);
        });
  };
  {
    values<T> acc[ROW_TILE] = {};
    sum_rows_of(gate, acc);
    store_sums<T, WG_SIZE, 0>(item, acc, local);
  }
  {
    values<T> acc[ROW_TILE] = {};
    sum_rows_of(up, acc);
    store_sums<T, WG_SIZE, ROW_TILE>(item, acc, local);
  }
  add_up_stored<T, WG_SIZE, LINES>(place.get_group(), item, local);
  // A work-item for each row: the activation takes as long for all as for one.
  if (item < ROW_TILE && row0 + item < end)
    output[row0 + item] = gated_element<T, T>(act_type, local[item * WG_SIZE], local[(ROW_TILE + item) * WG_SIZE]);
}

#endif

}  // namespace quillon
