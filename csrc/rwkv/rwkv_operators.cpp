#include "rwkv/rwkv_operators.h"

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "dispatch/tensor_memory.h"
#include "kernels/rwkv/host_entry.h"

namespace quillon {
namespace {

// Sizes are 32-bit numbers.
std::uint64_t size_of(const at::Tensor& tensor, std::int64_t dimension) {
  return static_cast<std::uint64_t>(static_cast<std::int32_t>(tensor.size(dimension)));
}

RwkvElement element_of(const at::Tensor& tensor) {
  switch (tensor.scalar_type()) {
    case at::kFloat:
      return RwkvElement::float32;
    case at::kHalf:
      return RwkvElement::float16;
    default:
      throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  }
}

at::Tensor make_result(at::IntArrayRef sizes, const at::Tensor& like) {
  return at::empty(sizes, like.options().memory_format(at::MemoryFormat::Contiguous));
}

std::int64_t as_size(std::uint64_t size) {
  return static_cast<std::int64_t>(size);
}

}  // namespace

at::Tensor rwkv_linear_attention_v4(at::Tensor time_decay, at::Tensor time_first, at::Tensor key, at::Tensor value,
                                    at::Tensor num_state, at::Tensor den_state, at::Tensor max_state) {
  constexpr char NAME[] = "rwkv_linear_attention_v4";
  const std::uint64_t batches = size_of(key, 0), steps = size_of(key, 1), channels = size_of(key, 2);
  check_on_one_xpu(NAME, {"key", key},
                   {{"time_decay", time_decay},
                    {"time_first", time_first},
                    {"value", value},
                    {"num_state", num_state},
                    {"den_state", den_state},
                    {"max_state", max_state}});
  const RwkvElement type = element_of(key);
  float* const num = num_state.data_ptr<float>();
  float* const den = den_state.data_ptr<float>();
  float* const max = max_state.data_ptr<float>();
  TORCH_CHECK(channels % kChannelsOfAttentionV4 == 0, NAME, ": the channels of key must be a multiple of ",
              kChannelsOfAttentionV4, ", got shape ", key.sizes());
  const std::uint64_t size = key.element_size();
  check_memory(NAME, {{"key", key}, {"value", value}}, {batches, steps, channels, size});
  check_memory(NAME, {{"time_decay", time_decay}, {"time_first", time_first}}, {channels, size});
  check_memory(NAME, {{"num_state", num_state}, {"den_state", den_state}, {"max_state", max_state}},
               {batches, channels, sizeof(float)});

  at::Tensor result = make_result({as_size(batches), as_size(steps), as_size(channels)}, key);
  launch_attention_v4(type, time_decay.const_data_ptr(), time_first.const_data_ptr(), key.const_data_ptr(),
                      value.const_data_ptr(), result.mutable_data_ptr(), num, den, max, batches, steps, channels,
                      key.device());
  return result;
}

at::Tensor rwkv_linear_attention_v5(at::Tensor time_decay, at::Tensor time_first, at::Tensor receptance, at::Tensor key,
                                    at::Tensor value, at::Tensor state) {
  constexpr char NAME[] = "rwkv_linear_attention_v5";
  const std::uint64_t batches = size_of(key, 0), heads = size_of(key, 1), steps = size_of(key, 2);
  const std::int64_t head_size = key.size(3);
  check_on_one_xpu(NAME, {"key", key},
                   {{"time_decay", time_decay},
                    {"time_first", time_first},
                    {"receptance", receptance},
                    {"value", value},
                    {"state", state}});
  const float* const decay = time_decay.data_ptr<float>();
  const float* const bonus = time_first.data_ptr<float>();
  const float* const r = receptance.data_ptr<float>();
  const float* const k = key.data_ptr<float>();
  const float* const v = value.data_ptr<float>();
  float* const s = state.data_ptr<float>();
  TORCH_CHECK(head_size == static_cast<std::int64_t>(kHeadSizeV5), NAME, ": heads have ", kHeadSizeV5,
              " channels, got key of shape ", key.sizes());
  const StridesV5 strides{static_cast<std::uint64_t>(key.stride(0)), static_cast<std::uint64_t>(key.stride(1)),
                          static_cast<std::uint64_t>(key.stride(2))};
  check_strided_memory(NAME, {{"key", key}, {"value", value}, {"receptance", receptance}},
                       {{batches, strides.batch}, {heads, strides.head}, {steps, strides.step}, {kHeadSizeV5, 1}});
  check_memory(NAME, {{"time_decay", time_decay}, {"time_first", time_first}}, {heads, kHeadSizeV5, sizeof(float)});
  check_memory(NAME, {{"state", state}}, {batches, heads, kHeadSizeV5, kHeadSizeV5, sizeof(float)});

  at::Tensor result = make_result({as_size(batches), as_size(steps), as_size(heads), head_size}, key);
  launch_attention_v5(decay, bonus, r, k, v, strides, result.data_ptr<float>(), s, batches, heads, steps, key.device());
  return result;
}

at::Tensor rwkv_time_shift(at::Tensor hidden, at::Tensor shifted, at::Tensor mix) {
  constexpr char NAME[] = "rwkv_time_shift";
  const std::uint64_t batches = size_of(hidden, 0), steps = size_of(hidden, 1), channels = size_of(hidden, 2);
  const std::uint64_t mixes = size_of(mix, 0);
  check_on_one_xpu(NAME, {"hidden", hidden}, {{"shifted", shifted}, {"mix", mix}});
  const RwkvElement type = element_of(hidden);
  TORCH_CHECK(channels % kChannelsOfTimeShift == 0, NAME, ": the channels of hidden must be a multiple of ",
              kChannelsOfTimeShift, ", got shape ", hidden.sizes());
  const std::uint64_t size = hidden.element_size();
  check_memory(NAME, {{"hidden", hidden}, {"shifted", shifted}}, {batches, steps, channels, size});
  check_memory(NAME, {{"mix", mix}}, {mixes, channels, size});

  at::Tensor result = make_result({as_size(mixes), as_size(batches), as_size(steps), as_size(channels)}, hidden);
  launch_time_shift(type, hidden.const_data_ptr(), shifted.const_data_ptr(), mix.const_data_ptr(),
                    result.mutable_data_ptr(), mixes, batches, steps, channels, hidden.device());
  return result;
}

}  // namespace quillon
