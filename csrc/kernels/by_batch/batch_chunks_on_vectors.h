// The skeleton of batch_chunks.h for the host device: one work-item has all the lanes of a work-group, up to eight
// activation rows, and walks over a run of output rows. The activation rows lie in local memory in the order of
// kernels/matvec/chunks_on_vectors.h, and take turns in it:
//
//   | row 0: chunks 0 to 15 | row 1: chunks 0 to 15 | ... | row 0: chunks 16 to 31 | ...
//
// What meets the same sixteen chunks is neighbours then. Whole rows behind each other would be a power of two apart often
// enough, and such lines drive each other out of the first cache.
#pragma once

#include "kernels/matvec/vectors.h"

namespace quillon {

// Output rows that take turns with the same activations, which then come from the first cache: those of eight whole rows
// do not fit into it.
inline constexpr int ROWS_IN_TURN = 8;
// Activation rows of a work-item, and how many at a time meet the values of a chunk while they are decoded: the sum of a
// row's products is a chain of additions, each of which waits four cycles for the one before.
inline constexpr int BATCH_OF_ITEM = 8, BATCH_OF_PASS = 4;

// Asks for memory that will be read soon, without waiting for it. Rows that take turns are read side by side, which the
// processor does not foresee: it would wait for each of their lines.
inline void prefetch(const uint8_t* from, int64_t bytes) {
  using sycl::access::address_space;
  using sycl::access::decorated;
  sycl::address_space_cast<address_space::global_space, decorated::yes>(const_cast<uint8_t*>(from)).prefetch(bytes);
}

// The output rows from `row` to `last` of `batch` activation rows.
template <typename T, int VECTORS, typename Reader>
inline void multiply_stored_rows(const Reader& reader, const stored_lane<T>* stored, int batch, int32_t chunks,
                                 uint64_t row, uint64_t last, uint64_t output_size, T* output) {
  constexpr int CHUNK = Reader::CHUNK, BYTES_OF_CHUNK = CHUNK / 2;  // formats of four bits
  const int64_t chunks_of_weight = static_cast<int64_t>(output_size) * chunks;
  // `add(sum, products, scale)` for the sum of each activation row.
  const auto add_chunk = [=](values<T>(&sums)[BATCH_OF_ITEM], int32_t c, const auto& at, const auto& add) {
    const stored_lane<T>* of_chunks = stored + static_cast<int64_t>(c) * batch * CHUNK;
    const values<T> scale = reader.template scale<T>(at);
    const auto pass = [&](auto rows, int b) {
      batch_chunk<T, activations<T, CHUNK>, rows> x;
      unrolled<rows>([&](auto i) { x.row[i] = {of_chunks + (b + i) * LANES * CHUNK}; });
      const auto products = reader.template sum<T>(x, at);
      unrolled<rows>([&](auto i) { add(sums[b + i], products.row[i], scale); });
    };
    int b = 0;
#pragma clang loop unroll(disable)
    for (; b + BATCH_OF_PASS <= batch; b += BATCH_OF_PASS) pass(std::integral_constant<int, BATCH_OF_PASS>{}, b);
    if (batch - b >= 2) {
      pass(std::integral_constant<int, 2>{}, b);
      b += 2;
    }
    if (b < batch) pass(std::integral_constant<int, 1>{}, b);
  };
  const auto add_all = [](values<T>& sum, values<T> products, values<T> scale) {
    sum = multiply_add(products, scale, sum);
  };
  for (; row < last; row += ROWS_IN_TURN) {
    const int rows = static_cast<int>(last - row < ROWS_IN_TURN ? last - row : ROWS_IN_TURN);
    const int64_t first = static_cast<int64_t>(row) * chunks;
    values<T> acc[VECTORS][ROWS_IN_TURN][BATCH_OF_ITEM] = {};
    const uint8_t* codes_of_next =
        reader.quants + (first + static_cast<int64_t>(ROWS_IN_TURN) * chunks) * BYTES_OF_CHUNK;
    const bool has_next = row + 2 * ROWS_IN_TURN <= last;
    int32_t c = 0;
    for (; c + LANES <= chunks; c += LANES) {
      if (has_next)
        prefetch(codes_of_next + static_cast<int64_t>(c) * ROWS_IN_TURN * BYTES_OF_CHUNK,
                 LANES * ROWS_IN_TURN * BYTES_OF_CHUNK);
#pragma clang loop unroll(disable)
      for (int t = 0; t < rows; ++t)
        add_chunk(acc[c / LANES % VECTORS][t], c,
                  chunk_place<CHUNK, Reader::BLOCK, true>{first + static_cast<int64_t>(t) * chunks + c, LANES},
                  add_all);
    }
    if (c < chunks) {
      const auto add_some = [=](values<T>& sum, values<T> products, values<T> scale) {
        sum = in_first_lanes<T>(chunks - c, multiply_add(products, scale, sum), sum);
      };
#pragma clang loop unroll(disable)
      for (int t = 0; t < rows; ++t) {
        const int64_t at = first + static_cast<int64_t>(t) * chunks + c;
        values<T>(&sums)[BATCH_OF_ITEM] = acc[c / LANES % VECTORS][t];
        if (at + LANES <= chunks_of_weight)
          add_chunk(sums, c, chunk_place<CHUNK, Reader::BLOCK, true>{at, LANES}, add_some);
        else
          add_chunk(sums, c, chunk_place<CHUNK, Reader::BLOCK, false>{at, static_cast<int>(chunks_of_weight - at)},
                    add_some);
      }
    }
    for (int b = 0; b < batch; ++b)
      for (int t = 0; t < rows; ++t) {
        values<T> of_row[VECTORS];
        unrolled<VECTORS>([&](auto i) { of_row[i] = acc[i][t][b]; });
        output[b * output_size + row + t] = sum_of_lanes<T, VECTORS>(of_row);
      }
  }
}

template <typename T, int WG_SIZE, int ROW_TILE, typename Reader>
inline void multiply_scaled_chunks_by_batch(const Reader& reader, uint64_t state_size, uint64_t batch, const T* input,
                                            const sycl::local_accessor<T, 1>& local, uint64_t output_size, T* output) {
  constexpr int CHUNK = Reader::CHUNK;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t batch_groups = place.get_group_range(0);
  const uint64_t b0 = batch * place.get_group(0) / batch_groups;
  const auto present = static_cast<int>(batch * (place.get_group(0) + 1) / batch_groups - b0);
  const uint64_t groups = place.get_group_range(1);
  const uint64_t first = output_size * place.get_group(1) / groups;
  const uint64_t last = output_size * (place.get_group(1) + 1) / groups;
  const auto chunks = static_cast<int32_t>(state_size / CHUNK);
  auto* stored = first_line<stored_lane<T>>(local);
  for (int b = 0; b < present; ++b)
    arrange_activations<T, Reader, false>(input + (b0 + b) * state_size, chunks, stored + b * LANES * CHUNK, present);
  multiply_stored_rows<T, WG_SIZE / LANES>(reader, stored, present, chunks, first, last, output_size,
                                           output + b0 * output_size);
}

}  // namespace quillon
