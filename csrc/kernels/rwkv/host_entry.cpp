#include "kernels/rwkv/host_entry.h"

#include <atomic>
#include <string>

#include "kernels/kernel_table.h"
#include "runtime/backing.h"
#include "runtime/device_facts.h"
#include "runtime/kernel_library.h"
#include "runtime/launch_kernel.h"

namespace quillon {
namespace {

using runtime::Backing;
using runtime::kVectorLanes;

static_assert(row_of(rwkv_kernel::attention_v4).work_group == kChannelsOfAttentionV4);
static_assert(row_of(rwkv_kernel::attention_v5).head_size == kHeadSizeV5);
static_assert(row_of(rwkv_kernel::time_shift).work_group == kChannelsOfTimeShift);

std::string instantiation(const rwkv_row& row, RwkvElement type) {
  const std::string element = type == RwkvElement::float32 ? "float" : "c10::Half";
  const std::string first = row.head_size != 0 ? std::to_string(row.head_size) : element;
  return std::string(row.name) + "<" + first + "," + std::to_string(row.work_group) + "," +
         std::to_string(row.sub_group) + ">";
}

// The library's entry of an instantiation, looked up once.
runtime::KernelEntry& entry_of(rwkv_kernel kernel, RwkvElement type, Backing backing) {
  static std::atomic<runtime::KernelEntry*> known[rwkv_table.size()][2][2];
  auto& slot = known[static_cast<int>(kernel)][static_cast<int>(type)][static_cast<int>(backing)];
  runtime::KernelEntry* entry = slot.load(std::memory_order_acquire);
  if (entry == nullptr) {
    const rwkv_row& row = row_of(kernel);
    entry = &runtime::kernel_entry(row.header, instantiation(row, type), runtime::backing_options(backing));
    slot.store(entry, std::memory_order_release);
  }
  return *entry;
}

}  // namespace

void launch_attention_v4(RwkvElement type, const void* time_decay, const void* time_first, const void* key,
                         const void* value, void* output, float* num_state, float* den_state, float* max_state,
                         std::uint64_t batches, std::uint64_t steps, std::uint64_t channels, c10::Device device) {
  const Backing backing = runtime::backing_on(device.index());
  // A work-item of the vector backing has the channels of one vector.
  const LaunchRange range = backing == Backing::vectors ? LaunchRange({batches, channels / kVectorLanes}, {1, 1})
                                                        : LaunchRange({batches, channels}, {1, kChannelsOfAttentionV4});
  const void* const to = output;
  launch_kernel(entry_of(rwkv_kernel::attention_v4, type, backing), device, range,
                {time_decay, time_first, channels, num_state, den_state, max_state, steps, key, value, to});
}

void launch_attention_v5(const float* time_decay, const float* time_first, const float* receptance, const float* key,
                         const float* value, const StridesV5& strides, float* output, float* state,
                         std::uint64_t batches, std::uint64_t heads, std::uint64_t steps, c10::Device device) {
  constexpr std::uint64_t SIZE = kHeadSizeV5;
  const Backing backing = runtime::backing_on(device.index());
  const std::size_t columns = row_of(rwkv_kernel::attention_v5).work_group;
  // A work-item of the vector backing has the channels of one vector.
  const LaunchRange range = backing == Backing::vectors
                                ? LaunchRange::of_three({batches, heads, 1}, {1, 1, 1})
                                : LaunchRange::of_three({batches, heads, SIZE}, {1, 1, columns});
  launch_kernel(entry_of(rwkv_kernel::attention_v5, RwkvElement::float32, backing), device, range,
                {time_decay, time_first, strides.batch, strides.head, key, value, receptance, steps * SIZE * heads,
                 output, heads * SIZE * SIZE, state, steps, strides.step, heads * SIZE});
}

void launch_time_shift(RwkvElement type, const void* hidden, const void* shifted, const void* mix, void* output,
                       std::uint64_t mixes, std::uint64_t batches, std::uint64_t steps, std::uint64_t channels,
                       c10::Device device) {
  const Backing backing = runtime::backing_on(device.index());
  // A work-item of the vector backing has the channels of one vector.
  const LaunchRange range = backing == Backing::vectors
                                ? LaunchRange::of_three({batches, steps, channels == 0 ? 0u : 1u}, {1, 1, 1})
                                : LaunchRange::of_three({batches, steps, channels}, {1, 1, kChannelsOfTimeShift});
  const void* const to = output;
  launch_kernel(entry_of(rwkv_kernel::time_shift, type, backing), device, range,
                {steps * channels, channels, hidden, shifted, mixes, mix, to, batches * steps * channels});
}

}  // namespace quillon
