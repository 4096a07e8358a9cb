// How kernels read fp6.
//
// A chunk is sixteen neighbouring elements, one group of a block (six_bits.h).
//
//                 group 0          group 1       group 2       group 3
//   low plane   | word 0, word 1 | word 0, ... | word 0, ... | word 0, ... |    32 bytes of a block
//   high plane  | word           | word        | word        | word        |    16 bytes of a block
//   scales      | d half |                    W = d * fp6(e); d is applied to the sum of a chunk
#pragma once

#include "readers/expansion.h"
#include "readers/six_bits.h"

namespace quillon {

struct fp6_reader : fp6_planes<64, 64> {
  const uint8_t* scales;

  template <typename T, typename Place>
  values<T> scale(const Place& at) const {
    return rounded_halves<T>(entry_of_block<half>(at, scales));
  }
};

// Expanded in T. A work-item's share is one group of sixteen neighbours.
struct fp6_expander {
  const uint8_t* high_plane;
  const uint8_t* low_plane;
  const uint8_t* scales;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t block, const To& to) const {
    const values<T> d = scale_values<T>(load_half(scales + 2 * block));
#pragma clang loop unroll(disable)
    for (int g = 0; g < 4; ++g) {
      const words codes = six_bit_codes<1, 3, 0, 2>(high_plane + 16 * block + 4 * g, low_plane + 32 * block + 8 * g);
      to(16 * g, multiply(halves_of_bits<T>((codes & 0x20u) << 10 | (codes & 0x1Fu) << 8 | 0x0080u), d));
    }
  }
#else
  template <typename T, int SPAN, typename To>
  void expand(int64_t block, int at, const To& to) const {
    static_assert(SPAN == 16);
    const values<T> d = scale_values<T>(load_half(scales + 2 * block));
    const uint32_t high = load<uint32_t, 4>(high_plane + 16 * block + at / 4);
    const uint32_t low[2] = {load<uint32_t, 4>(low_plane + 32 * block + at / 2),
                             load<uint32_t, 4>(low_plane + 32 * block + at / 2 + 4)};
    unrolled<4>([&](auto i) {
      const uint32_t codes = fp6_step_codes(high << (2 * i), low[i / 2] << (4 * (i % 2)));
      const auto value = [=](int byte) {
        return multiply(halves_of_bits<T>(((codes >> (8 * byte)) & 0x9Fu) << 8 | 0x0080u), d);
      };
      to(at + 4 * i, {value(1), value(3), value(0), value(2)});
    });
  }
#endif
};

}  // namespace quillon
