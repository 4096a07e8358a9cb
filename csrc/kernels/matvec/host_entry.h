// Host entries of the matrix-vector kernels, output[b][n] = sum over k of input[b][k] * W[n][k] for one activation row or
// for a handful of them, and of the fused MLP, which has a second weight.
//
// All are one function over the rows of kernel_table.h. It checks the row length, forms the range and the arguments in
// the kernel's own order, and submits; it waits for the kernel only where the row says so.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

#include "kernels/kernel_table.h"
#include "runtime/element_type.h"

namespace quillon {

// An instantiation of a kernel, for all four element types.
struct MatvecKernel {
  int row;  // of kernel_table
  kernel_geometry geometry;
};

// input   batch rows of state_size elements of T, or q8_1 blocks of one   weight  packed bytes of output_size rows
// output  batch rows of output_size elements of T                         batch   1 but for kernels of the by-batch family
//
// A row length that is no multiple of the kernel's row unit is a RuntimeError whose check site is the kernel's name.
void launch_matvec(const MatvecKernel& kernel, ElementType type, const void* input, const std::uint8_t* weight,
                   void* output, std::uint64_t batch, std::uint64_t state_size, std::uint64_t output_size,
                   c10::Device device);

// input   state_size elements of T, or their q8_1 blocks       weight1, weight2  gate and up projection, alike in all
// output  output_size elements of T                            act_type          0: SiLU, else GELU
//
// The row length is not looked at. Where the kernel leaves rows out (leaves_short_tile), their outputs are not written.
void launch_mlp(const MatvecKernel& kernel, ElementType type, const void* input, const std::uint8_t* weight1,
                const std::uint8_t* weight2, std::int32_t act_type, void* output, std::uint64_t state_size,
                std::uint64_t output_size, c10::Device device);

}  // namespace quillon
