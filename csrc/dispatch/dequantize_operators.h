// The host functions behind the operators dequant and dequantize_rows.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// The whole weight as a dense tensor, output_size by state_size = input.size(1), of the element type of `input`, on the
// device of `weight`. The kernel is that of the device class of `input`. A format without such an operator is an error that
// names those that have one.
at::Tensor qlinear_forward_xpu(at::Tensor input, at::Tensor weight, int qtype);

// The rows of a packed matrix, output_size by state_size, that the int64 index tensor `input`, rows0 by rows1, names:
// rows0 by rows1 by state_size, float32, on the device of `weight`. Formats: q2_k and q4_k.
//
// A row number is cut to 32 bits. It is looked at on the device, where the call does not wait: what a number leads to outside
// of the weight is NaN. Of rows that are no multiple of 256 only whole super-blocks are expanded, and put one row behind the
// other at as many elements; what then remains of the result is NaN.
at::Tensor dequantize_rows_xpu(at::Tensor input, at::Tensor weight, int qtype, std::int64_t state_size,
                               std::int64_t output_size);

// The kernels behind these by themselves, for every format that has one and into memory of the caller's. `output` is two
// dimensions of the result; the kernel is that of the class of its device.
//
// expand_weight  the whole weight, of output.size(0) rows
// expand_weight_fast the same by the kernels for large batches, into float32 or float16; their whole blocks alone
// expand_rows_of rows row_start and on of a weight of output_size rows, as many as output.size(0). Of fp6 the codes do not
//                move with row_start, only the scales, and columns behind the last whole 1024 are not written.
void expand_weight(at::Tensor weight, at::Tensor output, std::int64_t qtype);
void expand_weight_fast(at::Tensor weight, at::Tensor output, std::int64_t qtype);
void expand_rows_of(at::Tensor weight, at::Tensor output, std::int64_t qtype, std::int64_t output_size,
                    std::int64_t row_start);

}  // namespace quillon
