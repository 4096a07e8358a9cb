// Host entry of the q4_0 matrix-vector kernel (device text: q4_0_2x16.h).
#pragma once

#include <c10/util/Exception.h>

#include "formats/registry.h"
#include "runtime/launch_kernel.h"

namespace quillon {

// output[n] = sum over k of input[k] * W[n][k], for one activation row. Submits and does not wait.
//   input   state_size elements of T       weight  q4_0 bytes of output_size rows
//   output  output_size elements of T      batch   always 1, part of the common signature
// state_size must be a multiple of 16; the storage format makes multiples of 64 of it.
template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
void qlinear_xpu_kernel_q4_0_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                  std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry = runtime::kernel_entry<T>(
      "kernels/matvec/q4_0_2x16.h", "qlinear_xpu_kernel_q4_0_2x16", {SG_SIZE, WG_SIZE, ROW_TILE});
  const std::uint64_t groups = (output_size + ROW_TILE - 1) / ROW_TILE;
  launch_kernel(entry, device, {groups * WG_SIZE, WG_SIZE},
                {state_size, weight, matvec_nibble_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(ROW_TILE * WG_SIZE), output_size, output});
}

}  // namespace quillon
