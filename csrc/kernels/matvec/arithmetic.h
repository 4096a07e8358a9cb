// The form in which a matrix-vector kernel keeps values of T in registers, `lane<T>`.
//
// float, double and half are kept as they are. A bfloat16 is kept as the float of the same value: its
// operations are float operations whose result is rounded back to bfloat16 at once, so the 16-bit form would
// be widened before each of them and narrowed after it, which costs a CPU device more than the operation.
// Every result is bit for bit that of bfloat16.
#pragma once

#include "runtime/scalar_types.h"

namespace quillon {

// A bfloat16 value in a float; the low 16 bits are zero.
struct wide_bfloat16 {
  float value;

  wide_bfloat16() = default;
  // `from` must already be a bfloat16 value, such as an integer of eight bits.
  static constexpr wide_bfloat16 exact(float from) {
    wide_bfloat16 result{};
    result.value = from;
    return result;
  }
  // Rounds any float; a NaN becomes 0x7FC0.
  explicit constexpr wide_bfloat16(float from) : value(from != from ? bit_cast<float>(0x7FC00000u) : round(from)) {}
  explicit constexpr operator float() const { return value; }

  // To nearest, ties to even, without a test for NaN. None is needed behind an operation on two of these: a
  // NaN that comes of it, be it an operand's or the processor's own, has clear low bits, to which the
  // addition does nothing. Storing one makes it 0x7FC0.
  static constexpr float round(float from) {
    const uint32_t bits = bit_cast<uint32_t>(from);
    return bit_cast<float>((bits + 0x7FFFu + ((bits >> 16) & 1u)) & 0xFFFF0000u);
  }

  friend constexpr wide_bfloat16 operator+(wide_bfloat16 a, wide_bfloat16 b) { return exact(round(a.value + b.value)); }
  friend constexpr wide_bfloat16 operator-(wide_bfloat16 a, wide_bfloat16 b) { return exact(round(a.value - b.value)); }
  friend constexpr wide_bfloat16 operator*(wide_bfloat16 a, wide_bfloat16 b) { return exact(round(a.value * b.value)); }
};

template <typename T>
struct lane_type {
  using type = T;
};
template <>
struct lane_type<bfloat16> {
  using type = wide_bfloat16;
};
template <typename T>
using lane = typename lane_type<T>::type;

// An element of T as it stands in memory.
template <typename T>
constexpr lane<T> to_lane(T element) {
  if constexpr (std::is_same_v<T, bfloat16>)
    return wide_bfloat16::exact(static_cast<float>(element));
  else
    return element;
}

// An integer that every T holds exactly: eight bits and a sign at most.
template <typename T>
constexpr lane<T> integer_lane(int value) {
  if constexpr (std::is_same_v<T, bfloat16>)
    return wide_bfloat16::exact(static_cast<float>(value));
  else
    return convert<T>(value);
}

// A float or a half of few significant bits that every T holds exactly, such as the value of a small-float
// code.
template <typename T, typename From>
constexpr lane<T> exact_lane(From value) {
  if constexpr (std::is_same_v<T, bfloat16>)
    return wide_bfloat16::exact(convert<float>(value));
  else
    return convert<T>(value);
}

// A float or a half, rounded to T.
template <typename T, typename From>
constexpr lane<T> rounded_lane(From value) {
  if constexpr (std::is_same_v<T, bfloat16>)
    return wide_bfloat16(convert<float>(value));
  else
    return convert<T>(value);
}

}  // namespace quillon
