// nf3 times one activation row.
//
//   T        element type of input, output, local memory and every product and sum
//   SG_SIZE  required sub-group size    WG_SIZE  work-items of a work-group, which owns two rows
//
// A chunk is sixteen neighbouring elements, a quarter of a block: 16 bits of its first field and 32 of its
// second. Work-item 4j + c takes quarter c of block j of the round.
//
//   quants   byte 0 ... 7    | qh, 64-bit word: bit N is the top bit of eN    |  quarter c: bytes 2c, 2c + 1
//            byte 8 ... 23   | e0 e1 e2 e3 | e4 e5 e6 e7 | ... | ... e63 |       quarter c: bytes 8 + 4c to
//            11 + 4c
//                              two low bits of four codes in a byte, the first in the high bits
//   scales  | d half |                             W = d * dequantNF3[e]; d is applied to the sum of a chunk
#pragma once

#include "formats/code_books.h"
#include "kernels/matvec/chunks.h"

template <typename T, int SG_SIZE, int WG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void qlinear_xpu_kernel_nf3_2x16(uint64_t state_size, const uint8_t* weight, int32_t scale_offset,
                                 const T* input, sycl::local_accessor<T, 1> local, T* output,
                                 uint64_t output_size) {
  using namespace quillon;
  const uint8_t* scales = weight + scale_offset;
  multiply_chunks<T, 16, WG_SIZE, 2>(
      state_size, input, local, output_size, output, load_neighbours<T, 16>{},
      [=](lane<T>& acc, const activations<T, 16>& chunk, const chunk_place<16>& at) {
        const uint8_t* first = weight + at.block * sizeof(block_nf3_qs);
        const int block = at.item / 4 * static_cast<int>(sizeof(block_nf3_qs));
        const int quarter = at.item % 4;
        const uint32_t top = load<uint16_t>(first + (block + 2 * quarter));
        const uint32_t low = load<uint32_t, 4>(first + (block + 8 + 4 * quarter));
        lane<T> s;
        unrolled<16>([&](auto i) {
          const uint32_t code = (((top >> i) & 1) << 2) | ((low >> (8 * (i / 4) + 6 - 2 * (i % 4))) & 3);
          const lane<T> value = rounded_lane<T>(dequantNF3[code]);
          s = i == 0 ? chunk.v[0] * value : s + chunk.v[i] * value;
        });
        acc = acc + s * rounded_lane<T>(at.entry_of_block<half>(scales));
      });
}
