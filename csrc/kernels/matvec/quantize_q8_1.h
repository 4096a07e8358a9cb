// One activation row to q8_1 blocks. Template parameter T: element type of the activations.
//
// A sub-group of 32 work-items is one block of 32 elements, so that absolute maximum and sum are sub-group
// reductions; a work-group of 256 is eight blocks. Work-item i writes quant i mod 32 of block i / 32, and the
// first of each sub-group the two halves at its head:
//
//   block, 36 bytes    0 | d half | 2 | s half | 4 | q0 | q1 | ... | q31 |
#pragma once

#include <sycl/group_algorithm.hpp>
#include <sycl/sub_group.hpp>

#include "formats/q8_1.h"
#include "kernels/kernel.h"

template <typename T>
QUILLON_KERNEL(1)
QUILLON_SUB_GROUP(32)
void quantize_xpu_kernel_q8_1(const T* input, quillon::block_q8_1* output) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const auto sub_group = place.get_sub_group();
  const auto i = static_cast<uint32_t>(place.get_global_id(0));
  const T x = input[i];
  const float value = source_q8_1(x);
  const float sum = sycl::reduce_over_group(sub_group, value, sycl::plus<float>());
  // The sign is cleared by its bit: of a block of negative zeros the scale is +0.
  const float absmax = sycl::reduce_over_group(sub_group, bit_cast<float>(bit_cast<uint32_t>(value) & 0x7FFFFFFFu),
                                               sycl::maximum<float>());
  const float d = scale_q8_1(absmax);

  block_q8_1& block = output[i / 32];
  block.qs[i % 32] = quant_q8_1(x, d);
  if (i % 32 == 0) {
    block.d = convert<half>(d);
    block.s = convert<half>(sum);
  }
}
