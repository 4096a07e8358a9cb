// Host entry of the activation quantizer (device text: quantize_q8_1.h).
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// Gives the q8_1 blocks of an activation row as a byte tensor on the device of `input`: 36 bytes for each 32
// elements.
//   input       activations: half, float, double or bfloat16; anything else is PyTorch's dispatch failure
//   batch       rows that the result has room for; the first row alone is quantized
//   state_size  elements of a row, must be a multiple of 256
// Submits to the current stream and does not wait.
at::Tensor quantize_input_q8_1(const at::Tensor& input, std::uint64_t batch, std::uint64_t state_size);

}  // namespace quillon
