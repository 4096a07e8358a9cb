// Host entries of the matrix-vector kernels: output[b][n] = sum over k of input[b][k] * W[n][k] for one activation row, or
// for a handful of them.
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

}  // namespace quillon
