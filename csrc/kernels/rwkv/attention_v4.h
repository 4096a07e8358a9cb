// RWKV v4 attention: every channel of every batch row is a recurrence of its own over the steps of a sequence.
//
//   T        element type of decay, bonus, keys, values and output; all is computed in float
//   WG_SIZE  channels of a work-group    SG_SIZE  required sub-group size
//
// The state of a channel stands for two sums over the past, `num / exp(-max)` and `den / exp(-max)`, scaled so that no exp
// sees a positive number. With the key k and the value v of a step, decay w and bonus u:
//
//   output   top = max(max, u + k)    (exp(max - top) * num + exp(u + k - top) * v) /
//                                     (exp(max - top) * den + exp(u + k - top))
//   state    top = max(max + w, k)    num = exp(max + w - top) * num + exp(k - top) * v
//                                     den = exp(max + w - top) * den + exp(k - top)        max = top
//
// The state stays in registers through all steps. Of two numbers that do not compare, a NaN among them, the second is the
// larger.
#pragma once

#include "kernels/rwkv/channels.h"

namespace quillon {

// A GPU's fast exp. The CPU device's is off by 2e-4 and no faster than the exact one, which vectors take in its place.
inline lanes<float> fast_exp(lanes<float> x) {
#ifdef QUILLON_VECTOR_LANES
  return __spirv_ocl_exp(x);
#else
  return __spirv_ocl_native_exp(x);
#endif
}

// exp(a - top), exp(b - top) and top, the larger of a and b.
struct scaled_exps {
  lanes<float> top;
  lanes<float> of_a;
  lanes<float> of_b;

  // One of the two differences is 0, or that of two infinities, whose exp is the sum with 1.
  scaled_exps(lanes<float> a, lanes<float> b) {
    const auto a_is_larger = a > b;
    top = a_is_larger ? a : b;
    const lanes<float> from_a = a - top, from_b = b - top;
    const lanes<float> one = (a_is_larger ? from_a : from_b) + 1.0f;
    const lanes<float> other = fast_exp(a_is_larger ? from_b : from_a);
    of_a = a_is_larger ? one : other;
    of_b = a_is_larger ? other : one;
  }
};

}  // namespace quillon

template <typename T, int WG_SIZE, int SG_SIZE>
QUILLON_KERNEL(2)
QUILLON_SUB_GROUP(SG_SIZE)
void rwkv_linear_attention_kernel_v4(const T* time_decay, const T* time_first, uint64_t channels, float* num_state,
                                     float* den_state, float* max_state, uint64_t steps, const T* key, const T* value,
                                     T* output) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const uint64_t channel = place.get_global_id(1) * LANES;
  const uint64_t at = place.get_group(0) * channels + channel;
  const lanes<float> decay = load_channels(time_decay + channel);
  const lanes<float> bonus = load_channels(time_first + channel);
  lanes<float> num = load_channels(num_state + at);
  lanes<float> den = load_channels(den_state + at);
  lanes<float> max = load_channels(max_state + at);

  uint64_t e = place.get_group(0) * steps * channels + channel;
  for (uint64_t step = 0; step < steps; ++step, e += channels) {
    const lanes<float> k = load_channels(key + e);
    const lanes<float> v = load_channels(value + e);
    const scaled_exps now(max, bonus + k);
    const lanes<float> numerator = multiply_add(now.of_a, num, multiply(now.of_b, v));
    const lanes<float> denominator = multiply_add(now.of_a, den, now.of_b);
    store_channels<T>(numerator / denominator, output + e);

    const scaled_exps next(max + decay, k);
    num = multiply_add(next.of_a, num, multiply(next.of_b, v));
    den = multiply_add(next.of_a, den, next.of_b);
    max = next.top;
  }
  store_channels(num, num_state + at);
  store_channels(den, den_state + at);
  store_channels(max, max_state + at);
}
