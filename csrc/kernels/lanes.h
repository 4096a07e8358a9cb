// The vocabulary in which kernels are written: numbers of one lane or of several.
//
// A lane is one work-item's share of a work-group. The same kernel text is built in two backings:
//
//   work-items   a lane is a work-item, and words and values are plain numbers: LANES is 1. On a GPU.
//   vectors      a work-item carries all lanes of a work-group, sixteen to a clang vector: LANES is 16, and an
//                operation on vectors is the scalar one lane by lane. On the host device, whose compiler would
//                otherwise gather the memory of neighbouring work-items lane by lane.
//
// In both, a lane goes through the same operations of the same type in the same order, and so gets the same bits.
//
//   lanes<E>     an E in each lane          words        32-bit words of packed codes
//   values<T>    a T in each lane, in the form that is fastest to compute with:
//
//                  T          work-items                            vectors
//                  float      float                                 float x 16
//                  double     double                                double x 16
//                  half       half                                  in_float<half>
//                  bfloat16   in_float<bfloat16>                    in_float<bfloat16>
//
//                in_float<T> holds T's value in a float and rounds after each operation: the 16-bit form would be
//                widened before each of them and narrowed after it. No bit differs: a product or a sum of two such
//                values that is rounded to float first is still rounded correctly to T, since a float has more than
//                twice T's bits and two.
#pragma once

#include <type_traits>
#include <utility>

#include "formats/packed_bits.h"
#include "runtime/scalar_types.h"

namespace quillon {

#ifdef QUILLON_VECTOR_LANES
inline constexpr int LANES = 16;
template <typename E, int COUNT>
using vector = E __attribute__((ext_vector_type(COUNT)));
template <typename E>
using lanes = vector<E, LANES>;
#else
inline constexpr int LANES = 1;
template <typename E>
using lanes = E;
#endif
using words = lanes<uint32_t>;

// ---- constant indices -------------------------------------------------------------------------------------
//
// Pack expansions in place of loops over private arrays. The device compiler decides which arrays become registers
// before it unrolls loops, and closures that refer to closures hide them from it as well; an array that stays in memory
// costs a CPU device several times the kernel.

template <int... I>
using constants = std::integer_sequence<int, I...>;
template <int COUNT>
using first_constants = std::make_integer_sequence<int, COUNT>;

// Calls `body(i)` for i = 0 to COUNT - 1, each a constant of the type system: for bodies whose closure refers to
// values and not to other closures.
template <int... I, typename Body>
inline void unrolled(constants<I...>, Body&& body) {
  (body(std::integral_constant<int, I>{}), ...);
}
template <int COUNT, typename Body>
inline void unrolled(Body&& body) {
  unrolled(first_constants<COUNT>{}, body);
}

// ---- vectors in memory ------------------------------------------------------------------------------------

// A vector at an address that is a multiple of ALIGNMENT. A struct says so, because compilers drop an alignment that is
// given to a vector type whose element or length is a template parameter, and take its size in place of it.
template <typename Vector, int ALIGNMENT>
struct __attribute__((packed, aligned(ALIGNMENT), may_alias)) vector_in_memory {
  Vector value;
};
template <typename Vector, int ALIGNMENT>
inline Vector load_aligned(const void* address) {
  return static_cast<const vector_in_memory<Vector, ALIGNMENT>*>(address)->value;
}

// ---- lanes ------------------------------------------------------------------------------------------------

#ifdef QUILLON_VECTOR_LANES

// At any address.
template <typename E, int COUNT>
inline vector<E, COUNT> load_vector(const void* address) {
  return load_aligned<vector<E, COUNT>, 1>(address);
}
template <typename E, int COUNT>
inline void store_vector(void* address, vector<E, COUNT> from) {
  static_cast<vector_in_memory<vector<E, COUNT>, 1>*>(address)->value = from;
}

// A matrix of so many bytes does not wait in the caches for who reads it. Its lines are stored past them, and so are not
// read first, as a line is that is written in a cache. Who waits for the kernel has these stores too: there is no waiting
// without a locked operation, and none of those comes before the stores in front of it are done.
inline constexpr uint64_t PAST_CACHES = 32 << 20;
template <typename T>
inline bool goes_past_caches(const T* matrix, uint64_t elements) {
  constexpr uint64_t LONGEST_VECTOR = LANES * sizeof(double);
  return elements * sizeof(T) >= PAST_CACHES && reinterpret_cast<uint64_t>(matrix) % LONGEST_VECTOR == 0;
}
// At a multiple of the vector's size.
template <typename E, int COUNT>
inline void store_past_caches(void* address, vector<E, COUNT> from) {
  __builtin_nontemporal_store(from, static_cast<vector<E, COUNT>*>(address));
}

// Each element as a `To`. One alone is converted as a number: OpenCL has no vectors of one, and not every CPU device's
// compiler knows their conversion.
template <typename To, typename From, int COUNT>
inline vector<To, COUNT> converted(vector<From, COUNT> from) {
  if constexpr (COUNT == 1)
    return vector<To, 1>(static_cast<To>(from[0]));
  else
    return __builtin_convertvector(from, vector<To, COUNT>);
}

// Each element of `from` in LANES / COUNT neighbouring lanes.
template <typename E, int COUNT, int... I>
inline lanes<E> spread(vector<E, COUNT> from, constants<I...>) {
  return __builtin_shufflevector(from, from, (I * COUNT / LANES)...);
}
template <int COUNT, typename E>
inline lanes<E> spread(vector<E, COUNT> from) {
  return spread<E, COUNT>(from, first_constants<LANES>{});
}
// The first (0) or the second one of each pair in the same way.
template <typename E, int COUNT, int WHICH, int... I>
inline lanes<E> spread_of_pairs(vector<E, 2 * COUNT> from, constants<I...>) {
  return __builtin_shufflevector(from, from, (I * COUNT / LANES * 2 + WHICH)...);
}
template <int COUNT, int WHICH, typename E>
inline lanes<E> spread_of_pairs(vector<E, 2 * COUNT> from) {
  return spread_of_pairs<E, COUNT, WHICH>(from, first_constants<LANES>{});
}

// Lanes 0 to 15 of every STRIDE-th element from FIRST on of two vectors in a row.
template <int FIRST, int STRIDE, typename E, int... I>
inline lanes<E> pick(lanes<E> a, lanes<E> b, constants<I...>) {
  return __builtin_shufflevector(a, b, (FIRST + STRIDE * I)...);
}
template <int FIRST, int STRIDE, typename E>
inline lanes<E> pick(vector<E, LANES> a, vector<E, LANES> b) {
  return pick<FIRST, STRIDE, E>(a, b, first_constants<LANES>{});
}

// Two vectors, one behind the other.
template <typename E, int COUNT, int... I>
inline vector<E, 2 * COUNT> joined(vector<E, COUNT> first, vector<E, COUNT> second, constants<I...>) {
  return __builtin_shufflevector(first, second, I...);
}
template <typename E, int COUNT>
inline vector<E, 2 * COUNT> joined(vector<E, COUNT> first, vector<E, COUNT> second) {
  return joined<E, COUNT>(first, second, first_constants<2 * COUNT>{});
}

// A number for the first eight lanes, and one for the others.
template <typename E>
inline lanes<E> in_octets(E first, E second) {
  return joined<E, 8>(vector<E, 8>(first), vector<E, 8>(second));
}

// The halves of words of 64 bits.
struct word_pair {
  words word[2];

  words operator[](int i) const { return word[i]; }
};

// Eight neighbouring elements from each of two places.
template <typename E>
inline lanes<E> load_octets(const void* first, const void* second) {
  return joined<E, 8>(load_vector<E, 8>(first), load_vector<E, 8>(second));
}

#else

// Neighbouring words, in one load, each in a register of its own. Of a 64-bit load each half would have to be moved
// there.
template <int COUNT>
using neighbouring_words = uint32_t __attribute__((ext_vector_type(COUNT)));

// Such words at an address that is a multiple of ALIGNMENT.
template <int COUNT, int ALIGNMENT>
inline neighbouring_words<COUNT> load_words(const void* address) {
  return load_aligned<neighbouring_words<COUNT>, ALIGNMENT>(address);
}

// The halves of a word of 64 bits.
using word_pair = neighbouring_words<2>;

#endif

#ifdef QUILLON_VECTOR_LANES

// ---- tables -----------------------------------------------------------------------------------------------

// The entries of a table at these indices. The compiler makes one permutation of the loop where the processor has one for
// such vectors, and a load for each element where it has not.
template <typename E, typename Index, int COUNT>
inline vector<E, COUNT> permuted(vector<E, COUNT> table, vector<Index, COUNT> index) {
  vector<E, COUNT> result;
#pragma unroll
  for (int i = 0; i < COUNT; ++i) result[i] = table[index[i]];
  return result;
}

#ifdef QUILLON_NARROW_VECTORS

// The entries of a table of sixteen, on processors whose registers hold eight floats.
inline vector<float, 8> look_up(vector<float, 8> low, vector<float, 8> high, vector<uint32_t, 8> index) {
  const vector<uint32_t, 8> of_half = index & 7u;
  return index > 7u ? permuted<float, uint32_t, 8>(high, of_half) : permuted<float, uint32_t, 8>(low, of_half);
}
inline lanes<float> look_up(lanes<float> table, words index) {
  return joined<float, 8>(look_up(table.lo, table.hi, index.lo), look_up(table.lo, table.hi, index.hi));
}

inline lanes<uint16_t> look_up(lanes<uint16_t> table, lanes<uint8_t> index) {
  const auto lower = converted<uint8_t, uint16_t, LANES>(table),
             upper = converted<uint8_t, uint16_t, LANES>(table >> 8);
  const auto low = permuted<uint8_t, uint8_t, LANES>(lower, index),
             high = permuted<uint8_t, uint8_t, LANES>(upper, index);
  return converted<uint16_t, uint8_t, LANES>(low) | converted<uint16_t, uint8_t, LANES>(high) << 8;
}
inline vector<uint16_t, 32> look_up(lanes<uint16_t> table, lanes<uint8_t> first, lanes<uint8_t> second) {
  return joined<uint16_t, LANES>(look_up(table, first), look_up(table, second));
}

#else

// The entries of a table of sixteen.
inline lanes<float> look_up(lanes<float> table, words index) {
  return permuted<float, uint32_t, LANES>(table, index);
}
inline vector<uint16_t, 32> look_up(lanes<uint16_t> table, lanes<uint8_t> first, lanes<uint8_t> second) {
  const auto index = converted<uint16_t, uint8_t, 32>(joined<uint8_t, LANES>(first, second));
  return permuted<uint16_t, uint16_t, 32>(joined<uint16_t, LANES>(table, table), index);
}

#endif

#endif

// ---- 16-bit types in float --------------------------------------------------------------------------------

// To nearest, ties to even, without a test for NaN: a NaN that comes of an operation on two values of T, be it an
// operand's or the processor's own, has clear low bits, to which the addition does nothing. Storing one makes it 0x7FC0.
inline lanes<float> round_to(bfloat16, lanes<float> from) {
  const words bits = bit_cast<words>(from);
  return bit_cast<lanes<float>>((bits + 0x7FFFu + ((bits >> 16) & 1u)) & 0xFFFF0000u);
}
#ifdef QUILLON_VECTOR_LANES
inline lanes<float> round_to(half, lanes<float> from) {
  return converted<float>(converted<_Float16>(from));
}
#endif

template <typename T>
struct in_float {
  lanes<float> value;

  // `from` must already be values of T, such as integers of eight bits.
  static in_float exact(lanes<float> from) { return {from}; }

  friend in_float operator+(in_float a, in_float b) { return {round_to(T{}, a.value + b.value)}; }
  friend in_float operator-(in_float a, in_float b) { return {round_to(T{}, a.value - b.value)}; }
  friend in_float operator*(in_float a, in_float b) { return {round_to(T{}, a.value * b.value)}; }
};

template <typename T>
struct values_of {
  using type = lanes<T>;
};
template <>
struct values_of<bfloat16> {
  using type = in_float<bfloat16>;
};
#ifdef QUILLON_VECTOR_LANES
template <>
struct values_of<half> {
  using type = in_float<half>;
};
#endif
template <typename T>
using values = typename values_of<T>::type;

template <typename T>
inline constexpr bool is_in_float = std::is_same_v<values<T>, in_float<T>>;

// a * b + c, rounded once in float and double, and after each operation in the 16-bit types. Wherever a product is added
// to something, kernels say so with this: left to a compiler, whether the two become one operation would depend on the
// code around them, and the backings would differ.
template <typename Value>
inline constexpr bool is_fused = std::is_same_v<Value, lanes<float>> || std::is_same_v<Value, lanes<double>>;

template <typename Value>
inline Value multiply_add(Value a, Value b, Value c) {
  if constexpr (is_fused<Value>)
    return __builtin_elementwise_fma(a, b, c);
  else
    return a * b + c;
}

// a * b - c in the same way.
template <typename Value>
inline Value multiply_subtract(Value a, Value b, Value c) {
  if constexpr (is_fused<Value>)
    return __builtin_elementwise_fma(a, b, -c);
  else
    return a * b - c;
}

// ---- conversion -------------------------------------------------------------------------------------------

// Floats, or integers of eight bits and a sign, that every T holds exactly.
template <typename T, typename From>
inline values<T> exact_values(From from) {
#ifdef QUILLON_VECTOR_LANES
  if constexpr (is_in_float<T>)
    return {converted<float>(from)};
  else
    return converted<T>(from);
#else
  if constexpr (is_in_float<T>)
    return {convert<float>(from)};
  else
    return convert<T>(from);
#endif
}

// Codes of fewer than 23 bits, less `bias`; exact in every T.
template <typename T>
inline values<T> biased_codes(words codes, int bias) {
#ifdef QUILLON_VECTOR_LANES
  // A code in the low bits of 2^23 is the float 2^23 + code: one operation less than a conversion.
  return exact_values<T>(bit_cast<lanes<float>>(codes | 0x4B000000u) - static_cast<float>(0x800000 + bias));
#else
  return exact_values<T>(static_cast<int>(codes) - bias);
#endif
}

// The codes of COUNT bits from bit FIRST of a word on, less `bias`.
template <typename T, int FIRST, int COUNT>
inline values<T> biased_codes_at(words from, int bias) {
  constexpr uint32_t MASK = (1u << COUNT) - 1;
#ifdef QUILLON_VECTOR_LANES
  // Where they stand, in a number so large that the bit counts 1: no shift.
  static_assert(FIRST + COUNT <= 23);
  constexpr uint32_t EXPONENT = (127 + 23 - FIRST) << 23;
  const words number = (from & (MASK << FIRST)) | EXPONENT;
  return exact_values<T>(bit_cast<lanes<float>>(number) - static_cast<float>((0x800000 >> FIRST) + bias));
#else
  return biased_codes<T>((from >> FIRST) & MASK, bias);
#endif
}

// Codes of sixteen bits as the bits of halves that every T holds exactly.
template <typename T>
inline values<T> halves_of_bits(words bits) {
#ifdef QUILLON_VECTOR_LANES
  const auto half_bits = converted<uint16_t>(bits);
  return exact_values<T>(converted<float>(bit_cast<lanes<_Float16>>(half_bits)));
#else
  return exact_values<T>(half_from_bits(static_cast<uint16_t>(bits)));
#endif
}

// Two such halves in each word, the lower (0) and the upper one, of words that went through `halves_apart` before their
// bits became those of halves. Vectors hold the lower halves of all lanes in front of the upper ones from there on: one
// permutation where each half would take one, and sixteen halves side by side are what a processor converts.
#ifdef QUILLON_VECTOR_LANES
template <int... I>
inline words halves_apart(words from, constants<I...>) {
  const auto halves = bit_cast<vector<uint16_t, 2 * LANES>>(from);
  return bit_cast<words>(__builtin_shufflevector(halves, halves, (2 * I)..., (2 * I + 1)...));
}
inline words halves_apart(words from) {
  return halves_apart(from, first_constants<LANES>{});
}
template <typename T, int UPPER, int... I>
inline values<T> half_of_word(words bits, constants<I...>) {
  const auto halves = bit_cast<vector<_Float16, 2 * LANES>>(bits);
  const lanes<_Float16> chosen = __builtin_shufflevector(halves, halves, (UPPER * LANES + I)...);
  return exact_values<T>(converted<float>(chosen));
}
template <typename T, int UPPER>
inline values<T> half_of_word(words bits) {
  return half_of_word<T, UPPER>(bits, first_constants<LANES>{});
}
#else
inline uint32_t halves_apart(uint32_t from) {
  return from;
}
template <typename T, int UPPER>
inline values<T> half_of_word(uint32_t bits) {
  return halves_of_bits<T>(UPPER ? bits >> 16 : bits);
}
#endif

// Floats, rounded to T; of bfloat16, a NaN becomes 0x7FC0.
template <typename T>
inline values<T> rounded_values(lanes<float> from) {
  if constexpr (std::is_same_v<T, bfloat16>)
    return {from != from ? bit_cast<lanes<float>>(words(0x7FC00000u)) : round_to(T{}, from)};
  else if constexpr (is_in_float<T>)
    return {round_to(T{}, from)};
  else
    return exact_values<T>(from);
}

// Stored halves, rounded to T.
template <typename T>
inline values<T> rounded_halves(values<half> from) {
  if constexpr (std::is_same_v<T, half>)
    return from;
  else
#ifdef QUILLON_VECTOR_LANES
    return rounded_values<T>(from.value);
#else
    return rounded_values<T>(convert<float>(from));
#endif
}

// The values as floats.
template <typename T>
inline lanes<float> as_floats(values<T> from) {
  if constexpr (is_in_float<T>)
    return from.value;
  else
#ifdef QUILLON_VECTOR_LANES
    return converted<float>(from);
#else
    return convert<float>(from);
#endif
}

#ifndef QUILLON_VECTOR_LANES
// The value as it stands in memory.
template <typename T, typename Value>
inline T element_of(Value value) {
  if constexpr (std::is_same_v<Value, in_float<T>>)
    return convert<T>(value.value);
  else
    return value;
}
#endif

// An element of T as it stands in memory, in every lane.
template <typename T>
inline values<T> element_values(T element) {
  if constexpr (is_in_float<T>)
    return {lanes<float>(convert<float>(element))};
  else
    return element;
}

}  // namespace quillon
