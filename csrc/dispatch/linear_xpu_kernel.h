// The dispatcher of the low-bit linear forward.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// output = input x transposed weight. Derives batch, state_size and output_size from the tensors, classifies the
// device of `input`, and hands the call to the matrix-engine path or to a launcher.
//   input   batch by state_size; its element type is the result's
//   weight  flat uint8 bytes in format `qtype`; excess bytes and a ragged last row are ignored
// Returns a new tensor, batch by output_size.
at::Tensor linear_xpu_forward_new(at::Tensor input, at::Tensor weight, int qtype, std::int64_t input_size);

}  // namespace quillon
