// q5_1 times one activation row.
//
//   T        element type of input, output, local memory, every product of an activation and every sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns one row
//
// Scale and minimum come before the product with the activation: d * e + m, each step in T. Blocks and
// dealing are drawn in five_bits.h.
#pragma once

#include "kernels/matvec/five_bits.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_q5_1(uint64_t state_size, const quillon::block_q5_1* weight, const T* input,
                             sycl::local_accessor<T, 1> local, T* output) {
  using namespace quillon;
  multiply_five_bits<T, SG_SIZE, WG_SIZE>(state_size, weight, input, local, output, [](const block_q5_1& block) {
    const lane<T> d = rounded_lane<T>(load_half(block.d));
    const lane<T> m = rounded_lane<T>(load_half(block.m));
    return [d, m](int code) { return d * integer_lane<T>(code) + m; };
  });
}
