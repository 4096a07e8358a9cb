// What the expanders of q5_0 and q5_1 share: records of 64 elements with the fifth bits in a field of their own.
#pragma once

#include "formats/integer_blocks.h"
#include "readers/expansion.h"

namespace quillon {

// An expander derives from this and has `value(block)`, a function from codes of 0 to 31 to floats. A work-item's share is
// elements j and j + 32.
template <typename Expander>
struct five_bit_records {
  static constexpr int SPAN = 2;
  const block_q5_1* weight;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t b, const To& to) const {
    const block_q5_1& block = weight[b];
    const auto value = Expander::value(block);
    const words bit_of_lane = {0x1,   0x2,   0x4,   0x8,   0x10,   0x20,   0x40,   0x80,
                               0x100, 0x200, 0x400, 0x800, 0x1000, 0x2000, 0x4000, 0x8000};
#pragma clang loop unroll(disable)
    for (int j = 0; j < 32; j += LANES) {
      const words byte = load_bytes(block.qs + j);
      const words low = byte & 15u, high = byte >> 4;
      to(j, value((words(load_u16(block.qh + j / 8)) & bit_of_lane) != 0u ? low | 16u : low));
      to(j + 32, value((words(load_u16(block.qh + 4 + j / 8)) & bit_of_lane) != 0u ? high | 16u : high));
    }
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t b, int at, const To& to) const {
    const block_q5_1& block = weight[b];
    const auto value = Expander::value(block);
    const int j = at / 2;
    const uint32_t byte = block.qs[j];
    to(j, {value((byte & 15u) | ((load<uint32_t, 4>(block.qh) >> j) & 1u) << 4)});
    to(j + 32, {value((byte >> 4) | ((load<uint32_t, 4>(block.qh + 4) >> j) & 1u) << 4)});
  }
#endif
};

}  // namespace quillon
