// fp6 times one activation row.
//
//   T         element type of input, output, local memory and every product and sum
//   SG_SIZE   required sub-group size    WG_SIZE  work-items of a work-group
//   ROW_TILE  output rows of a work-group
//
// A chunk is sixteen neighbouring elements, one group of a block: a word of the high plane and two
// neighbouring words, read as one, of the low plane. Work-item 4j + c takes group c of block j of the round.
// A step takes four elements out of both words at once; they lie in byte lanes 2, 0, 3, 1 of the result, and
// the sum takes them lane 0, 2, 1, 3.
//
//                 group 0          group 1       group 2       group 3
//   low plane   | word 0, word 1 | word 0, ... | word 0, ... | word 0, ... |    32 bytes of a block
//   high plane  | word           | word        | word        | word        |    16 bytes of a block
//   scales      | d half |                    W = d * fp6(e); d is applied to the sum of a chunk
#pragma once

#include "kernels/matvec/six_bits.h"

template <typename T, int SG_SIZE, int WG_SIZE, int ROW_TILE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_fp6_2x16(uint64_t state_size, const uint8_t* high_plane, const uint8_t* low_plane,
                                 const T* input, const c10::Half* scales, int32_t /*blocks_per_row*/,
                                 sycl::local_accessor<T, 1> local, uint64_t output_size, T* output) {
  using namespace quillon;
  multiply_chunks<T, 16, WG_SIZE, ROW_TILE>(
      state_size, input, local, output_size, output, load_neighbours<T, 16, fp6_order>{},
      [=](lane<T>& acc, const activations<T, 16>& chunk, const chunk_place<16>& at) {
        const lane<T> s = sum_fp6(chunk, at.word_of_chunk<uint32_t>(high_plane), at.word_of_chunk<uint64_t>(low_plane));
        acc = acc + s * rounded_lane<T>(at.entry_of_block<half>(scales));
      });
}
