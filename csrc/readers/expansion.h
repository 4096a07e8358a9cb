// What expanders share. An expander is the reader of the expansion kernels (kernels/dequant/): it has the pointers to the
// parts of a weight, and writes what a block of it stands for.
//
//   vectors      expand<T>(block, to)            the whole block
//   work-items   expand<T, SPAN>(block, at, to)  the share of one work-item: at element `at` of a block of 64 where the
//                                                kernel says how many elements it has (SPAN), else number `at` of those
//                                                that have a super-block of 256 between them
//
// `to(e, x)` stores x at element e of the block: a vector of sixteen neighbours, or an array of neighbours. x is of
// one of three types: values<T> where a format computes in T, lanes<float> where it computes in float for every T, and
// half_patterns where nothing is computed. Storing converts it to T, and rounds a float there.
#pragma once

#include "formats/packed_bits.h"
#include "kernels/lanes.h"

namespace quillon {

// Bits of halves that are the values. Stored as half they stay as they are, those of a NaN too.
struct half_patterns {
  words bits;
};

// What the two codes of a byte become.
template <typename Value>
struct two_values {
  Value first;
  Value second;
};
template <typename Value>
two_values(Value, Value) -> two_values<Value>;

// A block's scale, rounded to T, in every lane.
template <typename T>
inline values<T> scale_values(float stored) {
  return rounded_values<T>(lanes<float>(stored));
}
template <typename T>
inline values<T> scale_values(half stored) {
#ifdef QUILLON_VECTOR_LANES
  return scale_values<T>(convert<float>(stored));
#else
  return rounded_halves<T>(stored);
#endif
}

// The two levels of a super-block whose values are (d * scale) * code - dmin * minimum, each operation rounded in float.
struct sub_block_floats {
  float scale;
  float minimum;

  sub_block_floats(half d, uint32_t scale_number, half dmin, uint32_t minimum_number)
      : scale(multiply(convert<float>(d), static_cast<float>(scale_number))),
        minimum(multiply(convert<float>(dmin), static_cast<float>(minimum_number))) {}

  lanes<float> operator()(words code) const {
    return subtract(multiply(lanes<float>(scale), biased_codes<float>(code, 0)), lanes<float>(minimum));
  }
};

#ifdef QUILLON_VECTOR_LANES

inline words load_bytes(const uint8_t* from) {
  return converted<uint32_t>(load_vector<uint8_t, LANES>(from));
}

// Sixteen bytes, of each of which `value` makes elements e and e + DISTANCE.
template <int DISTANCE, typename Value, typename To>
inline void expand_pairs(const uint8_t* bytes, int e, const Value& value, const To& to) {
  const auto [first, second] = value(load_bytes(bytes));
  to(e, first);
  to(e + DISTANCE, second);
}

// Sixteen bytes, each an element.
template <typename Value, typename To>
inline void expand_bytes(const uint8_t* bytes, int e, const Value& value, const To& to) {
  to(e, value(load_bytes(bytes)));
}

#else

// COUNT bytes, in one load, from an address that is a multiple of COUNT.
template <int COUNT>
inline uint32_t load_bytes(const uint8_t* from) {
  if constexpr (COUNT == 1)
    return *from;
  else if constexpr (COUNT == 2)
    return load<uint16_t, 2>(from);
  else
    return load<uint32_t, 4>(from);
}

template <int DISTANCE, typename Value, typename To, int... I>
inline void expand_pairs(uint32_t bytes, int e, const Value& value, const To& to, constants<I...>) {
  const decltype(value(bytes)) both[] = {value((bytes >> (8 * I)) & 255u)...};
  to(e, {both[I].first...});
  to(e + DISTANCE, {both[I].second...});
}
// COUNT bytes, of each of which `value` makes elements e and e + DISTANCE.
template <int COUNT, int DISTANCE, typename Value, typename To>
inline void expand_pairs(const uint8_t* bytes, int e, const Value& value, const To& to) {
  expand_pairs<DISTANCE>(load_bytes<COUNT>(bytes), e, value, to, first_constants<COUNT>{});
}

template <typename Value, typename To, int... I>
inline void expand_bytes(uint32_t bytes, int e, const Value& value, const To& to, constants<I...>) {
  to(e, {value((bytes >> (8 * I)) & 255u)...});
}
// COUNT bytes, each an element.
template <int COUNT, typename Value, typename To>
inline void expand_bytes(const uint8_t* bytes, int e, const Value& value, const To& to) {
  expand_bytes(load_bytes<COUNT>(bytes), e, value, to, first_constants<COUNT>{});
}

#endif

// The expanders of formats with 64 elements in 32 bytes, whose byte j stands for elements j and j + 32. An expander derives
// from this and has `value<T>(block)`, a function from bytes to what their two codes become.
template <typename Expander>
struct split_nibbles {
  const uint8_t* quants;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t block, const To& to) const {
    const auto value = static_cast<const Expander*>(this)->template value<T>(block);
#pragma clang loop unroll(disable)
    for (int j = 0; j < 32; j += LANES) expand_pairs<32>(quants + 32 * block + j, j, value, to);
  }
#else
  template <typename T, int SPAN, typename To>
  void expand(int64_t block, int at, const To& to) const {
    const auto value = static_cast<const Expander*>(this)->template value<T>(block);
    expand_pairs<SPAN / 2, 32>(quants + 32 * block + at / 2, at / 2, value, to);
  }
#endif
};

// The same of formats with an element in each of 64 bytes.
template <typename Expander>
struct whole_bytes {
  const uint8_t* quants;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t block, const To& to) const {
    const auto value = static_cast<const Expander*>(this)->template value<T>(block);
#pragma clang loop unroll(disable)
    for (int e = 0; e < 64; e += LANES) expand_bytes(quants + 64 * block + e, e, value, to);
  }
#else
  template <typename T, int SPAN, typename To>
  void expand(int64_t block, int at, const To& to) const {
    const auto value = static_cast<const Expander*>(this)->template value<T>(block);
    expand_bytes<SPAN>(quants + 64 * block + at, at, value, to);
  }
#endif
};

}  // namespace quillon
