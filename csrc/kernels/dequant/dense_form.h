// The skeleton of the expansions for large batches, in explicit vectors (kernels/simd.h): a work-item is alone in its
// work-group and has BLOCKS blocks or super-blocks in a row of the whole weight. No row length enters.
//
//   out   | item 0: block 0 | ... | block BLOCKS - 1 | item 1: block 0 | ...
//
// It loads what it needs of each region at once, up to 256 bytes, and stores 64 elements at once, a piece: a block, or a
// quarter of a super-block. Values are formed in half whatever T is, where the format does not say float, and are converted
// to T last.
#pragma once

#include "formats/small_floats.h"
#include "kernels/simd.h"

namespace quillon {

inline constexpr int PIECE = 64;

// A work-item's part of a region of which each piece, or each super-block, has COUNT elements E. Numbers are those of the
// pieces or super-blocks of the item, as pieces_of_item gives them.
template <typename E, int COUNT, int NUMBERS>
class item_part {
 public:
  explicit item_part(const void* region)
      : from_(static_cast<const E*>(region) +
              COUNT * NUMBERS * sycl::ext::oneapi::this_work_item::get_nd_item<1>().get_group(0)) {
#ifndef QUILLON_VECTOR_LANES
    if constexpr (IN_REGISTERS) all_ = simd::load<E, COUNT * NUMBERS, ALIGNMENT>(from_);
#endif
  }

  template <typename Number>
  simd::vec<E, COUNT> operator[](Number number) const {
#ifdef QUILLON_VECTOR_LANES
    return simd::load<E, COUNT>(from_ + COUNT * number);
#else
    return simd::select<COUNT * Number::value, COUNT>(all_);
#endif
  }
#ifdef QUILLON_VECTOR_LANES
  // ELEMENTS of them from FIRST on, in a load of their own.
  template <int FIRST, int ELEMENTS>
  simd::vec<E, ELEMENTS> part(int number) const {
    return simd::load<E, ELEMENTS>(from_ + COUNT * number + FIRST);
  }
#endif
  // Where COUNT is 1.
  template <typename Number>
  E value(Number number) const {
#ifdef QUILLON_VECTOR_LANES
    return from_[number];
#else
    if constexpr (IN_REGISTERS)
      return all_[Number::value];
    else
      return *from_;
#endif
  }

 private:
  const E* from_;
#ifndef QUILLON_VECTOR_LANES
  static constexpr int BYTES = COUNT * NUMBERS * sizeof(E);
  static constexpr int ALIGNMENT = BYTES < 16 ? BYTES : 16;
  static constexpr bool IN_REGISTERS = BYTES >= 4;  // one half is a number
  simd::vec<E, COUNT * NUMBERS> all_;
#endif
};

// The super-block that a piece is a quarter of.
#ifdef QUILLON_VECTOR_LANES
inline int super_block_of(int piece) {
  return piece / 4;
}
#else
template <typename Piece>
inline auto super_block_of(Piece) {
  return std::integral_constant<int, Piece::value / 4>{};
}
#endif

// COUNT halves, rounded after each operation. The host device holds them in floats: its processors widen halves before each
// operation and narrow them after it. But for those of a NaN no bit differs (kernels/lanes.h).
template <int COUNT>
struct halves {
#ifdef QUILLON_VECTOR_LANES
  using held = float;
#else
  using held = half;
#endif
  simd::vec<held, COUNT> value;

  // Integers of eight bits and a sign.
  template <typename Integers>
  static halves exactly(Integers from) {
    return {simd::convert<held>(from)};
  }
  static halves all(half of_all) { return {simd::vec<held, COUNT>(convert<held>(of_all))}; }
  static halves by_bits(simd::vec<uint16_t, COUNT> bits) { return {simd::convert<held>(simd::bits_as<half>(bits))}; }

  friend halves operator*(halves a, halves b) { return {rounded(multiply(a.value, b.value))}; }
  friend halves operator+(halves a, halves b) { return {rounded(add(a.value, b.value))}; }
  // Of numbers whose difference is a half: there is nothing to round.
  friend halves exact_difference(halves a, halves b) { return {subtract(a.value, b.value)}; }

 private:
  static simd::vec<held, COUNT> rounded(simd::vec<held, COUNT> from) {
    return simd::convert<held>(simd::convert<half>(from));
  }
};
template <int COUNT>
inline halves<2 * COUNT> joined(halves<COUNT> a, halves<COUNT> b) {
  return {simd::joined(a.value, b.value)};
}
// Each of four sixteen times.
template <typename Held>
inline halves<64> in_groups(const Held& four) {
  using held = halves<64>::held;
  const held of_group[4] = {four[0], four[1], four[2], four[3]};
  const auto first = simd::joined(simd::vec<held, 16>(of_group[0]), simd::vec<held, 16>(of_group[1]));
  const auto second = simd::joined(simd::vec<held, 16>(of_group[2]), simd::vec<held, 16>(of_group[3]));
  return {simd::joined(first, second)};
}

// The scales of a work-item's elements, of which sixteen have one: a product of the super-block's scale and an integer of
// their own, of which `Product` makes several at once from the scale and a vector of integers.
template <int PIECES, typename Product>
class group_scales {
 public:
#ifdef QUILLON_VECTOR_LANES
  // Sixteen are made at once and wait in memory: the compiler would copy each sixteen times first.
  group_scales(const void* integers, const void* super_scales, const Product& product) {
    const item_part<int8_t, 16, PIECES / 4> integers_of(integers);
    const item_part<half, 1, PIECES / 4> d(super_scales);
#pragma clang loop unroll(disable)
    for (int i = 0; i < PIECES / 4; ++i) simd::store(kept_ + 16 * i, product(d.value(i), integers_of[i]));
  }
  const float* of_piece(int i) const { return kept_ + 4 * i; }

 private:
  float kept_[4 * PIECES];
#else
  group_scales(const void* integers, const void* super_scales, const Product& product)
      : integers_(integers), d_(super_scales), product_(product) {}
  template <typename Piece>
  auto of_piece(Piece i) const {
    return product_(d_.value(super_block_of(i)), integers_[i]);
  }

 private:
  item_part<int8_t, 4, PIECES> integers_;
  item_part<half, 1, PIECES / 4> d_;
  Product product_;
#endif
};
template <int PIECES, typename Product>
inline group_scales<PIECES, Product> scales_of_groups(const void* integers, const void* super_scales,
                                                      const Product& product) {
  return {integers, super_scales, product};
}

#ifdef QUILLON_VECTOR_LANES
// A line at a time, to a multiple of 64 bytes.
template <typename T>
inline void store_lines_past_caches(T* to, simd::vec<T, PIECE> from) {
  constexpr int WORDS = 16, ELEMENTS = 64 / sizeof(T);
  const auto words = simd::bits_as<uint32_t>(from);
  unrolled<PIECE / ELEMENTS>([&](auto line) {
    store_past_caches<uint32_t, WORDS>(to + ELEMENTS * line, simd::select<WORDS * line, WORDS>(words));
  });
}
#endif

// Stores `piece(i)`, 64 halves or floats, for each of a work-item's PIECES.
template <int PIECES, typename T, typename Piece>
inline void expand_pieces(T* out, const Piece& piece) {
  static_assert(std::is_same_v<T, float> || std::is_same_v<T, half>);
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  out += PIECE * PIECES * place.get_group(0);
#ifdef QUILLON_VECTOR_LANES
  const bool past_caches = goes_past_caches(out, PIECE * PIECES * place.get_group_range(0));
#pragma clang loop unroll(disable)
  for (int i = 0; i < PIECES; ++i) {
    const auto expanded = simd::convert<T>(piece(i).value);
    if (past_caches)
      store_lines_past_caches(out + PIECE * i, expanded);
    else
      simd::store(out + PIECE * i, expanded);
  }
#else
  unrolled<PIECES>([&](auto i) { simd::store(out + PIECE * i, simd::convert<T>(piece(i).value)); });
#endif
}

// ---- pieces -----------------------------------------------------------------------------------------------

// Values that are formed in float.
struct floats_64 {
  simd::vec<float, 64> value;
};

using bytes_32 = simd::vec<uint8_t, 32>;

// Sixteen elements four times, of which element i is `at(i)`.
template <typename At>
inline simd::vec<float, 64> four_groups(const At& at) {
  const auto first = simd::joined(at(std::integral_constant<int, 0>{}), at(std::integral_constant<int, 1>{}));
  const auto second = simd::joined(at(std::integral_constant<int, 2>{}), at(std::integral_constant<int, 3>{}));
  return simd::joined(first, second);
}

#ifdef QUILLON_VECTOR_LANES
// Elements as they are stored.
template <typename T>
struct stored_64 {
  simd::vec<T, 64> value;
};

// The value of each nibble, by a rule for vectors of them, and elements of T that have these values, sixteen by each of two
// vectors. Rounded once for all that have a value, they are looked up as they are stored.
template <typename Value>
inline lanes<float> of_each_nibble(const Value& value) {
  return value(simd::in_turns<uint8_t, 16, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15>());
}
template <typename T>
inline simd::vec<T, 32> looked_up(lanes<float> table, lanes<uint8_t> first, lanes<uint8_t> second) {
  if constexpr (std::is_same_v<T, half>)
    return simd::bits_as<half>(look_up(simd::bits_as<uint16_t>(simd::convert<half>(table)), first, second));
  else
    return simd::joined(look_up(table, simd::convert<uint32_t>(first)),
                        look_up(table, simd::convert<uint32_t>(second)));
}
#endif

// The halves of a block of nibbles: of byte i the low one is element i, the high one element 32 + i. `value` makes halves of
// a vector of nibbles.
#ifdef QUILLON_VECTOR_LANES
template <typename T, typename Codes, typename Value>
inline stored_64<T> nibble_halves(const Codes& codes, int block, const Value& value) {
  const auto table = of_each_nibble([&](auto code) { return value(code).value; });
  const lanes<uint8_t> first = codes.template part<0, 16>(block), second = codes.template part<16, 16>(block);
  return {simd::joined(looked_up<T>(table, first & 15, second & 15), looked_up<T>(table, first >> 4, second >> 4))};
}
#else
template <typename T, typename Codes, typename Block, typename Value>
inline halves<64> nibble_halves(const Codes& codes, Block block, const Value& value) {
  const bytes_32 bytes = codes[block];
  const bytes_32 low = bytes & 15, high = bytes >> 4;
  return joined(value(low), value(high));
}
#endif

// The floats of two sub-blocks of nibbles, sixteen bytes each, whose low ones come first. `value` makes floats of the number
// of the sub-block, a constant, and a vector of nibbles. Looked up where they are rounded to T.
template <typename T, typename Codes, typename Piece, typename Value>
inline auto nibble_floats(const Codes& codes, Piece piece, const Value& value) {
#ifdef QUILLON_VECTOR_LANES
  if constexpr (std::is_same_v<T, half>) {
    const auto of_first = of_each_nibble([&](auto code) { return value(std::integral_constant<int, 0>{}, code); });
    const auto of_second = of_each_nibble([&](auto code) { return value(std::integral_constant<int, 1>{}, code); });
    const lanes<uint8_t> first = codes.template part<0, 16>(piece), second = codes.template part<16, 16>(piece);
    return stored_64<half>{simd::joined(looked_up<half>(of_first, first & 15, first >> 4),
                                        looked_up<half>(of_second, second & 15, second >> 4))};
  } else
#endif
  {
    const bytes_32 bytes = codes[piece];
    return floats_64{four_groups([&](auto k) {
      const simd::vec<uint8_t, 16> of_sub_block = simd::select<k / 2 * 16, 16>(bytes);
      const simd::vec<uint8_t, 16> code = k % 2 == 0 ? of_sub_block & 15 : of_sub_block >> 4;
      return value(std::integral_constant<int, k / 2>{}, code);
    })};
  }
}

// The words of four groups of sixteen elements in six bits each, a high one and two low ones for each group
// (readers/six_bits.h), turned into a word for each step of four elements, group by group. `codes` is the format's rule.
template <typename Codes>
inline simd::vec<uint32_t, 16> step_words(simd::vec<uint32_t, 4> high, simd::vec<uint32_t, 8> low, const Codes& codes) {
  using words_16 = simd::vec<uint32_t, 16>;
  const words_16 high_shift = simd::in_turns<uint32_t, 16, 0, 2, 4, 6>();
  const words_16 low_shift = simd::in_turns<uint32_t, 16, 0, 4>();
  const words_16 high_steps = simd::repeated<4>(high) << high_shift, low_steps = simd::repeated<2>(low) << low_shift;
  return codes(high_steps, low_steps);
}

// The bits of the halves that codes of fp6 stand for, in their order.
inline simd::vec<uint16_t, 64> fp6_bits(simd::vec<uint32_t, 4> high, simd::vec<uint32_t, 8> low) {
  using words_16 = simd::vec<uint32_t, 16>;
  static_assert(fp6_byte_of_element(0) == 1 && fp6_byte_of_element(1) == 3 && fp6_byte_of_element(2) == 0);
  const words_16 codes = step_words(high, low, [](words_16 h, words_16 l) { return fp6_step_codes(h, l); });
  const words_16 first_two = (codes & 0x9F009F00u) | 0x00800080u;
  const words_16 last_two = ((codes & 0x009F009Fu) << 8) | 0x00800080u;
  return simd::bits_as<uint16_t>(simd::interleaved(first_two, last_two));
}

#if defined(QUILLON_VECTOR_LANES) && !defined(QUILLON_NARROW_VECTORS)
// Such halves times a scale, looked up in the products of all magnitudes.
inline stored_64<half> fp6_looked_up(simd::vec<uint16_t, 64> bits, half scale) {
  using words_32 = simd::vec<uint16_t, 32>;
  words_32 magnitudes;
#pragma unroll
  for (int i = 0; i < 32; ++i) magnitudes[i] = fp6_half_bits(i);
  const auto products = (halves<32>::by_bits(magnitudes) * halves<32>::all(scale)).value;
  const auto table = simd::bits_as<uint16_t>(simd::convert<half>(products));
  const auto signed_products = [=](words_32 of) {
    return permuted<uint16_t, uint16_t, 32>(table, (of >> 8) & 31) ^ (of & 0x8000);
  };
  const auto first = signed_products(simd::select<0, 32>(bits)), second = signed_products(simd::select<32, 32>(bits));
  return {simd::bits_as<half>(simd::joined(first, second))};
}
#endif

// The halves of fp6 times a scale, for results of T.
template <typename T>
inline auto fp6_products(simd::vec<uint16_t, 64> bits, half scale) {
#if defined(QUILLON_VECTOR_LANES) && !defined(QUILLON_NARROW_VECTORS)
  if constexpr (std::is_same_v<T, half>)
    return fp6_looked_up(bits, scale);
  else
#endif
    return halves<64>::by_bits(bits) * halves<64>::all(scale);
}

}  // namespace quillon
