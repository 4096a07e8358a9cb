#include "generator.h"

#include <ATen/CPUGeneratorImpl.h>
#include <c10/core/GeneratorImpl.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <c10/util/Exception.h>

#include <array>
#include <mutex>

#include "host_device.h"

namespace quillon::host_device {
namespace {

class HostGeneratorImpl final : public c10::GeneratorImpl {
 public:
  HostGeneratorImpl(c10::DeviceIndex device, at::Generator cpu)
      : GeneratorImpl(c10::Device(c10::kXPU, device), c10::DispatchKeySet(c10::DispatchKey::XPU)),
        cpu_(std::move(cpu)) {}

  const at::Generator& cpu() const { return cpu_; }

  void set_current_seed(uint64_t seed) override { cpu_.set_current_seed(seed); }
  uint64_t current_seed() const override { return cpu_.current_seed(); }
  uint64_t seed() override { return cpu_.seed(); }
  void set_offset(uint64_t offset) override { cpu_.set_offset(offset); }
  uint64_t get_offset() const override { return cpu_.get_offset(); }
  void set_state(const c10::TensorImpl& new_state) override { cpu_.unsafeGetGeneratorImpl()->set_state(new_state); }
  c10::intrusive_ptr<c10::TensorImpl> get_state() const override { return cpu_.unsafeGetGeneratorImpl()->get_state(); }

 private:
  HostGeneratorImpl* clone_impl() const override { return new HostGeneratorImpl(device_.index(), cpu_.clone()); }

  at::Generator cpu_;
};

c10::DeviceIndex index_or_current(c10::DeviceIndex device) {
  const auto* guard = c10::impl::getDeviceGuardImpl(c10::kXPU);
  if (device == -1) return guard->getDevice().index();
  TORCH_CHECK(device >= 0 && device < guard->deviceCount(), "Device index ", static_cast<int>(device),
              " is not one of the ", static_cast<int>(guard->deviceCount()), " XPU devices.");
  return device;
}

}  // namespace

at::Generator new_generator(c10::DeviceIndex device) {
  return at::make_generator<HostGeneratorImpl>(index_or_current(device), at::detail::createCPUGenerator());
}

const at::Generator& default_generator(c10::DeviceIndex device) {
  static auto& mutex = *new std::mutex();
  static auto& generators = *new std::array<at::Generator, kMaxDevices>();
  device = index_or_current(device);
  std::lock_guard<std::mutex> lock(mutex);
  at::Generator& generator = generators[device];
  if (!generator.defined()) generator = new_generator(device);
  return generator;
}

at::Generator cpu_generator_for(const std::optional<at::Generator>& given, c10::DeviceIndex device) {
  const at::Generator& generator = given && given->defined() ? *given : default_generator(device);
  const auto* host = dynamic_cast<HostGeneratorImpl*>(generator.unsafeGetGeneratorImpl());
  TORCH_CHECK(host, "Expected a 'xpu' device type for generator but found '", generator.device().type(), "'");
  return host->cpu();
}

}  // namespace quillon::host_device
