// iq1_s times one activation row in q8_1 blocks: output[n] = sum over k of x[k] * W[n][k].
//
//   T  element type of the output
//
// A work-group is one sub-group of 32 lanes with one output row. The bytes are drawn in readers/iq1_s.h, slices in
// q8_1_dot.h. The lanes' sums are added in float by the sub-group and converted to T once.
#pragma once

#include "kernels/matvec/q8_1_dot.h"
#include "readers/iq1_s.h"
#ifndef QUILLON_VECTOR_LANES
#include <sycl/group_algorithm.hpp>
#include <sycl/sub_group.hpp>
#endif

template <typename T>
QUILLON_KERNEL(2)
QUILLON_SUB_GROUP(32)
void qlinear_xpu_kernel_iq1_s_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_iq1_s* weight,
                                   const quillon::block_q8_1* activations, T* output
#ifdef QUILLON_VECTOR_LANES
                                   ,
                                   sycl::local_accessor<float, 1> local  // the arranged activations
#endif
) {
  using namespace quillon;
#ifdef QUILLON_VECTOR_LANES
  for_each_row_of_slices<iq1_s_reader>(output_size, blocks_per_row, weight, activations, local,
                                       [=](uint64_t row, const sums_of_row& sums) {
                                         // From lane 0 to lane 31: the order in which the CPU device's sub-groups add.
                                         float total = sums.of[0][0];
                                         for (int lane = 1; lane < q8_1_lanes; ++lane)
                                           total = add(total, sums.of[lane / LANES][lane % LANES]);
                                         output[row] = convert<T>(total);
                                       });
#else
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const uint64_t row = place.get_group(1);
  if (row >= output_size) return;
  const float sum = sum_of_slices<iq1_s_reader>(weight + row * blocks_per_row, activations, blocks_per_row, lane);
  const float total = sycl::reduce_over_group(place.get_sub_group(), sum, sycl::plus<float>());
  if (lane == 0) output[row] = convert<T>(total);
#endif
}
