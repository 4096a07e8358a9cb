// How kernels read q6_k.
//
// A chunk is one sub-block of sixteen neighbouring elements (six_bits.h, bytes in the order of the elements):
//
//   super-block of 256   elem  0 ... 15 | 16 ... 31 | ... | 240 .. 255
//   high plane           word  0        | 1         | ... | 15              two bits of each element
//   low plane            word  0, 1     | 2, 3      | ... | 30, 31          four bits of each element
//   scales               byte  0        | 1         | ... | 15              signed
//   scale                half  d                                            one for all sixteen
//
// W = (d * scale) * (e - 32); the product in brackets is formed in float whatever T is, and is applied to the sum of a
// chunk.
#pragma once

#include "readers/expansion.h"
#include "readers/six_bits.h"

namespace quillon {

struct q6_k_reader {
  static constexpr int CHUNK = 16, BLOCK = 256, UNIT = 16;
  using order = neighbours<CHUNK>;
  const uint8_t* high_plane;
  const uint8_t* low_plane;
  const uint8_t* super_scales;
  const uint8_t* scales;

  // Four sums of four products each, added up one by one.
  template <typename T, typename Chunk, typename Place>
  auto sum(const Chunk& x, const Place& at) const {
    const word_pair low = entry_by_block<word_pair>(at, low_plane);
    const six_bit_words chunk{entry_by_block<uint32_t>(at, high_plane), {low[0], low[1]}};
    decltype(x.v(std::integral_constant<int, 0>{}) * values<T>{}) sum;
    unrolled<4>([&](auto step) {
      const words codes = q6_k_step_codes(chunk.high_of(step), chunk.low_of(step));
      decltype(sum) four;
      unrolled<4>([&](auto e) {
        constexpr int SHIFT = e < 3 ? 0 : 8;  // the fourth one stands too high to be taken where it is
        const values<T> code = biased_codes_at<T, 8 * e - SHIFT, 6>(codes >> SHIFT, 32);
        const auto activation = x.v(std::integral_constant<int, 4 * step + e>{});
        four = e == 0 ? activation * code : multiply_add(activation, code, four);
      });
      sum = step == 0 ? four : sum + four;
    });
    return sum;
  }
  template <typename Place>
  lanes<float> float_scale(const Place& at) const {
    const lanes<float> d = as_floats<half>(entry_of_block<half>(at, super_scales));
    return d * exact_values<float>(lanes<int32_t>(entry_by_block<int8_t>(at, scales)));
  }
};

// Expanded in float. A work-item's share of a super-block is step i of sub-block k: four neighbours.
struct q6_k_expander {
  const uint8_t* high_plane;
  const uint8_t* low_plane;
  const uint8_t* scales;
  const uint8_t* super_scales;

#ifdef QUILLON_VECTOR_LANES
  template <typename T, typename To>
  void expand(int64_t block, const To& to) const {
#pragma clang loop unroll(disable)
    for (int k = 0; k < 16; ++k) {
      const words codes = six_bit_codes<0, 1, 2, 3>(high_plane + 64 * block + 4 * k, low_plane + 128 * block + 8 * k);
      to(16 * k, multiply(lanes<float>(scale_of(block, k)), biased_codes<float>(codes, 32)));
    }
  }
#else
  template <typename T, int, typename To>
  void expand(int64_t block, int at, const To& to) const {
    const int k = at / 4, i = at % 4;
    const uint32_t high = load<uint32_t, 4>(high_plane + 64 * block + 4 * k) << (2 * i);
    const uint32_t low = load<uint32_t, 4>(low_plane + 128 * block + 8 * k + 4 * (i / 2)) << (4 * (i % 2));
    const uint32_t codes = q6_k_step_codes(high, low);
    const float scale = scale_of(block, k);
    const auto value = [=](int p) { return multiply(scale, biased_codes<float>((codes >> (8 * p)) & 255u, 32)); };
    to(4 * at, {value(0), value(1), value(2), value(3)});
  }
#endif

 private:
  float scale_of(int64_t block, int k) const {
    return multiply(convert<float>(load_half(super_scales + 2 * block)),
                    static_cast<float>(static_cast<int8_t>(scales[16 * block + k])));
  }
};

}  // namespace quillon
