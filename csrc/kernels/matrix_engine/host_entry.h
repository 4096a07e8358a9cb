// Host entry of the product on the matrix engine (loom_forward_kernel.h).
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

#include "kernels/kernel_table.h"
#include "runtime/element_type.h"

namespace quillon {

// input    batch rows of state_size elements            weight  packed bytes of output_size rows
// output   batch rows of output_size elements           engine  that of the device
//
// The element type of input and output is any but double. Of state_size only whole blocks of 64 count, of output_size
// whole tiles of sixteen columns; what is asked of the engine has no other ones.
void launch_matrix_engine(ElementType type, int qtype, engine_index engine, const void* input,
                          const std::uint8_t* weight, void* output, std::uint64_t batch, std::uint64_t state_size,
                          std::uint64_t output_size, c10::Device device);

}  // namespace quillon
