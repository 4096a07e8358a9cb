// Products with a weight that is expanded first, whole or in tiles of rows, and the dense tensors that this takes.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

#include "kernels/kernel_table.h"

namespace quillon {

// A new tensor of rows by columns elements on the weight's device.
at::Tensor make_dense(const at::Tensor& weight, at::ScalarType type, std::uint64_t rows, std::uint64_t columns);

// Makes the elements of `result` behind the first `written` NaN, which no kernel writes, in place of what its memory held.
void fill_behind(const at::Tensor& result, std::uint64_t written);

// input (batch, state_size) times the weight of output_size rows: (batch, output_size), of the input's element type.
//
// multiply_expanded expands the whole weight. Where a format has no kernel for the input's element type or for a weight of
// this size it is a std::runtime_error.
//
// multiply_in_tiles expands tile_size rows at a time, which is the memory that it needs beside the output.
at::Tensor multiply_expanded(int qtype, launcher_table_index table, const at::Tensor& input, const at::Tensor& weight,
                             std::uint64_t state_size, std::uint64_t output_size);
at::Tensor multiply_in_tiles(int qtype, launcher_table_index table, const at::Tensor& input, const at::Tensor& weight,
                             std::uint64_t tile_size, std::uint64_t batch, std::uint64_t state_size,
                             std::uint64_t output_size);

}  // namespace quillon
