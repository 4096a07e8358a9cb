// The four element types of activations, as values: what a launch needs to know of one.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstddef>
#include <cstdint>

namespace quillon {

enum class ElementType : std::uint8_t { float32, float64, float16, bfloat16 };
inline constexpr int kElementTypes = 4;

struct ElementFacts {
  const char* name;  // as template arguments of kernels spell it
  std::size_t size;
  std::size_t lane_size;  // of the form in which a lane of the vector backing holds it
};
inline constexpr ElementFacts kElementFacts[kElementTypes] = {
    {"float", 4, 4},
    {"double", 8, 8},
    {"c10::Half", 2, 4},
    {"c10::BFloat16", 2, 4},
};
constexpr const ElementFacts& facts_of(ElementType type) {
  return kElementFacts[static_cast<int>(type)];
}

template <typename T>
constexpr ElementType element_type_of();
template <>
constexpr ElementType element_type_of<float>() {
  return ElementType::float32;
}
template <>
constexpr ElementType element_type_of<double>() {
  return ElementType::float64;
}
template <>
constexpr ElementType element_type_of<c10::Half>() {
  return ElementType::float16;
}
template <>
constexpr ElementType element_type_of<c10::BFloat16>() {
  return ElementType::bfloat16;
}

}  // namespace quillon
