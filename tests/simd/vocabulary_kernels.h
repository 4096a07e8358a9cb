// A kernel for each part of the vocabulary: bytes in, bytes out. T is the element type that it is about.
#pragma once

#include "kernels/simd.h"

namespace quillon {

// A work-item's place, at COUNT elements each.
template <int COUNT>
inline uint64_t first_element() {
  return sycl::ext::oneapi::this_work_item::get_nd_item<2>().get_global_id(0) * COUNT;
}

}  // namespace quillon

// 256 bytes, in one load, cut into pieces and stored in another order: quarter 3, 1, 0, 2.
template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void copied_quarters(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  const uint64_t at = first_element<256>();
  constexpr int COUNT = 256 / sizeof(T);
  constexpr int QUARTER = COUNT / 4;
  const auto all = simd::load<T, COUNT>(reinterpret_cast<const T*>(input + at));
  T* to = reinterpret_cast<T*>(output + at);
  simd::store(to + 3 * QUARTER, simd::select<0, QUARTER>(all));
  simd::store(to + QUARTER, simd::select<QUARTER, QUARTER>(all));
  simd::store(to, simd::select<2 * QUARTER, QUARTER>(all));
  simd::store(to + 2 * QUARTER, simd::select<3 * QUARTER, QUARTER>(all));
}

template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void copied_whole(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  const uint64_t at = first_element<256>();
  const auto all = simd::load<T, 256 / sizeof(T)>(reinterpret_cast<const T*>(input + at));
  simd::store(reinterpret_cast<T*>(output + at), all);
}

// Sixteen elements from the offsets that stand in front of them.
template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void gathered(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  const auto offsets = simd::load<uint32_t, 16>(reinterpret_cast<const uint32_t*>(input));
  simd::prefetch<64>(input + 64);
  simd::prefetch_each<16>(input + 64, offsets);
  simd::store(reinterpret_cast<T*>(output), simd::gather<T, 16>(input + 64, offsets));
}

// float to T and, behind all of them, back.
template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void converted(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t at = first_element<16>();
  const auto narrow = simd::convert<T>(simd::load<float, 16>(reinterpret_cast<const float*>(input) + at));
  simd::store(reinterpret_cast<T*>(output) + at, narrow);
  auto* back = reinterpret_cast<float*>(output + place.get_global_range(0) * 16 * sizeof(T));
  if constexpr (std::is_same_v<T, bfloat16>)
    simd::store(back + at, simd::widened(narrow));
  else
    simd::store(back + at, simd::convert<float>(narrow));
}

// Bytes, signed if T is, as halves, and as floats behind those.
template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void numbers_of_bytes(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t at = first_element<64>();
  const auto bytes = simd::load<T, 64>(reinterpret_cast<const T*>(input) + at);
  simd::store(reinterpret_cast<half*>(output) + at, simd::convert<half>(bytes));
  auto* floats = reinterpret_cast<float*>(output + place.get_global_range(0) * 64 * sizeof(half));
  simd::store(floats + at, simd::convert<float>(bytes));
}

// Shifts and masks of words, and words in turns, joined and taken apart again: see the test for what comes where.
template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void arranged(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  using words = simd::vec<T, 16>;
  const auto* from = reinterpret_cast<const T*>(input);
  auto* to = reinterpret_cast<T*>(output);
  const words a = simd::load<T, 16>(from), b = simd::load<T, 16>(from + 16);
  simd::store(to, simd::interleaved(a, b));
  simd::store(to + 32, simd::joined(b, a));
  simd::store(to + 64, simd::joined(simd::even(a), simd::odd(b)));
  simd::store(to + 80, simd::select<1, 4, 3>(a));
  const words low = a & T(15), high = (b >> 4) & T(15), mixed = (a << 3) | T(1);
  simd::store(to + 96, low);
  simd::store(to + 112, high);
  simd::store(to + 128, mixed);
  simd::store(to + 144, simd::all<T, 16>(from[5]));
  const auto bytes = simd::bits_as<uint8_t>(a);
  simd::store(to + 160, simd::bits_as<T>(bytes));
  simd::store(to + 176, simd::repeated<4>(simd::select<3, 4>(a)));
  const words shifted = a << simd::in_turns<T, 16, 0, 2, 4, 6>();
  simd::store(to + 192, shifted);
  simd::store(reinterpret_cast<uint8_t*>(to + 208), simd::even(bytes));
}

// a * b + c and a * b - c in T, each operation rounded.
template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void rounded_each_time(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  const auto* from = reinterpret_cast<const T*>(input);
  auto* to = reinterpret_cast<T*>(output);
  const auto a = simd::load<T, 32>(from), b = simd::load<T, 32>(from + 32), c = simd::load<T, 32>(from + 64);
  using values = simd::vec<T, 32>;
  simd::store(to, add<values>(multiply<values>(a, b), c));
  simd::store(to + 32, subtract<values>(multiply<values>(a, b), c));
}

// Each of eight threads leaves a row in local memory, and takes a column of sixteen bytes of all.
template <typename T>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void exchanged(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  simd::local_memory<8 * 128> memory;
  constexpr int PART = 16 / sizeof(T);
  const uint64_t group = sycl::ext::oneapi::this_work_item::get_nd_item<2>().get_group(0) * 1024;
  simd::as_each_thread<8>([&](uint32_t t) {
    memory.store(128 * t, simd::load<T, 8 * PART>(reinterpret_cast<const T*>(input + group + 128 * t)));
  });
  memory.barrier();
  simd::as_each_thread<8>([&](uint32_t t) {
    T* to = reinterpret_cast<T*>(output + group + 128 * t);
    for (uint32_t i = 0; i < 8; ++i) simd::store(to + PART * i, memory.template load<T, PART>(128 * i + 16 * t));
  });
}

// ROWS by COLUMNS sums in float, which stand behind the operands, increased by a product of tiles 16 deep.
template <typename M, int ROWS, int COLUMNS>
QUILLON_KERNEL(2)
QUILLON_EXPLICIT_SIMD
void tiles_multiplied(const uint8_t* input, uint8_t* output) {
  using namespace quillon;
  const auto* left_from = reinterpret_cast<const M*>(input);
  const auto* right_from = left_from + 16 * ROWS;
  const auto* sums_from = reinterpret_cast<const float*>(right_from + 16 * COLUMNS);
  auto* to = reinterpret_cast<float*>(output);
  simd::tile_sums<ROWS, COLUMNS> sums;
#ifdef QUILLON_VECTOR_LANES
  float left[16 * ROWS];
  for (int i = 0; i < 16 * ROWS; ++i) left[i] = convert<float>(left_from[i]);
  simd::right_tile<M, COLUMNS> right;
  for (int k = 0; k < 16; ++k)
    for (int c = 0; c < COLUMNS; ++c) right.row[k][c] = convert<float>(right_from[COLUMNS * k + c]);
  unrolled<ROWS>([&](auto i) { sums.rows[i] = simd::load<float, COLUMNS>(sums_from + COLUMNS * i); });
  sums.multiply_add(simd::left_tile<M, ROWS, 16>{left}, right);
  unrolled<ROWS>([&](auto i) { simd::store(to + COLUMNS * i, sums.rows[i]); });
#else
  simd::left_tile<M, ROWS> left;
  simd::right_tile<M, COLUMNS> right;
  unrolled<ROWS>([&](auto i) {
    left.template set_row<i>(simd::load<uint32_t, 8>(reinterpret_cast<const uint32_t*>(left_from + 16 * i)));
    sums.rows.template select<COLUMNS, 1>(COLUMNS * i) = simd::load<float, COLUMNS>(sums_from + COLUMNS * i);
  });
  unrolled<8>([&](auto p) {
    const auto upper = simd::load<M, COLUMNS>(right_from + COLUMNS * 2 * p);
    const auto lower = simd::load<M, COLUMNS>(right_from + COLUMNS * (2 * p + 1));
    right.words.template select<COLUMNS, 1>(COLUMNS * p) = simd::bits_as<uint32_t>(simd::interleaved(upper, lower));
  });
  sums.multiply_add(left, right);
  unrolled<ROWS>([&](auto i) { simd::store(to + COLUMNS * i, sums.template row<i>()); });
#endif
}
