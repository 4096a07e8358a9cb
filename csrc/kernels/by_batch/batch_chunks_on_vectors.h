// The skeleton of batch_chunks.h for the host device: one work-item has all the lanes of a work-group, up to eight
// activation rows, and walks over a run of output rows. The activation rows lie in local memory in the order of
// kernels/matvec/chunks_on_vectors.h, and take turns in it:
//
//   | row 0: chunks 0 to 15 | row 1: chunks 0 to 15 | ... | row 0: chunks 16 to 31 | ...
//
// What meets the same sixteen chunks is neighbours then. Whole rows behind each other would be a power of two apart often
// enough, and such lines drive each other out of the first cache.
//
// A tile of two output rows by four activation rows is in registers: each activation that is loaded meets both output rows,
// and each value of the weight, as it is decoded, the four activation rows.
#pragma once

#include "kernels/matvec/vectors.h"
#include "readers/places.h"
#include "readers/sums.h"

namespace quillon {

// Output rows that take turns with the same activations, which then come from the first cache: those of eight whole rows
// do not fit into it.
inline constexpr int ROWS_IN_TURN = 8;
// Activation rows of a work-item.
inline constexpr int BATCH_OF_ITEM = 8;
// A tile's rows. A sum of products is a chain of additions, each of which waits four cycles for the one before.
inline constexpr int BATCH_OF_TILE = 4;
#ifdef QUILLON_NARROW_VECTORS
template <typename T>
inline constexpr int outputs_of_tile = 1;  // a sum takes two registers, of which there are sixteen
#else
template <typename T>
inline constexpr int outputs_of_tile = is_in_float<T> ? 1 : 2;  // roundings, not loads, are what 16-bit types wait for
#endif

// ---- a tile of output rows by activation rows -------------------------------------------------------------

// A value of each of several output rows.
template <typename T, int ROWS>
struct row_values {
  values<T> row[ROWS];
};

// A value of each output row and activation row.
template <typename T, int ROWS, int BATCH>
struct tile_values {
  batch_values<T, BATCH> row[ROWS];
};
template <typename T, int ROWS, int BATCH>
inline tile_values<T, ROWS, BATCH> operator*(const batch_values<T, BATCH>& a, const row_values<T, ROWS>& weight) {
  tile_values<T, ROWS, BATCH> product;
  unrolled<ROWS>([&](auto r) { product.row[r] = a * weight.row[r]; });
  return product;
}
template <typename T, int ROWS, int BATCH>
inline tile_values<T, ROWS, BATCH> multiply_add(const batch_values<T, BATCH>& a, const row_values<T, ROWS>& weight,
                                                const tile_values<T, ROWS, BATCH>& c) {
  tile_values<T, ROWS, BATCH> sum;
  unrolled<ROWS>([&](auto r) { sum.row[r] = multiply_add(a, weight.row[r], c.row[r]); });
  return sum;
}

// The activations that a tile's output rows share.
template <typename T, typename Activations, int ROWS, int BATCH>
struct tile_chunk {
  batch_chunk<T, Activations, BATCH> shared;

  template <typename Place>
  batch_values<T, BATCH> v(Place i) const {
    return shared.v(i);
  }
  tile_values<T, ROWS, BATCH> minus_zero() const {
    tile_values<T, ROWS, BATCH> all;
    unrolled<ROWS>([&](auto r) { all.row[r] = shared.minus_zero(); });
    return all;
  }
};

// The places of the same chunks in several output rows, and what readers/places.h and readers/sums.h find there.
template <typename Place, int ROWS>
struct tile_place {
  Place row[ROWS];
};
template <int ROWS>
struct row_words {
  words row[ROWS];

  void operator>>=(uint32_t shift) {
    unrolled<ROWS>([&](auto r) { row[r] >>= shift; });
  }
};
template <int ROWS>
struct row_pairs {
  word_pair row[ROWS];

  row_words<ROWS> operator[](int i) const {
    row_words<ROWS> all;
    unrolled<ROWS>([&](auto r) { all.row[r] = row[r][i]; });
    return all;
  }
};
template <int ROWS>
struct row_codes {
  row_pairs<ROWS> half_words;

  template <typename T, int I>
  row_values<T, ROWS> nibble(int bias) const {
    row_values<T, ROWS> all;
    unrolled<ROWS>([&](auto r) { all.row[r] = chunk_codes{half_words.row[r]}.template nibble<T, I>(bias); });
    return all;
  }
};
template <typename Place, int ROWS>
inline row_codes<ROWS> codes_of_chunk(const tile_place<Place, ROWS>& at, const void* region) {
  row_codes<ROWS> codes;
  unrolled<ROWS>([&](auto r) { codes.half_words.row[r] = codes_of_chunk(at.row[r], region).half_words; });
  return codes;
}
template <typename T, int SHIFT, int ROWS>
inline row_values<T, ROWS> looked_up_nibbles(lanes<float> table, const row_words<ROWS>& from) {
  row_values<T, ROWS> all;
  unrolled<ROWS>([&](auto r) { all.row[r] = looked_up_nibbles<T, SHIFT>(table, from.row[r]); });
  return all;
}

// ---- the product ------------------------------------------------------------------------------------------

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
  using sums_of_row = values<T>[BATCH_OF_ITEM];

  // Adds a tile's products with chunks c to c + 15 of a row to `sums`; behind the row's last chunk there are none. `at` is
  // where the tile's first output row begins, b its first activation row. INSIDE promises that no chunk is behind the
  // weight.
  const auto add_tile = [=](auto inside, auto outputs, auto rows, sums_of_row* sums, int64_t at, int32_t c, int b) {
    using place = chunk_place<CHUNK, Reader::BLOCK, inside>;
    tile_place<place, outputs> places;
    unrolled<outputs>([&](auto r) {
      const int64_t first = at + static_cast<int64_t>(r) * chunks + c;
      places.row[r] = {first, inside ? LANES : static_cast<int>(chunks_of_weight - first)};
    });
    tile_chunk<T, activations<T, CHUNK>, outputs, rows> x;
    const stored_lane<T>* of_chunks = stored + static_cast<int64_t>(c) * batch * CHUNK;
    unrolled<rows>([&](auto i) { x.shared.row[i] = {of_chunks + (b + i) * LANES * CHUNK}; });
    const auto products = reader.template sum<T>(x, places);
    row_values<T, outputs> scales;
    unrolled<outputs>([&](auto r) { scales.row[r] = reader.template scale<T>(places.row[r]); });
    const auto add = [&](auto r, auto i) {
      return multiply_add(products.row[r].row[i], scales.row[r], sums[r][b + i]);
    };
    if (c + LANES <= chunks)
      unrolled<outputs>([&](auto r) { unrolled<rows>([&](auto i) { sums[r][b + i] = add(r, i); }); });
    else
      unrolled<outputs>([&](auto r) {
        unrolled<rows>([&](auto i) { sums[r][b + i] = in_first_lanes<T>(chunks - c, add(r, i), sums[r][b + i]); });
      });
  };
  constexpr std::true_type inside;
  constexpr std::integral_constant<int, outputs_of_tile<T>> outputs;
  constexpr std::integral_constant<int, 1> one;

  for (; row < last; row += ROWS_IN_TURN) {
    const int in_turn = static_cast<int>(last - row < ROWS_IN_TURN ? last - row : ROWS_IN_TURN);
    const bool has_next = row + 2 * ROWS_IN_TURN <= last;
    const uint8_t* codes_of_next = reader.quants + static_cast<int64_t>(row + ROWS_IN_TURN) * chunks * BYTES_OF_CHUNK;
    values<T> acc[VECTORS][ROWS_IN_TURN][BATCH_OF_ITEM] = {};
    for (int32_t c = 0; c < chunks; c += LANES) {
      if (has_next)
        prefetch(codes_of_next + static_cast<int64_t>(c) * ROWS_IN_TURN * BYTES_OF_CHUNK,
                 LANES * ROWS_IN_TURN * BYTES_OF_CHUNK);
      sums_of_row* sums = acc[c / LANES % VECTORS];
      const auto add_tiles = [&](auto rows, int b) {
#pragma clang loop unroll(disable)
        for (int t = 0; t < in_turn; t += outputs) {
          const int64_t at = static_cast<int64_t>(row + t) * chunks;
          // Asked here and not ahead of the loop: in a loop without a branch the compiler decodes a tile's values ahead of
          // their products, and spills them, which costs a quarter.
          if (at + (outputs - 1) * chunks + c + LANES <= chunks_of_weight) {
            add_tile(inside, outputs, rows, sums + t, at, c, b);
          } else {
            // The end of the weight, or a tile that an odd number of rows leaves incomplete.
#pragma clang loop unroll(disable)
            for (int i = 0; i < outputs * rows; ++i) {
              const int r = i / rows;
              if (t + r < in_turn)
                add_tile(std::false_type{}, one, one, sums + t + r, at + static_cast<int64_t>(r) * chunks, c,
                         b + i % rows);
            }
          }
        }
      };
      int b = 0;
#pragma clang loop unroll(disable)
      for (; batch - b >= BATCH_OF_TILE; b += BATCH_OF_TILE) add_tiles(std::integral_constant<int, BATCH_OF_TILE>{}, b);
      if (batch - b == 3) add_tiles(std::integral_constant<int, 3>{}, b);
      if (batch - b == 2) add_tiles(std::integral_constant<int, 2>{}, b);
      if (batch - b == 1) add_tiles(one, b);
    }
    for (int b = 0; b < batch; ++b)
      for (int t = 0; t < in_turn; ++t) {
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
  // Whole tiles, but for the last work-item.
  const uint64_t groups = place.get_group_range(1), group = place.get_group(1);
  constexpr int OUTPUTS = outputs_of_tile<T>;
  const uint64_t tiles = output_size / OUTPUTS;
  const uint64_t first = tiles * group / groups * OUTPUTS;
  const uint64_t last = group + 1 == groups ? output_size : tiles * (group + 1) / groups * OUTPUTS;
  const auto chunks = static_cast<int32_t>(state_size / CHUNK);
  auto* stored = first_line<stored_lane<T>>(local);
  for (int b = 0; b < present; ++b)
    arrange_activations<T, Reader, false>(input + (b0 + b) * state_size, chunks, stored + b * LANES * CHUNK, present);
  multiply_stored_rows<T, WG_SIZE / LANES>(reader, stored, present, chunks, first, last, output_size,
                                           output + b0 * output_size);
}

}  // namespace quillon
