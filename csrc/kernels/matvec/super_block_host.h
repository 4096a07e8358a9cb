// Host entries of the matrix-vector kernels that read super-blocks against the activations as they are
// (device text: q4_k_2x16.h, q5_k.h, q6_k_2x16.h, fp6_k_2x16.h).
//
// Each computes output[n] = sum over k of input[k] * W[n][k] for one activation row, submits and does not
// wait.
//   input   state_size elements of T       weight  packed bytes of output_size rows
//   output  output_size elements of T      batch   always 1, part of the common signature
// The 2x16 kernels want a state_size that is a multiple of 16; the storage formats make multiples of 256 of
// it. Of such a row the kernels of q4_k and q6_k sum state_size / (16 * WG_SIZE) * (16 * WG_SIZE) elements
// and drop the rest.
#pragma once

#include <c10/util/Exception.h>

#include "dispatch/device_class_query.h"
#include "formats/registry.h"
#include "kernels/matvec/small_block_host.h"
#include "runtime/launch_kernel.h"

namespace quillon {

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_q4_k_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                  std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/q4_k_2x16.h", "qlinear_xpu_kernel_q4_k_2x16", {SG_SIZE, WG_SIZE});
  const std::int64_t blocks = matvec_super_blocks(state_size, output_size);
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, input, weight + blocks * 128, weight + blocks * 144,
                 KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_q6_k_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                  std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/q6_k_2x16.h", "qlinear_xpu_kernel_q6_k_2x16", {SG_SIZE, WG_SIZE});
  const std::int64_t blocks = matvec_super_blocks(state_size, output_size);
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, weight + blocks * 64, input, weight + blocks * 208, weight + blocks * 192,
                 KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
void qlinear_xpu_kernel_fp6_k_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                   std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry = runtime::kernel_entry<T>(
      "kernels/matvec/fp6_k_2x16.h", "qlinear_xpu_kernel_fp6_k_2x16", {SG_SIZE, WG_SIZE, ROW_TILE});
  const auto blocks = static_cast<std::uint64_t>(std::int64_t{matvec_super_blocks(state_size, output_size)});
  launch_kernel(entry, device, rows_range<WG_SIZE, ROW_TILE>(output_size),
                {state_size, weight, blocks * 128, blocks * 192, blocks * 208, input,
                 KernelArgument::local_array<T>(ROW_TILE * WG_SIZE), output_size, output});
}

// The kernel asks for sub-groups of 8. Devices of these classes have none, and any size gives the same
// results: they get the next one that they have.
constexpr bool has_sub_groups_of_8(XpuDeviceClass device_class) {
  return device_class != XpuDeviceClass::elm && device_class != XpuDeviceClass::fir &&
         device_class != XpuDeviceClass::yew;
}

template <typename T>
void qlinear_xpu_kernel_q5_k(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                             std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int WG_SIZE = 32;
  constexpr const char* HEADER = "kernels/matvec/q5_k.h";
  static runtime::KernelEntry& entry_8 = runtime::kernel_entry<T>(HEADER, "qlinear_xpu_kernel_q5_k", {8});
  static runtime::KernelEntry& entry_16 = runtime::kernel_entry<T>(HEADER, "qlinear_xpu_kernel_q5_k", {16});
  launch_kernel(has_sub_groups_of_8(get_device_class(device)) ? entry_8 : entry_16, device,
                rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, input, KernelArgument::local_array<float>(2 * WG_SIZE), output, output_size});
}

}  // namespace quillon
