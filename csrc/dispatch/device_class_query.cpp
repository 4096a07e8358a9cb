#include "dispatch/device_class_query.h"

#include <c10/util/Exception.h>
#include <c10/xpu/XPUFunctions.h>
#include <c10/xpu/XPUStream.h>

#include <array>
#include <atomic>

#include "runtime/device_limit.h"

namespace quillon {
namespace {

constexpr int kNotAskedYet = -1;

// The answer for a device never changes, and the properties are hundreds of bytes to copy on every call.
std::array<std::atomic<int>, kMaxDevices>& known_classes() {
  static auto& classes = *[] {
    auto* made = new std::array<std::atomic<int>, kMaxDevices>;
    for (auto& entry : *made) entry = kNotAskedYet;
    return made;
  }();
  return classes;
}

}  // namespace

XpuDeviceClass get_device_class(c10::Device device) {
  const c10::DeviceIndex index = c10::xpu::getCurrentXPUStream(device.index()).device_index();
  TORCH_CHECK(index < kMaxDevices, "XPU device index ", static_cast<int>(index),
              " is outside what quillon serves: 0 to ", kMaxDevices - 1);
  std::atomic<int>& known = known_classes()[index];
  int answer = known.load(std::memory_order_relaxed);
  if (answer == kNotAskedYet) {
    c10::xpu::DeviceProp properties;
    c10::xpu::get_device_properties(&properties, index);
    answer = static_cast<int>(classify_architecture(static_cast<std::uint64_t>(properties.architecture)));
    known.store(answer, std::memory_order_relaxed);
  }
  return static_cast<XpuDeviceClass>(answer);
}

}  // namespace quillon
