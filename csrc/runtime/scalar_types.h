// Element types and numeric conversions, one text for the host compiler and the run-time device compiler.
//
// T is float, double, quillon::half or quillon::bfloat16. Device text names the last two c10::Half and
// c10::BFloat16, as the operators' signatures do; host code that includes torch has c10's own types of the
// same bits and layout, so the aliases exist in device text alone. Device text is compiled with
// QUILLON_DEVICE_SOURCE defined, also in passes that are not the device pass.
//
// Every conversion goes through convert<To>(from):
//   half -> float, double           exact
//   float -> half                   to nearest, ties to even
//   float -> bfloat16               NaN to 0x7FC0, else to nearest, ties to even
//   double, integers -> 16 bits     through float
//   half <-> bfloat16               through float
#pragma once

#include <cstdint>
#include <type_traits>

#if defined(__SYCL_DEVICE_ONLY__) || defined(QUILLON_DEVICE_SOURCE)
#define QUILLON_DEVICE_TEXT 1
#include <sycl/half_type.hpp>
#endif

namespace quillon {

template <typename To, typename From>
constexpr To bit_cast(const From& from) {
  static_assert(sizeof(To) == sizeof(From));
  return __builtin_bit_cast(To, from);
}

// ---- bit patterns -----------------------------------------------------------------------------------------

constexpr float bfloat16_bits_to_float(uint16_t bits) {
  return bit_cast<float>(uint32_t{bits} << 16);
}

constexpr uint16_t float_to_bfloat16_bits(float value) {
  const uint32_t bits = bit_cast<uint32_t>(value);
  if ((bits & 0x7FFFFFFFu) > 0x7F800000u) return 0x7FC0;
  return static_cast<uint16_t>((bits + 0x7FFFu + ((bits >> 16) & 1u)) >> 16);
}

constexpr float half_bits_to_float(uint16_t bits) {
  const uint32_t sign = (bits & 0x8000u) << 16;
  const uint32_t magnitude = bits & 0x7FFFu;
  if (magnitude > 0x7C00u) return bit_cast<float>(sign | 0x7FC00000u | ((magnitude & 0x3FFu) << 13));
  if (magnitude == 0x7C00u) return bit_cast<float>(sign | 0x7F800000u);
  if (magnitude >= 0x0400u) return bit_cast<float>(sign | ((magnitude << 13) + 0x38000000u));
  const float subnormal = static_cast<float>(magnitude) * 0x1p-24f;
  return bit_cast<float>(sign | bit_cast<uint32_t>(subnormal));
}

constexpr uint16_t float_to_half_bits(float value) {
  const uint32_t bits = bit_cast<uint32_t>(value);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const uint32_t magnitude = bits & 0x7FFFFFFFu;
  uint32_t result = 0;
  if (magnitude > 0x7F800000u) {
    result = 0x7E00u | ((magnitude >> 13) & 0x3FFu);
  } else if (magnitude >= 0x47800000u) {
    result = 0x7C00u;
  } else if (magnitude >= 0x38800000u) {
    // A carry out of the mantissa raises the exponent; past 65504 that gives infinity, as it should.
    result = (magnitude - 0x38000000u + 0x0FFFu + ((magnitude >> 13) & 1u)) >> 13;
  } else {
    // Adding 0.5 leaves the multiple of 2^-24 in the low bits, rounded to nearest even by the addition.
    result = bit_cast<uint32_t>(bit_cast<float>(magnitude) + 0.5f) - 0x3F000000u;
  }
  return static_cast<uint16_t>(sign | result);
}

// ---- 16-bit types -----------------------------------------------------------------------------------------

// A 16-bit float that holds its bits and computes each operation in float, rounding back at once.
template <float (*WIDEN)(uint16_t), uint16_t (*ROUND)(float)>
struct rounded_float16 {
  uint16_t bits;

  rounded_float16() = default;
  explicit constexpr rounded_float16(float value) : bits(ROUND(value)) {}
  explicit constexpr operator float() const { return WIDEN(bits); }

  static constexpr rounded_float16 from_bits(uint16_t bits) {
    rounded_float16 result(0.0f);
    result.bits = bits;
    return result;
  }

  friend constexpr rounded_float16 operator+(rounded_float16 a, rounded_float16 b) {
    return rounded_float16(WIDEN(a.bits) + WIDEN(b.bits));
  }
  friend constexpr rounded_float16 operator-(rounded_float16 a, rounded_float16 b) {
    return rounded_float16(WIDEN(a.bits) - WIDEN(b.bits));
  }
  friend constexpr rounded_float16 operator*(rounded_float16 a, rounded_float16 b) {
    return rounded_float16(WIDEN(a.bits) * WIDEN(b.bits));
  }
  friend constexpr rounded_float16 operator/(rounded_float16 a, rounded_float16 b) {
    return rounded_float16(WIDEN(a.bits) / WIDEN(b.bits));
  }
  friend constexpr rounded_float16 operator-(rounded_float16 a) {
    return from_bits(static_cast<uint16_t>(a.bits ^ 0x8000u));
  }
  constexpr rounded_float16& operator+=(rounded_float16 other) { return *this = *this + other; }
  constexpr rounded_float16& operator-=(rounded_float16 other) { return *this = *this - other; }
  constexpr rounded_float16& operator*=(rounded_float16 other) { return *this = *this * other; }
  constexpr rounded_float16& operator/=(rounded_float16 other) { return *this = *this / other; }
};

using bfloat16 = rounded_float16<bfloat16_bits_to_float, float_to_bfloat16_bits>;

// The host does not use sycl::half: its host form truncates where a half result is subnormal.
#ifdef QUILLON_DEVICE_TEXT
using half = sycl::half;
#else
using half = rounded_float16<half_bits_to_float, float_to_half_bits>;
#endif

static_assert(sizeof(half) == 2 && sizeof(bfloat16) == 2);
static_assert(std::is_trivially_copyable_v<half> && std::is_trivially_copyable_v<bfloat16>);

template <typename T>
inline constexpr bool is_float16 = std::is_same_v<T, half> || std::is_same_v<T, bfloat16>;

constexpr half half_from_bits(uint16_t bits) {
  return bit_cast<half>(bits);
}

// ---- conversion -------------------------------------------------------------------------------------------

// `from` may be an integer, float, double, half or bfloat16. Integers must be exact in float when T has 16
// bits.
template <typename To, typename From>
constexpr To convert(From from) {
  if constexpr (std::is_same_v<To, From>) {
    return from;
  } else if constexpr (is_float16<From>) {
    return convert<To>(static_cast<float>(from));
  } else if constexpr (is_float16<To>) {
    return To(static_cast<float>(from));
  } else {
    return static_cast<To>(from);
  }
}

// ---- arithmetic -------------------------------------------------------------------------------------------

// Products and sums that are rounded by themselves: no compiler may contract these into a fused operation. A
// plain a * b + c in one expression may be contracted, in the same kernel too.
template <typename T>
constexpr T multiply(T a, T b) {
#ifdef __clang__
#pragma clang fp contract(off)
#endif
  return a * b;
}

template <typename T>
constexpr T add(T a, T b) {
#ifdef __clang__
#pragma clang fp contract(off)
#endif
  return a + b;
}

template <typename T>
constexpr T subtract(T a, T b) {
#ifdef __clang__
#pragma clang fp contract(off)
#endif
  return a - b;
}

}  // namespace quillon

#ifdef QUILLON_DEVICE_TEXT
namespace c10 {
using Half = quillon::half;
using BFloat16 = quillon::bfloat16;
}  // namespace c10
#endif
