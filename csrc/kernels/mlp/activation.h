// What the fused MLP makes of the sum g over the gate's row and the sum u over the up projection's row:
//
//   act_type 0   SiLU   (g * u) / (exp(-g) + 1)
//   otherwise    GELU   (g * 0.5) * (tanh(g * C1 + g^3 * C2) + 1) * u, as far as tanh stands for it
//
// in float. C2 comes onto the cube of g alone and not onto its product with C1: that is how this activation is defined
// here. For double, g is narrowed to float and what the activation makes of it meets u in double: SiLU then divides before
// u comes in.
#pragma once

#include "kernels/lanes.h"

namespace quillon {

inline lanes<float> gelu(lanes<float> g) {
  constexpr float C1 = 0.7978845834732056f, C2 = 0.044714998453855515f;
  const lanes<float> cube = __spirv_ocl_pow(g, lanes<float>(3.0f));
  const lanes<float> inner = add(multiply(g, lanes<float>(C1)), multiply(cube, lanes<float>(C2)));
  return multiply(multiply(g, lanes<float>(0.5f)), __spirv_ocl_tanh(inner) + 1.0f);
}

// In double for double, in float for the other types.
template <typename T>
inline auto activated(int32_t act_type, values<T> gate, values<T> up) {
  const lanes<float> g = as_floats<T>(gate);
  if constexpr (std::is_same_v<T, double>) {
    const lanes<float> factor = act_type == 0 ? g / (__spirv_ocl_exp(-g) + 1.0f) : gelu(g);
    return multiply(up, exact_values<double>(factor));
  } else {
    const lanes<float> u = as_floats<T>(up);
    return act_type == 0 ? multiply(g, u) / (__spirv_ocl_exp(-g) + 1.0f) : multiply(gelu(g), u);
  }
}

}  // namespace quillon
