// The skeleton of batch_chunks.h for the host device: one work-item has all the lanes of a work-group, up to four
// activation rows, and walks over a run of output rows. The activation rows lie in local memory one after the other,
// each in the order of kernels/matvec/chunks_on_vectors.h.
#pragma once

#include "kernels/matvec/vectors.h"

namespace quillon {

// Output rows that take turns with the same activations, which then come from the first cache: those of four whole rows
// do not fit into it.
inline constexpr int ROWS_IN_TURN = 8;

// Asks for memory that will be read soon, without waiting for it. Rows that take turns are read side by side, which the
// processor does not foresee: it would wait for each of their lines.
inline void prefetch(const uint8_t* from, int64_t bytes) {
  using sycl::access::address_space;
  using sycl::access::decorated;
  sycl::address_space_cast<address_space::global_space, decorated::yes>(const_cast<uint8_t*>(from)).prefetch(bytes);
}

// The output rows from `row` to `last` of BATCH activation rows that begin at `stored`, `stride` elements apart.
template <typename T, int VECTORS, int BATCH, typename Reader>
inline void multiply_stored_rows(const Reader& reader, const stored_lane<T>* stored, int64_t stride, int32_t chunks,
                                 uint64_t row, uint64_t last, uint64_t output_size, T* output) {
  constexpr int CHUNK = Reader::CHUNK, BYTES_OF_CHUNK = CHUNK / 2;  // formats of four bits
  using sums = batch_values<T, BATCH>;
  const int64_t chunks_of_weight = static_cast<int64_t>(output_size) * chunks;
  const auto chunk_at = [=](int32_t c) {
    batch_chunk<T, activations<T, CHUNK>, BATCH> x;
    unrolled<BATCH>([&](auto b) { x.row[b].stored = stored + b * stride + static_cast<int64_t>(c) * CHUNK; });
    return x;
  };
  const auto add_row = [=](sums& acc, const auto& x, const auto& at) {
    acc = multiply_add(reader.template sum<T>(x, at), reader.template scale<T>(at), acc);
  };
  for (; row < last; row += ROWS_IN_TURN) {
    const int rows = static_cast<int>(last - row < ROWS_IN_TURN ? last - row : ROWS_IN_TURN);
    const int64_t first = static_cast<int64_t>(row) * chunks;
    sums acc[VECTORS][ROWS_IN_TURN] = {};
    const uint8_t* codes_of_next =
        reader.quants + (first + static_cast<int64_t>(ROWS_IN_TURN) * chunks) * BYTES_OF_CHUNK;
    const bool has_next = row + 2 * ROWS_IN_TURN <= last;
    int32_t c = 0;
    for (; c + LANES <= chunks; c += LANES) {
      const auto x = chunk_at(c);
      if (has_next)
        prefetch(codes_of_next + static_cast<int64_t>(c) * ROWS_IN_TURN * BYTES_OF_CHUNK,
                 LANES * ROWS_IN_TURN * BYTES_OF_CHUNK);
#pragma clang loop unroll(disable)
      for (int t = 0; t < rows; ++t)
        add_row(acc[c / LANES % VECTORS][t], x,
                chunk_place<CHUNK, Reader::BLOCK, true>{first + static_cast<int64_t>(t) * chunks + c, LANES});
    }
    if (c < chunks) {
      const auto x = chunk_at(c);
#pragma clang loop unroll(disable)
      for (int t = 0; t < rows; ++t) {
        const int64_t at = first + static_cast<int64_t>(t) * chunks + c;
        sums& of_row = acc[c / LANES % VECTORS][t];
        sums sum = of_row;
        if (at + LANES <= chunks_of_weight)
          add_row(sum, x, chunk_place<CHUNK, Reader::BLOCK, true>{at, LANES});
        else
          add_row(sum, x, chunk_place<CHUNK, Reader::BLOCK, false>{at, static_cast<int>(chunks_of_weight - at)});
        unrolled<BATCH>([&](auto b) { of_row.row[b] = in_first_lanes<T>(chunks - c, sum.row[b], of_row.row[b]); });
      }
    }
    for (int t = 0; t < rows; ++t) {
      unrolled<BATCH>([&](auto b) {
        values<T> of_row[VECTORS];
        unrolled<VECTORS>([&](auto i) { of_row[i] = acc[i][t].row[b]; });
        output[b * output_size + row + t] = sum_of_lanes<T, VECTORS>(of_row);
      });
    }
  }
}

template <typename T, int WG_SIZE, int ROW_TILE, typename Reader>
inline void multiply_scaled_chunks_by_batch(const Reader& reader, uint64_t state_size, uint64_t batch, const T* input,
                                            const sycl::local_accessor<T, 1>& local, uint64_t output_size, T* output) {
  constexpr int CHUNK = Reader::CHUNK;
  constexpr int VECTORS = WG_SIZE / LANES;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t batch_groups = place.get_group_range(0);
  const uint64_t b0 = batch * place.get_group(0) / batch_groups;
  const auto present = static_cast<int>(batch * (place.get_group(0) + 1) / batch_groups - b0);
  const uint64_t groups = place.get_group_range(1);
  const uint64_t first = output_size * place.get_group(1) / groups;
  const uint64_t last = output_size * (place.get_group(1) + 1) / groups;
  const auto chunks = static_cast<int32_t>(state_size / CHUNK);
  const int64_t stride = (static_cast<int64_t>(chunks) + LANES - 1) / LANES * LANES * CHUNK;
  auto* stored = reinterpret_cast<stored_lane<T>*>(&local[0]);
  for (int b = 0; b < present; ++b)
    arrange_activations<T, Reader, false>(input + (b0 + b) * state_size, chunks, stored + b * stride);

  const auto multiply = [&](auto batch_rows) {
    multiply_stored_rows<T, VECTORS, batch_rows>(reader, stored, stride, chunks, first, last, output_size,
                                                 output + b0 * output_size);
  };
  switch (present) {
    case 4:
      return multiply(std::integral_constant<int, 4>{});
    case 3:
      return multiply(std::integral_constant<int, 3>{});
    case 2:
      return multiply(std::integral_constant<int, 2>{});
    default:
      return multiply(std::integral_constant<int, 1>{});
  }
}

}  // namespace quillon
