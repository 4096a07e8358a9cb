// Host entries of the matrix-vector kernels of formats with 64-element blocks. Each is named like its kernel,
// whose text is the header that it names.
//
// output[n] = sum over k of input[k] * W[n][k], for one activation row. An entry submits and does not wait.
//   input   state_size elements of T       weight  the format's bytes of output_size rows
//   output  output_size elements of T      batch   always 1, part of the common signature
// state_size must be a multiple of the kernel's SUB_BLK_H; the storage formats make multiples of 64 of it.
#pragma once

#include <c10/util/Exception.h>

#include "formats/registry.h"
#include "runtime/launch_kernel.h"

namespace quillon {

// One work-group for each ROW_TILE rows.
template <int WG_SIZE, int ROW_TILE>
LaunchRange rows_range(std::uint64_t output_size) {
  return {(output_size + ROW_TILE - 1) / ROW_TILE * WG_SIZE, WG_SIZE};
}

// ---- q4_0, q4_0 woq: scale offset, output_size before output --------------------------------------------

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
void qlinear_xpu_kernel_q4_0_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                  std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry = runtime::kernel_entry<T>(
      "kernels/matvec/q4_0_2x16.h", "qlinear_xpu_kernel_q4_0_2x16", {SG_SIZE, WG_SIZE, ROW_TILE});
  launch_kernel(entry, device, rows_range<WG_SIZE, ROW_TILE>(output_size),
                {state_size, weight, matvec_nibble_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(ROW_TILE * WG_SIZE), output_size, output});
}

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
void qlinear_xpu_kernel_q4_0_woq_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                      std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry = runtime::kernel_entry<T>(
      "kernels/matvec/q4_0_woq_2x16.h", "qlinear_xpu_kernel_q4_0_woq_2x16", {SG_SIZE, WG_SIZE, ROW_TILE});
  launch_kernel(entry, device, rows_range<WG_SIZE, ROW_TILE>(output_size),
                {state_size, weight, matvec_nibble_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(ROW_TILE * WG_SIZE), output_size, output});
}

// ---- q4_1, nf4, fp4, nf3, q8_0, fp8_e4m3: scale offset, output before output_size -----------------------

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_q4_1_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                  std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/q4_1_2x16.h", "qlinear_xpu_kernel_q4_1_2x16", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, matvec_nibble_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_nf4_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                 std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/nf4_2x16.h", "qlinear_xpu_kernel_nf4_2x16", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, matvec_nibble_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_fp4_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                 std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/fp4_2x16.h", "qlinear_xpu_kernel_fp4_2x16", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, matvec_nibble_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_nf3_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                 std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/nf3_2x16.h", "qlinear_xpu_kernel_nf3_2x16", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, static_cast<std::int32_t>(nf3_region_offsets(state_size, output_size).start[1]),
                 input, KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_q8_0_2x8(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                 std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 8;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/q8_0_2x8.h", "qlinear_xpu_kernel_q8_0_2x8", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, matvec_q8_0_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_fp8_e4m3_2x8(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                     std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 8;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/fp8_e4m3_2x8.h", "qlinear_xpu_kernel_fp8_e4m3_2x8", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, matvec_q8_0_scale_offset(state_size, output_size), input,
                 KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

// ---- kernels with arguments of their own ----------------------------------------------------------------

// The kernel takes no scales: this reader of the format does not apply them.
template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_fp8_e5m2_2x8(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                     std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 8;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/fp8_e5m2_2x8.h", "qlinear_xpu_kernel_fp8_e5m2_2x8", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 2>(output_size),
                {state_size, weight, input, KernelArgument::local_array<T>(2 * WG_SIZE), output, output_size});
}

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
void qlinear_xpu_kernel_fp6_2x16(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                                 std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  constexpr int SUB_BLK_H = 16;
  TORCH_CHECK(state_size % SUB_BLK_H == 0, "%d must be a multiple of %d", state_size, SUB_BLK_H);
  static runtime::KernelEntry& entry = runtime::kernel_entry<T>(
      "kernels/matvec/fp6_2x16.h", "qlinear_xpu_kernel_fp6_2x16", {SG_SIZE, WG_SIZE, ROW_TILE});
  const region_offsets regions = fp6_region_offsets(state_size, output_size);
  launch_kernel(entry, device, rows_range<WG_SIZE, ROW_TILE>(output_size),
                {state_size, weight + regions.start[1], weight, input, weight + regions.start[2],
                 static_cast<std::int32_t>(state_size / 64), KernelArgument::local_array<T>(ROW_TILE * WG_SIZE),
                 output_size, output});
}

// state_size must be a multiple of 64; nothing tests it.
template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_q5_0(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                             std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/q5_0.h", "qlinear_xpu_kernel_q5_0", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 1>(output_size),
                {state_size, weight, input, KernelArgument::local_array<T>(WG_SIZE), output});
}

// As q5_0.
template <typename T, int SG_SIZE, int WG_SIZE>
void qlinear_xpu_kernel_q5_1(const T* input, const std::uint8_t* weight, T* output, std::uint64_t /*batch*/,
                             std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  static runtime::KernelEntry& entry =
      runtime::kernel_entry<T>("kernels/matvec/q5_1.h", "qlinear_xpu_kernel_q5_1", {SG_SIZE, WG_SIZE});
  launch_kernel(entry, device, rows_range<WG_SIZE, 1>(output_size),
                {state_size, weight, input, KernelArgument::local_array<T>(WG_SIZE), output});
}

}  // namespace quillon
