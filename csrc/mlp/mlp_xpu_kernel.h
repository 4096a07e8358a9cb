// The fused gate and up step of a transformer's MLP, for one activation row:
//
//   output[n] = activation(sum over k of input[k] * weight1[n][k], sum over k of input[k] * weight2[n][k])
//
// in one launch, with both weights packed in one format.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// input             float32, float64, float16 or bfloat16; its first state_size elements are read, whatever its shape
// weight1, weight2  uint8, gate and up projection: output_size rows of state_size elements in format `qtype`
// batch_size        rows of the result, of which the first alone is computed
// act_type          cut to 32 bits; 0: SiLU, else GELU (kernels/mlp/activation.h)
//
// Returns (batch_size, output_size) of the element type of `input`. In q4_0, q4_0_woq and fp4 the last rows that do not fill
// a tile, of two or on class legacy of eight, are not computed either (fp4: two).
at::Tensor mlp_forward_xpu(at::Tensor input, at::Tensor weight1, at::Tensor weight2, std::int64_t batch_size,
                           std::int64_t state_size, std::int64_t output_size, std::int64_t act_type,
                           std::int64_t qtype);

}  // namespace quillon
