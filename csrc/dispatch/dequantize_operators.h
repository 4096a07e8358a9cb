// The host functions behind the operators dequant and dequantize_rows.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// The whole weight as a dense tensor, output_size by state_size = input.size(1), of the element type of `input`.
at::Tensor qlinear_forward_xpu(at::Tensor input, at::Tensor weight, int qtype);

// The rows of a packed matrix, output_size by state_size, that the int64 index tensor `input` names, as float32.
at::Tensor dequantize_rows_xpu(at::Tensor input, at::Tensor weight, int qtype, std::int64_t state_size,
                               std::int64_t output_size);

}  // namespace quillon
