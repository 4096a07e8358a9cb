// q5_0 times one activation row.
//
//   T        element type of input, output, local memory, every product of an activation and every sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns one row
//
// The scale comes before the product with the activation: d * (e - 16) is formed in float, for double in
// double, and rounded to T once. Blocks and dealing are drawn in five_bits.h; bytes 2 and 3 of a block are
// not read.
#pragma once

#include "kernels/matvec/five_bits.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q5_0(uint64_t state_size, const quillon::block_q5_1* weight, const T* input,
                             sycl::local_accessor<T, 1> local, T* output) {
  using namespace quillon;
  using Arithmetic = std::conditional_t<std::is_same_v<T, double>, double, float>;
  multiply_five_bits<T, SG_SIZE, WG_SIZE>(state_size, weight, input, local, output, [](const block_q5_1& block) {
    const Arithmetic d = convert<Arithmetic>(load_half(block.d));
    return [d](int code) { return rounded_lane<T>(d * convert<Arithmetic>(code - 16)); };
  });
}
