// q2_k times one activation row in q8_1 blocks. Template parameter T: element type of the output, of local
// memory and of the tree of sums. A work-group is 32 work-items with one output row; frame and tree:
// q8_1_dot.h.
//
// A slice is one word of codes, four bytes with four codes each, for elements of four neighbouring sub-blocks
// of 32:
//
//   record   0 | scales, 16 bytes | 16 | qs, 64 bytes | 80 | d half | 82 | dmin half |
//   word v of half n of qs: byte 4v + b of the half is
//            | e96+4v+b  e64+4v+b  e32+4v+b  e4v+b |    counted from the start of the half's 128 elements
//
// So the four activations of bits 2i and 2i + 1 are word v of the quants of q8_1 block 4n + i. A sub-block of
// 16 has a scale (low nibble) and a minimum (high nibble) in byte 8n + 2i + v / 4 of the scales.
#pragma once

#include <cstddef>

#include "formats/super_blocks.h"
#include "kernels/matvec/q8_1_dot.h"

namespace quillon {

// Slice `iqs`, 0 to 15, of super-block `block` of `w` times its sixteen activations: four in each of four of
// the blocks of `q`, of which super-block b has 8b to 8b + 7. Common bases with 32-bit places, and a loop in
// place of all loads at once, are what a CPU device gathers fastest.
inline float vec_dot_q2_k_q8_1(const block_q2_K* w, const block_q8_1* q, uint32_t block, uint32_t iqs) {
  const uint32_t n = iqs / 8;
  const uint32_t v = iqs % 8;
  const auto* bytes = reinterpret_cast<const uint8_t*>(w);
  const auto* x_bytes = reinterpret_cast<const uint8_t*>(q);
  constexpr uint32_t RECORD = sizeof(block_q2_K), QS = offsetof(block_q2_K, qs), D = offsetof(block_q2_K, d);
  constexpr uint32_t Q8_1 = sizeof(block_q8_1), Q8_1_QS = offsetof(block_q8_1, qs);
  const uint32_t record = block * RECORD;
  const uint32_t x = block * (8 * Q8_1) + n * (4 * Q8_1);
  const uint32_t x_quants = x + 4 * v + Q8_1_QS;

  const uint32_t codes = load_u32(bytes + (record + QS + 4 * iqs));
  // The scales of the half, shifted so that those of the slice are bytes 0, 2, 4 and 6.
  const uint64_t scales = load_u64(bytes + (record + 8 * n)) >> (v / 4 * 8);
  float sum_of_codes = 0.0f;
  float sum_of_minima = 0.0f;
#pragma unroll 1
  for (int i = 0; i < 4; ++i) {
    const auto quants = load<uint32_t, 4>(x_bytes + (x_quants + Q8_1 * i));
    const float d8 = two_halves(load<uint32_t, 4>(x_bytes + (x + Q8_1 * i))).first;
    const auto scale = static_cast<int>((scales >> (16 * i)) & 255);
    const int code_dot = dot_bytes((codes >> (2 * i)) & 0x03030303u, quants);
    const int quant_sum = dot_bytes(0x01010101u, quants);
    sum_of_codes = add(sum_of_codes, multiply(d8, static_cast<float>(code_dot * (scale & 15))));
    sum_of_minima = add(sum_of_minima, multiply(d8, static_cast<float>((scale >> 4) * quant_sum)));
  }
  const two_halves d_dmin(load_u32(bytes + (record + D)));
  return subtract(multiply(d_dmin.first, sum_of_codes), multiply(d_dmin.second, sum_of_minima));
}

}  // namespace quillon

template <typename T>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<2>))
void qlinear_xpu_kernel_q2_k_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_q2_K* weight,
                                  const quillon::block_q8_1* activations, sycl::local_accessor<T, 1> local, T* output) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const uint64_t row = place.get_group(1);
  const bool active = row < output_size;
  const float sum =
      active ? sum_of_slices<16, vec_dot_q2_k_q8_1>(weight + row * blocks_per_row, activations, blocks_per_row, lane)
             : 0.0f;
  reduce_and_write_row<T>(place, sum, &local[0], lane, active, output + row);
}
