// RWKV v5 attention: every head of every batch row has a matrix as its state, a row for each key channel j and a column for
// each value channel i, and goes through the steps of a sequence:
//
//   output[i] = sum over j, rising, of receptance[j] * (time_first[j] * (key[j] * value[i]) + state[j][i])
//   state[j][i] = key[j] * value[i] + time_decay[j] * state[j][i]
//
//   HEAD_SIZE  rows and columns    WG_SIZE  columns of a work-group    SG_SIZE  required sub-group size
//
// Columns have nothing in common but what they read.
//
//   work-items   A work-item has one column, in registers, half of it at a time: all of it would be every register of a GPU
//                with 32 bytes in each. The sums over the first half wait in the output for the second.
//   vectors      A work-item has a whole head in private memory, so that a number that is the same for all columns is read
//                once for four vectors of them.
#pragma once

#include "kernels/rwkv/channels.h"

namespace quillon {

// One head.
struct head_v5 {
  const float* decay;
  const float* bonus;
  const float* key;
  const float* receptance;
  const float* value;
  uint64_t step_stride;  // of the last three
  float* output;
  uint64_t output_stride;
  float* state;
};

#ifdef QUILLON_VECTOR_LANES

template <int HEAD_SIZE>
inline void walk(const head_v5& head, uint64_t steps) {
  constexpr int VECTORS = HEAD_SIZE / LANES;
  lanes<float> state[HEAD_SIZE][VECTORS];
  for (int j = 0; j < HEAD_SIZE; ++j)
    unrolled<VECTORS>([&](auto i) { state[j][i] = load_channels(head.state + j * HEAD_SIZE + i * LANES); });
  for (uint64_t step = 0; step < steps; ++step) {
    const float* key = head.key + step * head.step_stride;
    const float* receptance = head.receptance + step * head.step_stride;
    lanes<float> value[VECTORS];
    unrolled<VECTORS>([&](auto i) { value[i] = load_channels(head.value + step * head.step_stride + i * LANES); });
    lanes<float> sum[VECTORS] = {};
    // The four operations on a vector take the processor's time: neither two steps in one pass over the rows nor more
    // rows at once were faster.
#pragma clang loop unroll_count(2)
    for (int j = 0; j < HEAD_SIZE; ++j) {
      const lanes<float> k = key[j], r = receptance[j], u = head.bonus[j], w = head.decay[j];
      unrolled<VECTORS>([&](auto i) {
        const lanes<float> product = multiply(k, value[i]);
        const lanes<float> old = state[j][i];
        sum[i] = multiply_add(r, multiply_add(u, product, old), sum[i]);
        state[j][i] = multiply_add(w, old, product);
      });
    }
    unrolled<VECTORS>([&](auto i) { store_channels(sum[i], head.output + step * head.output_stride + i * LANES); });
  }
  for (int j = 0; j < HEAD_SIZE; ++j)
    unrolled<VECTORS>([&](auto i) { store_channels(state[j][i], head.state + j * HEAD_SIZE + i * LANES); });
}

#else

// Rows FIRST to FIRST + ROWS - 1 of column `i`.
template <int HEAD_SIZE, int FIRST, int ROWS>
inline void walk_rows(const head_v5& head, uint64_t steps, uint64_t i) {
  float state[ROWS];
  unrolled<ROWS>([&](auto j) { state[j] = head.state[(FIRST + j) * HEAD_SIZE + i]; });
  for (uint64_t step = 0; step < steps; ++step) {
    const float* key = head.key + step * head.step_stride + FIRST;
    const float* receptance = head.receptance + step * head.step_stride + FIRST;
    const float value = head.value[step * head.step_stride + i];
    float* output = head.output + step * head.output_stride + i;
    float sum = FIRST == 0 ? 0.0f : *output;
    unrolled<ROWS>([&](auto j) {
      const float product = multiply(key[j], value);
      const float old = state[j];
      sum = multiply_add(receptance[j], multiply_add(head.bonus[FIRST + j], product, old), sum);
      state[j] = multiply_add(head.decay[FIRST + j], old, product);
    });
    *output = sum;
  }
  unrolled<ROWS>([&](auto j) { head.state[(FIRST + j) * HEAD_SIZE + i] = state[j]; });
}

#endif

}  // namespace quillon

template <int HEAD_SIZE, int WG_SIZE, int SG_SIZE>
QUILLON_KERNEL(3)
QUILLON_SUB_GROUP(SG_SIZE)
void rwkv_linear_attention_kernel_v5(const float* time_decay, const float* time_first, uint64_t batch_stride,
                                     uint64_t head_stride, const float* key, const float* value,
                                     const float* receptance, uint64_t output_batch_stride, float* output,
                                     uint64_t state_batch_stride, float* state, uint64_t steps, uint64_t step_stride,
                                     uint64_t output_step_stride) {
  using namespace quillon;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<3>();
  const uint64_t b = place.get_group(0);
  const uint64_t h = place.get_group(1);
  const uint64_t at = b * batch_stride + h * head_stride;
  const head_v5 head{time_decay + h * HEAD_SIZE,
                     time_first + h * HEAD_SIZE,
                     key + at,
                     receptance + at,
                     value + at,
                     step_stride,
                     output + b * output_batch_stride + h * HEAD_SIZE,
                     output_step_stride,
                     state + b * state_batch_stride + h * HEAD_SIZE * HEAD_SIZE};
#ifdef QUILLON_VECTOR_LANES
  walk<HEAD_SIZE>(head, steps);
#else
  constexpr int HALF = HEAD_SIZE / 2;
  const uint64_t i = place.get_global_id(2);
  walk_rows<HEAD_SIZE, 0, HALF>(head, steps, i);
  walk_rows<HEAD_SIZE, HALF, HALF>(head, steps, i);
#endif
}
