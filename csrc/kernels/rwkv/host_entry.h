// Host entries of the RWKV kernels. They form range and arguments in the kernel's own order, submit, and do not wait.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

namespace quillon {

// What the element type of activations may be.
enum class RwkvElement { float32, float16 };

// Rows of channels must fill the work-groups that GPUs are given.
inline constexpr std::uint64_t kChannelsOfAttentionV4 = 32;
inline constexpr std::uint64_t kHeadSizeV5 = 64;
inline constexpr std::uint64_t kChannelsOfTimeShift = 64;

// key, value, output      batches by steps by channels of the element type    time_decay, time_first  channels of it
// num, den, max_state     batches by channels, read and written
void launch_attention_v4(RwkvElement type, const void* time_decay, const void* time_first, const void* key,
                         const void* value, void* output, float* num_state, float* den_state, float* max_state,
                         std::uint64_t batches, std::uint64_t steps, std::uint64_t channels, c10::Device device);

// The strides, in elements, of which key, value and receptance have the same: from batch to batch, head to head, step to
// step. Their last is 1.
struct StridesV5 {
  std::uint64_t batch;
  std::uint64_t head;
  std::uint64_t step;
};

// time_decay, time_first  heads by 64         output  batches by steps by heads by 64
// state                   batches by heads by 64 by 64, read and written
void launch_attention_v5(const float* time_decay, const float* time_first, const float* receptance, const float* key,
                         const float* value, const StridesV5& strides, float* output, float* state,
                         std::uint64_t batches, std::uint64_t heads, std::uint64_t steps, c10::Device device);

// hidden, shifted  batches by steps by channels    mix  mixes by channels    output  mixes by batches by steps by channels
void launch_time_shift(RwkvElement type, const void* hidden, const void* shifted, const void* mix, void* output,
                       std::uint64_t mixes, std::uint64_t batches, std::uint64_t steps, std::uint64_t channels,
                       c10::Device device);

}  // namespace quillon
