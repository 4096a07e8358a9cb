// What the skeletons of the fused MLP share: how sums of rows become outputs.
//
//   output[n] = activation(sum over k of input[k] * W1[n][k], sum over k of input[k] * W2[n][k])
//
// Form is the type whose form of the activation is taken: T, or float for all T.
#pragma once

#include "kernels/mlp/activation.h"
#ifdef QUILLON_VECTOR_LANES
#include "kernels/matvec/vectors.h"
#else
#include "kernels/matvec/items.h"
#endif

namespace quillon {

template <typename Form, typename T>
inline values<Form> in_form(values<T> from) {
  if constexpr (std::is_same_v<Form, T>)
    return from;
  else
    return as_floats<T>(from);
}

#ifdef QUILLON_VECTOR_LANES

// The sums of up to sixteen neighbouring rows, of which the activation is taken at once.
template <typename T>
struct sums_of_rows {
  T of[2][LANES] = {};  // gate, up

  template <typename Form>
  void write(int32_t act_type, int count, T* output) const {
    const auto result =
        activated<Form>(act_type, in_form<Form, T>(load_values<T>(of[0])), in_form<Form, T>(load_values<T>(of[1])));
    for (int i = 0; i < count; ++i) output[i] = convert<T>(result[i]);
  }
};

// Calls `sum(which, row)`, the product with a row of the gate (0) or of the up projection (1), for the rows from `first`
// to `last`, and writes what becomes of it.
template <typename T, typename Form, typename Sum>
inline void write_gated_rows(int32_t act_type, uint64_t first, uint64_t last, T* output, Sum sum) {
  for (uint64_t row = first; row < last; row += LANES) {
    const int count = last - row < LANES ? static_cast<int>(last - row) : LANES;
    sums_of_rows<T> sums;
    for (int r = 0; r < count; ++r) {
#pragma clang loop unroll(disable)
      for (int which = 0; which < 2; ++which) sums.of[which][r] = sum(which, row + r);
    }
    sums.template write<Form>(act_type, count, output + row);
  }
}

#else

template <typename T, typename Form>
inline T gated_element(int32_t act_type, T gate, T up) {
  return convert<T>(
      activated<Form>(act_type, in_form<Form, T>(element_values<T>(gate)), in_form<Form, T>(element_values<T>(up))));
}

#endif

}  // namespace quillon
