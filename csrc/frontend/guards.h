// The guard wrappers of the operators that take an activation and a packed weight: device and contiguity checks,
// a profiler record, then the body.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// input: batch by state_size, contiguous, on an XPU; its element type (float32, float64, float16, bfloat16) is the
// result's. weight: flat uint8 bytes in format `qtype`, contiguous, on an XPU, never written. input_size is handed
// through to the launcher. Returns a new tensor, batch by output_size.
at::Tensor linear_forward_new(at::Tensor input, at::Tensor weight, std::int64_t qtype, std::int64_t input_size);

// Expands `weight` to a dense tensor of the element type of `input`; input.size(1) is the row length.
at::Tensor dequant(at::Tensor input, at::Tensor weight, std::int64_t qtype);

// Expands the rows of `weight` that `input` names.
at::Tensor dequantize_rows(at::Tensor input, at::Tensor weight, std::int64_t qtype, std::int64_t state_size,
                           std::int64_t output_size);

}  // namespace quillon
