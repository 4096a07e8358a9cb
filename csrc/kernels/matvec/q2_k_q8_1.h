// q2_k times one activation row in q8_1 blocks: output[n] = sum over k of x[k] * W[n][k].
//
//   T  element type of the output, of local memory and of the tree of sums
//
// A work-group is 32 lanes with one output row; frame and tree: q8_1_dot.h. A slice is one word of codes, four bytes with
// four codes each, for elements of four neighbouring sub-blocks of 32:
//
//   record   0 | scales, 16 bytes | 16 | qs, 64 bytes | 80 | d half | 82 | dmin half |
//   word v of half n of qs: byte 4v + b of the half is
//            | e96+4v+b  e64+4v+b  e32+4v+b  e4v+b |    counted from the start of the half's 128 elements
//
// So the four activations of bits 2i and 2i + 1 are word v of the quants of q8_1 block 4n + i. A sub-block of 16 has a
// scale (low nibble) and a minimum (high nibble) in byte 8n + 2i + v / 4 of the scales.
#pragma once

#include "formats/super_blocks.h"
#include "kernels/matvec/q8_1_dot.h"

namespace quillon {

// The sum of one slice. `x.quant_word(i)`, `x.scale_of(i)` and `x.sum_of(i)` are its four activations in q8_1 block
// 4n + i, their scale and their sum, and `scale_byte(i)` is the byte of scale and minimum for them.
template <typename Activations, typename ScaleByte>
inline lanes<float> slice_of_q2_k(words codes, ScaleByte scale_byte, lanes<float> d, lanes<float> dmin,
                                  const Activations& x) {
  lanes<float> sum_of_codes = lanes<float>(0.0f);
  lanes<float> sum_of_minima = lanes<float>(0.0f);
#ifndef QUILLON_VECTOR_LANES
#pragma clang loop unroll(disable)
#endif
  for (int i = 0; i < 4; ++i) {
    const lanes<int32_t> byte = bit_cast<lanes<int32_t>>(words(scale_byte(i)));
    const lanes<int32_t> code_dot = dot_bytes((codes >> (2 * i)) & 0x03030303u, x.quant_word(i));
    sum_of_codes = add(sum_of_codes, multiply(x.scale_of(i), to_float(code_dot * (byte & 15))));
    sum_of_minima = add(sum_of_minima, multiply(x.scale_of(i), to_float((byte >> 4) * x.sum_of(i))));
  }
  return subtract(multiply(d, sum_of_codes), multiply(dmin, sum_of_minima));
}

#ifdef QUILLON_VECTOR_LANES

// The activations of one super-block: lanes 0 to 7 have the words of blocks 0 to 3, lanes 8 to 15 those of 4 to 7.
struct q2_k_activations {
  words quants[4];
  lanes<int32_t> sums[4];
  lanes<float> scales[4];

  q2_k_activations(const block_q8_1* q, const block_q8_1*) {
    unrolled<4>([&](auto i) {
      quants[i] =
          words_of_two(reinterpret_cast<const uint8_t*>(q[i].qs), reinterpret_cast<const uint8_t*>(q[4 + i].qs));
      sums[i] = dot_bytes(words(0x01010101u), quants[i]);
      scales[i] = in_octets(convert<float>(load_half(&q[i].d)), convert<float>(load_half(&q[4 + i].d)));
    });
  }
  words quant_word(int i) const { return quants[i]; }
  lanes<int32_t> sum_of(int i) const { return sums[i]; }
  lanes<float> scale_of(int i) const { return scales[i]; }
};
static_assert(sizeof(q2_k_activations) == 768);  // what kernel_table.h counts with

#else

struct q2_k_activations {
  const block_q8_1* blocks;
  uint32_t v;

  uint32_t quant_word(int i) const { return load<uint32_t, 4>(blocks[i].qs + 4 * v); }
  int sum_of(int i) const { return dot_bytes(0x01010101u, quant_word(i)); }
  float scale_of(int i) const { return two_halves(load<uint32_t, 4>(&blocks[i])).first; }
};

// Slice `iqs`, 0 to 15, of a super-block times its sixteen activations in the eight blocks of `q`.
inline float vec_dot_q2_k_q8_1(const block_q2_K& w, const block_q8_1* q, uint32_t iqs) {
  const uint32_t n = iqs / 8;
  const uint32_t v = iqs % 8;
  // The scales of the half, shifted so that those of the slice are bytes 0, 2, 4 and 6.
  const uint64_t scales = load_u64(w.scales + 8 * n) >> (v / 4 * 8);
  const two_halves d_dmin(load_u32(w.d));
  return slice_of_q2_k(
      load_u32(w.qs + 4 * iqs), [=](int i) { return static_cast<uint32_t>(scales >> (16 * i)) & 255; }, d_dmin.first,
      d_dmin.second, q2_k_activations{q + 4 * n, v});
}

#endif

}  // namespace quillon

template <typename T>
QUILLON_KERNEL(2)
void qlinear_xpu_kernel_q2_k_q8_1(uint64_t output_size, int32_t blocks_per_row, const quillon::block_q2_K* weight,
                                  const quillon::block_q8_1* activations, sycl::local_accessor<T, 1> local, T* output) {
  using namespace quillon;
#ifdef QUILLON_VECTOR_LANES
  for_each_row_of_slices<1, q2_k_activations>(
      output_size, blocks_per_row, activations, local,
      [=](uint64_t first_block, uint64_t, const q2_k_activations& x) {
        const block_q2_K& block = weight[first_block];
        // Bytes 8n + v / 4 and on, and the next odd or even ones in the bytes above.
        const auto bytes = load_vector<uint8_t, LANES>(block.scales);
        lanes<uint8_t> of_lane[4] = {
            __builtin_shufflevector(bytes, bytes, 0, 0, 0, 0, 1, 1, 1, 1, 8, 8, 8, 8, 9, 9, 9, 9),
            __builtin_shufflevector(bytes, bytes, 2, 2, 2, 2, 3, 3, 3, 3, 10, 10, 10, 10, 11, 11, 11, 11),
            __builtin_shufflevector(bytes, bytes, 4, 4, 4, 4, 5, 5, 5, 5, 12, 12, 12, 12, 13, 13, 13, 13),
            __builtin_shufflevector(bytes, bytes, 6, 6, 6, 6, 7, 7, 7, 7, 14, 14, 14, 14, 15, 15, 15, 15)};
        return slice_of_q2_k(
            load_vector<uint32_t, LANES>(block.qs), [&](int i) { return __builtin_convertvector(of_lane[i], words); },
            lanes<float>(convert<float>(load_half(block.d))), lanes<float>(convert<float>(load_half(block.dmin))), x);
      },
      [=](uint64_t row, const lanes<float>(&sums)[2]) { output[row] = tree_of_sums<T>(sums); });
#else
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const uint64_t row = place.get_group(1);
  const bool active = row < output_size;
  const float sum =
      active ? sum_of_slices<16, vec_dot_q2_k_q8_1>(weight + row * blocks_per_row, activations, blocks_per_row, lane)
             : 0.0f;
  reduce_and_write_row<T>(place, sum, &local[0], lane, active, output + row);
#endif
}
