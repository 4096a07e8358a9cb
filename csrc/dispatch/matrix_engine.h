// The matrix-engine path: the product that the dispatcher gives to it.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// output = input times the transposed weight, in one kernel; `is_elm` tells the two classes with an engine apart.
// input_size is not used, and no environment variable is read.
//
// An element type that is none of half, bfloat16 and float writes "unsupported dtype" to the standard error stream and
// ends the process with status 2: it is not an exception.
at::Tensor linear_xpu_matrix_engine(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                                    std::uint64_t output_size, std::int64_t input_size, int qtype, bool is_elm);

}  // namespace quillon
