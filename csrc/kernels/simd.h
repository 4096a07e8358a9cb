// The vocabulary of explicit-SIMD kernels, whose work-item is one hardware thread and computes with whole vectors.
//
// The same kernel text is built in two backings:
//
//   explicit SIMD  vectors are the SYCL extension's, which a GPU's compiler lays out in registers as they are written.
//   vectors        vectors are those of clang, on the host device. Its compiler takes up to 64 elements; longer vectors
//                  are loaded, cut and stored in pieces, and not computed with.
//
//   vec<E, COUNT>   COUNT elements E: half, float, or integers of 8 to 32 bits, with the operators of C++. A product or
//                   a sum of halves is rounded to half. multiply, add and subtract (runtime/scalar_types.h) take vectors
//                   and are not contracted.
//                   A bfloat16 is its bits, uint16_t, and is widened to compute.
//
// Name the type of each result of integers (`const vec<uint8_t, 64> low = bytes & 15`): on a GPU integers of fewer bits
// than an int widen to one, as C++ has it, on the host device they do not.
//
// Element numbers are template arguments, since registers have no addresses.
#pragma once

#include <type_traits>

#include "formats/packed_bits.h"
#include "kernels/kernel.h"
#include "kernels/lanes.h"
#include "runtime/scalar_types.h"

#ifndef QUILLON_VECTOR_LANES
#include <sycl/ext/intel/esimd.hpp>
#endif

// Marks a kernel of this kind; a GPU runs it without sub-groups.
#ifdef QUILLON_VECTOR_LANES
#define QUILLON_EXPLICIT_SIMD
#else
#define QUILLON_EXPLICIT_SIMD SYCL_ESIMD_KERNEL
#endif

namespace quillon::simd {

// ---- vectors ----------------------------------------------------------------------------------------------

#ifdef QUILLON_VECTOR_LANES

inline constexpr int LONGEST = 64;

template <typename E>
struct element {
  using type = E;
};
template <>
struct element<half> {
  using type = _Float16;
};
template <>
struct element<bfloat16> {
  using type = uint16_t;
};

// A vector that is longer than the compiler's.
template <typename E, int COUNT>
struct pieces {
  static_assert(COUNT % LONGEST == 0);
  vector<E, LONGEST> piece[COUNT / LONGEST];
};

template <typename E, int COUNT, bool IS_LONG = (COUNT > LONGEST)>
struct vec_of {
  using type = vector<typename element<E>::type, COUNT>;
};
template <typename E, int COUNT>
struct vec_of<E, COUNT, true> {
  using type = pieces<typename element<E>::type, COUNT>;
};
template <typename E, int COUNT>
using vec = typename vec_of<E, COUNT>::type;

template <typename Vec>
struct facts_of_vec;
template <typename E, int COUNT>
struct facts_of_vec<E __attribute__((ext_vector_type(COUNT)))> {
  using element = E;
  static constexpr int count = COUNT;
};
template <typename E, int COUNT>
struct facts_of_vec<pieces<E, COUNT>> {
  using element = E;
  static constexpr int count = COUNT;
};

#else

namespace esimd = sycl::ext::intel::esimd;

template <typename E>
struct element {
  using type = E;
};
template <>
struct element<bfloat16> {
  using type = uint16_t;
};

template <typename E, int COUNT>
using vec = esimd::simd<typename element<E>::type, COUNT>;

template <typename Vec>
struct facts_of_vec;
template <typename E, int COUNT>
struct facts_of_vec<esimd::simd<E, COUNT>> {
  using element = E;
  static constexpr int count = COUNT;
};

#endif

template <typename Vec>
using element_of_vec = typename facts_of_vec<Vec>::element;
template <typename Vec>
inline constexpr int count_of = facts_of_vec<Vec>::count;

// ---- memory -----------------------------------------------------------------------------------------------

// COUNT neighbours from an address that is a multiple of ALIGNMENT, which is at least 4; one load where COUNT elements
// are a power of two of 4 to 256 bytes.
template <typename E, int COUNT, int ALIGNMENT = 16>
inline vec<E, COUNT> load(const E* from) {
#ifdef QUILLON_VECTOR_LANES
  using bare = typename element<E>::type;
  if constexpr (COUNT > LONGEST) {
    vec<E, COUNT> result;
    for (int i = 0; i < COUNT / LONGEST; ++i) result.piece[i] = load_vector<bare, LONGEST>(from + LONGEST * i);
    return result;
  } else {
    return load_vector<bare, COUNT>(from);
  }
#else
  using bare = typename element<E>::type;
  return esimd::block_load<bare, COUNT>(reinterpret_cast<const bare*>(from),
                                        esimd::properties{esimd::alignment<ALIGNMENT>});
#endif
}

template <int ALIGNMENT = 16, typename E, typename Vec>
inline void store(E* to, Vec from) {
  constexpr int COUNT = count_of<Vec>;
  using bare = typename element<E>::type;
  static_assert(std::is_same_v<bare, element_of_vec<Vec>>);
#ifdef QUILLON_VECTOR_LANES
  if constexpr (COUNT > LONGEST) {
    for (int i = 0; i < COUNT / LONGEST; ++i) store_vector(to + LONGEST * i, from.piece[i]);
  } else {
    store_vector(to, from);
  }
#else
  esimd::block_store<bare, COUNT>(reinterpret_cast<bare*>(to), from, esimd::properties{esimd::alignment<ALIGNMENT>});
#endif
}

#ifndef QUILLON_VECTOR_LANES
// Of COUNT places, `stride` bytes apart.
template <int COUNT>
inline vec<uint64_t, COUNT> addresses(const void* first, uint64_t stride) {
  return vec<uint64_t, COUNT>(reinterpret_cast<uint64_t>(first), stride);
}
#endif

// The elements E, of 16 or 32 bits, at byte offsets from `base`, each at a multiple of its size.
template <typename E, int COUNT>
inline vec<E, COUNT> gather(const void* base, vec<uint32_t, COUNT> offsets) {
  using bare = typename element<E>::type;
#ifdef QUILLON_VECTOR_LANES
  vec<E, COUNT> result;
#pragma unroll
  for (int i = 0; i < COUNT; ++i)
    result[i] = quillon::load<bare, alignof(E)>(static_cast<const char*>(base) + offsets[i]);
  return result;
#else
  return esimd::gather<bare, COUNT>(static_cast<const bare*>(base), offsets,
                                    esimd::properties{esimd::alignment<sizeof(E)>});
#endif
}

// Hints that what starts at `from`, or at these offsets from it, will be read soon; BYTES is a power of two of 4 to 256.
// A GPU brings it into its second cache and, as it is read once or by neighbouring threads soon after, its first one. On
// the host device, where the processor does so by itself, nothing.
template <int BYTES>
inline void prefetch([[maybe_unused]] const void* from) {
#ifndef QUILLON_VECTOR_LANES
  esimd::prefetch<uint32_t, BYTES / 4>(static_cast<const uint32_t*>(from),
                                       esimd::properties{esimd::cache_hint_L1<esimd::cache_hint::cached>,
                                                         esimd::cache_hint_L2<esimd::cache_hint::cached>});
#endif
}
template <int COUNT>
inline void prefetch_each([[maybe_unused]] const void* base, [[maybe_unused]] vec<uint32_t, COUNT> offsets) {
#ifndef QUILLON_VECTOR_LANES
  esimd::prefetch<uint8_t, COUNT, 1>(static_cast<const uint8_t*>(base), offsets,
                                     esimd::properties{esimd::cache_hint_L1<esimd::cache_hint::cached>,
                                                       esimd::cache_hint_L2<esimd::cache_hint::cached>});
#endif
}

// ---- elements ---------------------------------------------------------------------------------------------

// COUNT times the same element.
template <typename E, int COUNT>
inline vec<E, COUNT> all(E value) {
  return vec<E, COUNT>(bit_cast<typename element<E>::type>(value));
}

#ifdef QUILLON_VECTOR_LANES
template <int FIRST, int STRIDE, typename Vec, int... I>
inline auto select(Vec from, constants<I...>) {
  return __builtin_shufflevector(from, from, (FIRST + STRIDE * I)...);
}
template <typename Vec, int... I>
inline auto shuffled(Vec a, Vec b, constants<I...>) {
  return __builtin_shufflevector(a, b, I...);
}
#endif

// COUNT elements from FIRST on, each STRIDE-th; of a long vector, neighbours that lie in one piece.
template <int FIRST, int COUNT, int STRIDE = 1, typename Vec>
inline vec<element_of_vec<Vec>, COUNT> select(Vec from) {
#ifdef QUILLON_VECTOR_LANES
  if constexpr (count_of<Vec> > LONGEST) {
    static_assert(STRIDE == 1 && FIRST / LONGEST == (FIRST + COUNT - 1) / LONGEST);
    return select<FIRST % LONGEST, 1>(from.piece[FIRST / LONGEST], first_constants<COUNT>{});
  } else {
    return select<FIRST, STRIDE>(from, first_constants<COUNT>{});
  }
#else
  return from.template select<COUNT, STRIDE>(FIRST);
#endif
}
template <typename Vec>
inline auto even(Vec from) {
  return select<0, count_of<Vec> / 2, 2>(from);
}
template <typename Vec>
inline auto odd(Vec from) {
  return select<1, count_of<Vec> / 2, 2>(from);
}

// COUNT elements, the VALUES in turns.
template <typename E, int COUNT, E... VALUES>
inline vec<E, COUNT> in_turns() {
  constexpr int LENGTH = sizeof...(VALUES);
#ifdef QUILLON_VECTOR_LANES
  constexpr E values[LENGTH] = {VALUES...};
  vec<E, COUNT> result;
  for (int i = 0; i < COUNT; ++i) result[i] = values[i % LENGTH];
  return result;
#else
  const vec<E, LENGTH> once({VALUES...});
  return once.template replicate<COUNT / LENGTH>();
#endif
}

// Each element of a vector TIMES times.
#ifdef QUILLON_VECTOR_LANES
template <int TIMES, typename Vec, int... I>
inline auto repeated(Vec from, constants<I...>) {
  return __builtin_shufflevector(from, from, (I / TIMES)...);
}
#endif
template <int TIMES, typename Vec>
inline vec<element_of_vec<Vec>, TIMES * count_of<Vec>> repeated(Vec from) {
  constexpr int COUNT = count_of<Vec>;
#ifdef QUILLON_VECTOR_LANES
  return repeated<TIMES>(from, first_constants<TIMES * COUNT>{});
#else
  return from.template replicate_vs_w_hs<COUNT, 1, TIMES, 0>(0);
#endif
}

// The elements of one vector and then those of another; or in turns, a[0], b[0], a[1], ...
template <typename Vec>
inline vec<element_of_vec<Vec>, 2 * count_of<Vec>> joined(Vec a, Vec b) {
  constexpr int COUNT = count_of<Vec>;
#ifdef QUILLON_VECTOR_LANES
  return shuffled(a, b, first_constants<2 * COUNT>{});
#else
  vec<element_of_vec<Vec>, 2 * COUNT> result;
  result.template select<COUNT, 1>(0) = a;
  result.template select<COUNT, 1>(COUNT) = b;
  return result;
#endif
}
#ifdef QUILLON_VECTOR_LANES
template <typename Vec, int... I>
inline auto interleaved(Vec a, Vec b, constants<I...>) {
  return __builtin_shufflevector(a, b, (I / 2 + I % 2 * count_of<Vec>)...);
}
#endif
template <typename Vec>
inline vec<element_of_vec<Vec>, 2 * count_of<Vec>> interleaved(Vec a, Vec b) {
  constexpr int COUNT = count_of<Vec>;
#ifdef QUILLON_VECTOR_LANES
  return interleaved(a, b, first_constants<2 * COUNT>{});
#else
  vec<element_of_vec<Vec>, 2 * COUNT> result;
  result.template select<COUNT, 2>(0) = a;
  result.template select<COUNT, 2>(1) = b;
  return result;
#endif
}

// ---- conversion -------------------------------------------------------------------------------------------

// The bits of a vector as elements of another size or kind.
template <typename E, typename Vec>
inline auto bits_as(Vec from) {
  constexpr int COUNT = count_of<Vec> * sizeof(element_of_vec<Vec>) / sizeof(E);
  using result = vec<E, COUNT>;
#ifdef QUILLON_VECTOR_LANES
  return bit_cast<result>(from);
#else
  return result(from.template bit_cast_view<typename element<E>::type>());
#endif
}

// Between half, float and integers, each element to the nearest, ties to even; a float to bfloat16 in the same way, a
// NaN to a NaN.
template <typename To, typename Vec>
inline vec<To, count_of<Vec>> convert(Vec from) {
  constexpr int COUNT = count_of<Vec>;
  using bare = element_of_vec<Vec>;
  if constexpr (std::is_same_v<To, bfloat16>) {
    static_assert(std::is_same_v<bare, float>);
#ifdef QUILLON_VECTOR_LANES
    using words = vec<uint32_t, COUNT>;
    const words bits = bits_as<uint32_t>(from);
    const words rounded = (bits + 0x7FFFu + ((bits >> 16) & 1u)) >> 16;
    return converted<uint16_t>(from != from ? words(0x7FC0u) : rounded);
#else
    const esimd::simd<sycl::ext::oneapi::bfloat16, COUNT> rounded = from;
    return bits_as<uint16_t>(rounded);
#endif
  } else {
#ifdef QUILLON_VECTOR_LANES
    return converted<typename element<To>::type>(from);
#else
    return esimd::convert<To>(from);
#endif
  }
}

// The floats of bfloat16.
template <typename Vec>
inline vec<float, count_of<Vec>> widened(Vec bfloat16_bits) {
  static_assert(std::is_same_v<element_of_vec<Vec>, uint16_t>);
  const auto words = convert<uint32_t>(bfloat16_bits);
  const vec<uint32_t, count_of<Vec>> bits = words << 16;
  return bits_as<float>(bits);
}

// ---- the matrix engine ------------------------------------------------------------------------------------
//
// A product of tiles: ROWS by COLUMNS sums, each increased by sixteen products of elements of M, half or bfloat16, in
// float. ROWS is 1 to 8; COLUMNS is what the device's engine has, 8 or 16, and any number on the host device.
//
//   left   ROWS rows of 16              right   16 rows of COLUMNS
//
//                      GPU                                           host device
//   left     words of two neighbours in a row, row by row   floats, a row every STRIDE
//   right    words of two neighbours in a column, as the    floats, row by row
//            engine takes them: see below
//   sums     float, row by row                              the same
//
//   right on a GPU, row p of 8:   | 2p + 1, 2p of column 0 | 2p + 1, 2p of column 1 | ...     (the lower one in the low half)
//
// The host device adds the products in their order, each with one rounding; in which order an engine adds the sixteen is
// its own.

#ifdef QUILLON_VECTOR_LANES

template <typename M, int ROWS, int STRIDE>
struct left_tile {
  const float* start;
};

template <typename M, int COLUMNS>
struct right_tile {
  vec<float, COLUMNS> row[16];
};

template <int ROWS, int COLUMNS>
struct tile_sums {
  vec<float, COLUMNS> rows[ROWS] = {};

  template <typename M, int STRIDE>
  __attribute__((always_inline)) void multiply_add(left_tile<M, ROWS, STRIDE> left,
                                                   const right_tile<M, COLUMNS>& right) {
#pragma clang loop unroll_count(4)
    for (int k = 0; k < 16; ++k) {
      const vec<float, COLUMNS> b = right.row[k];
      unrolled<ROWS>([&](auto i) {
        rows[i] = __builtin_elementwise_fma(vec<float, COLUMNS>(left.start[STRIDE * i + k]), b, rows[i]);
      });
    }
  }
};

#else

template <typename M, int ROWS>
struct left_tile {
  vec<uint32_t, 8 * ROWS> words;

  template <int ROW>
  void set_row(vec<uint32_t, 8> row) {
    words.template select<8, 1>(8 * ROW) = row;
  }
};

template <typename M, int COLUMNS>
struct right_tile {
  vec<uint32_t, 8 * COLUMNS> words;
};

template <int ROWS, int COLUMNS>
struct tile_sums {
  vec<float, ROWS * COLUMNS> rows = 0.0f;

  template <typename M>
  void multiply_add(const left_tile<M, ROWS>& left, const right_tile<M, COLUMNS>& right) {
    constexpr auto type =
        std::is_same_v<M, half> ? esimd::xmx::dpas_argument_type::fp16 : esimd::xmx::dpas_argument_type::bf16;
    rows = esimd::xmx::dpas<8, ROWS, float, float, uint32_t, uint32_t, type, type>(rows, right.words, left.words);
  }
  template <int ROW>
  vec<float, COLUMNS> row() const {
    return select<COLUMNS * ROW, COLUMNS>(rows);
  }
  // Each row times the factors of the columns, added up.
  void add_scaled(const tile_sums& other, vec<float, COLUMNS> factors) {
    rows = add(rows, multiply<vec<float, ROWS * COLUMNS>>(other.rows, factors.template replicate<ROWS>()));
  }
};

#endif

// ---- work-groups ------------------------------------------------------------------------------------------
//
// The threads of a work-group are its work-items on a GPU. On the host device one work-item does what all of them do, one
// after the other from one barrier to the next: what a thread keeps over a barrier, it keeps in local memory.

// Calls `body(t)` as thread t of THREADS.
template <int THREADS, typename Body>
inline void as_each_thread(Body&& body) {
#ifdef QUILLON_VECTOR_LANES
  for (uint32_t t = 0; t < THREADS; ++t) body(t);
#else
  body(static_cast<uint32_t>(sycl::ext::oneapi::this_work_item::get_nd_item<2>().get_local_id(0)));
#endif
}

// BYTES of local memory. A kernel makes one, once, before all else.
template <int BYTES>
class local_memory {
 public:
#ifdef QUILLON_VECTOR_LANES
  local_memory() {}
#else
  local_memory() { esimd::slm_init<BYTES>(); }
#endif
  local_memory(const local_memory&) = delete;

  // Offsets are in bytes and multiples of 16.
  template <typename E, int COUNT>
  vec<E, COUNT> load(uint32_t offset) const {
#ifdef QUILLON_VECTOR_LANES
    return simd::load<E, COUNT>(reinterpret_cast<const E*>(bytes_ + offset));
#else
    return esimd::slm_block_load<typename element<E>::type, COUNT>(offset, esimd::properties{esimd::alignment<16>});
#endif
  }
  template <typename Vec>
  void store(uint32_t offset, Vec from) {
#ifdef QUILLON_VECTOR_LANES
    simd::store(reinterpret_cast<element_of_vec<Vec>*>(bytes_ + offset), from);
#else
    esimd::slm_block_store<element_of_vec<Vec>, count_of<Vec>>(offset, from, esimd::properties{esimd::alignment<16>});
#endif
  }
  // Behind it, what any thread of the work-group has stored is there for all.
  void barrier() {
#ifndef QUILLON_VECTOR_LANES
    esimd::fence<esimd::memory_kind::local>();
    esimd::barrier();
#endif
  }

 private:
#ifdef QUILLON_VECTOR_LANES
  alignas(64) uint8_t bytes_[BYTES];
#endif
};

}  // namespace quillon::simd
