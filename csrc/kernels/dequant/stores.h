// How expanded values reach memory: converted to T (readers/expansion.h tells from what), neighbours in one store.
#pragma once

#include "kernels/kernel.h"
#include "kernels/lanes.h"
#include "readers/expansion.h"

namespace quillon {

#ifdef QUILLON_VECTOR_LANES

// The form in which memory holds an element.
template <typename T>
using stored_element = std::conditional_t<sizeof(T) == 2, uint16_t, T>;

template <typename T, typename Value>
inline lanes<stored_element<T>> as_stored(Value value) {
  if constexpr (std::is_same_v<Value, half_patterns>) {
    const auto bits = converted<uint16_t>(value.bits);
    if constexpr (std::is_same_v<T, half>)
      return bits;
    else
      return as_stored<T>(converted<float>(bit_cast<lanes<_Float16>>(bits)));
  } else if constexpr (std::is_same_v<T, bfloat16> && std::is_same_v<Value, values<T>>) {
    // Rounded already; a NaN becomes the one that bfloat16 has.
    const words bits = value.value != value.value ? words(0x7FC00000u) : bit_cast<words>(value.value);
    return converted<uint16_t>(bits >> 16);
  } else if constexpr (is_in_float<T> && std::is_same_v<Value, values<T>>) {
    return as_stored<T>(value.value);
  } else if constexpr (std::is_same_v<T, half>) {
    return bit_cast<lanes<uint16_t>>(converted<_Float16>(value));
  } else if constexpr (std::is_same_v<T, bfloat16>) {
    return converted<uint16_t>(bit_cast<words>(rounded_values<T>(value).value) >> 16);
  } else {
    return converted<T>(value);
  }
}

#else

template <typename T, typename Value>
inline T as_stored(Value value) {
  if constexpr (std::is_same_v<Value, half_patterns>)
    return convert<T>(half_from_bits(static_cast<uint16_t>(value.bits)));
  else if constexpr (std::is_same_v<Value, values<T>>)
    return element_of<T>(value);
  else
    return convert<T>(value);
}

// Neighbours, of which COUNT times the size of one is a multiple of the address, in stores of up to sixteen bytes.
template <typename T, int COUNT>
inline void store_elements(T* to, const T (&elements)[COUNT]) {
  using bits = std::conditional_t<sizeof(T) == 2, uint16_t, std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>;
  constexpr int AT_ONCE = COUNT * sizeof(T) > 16 ? 16 / sizeof(T) : COUNT;
  using group = bits __attribute__((ext_vector_type(AT_ONCE)));
  unrolled<COUNT / AT_ONCE>([&](auto g) {
    group stored;
    unrolled<AT_ONCE>([&](auto i) { stored[int{i}] = bit_cast<bits>(elements[AT_ONCE * g + i]); });
    reinterpret_cast<group*>(to)[g] = stored;
  });
}

#endif

// Stores what an expander gives for elements of the block that starts at `start`.
template <typename T>
struct block_stores {
  T* start;

#ifdef QUILLON_VECTOR_LANES
  bool past_caches;

  template <typename Value>
  void operator()(int e, Value value) const {
    if (past_caches)
      store_past_caches(start + e, as_stored<T>(value));
    else
      store_vector(start + e, as_stored<T>(value));
  }
#else
  template <typename Value, int COUNT>
  void operator()(int e, const Value (&values)[COUNT]) const {
    store(e, values, first_constants<COUNT>{});
  }

 private:
  template <typename Value, int COUNT, int... I>
  void store(int e, const Value (&values)[COUNT], constants<I...>) const {
    store_elements<T, COUNT>(start + e, {as_stored<T>(values[I])...});
  }
#endif
};

}  // namespace quillon
