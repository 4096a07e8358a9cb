// PyTorch's hooks of DeviceType::XPU: the questions that code without XPU knowledge asks of the backend.
#include <ATen/detail/XPUHooksInterface.h>
#include <c10/xpu/XPUCachingAllocator.h>

#include "generator.h"
#include "host_device.h"

namespace quillon::host_device {

// PyTorch looks the class up under exactly this name.
class XPUHooks final : public at::XPUHooksInterface {
 public:
  void init() const override { initialize(); }
  bool hasXPU() const override { return true; }
  bool isBuilt() const override { return true; }
  bool isAvailable() const override { return deviceCount() > 0; }
  std::string showConfig() const override { return "XPU backend: quillon's host device (the SYCL CPU device)"; }
  bool hasPrimaryContext(at::DeviceIndex /*device*/) const override { return is_initialized(); }

  at::DeviceIndex deviceCount() const override { return c10::xpu::device_count(); }
  at::DeviceIndex getNumGPUs() const override { return deviceCount(); }
  at::DeviceIndex current_device() const override { return c10::xpu::current_device(); }
  at::DeviceIndex getCurrentDevice() const override { return c10::xpu::current_device(); }
  void setCurrentDevice(at::DeviceIndex device) const override { c10::xpu::set_device(device); }
  at::DeviceIndex exchangeDevice(at::DeviceIndex device) const override { return c10::xpu::exchange_device(device); }
  at::DeviceIndex maybeExchangeDevice(at::DeviceIndex device) const override {
    return c10::xpu::maybe_exchange_device(device);
  }
  int32_t getGlobalIdxFromDevice(const at::Device& device) const override {
    TORCH_CHECK(device.is_xpu(), "Only the XPU device type is expected, but got ", device);
    return device.index();
  }
  at::Device getDeviceFromPtr(void* data) const override {
    return {c10::kXPU, c10::xpu::get_device_idx_from_pointer(data)};
  }
  void deviceSynchronize(at::DeviceIndex device) const override { c10::xpu::syncStreamsOnDevice(device); }

  const at::Generator& getDefaultGenerator(at::DeviceIndex device) const override { return default_generator(device); }
  at::Generator getNewGenerator(at::DeviceIndex device) const override { return new_generator(device); }

  at::Allocator* getPinnedMemoryAllocator() const override { return pinned_allocator(); }
  bool isPinnedPtr(const void* data) const override { return is_pinned_pointer(data); }
};

}  // namespace quillon::host_device

namespace at {
using quillon::host_device::XPUHooks;
REGISTER_XPU_HOOKS(XPUHooks)
}  // namespace at
