// Host entries of the matrix-vector kernels against q8_1 activations (device text: iq2_xxs_q8_1.h,
// q2_k_q8_1.h, iq1_s_q8_1.h).
//
// Each computes output[n] = sum over k of x[k] * W[n][k] for one activation row, submits and waits.
//   activations  q8_1 blocks of the row, as quantize_input_q8_1 makes them
//   weight       packed bytes of output_size rows of blocks_per_row super-blocks of 256 elements
//   output       output_size elements of T
//
// Ranges have the 32 work-items of a row in their last dimension, which is the one that sub-groups follow.
#pragma once

#include "runtime/launch_kernel.h"

namespace quillon {

template <typename T>
void qlinear_xpu_kernel_iq2_xxs_q8_1(const std::uint8_t* activations, const std::uint8_t* weight, T* output,
                                     std::int32_t blocks_per_row, std::uint64_t output_size, c10::Device device) {
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/iq2_xxs_q8_1.h", "qlinear_xpu_kernel_iq2_xxs_q8_1");
  launch_kernel(entry, device, {{2, (output_size + 1) / 2 * 32}, {2, 32}},
                {output_size, blocks_per_row, weight, activations, KernelArgument::local_array<T>(64), output},
                Wait::yes);
}

template <typename T>
void qlinear_xpu_kernel_q2_k_q8_1(const std::uint8_t* activations, const std::uint8_t* weight, T* output,
                                  std::int32_t blocks_per_row, std::uint64_t output_size, c10::Device device) {
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/q2_k_q8_1.h", "qlinear_xpu_kernel_q2_k_q8_1");
  launch_kernel(entry, device, {{1, output_size * 32}, {1, 32}},
                {output_size, blocks_per_row, weight, activations, KernelArgument::local_array<T>(32), output},
                Wait::yes);
}

template <typename T>
void qlinear_xpu_kernel_iq1_s_q8_1(const std::uint8_t* activations, const std::uint8_t* weight, T* output,
                                   std::int32_t blocks_per_row, std::uint64_t output_size, c10::Device device) {
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/iq1_s_q8_1.h", "qlinear_xpu_kernel_iq1_s_q8_1");
  launch_kernel(entry, device, {{1, output_size * 32}, {1, 32}},
                {output_size, blocks_per_row, weight, activations, output}, Wait::yes);
}

}  // namespace quillon
