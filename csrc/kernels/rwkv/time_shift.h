// RWKV time shift: output[m] = shifted + mix[m] * (hidden - shifted), for several mixes of one sequence.
//
//   T        element type of everything; each operation is rounded to it
//   WG_SIZE  channels of a work-group    SG_SIZE  required sub-group size
//
// The difference is formed once. In the form of vectors a work-item has all channels of a step.
#pragma once

#include "kernels/rwkv/channels.h"

namespace quillon {

template <typename T>
inline lanes<float> rounded(lanes<float> from) {
#ifdef QUILLON_VECTOR_LANES
  return as_floats<T>(rounded_values<T>(from));
#else
  return convert<float>(convert<T>(from));
#endif
}

template <typename T>
inline void shift_channels(const T* hidden, const T* shifted, uint64_t mixes, const T* mix, uint64_t channels,
                           T* output, uint64_t mix_stride) {
  const lanes<float> base = load_channels(shifted);
  const lanes<float> difference = rounded<T>(subtract(load_channels(hidden), base));
  for (uint64_t m = 0; m < mixes; ++m) {
    const lanes<float> share = rounded<T>(multiply(load_channels(mix + m * channels), difference));
    store_channels<T>(add(base, share), output + m * mix_stride);
  }
}

}  // namespace quillon

template <typename T, int WG_SIZE, int SG_SIZE>
QUILLON_KERNEL(3)
QUILLON_SUB_GROUP(SG_SIZE)
void rwkv_time_shift_kernel(uint64_t batch_stride, uint64_t channels, const T* hidden, const T* shifted, uint64_t mixes,
                            const T* mix, T* output, uint64_t mix_stride) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<3>();
  const uint64_t row = place.get_group(0) * batch_stride + place.get_group(1) * channels;
#ifdef QUILLON_VECTOR_LANES
  for (uint64_t c = 0; c < channels; c += LANES)
    shift_channels(hidden + row + c, shifted + row + c, mixes, mix + c, channels, output + row + c, mix_stride);
#else
  const uint64_t c = place.get_global_id(2);
  shift_channels(hidden + row + c, shifted + row + c, mixes, mix + c, channels, output + row + c, mix_stride);
#endif
}
