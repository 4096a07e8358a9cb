#include "runtime/device_facts.h"

#include <c10/util/Exception.h>
#include <c10/xpu/XPUStream.h>

#include <algorithm>
#include <array>
#include <atomic>

namespace quillon::runtime {
namespace {

std::array<std::atomic<const DeviceFacts*>, kMaxDevices>& known_facts() {
  static auto& known = *new std::array<std::atomic<const DeviceFacts*>, kMaxDevices>{};
  return known;
}

const DeviceFacts* ask(c10::DeviceIndex index) {
  const sycl::device device = c10::xpu::getCurrentXPUStream(index).queue().get_device();
  const auto sizes = device.get_info<sycl::info::device::sub_group_sizes>();
  return new DeviceFacts{
      device.is_cpu(),
      static_cast<int>(device.get_info<sycl::info::device::max_compute_units>()),
      device.get_info<sycl::info::device::local_mem_size>(),
      std::find(sizes.begin(), sizes.end(), 8) != sizes.end(),
  };
}

}  // namespace

const DeviceFacts& device_facts(c10::DeviceIndex index) {
  check_device_index(index);
  auto& slot = known_facts()[index];
  const DeviceFacts* known = slot.load(std::memory_order_acquire);
  if (known == nullptr) {
    known = ask(index);  // two threads may both ask; the answers are equal
    slot.store(known, std::memory_order_release);
  }
  return *known;
}

}  // namespace quillon::runtime
