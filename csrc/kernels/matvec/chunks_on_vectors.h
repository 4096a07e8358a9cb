// The skeleton of chunks.h for the host device: one work-item has all the lanes of a work-group, in WG_SIZE / 16
// vectors, and walks over a run of rows.
//
//   row   | vector 0: chunks 0 to 15 | vector 1: chunks 16 to 31 | vector 0 | vector 1 | ... | part of one |
//
// Before the first row it brings the activations into the order in which the lanes read them, in local memory:
//
//   | chunks 0 to 15: place 0 of each lane, place 1 of each lane, ... (, the sums) | chunks 16 to 31: ... | ...
//
// so that every load in the loop over rows is a vector of neighbours. state_size is a multiple of the reader's BLOCK
// here: rows start on a block, and chunks can be counted over the whole weight.
#pragma once

#include "kernels/kernel.h"
#include "kernels/lanes.h"
#include "kernels/matvec/vectors.h"
#include "readers/orders.h"
#include "readers/places.h"

namespace quillon {

// Where the chunks of sixteen lanes lie. Lanes from `present` on have none in the weight; INSIDE promises that there
// are no such lanes.
template <int CHUNK, int BLOCK, bool INSIDE>
struct chunk_place {
  static constexpr int CHUNKS_PER_BLOCK = BLOCK / CHUNK;
  int64_t chunk;  // that of lane 0, counted over the weight
  int present;

  // COUNT neighbouring elements of E, of which those of absent lanes are not read; PER_LANE of them are a lane's,
  // LANES_EACH lanes share one.
  template <typename E, int COUNT, int PER_LANE = 1, int LANES_EACH = 1, int SKIPPED = 0>
  vector<E, COUNT> load(const E* from) const {
    if constexpr (INSIDE) return load_vector<E, COUNT>(from);
    E elements[COUNT] = {};
    const int last = (present * PER_LANE + LANES_EACH - 1) / LANES_EACH - SKIPPED;
#pragma clang loop unroll(disable) vectorize(disable)
    for (int i = 0; i < COUNT && i < last; ++i) elements[i] = quillon::load<E, 1>(from + i);
    return load_vector<E, COUNT>(elements);
  }

  // The words of all lanes' blocks of a region with WORDS words for each block, one after the other in two vectors.
  struct two_vectors {
    words first;
    words second;
  };
  template <int WORDS>
  two_vectors words_of_blocks(const void* region) const {
    constexpr int REST = LANES / CHUNKS_PER_BLOCK * WORDS - LANES;
    static_assert(REST == LANES / 2);
    const auto* from = static_cast<const uint32_t*>(region) + chunk / CHUNKS_PER_BLOCK * WORDS;
    const auto rest = load<uint32_t, REST, WORDS, CHUNKS_PER_BLOCK, LANES>(from + LANES);
    return {load<uint32_t, LANES, WORDS, CHUNKS_PER_BLOCK>(from),
            __builtin_shufflevector(rest, rest, 0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7)};
  }
  // Integers come in 32 bits.
  template <typename Entry, int CHUNKS>
  auto entry_of_chunks(const void* region) const {
    constexpr int COUNT = LANES / CHUNKS;
    const int64_t first = chunk / CHUNKS;
    if constexpr (std::is_same_v<Entry, word_pair>) {
      static_assert(CHUNKS == 1);
      const auto* from = static_cast<const uint32_t*>(region) + 2 * chunk;
      const auto low = load<uint32_t, LANES, 2>(from);
      const auto high = load<uint32_t, LANES, 2, 1, LANES>(from + LANES);
      return word_pair{{pick<0, 2, uint32_t>(low, high), pick<1, 2, uint32_t>(low, high)}};
    } else if constexpr (std::is_same_v<Entry, half_pair>) {
      const auto pairs = load<uint32_t, COUNT, 1, CHUNKS>(static_cast<const uint32_t*>(region) + first);
      const auto floats = converted<float>(bit_cast<vector<_Float16, 2 * COUNT>>(pairs));
      return half_pair{{spread_of_pairs<COUNT, 0, float>(floats)}, {spread_of_pairs<COUNT, 1, float>(floats)}};
    } else if constexpr (std::is_same_v<Entry, half>) {
      const auto entries = load<_Float16, COUNT, 1, CHUNKS>(static_cast<const _Float16*>(region) + first);
      return in_float<half>{spread<COUNT, float>(converted<float>(entries))};
    } else if constexpr (std::is_same_v<Entry, float>) {
      return spread<COUNT, float>(load<float, COUNT, 1, CHUNKS>(static_cast<const float*>(region) + first));
    } else {
      using number = std::conditional_t<std::is_signed_v<Entry>, int32_t, uint32_t>;
      const auto entries = load<Entry, COUNT, 1, CHUNKS>(static_cast<const Entry*>(region) + first);
      return spread<COUNT, number>(converted<number>(entries));
    }
  }
  template <typename Entry>
  auto entry_by_unit(const void* region) const {
    return entry_of_chunks<Entry, 1>(region);
  }
};

// The activations of sixteen lanes' chunks.
template <typename T, int CHUNK>
struct activations {
  const stored_lane<T>* stored;

  values<T> v(int i) const {
    const auto loaded = load_vector<stored_lane<T>, LANES>(stored + LANES * i);
    if constexpr (is_in_float<T>)
      return {loaded};
    else
      return loaded;
  }
  values<T> sum() const { return v(CHUNK); }
  static values<T> minus_zero() { return exact_values<T>(lanes<float>(-0.0f)); }
};

// Brings the activations of a row into the order of the lanes, between those of as many other rows as take turns with it.
template <typename T, typename Reader, bool WITH_SUM>
inline void arrange_activations(const T* input, int32_t chunks, stored_lane<T>* to, int taking_turns = 1) {
  using order = typename Reader::order;
  constexpr int CHUNK = Reader::CHUNK;
  constexpr int STORED = CHUNK + WITH_SUM;
  for (int32_t first = 0; first < chunks; first += LANES) {
    stored_lane<T>* at = to + static_cast<int64_t>(first) * STORED * taking_turns;
    for (int lane = 0; lane < LANES; ++lane) {
      const bool present = first + lane < chunks;
      const int chunk = present ? first + lane : 0;
      unrolled<CHUNK>([&](auto i) {
        const T element = input[order::start(chunk, order::run_of(i)) + order::place_of(i)];
        at[LANES * i + lane] = present ? convert<stored_lane<T>>(element) : stored_lane<T>{0};
      });
    }
    if constexpr (WITH_SUM) {
      const activations<T, CHUNK> x{at};
      values<T> sum = x.v(0);
#pragma clang loop unroll(disable)
      for (int i = 1; i < CHUNK; ++i) sum = sum + x.v(i);
      if constexpr (is_in_float<T>)
        store_vector(at + LANES * CHUNK, sum.value);
      else
        store_vector(at + LANES * CHUNK, sum);
    }
  }
}

template <typename Value, int VECTORS>
inline void take_turns(Value (&acc)[VECTORS]) {
  const Value first = acc[0];
  unrolled<VECTORS - 1>([&](auto i) { acc[i] = acc[i + 1]; });
  acc[VECTORS - 1] = first;
}

// The activations of a row in local memory, and how many of its chunks are summed.
template <typename T, int WG_SIZE, typename Reader, tail_round TAIL, bool WITH_SUM>
struct arranged_row {
  const stored_lane<T>* stored;
  int32_t chunks_of_row;
  int32_t chunks;

  arranged_row(uint64_t state_size, const T* input, const sycl::local_accessor<T, 1>& local)
      : chunks_of_row(static_cast<int32_t>(state_size / Reader::CHUNK)),
        chunks(TAIL == tail_round::summed ? chunks_of_row : chunks_of_row / WG_SIZE * WG_SIZE) {
    auto* to = first_line<stored_lane<T>>(local);
    arrange_activations<T, Reader, WITH_SUM>(input, chunks, to);
    stored = to;
  }

  // The product with row `row` of a weight of `output_size` rows.
  template <typename AddRow>
  __attribute__((always_inline)) T multiply(uint64_t row, uint64_t output_size, const AddRow& add_row) const {
    constexpr int CHUNK = Reader::CHUNK;
    constexpr int STORED = CHUNK + WITH_SUM;
    constexpr int VECTORS = WG_SIZE / LANES;
    const int64_t chunks_of_weight = static_cast<int64_t>(output_size) * chunks_of_row;
    const int64_t at = static_cast<int64_t>(row) * chunks_of_row;
    // The accumulator of the next vector is always the first one: registers take turns, while an index would make memory
    // of them. The tree adds the same pairs wherever the turn ends.
    values<T> acc[VECTORS] = {};
    int32_t c = 0;
    for (; c + LANES <= chunks; c += LANES) {
      const activations<T, CHUNK> x{stored + static_cast<int64_t>(c) * STORED};
      add_row(acc[0], x, chunk_place<CHUNK, Reader::BLOCK, true>{at + c, LANES});
      take_turns(acc);
    }
    if (c < chunks) {
      const activations<T, CHUNK> x{stored + static_cast<int64_t>(c) * STORED};
      values<T> sum = acc[0];
      if (at + c + LANES <= chunks_of_weight)
        add_row(sum, x, chunk_place<CHUNK, Reader::BLOCK, true>{at + c, LANES});
      else
        add_row(sum, x, chunk_place<CHUNK, Reader::BLOCK, false>{at + c, static_cast<int>(chunks_of_weight - at - c)});
      acc[0] = in_first_lanes<T>(chunks - c, sum, acc[0]);
      take_turns(acc);
    }
    return sum_of_lanes<T, VECTORS>(acc);
  }
};

template <typename T, int WG_SIZE, int ROW_TILE, typename Reader, tail_round TAIL, bool WITH_SUM, typename AddRow>
inline void multiply_chunks(uint64_t state_size, const T* input, const sycl::local_accessor<T, 1>& local,
                            uint64_t output_size, T* output, AddRow add_row) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const uint64_t groups = place.get_group_range(0);
  const uint64_t last = output_size * (place.get_group(0) + 1) / groups;
  const arranged_row<T, WG_SIZE, Reader, TAIL, WITH_SUM> arranged(state_size, input, local);
  for (uint64_t row = output_size * place.get_group(0) / groups; row < last; ++row)
    output[row] = arranged.multiply(row, output_size, add_row);
}

}  // namespace quillon
