// The body of the q5_0 and q5_1 kernels. A work-group owns one output row; each 32 of its work-items take one
// block a round, and each work-item one byte of it, which is two elements.
//
//   one block, 44 bytes, high nibble on the left       round 0, WG_SIZE 64
//      0 | d  half |                                     work-items  0 to 31 | block 0 |
//      2 | m  half |                                     work-items 32 to 63 | block 1 |
//      4 | qh, 64-bit word: bit N is bit 4 of eN |     round 1
//     12 | e32  e0 | e33  e1 | ... | e63  e31 |          work-items  0 to 31 | block 2 | ...
//            work-item 0     1     ...     31
//
// Where the row's count of blocks is odd, work-items 32 to 63 have no block in the last round: they sit it
// out, so that nothing behind the activations or the weight is read, and the result is right for every
// multiple of 64.
#pragma once

#include "formats/integer_blocks.h"
#include "kernels/matvec/arithmetic.h"
#include "kernels/matvec/skeleton.h"

namespace quillon {

// `decoder(block)` reads a block's scales and gives a function from a code, 0 to 31, to the value as a
// lane<T>.
template <typename T, int SG_SIZE, int WG_SIZE, typename Decoder>
inline void multiply_five_bits(uint64_t state_size, const block_q5_1* weight, const T* input,
                               const sycl::local_accessor<T, 1>& local, T* output, Decoder decoder) {
  constexpr int BLOCK = 64;
  constexpr int BLOCKS_PER_ROUND = WG_SIZE / 32;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const uint64_t row = place.get_group(0);
  // The local id modulo 32 and divided by 32. Where a round has two blocks, each belongs to one sub-group,
  // and saying so lets a CPU device see which addresses are common and which are neighbours.
  int iqs = static_cast<int>(place.get_local_id(0));
  int block_of_round = 0;
  if constexpr (BLOCKS_PER_ROUND > 1) {
    static_assert(SG_SIZE == 32);
    const auto sub_group = place.get_sub_group();
    iqs = static_cast<int>(sub_group.get_local_linear_id());
    block_of_round = static_cast<int>(sub_group.get_group_linear_id());
  }
  const block_q5_1* row_blocks = weight + row * (state_size / BLOCK);

  lane<T> acc[1] = {integer_lane<T>(0)};
  for_each_round<BLOCK, BLOCKS_PER_ROUND>(state_size, block_of_round, [&](int32_t b) {
    const block_q5_1& block = row_blocks[b + block_of_round];
    const T* x = input + (b + block_of_round) * BLOCK;
    const auto value = decoder(block);
    const uint64_t qh = load_u64(block.qh);
    const int byte = block.qs[iqs];
    // Bits iqs and 32 + iqs, from 32-bit halves of the word.
    const int fifth0 = static_cast<int>(((static_cast<uint32_t>(qh) >> iqs) & 1) << 4);
    const int fifth1 = static_cast<int>(((static_cast<uint32_t>(qh >> 32) >> iqs) & 1) << 4);
    const lane<T> w0 = value((byte & 15) | fifth0);
    const lane<T> w1 = value((byte >> 4) | fifth1);
    acc[0] = acc[0] + (w0 * to_lane(x[iqs]) + w1 * to_lane(x[iqs + 32]));
  });
  reduce_and_write<T, WG_SIZE, 1>(place, acc, local, row, row + 1, output);
}

}  // namespace quillon
