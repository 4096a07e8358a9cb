// PyTorch's CPU allocator, redirected to the device allocator while a CPU kernel computes for a host device: so
// its results lie in memory of the device and need no copy.
#include <c10/core/CPUAllocator.h>

#include <utility>

#include "host_device.h"

namespace quillon::host_device {
namespace {

thread_local c10::DeviceIndex redirect_to = -1;

c10::DeleterFnPtr delete_ordinary = nullptr;

void delete_raw(void* pointer) {
  if (owns_block(pointer)) {
    c10::GetAllocator(c10::kXPU)->raw_deallocate(pointer);
  } else {
    delete_ordinary(pointer);
  }
}

class RedirectingCpuAllocator final : public c10::Allocator {
 public:
  explicit RedirectingCpuAllocator(c10::Allocator* ordinary) : ordinary_(ordinary) {
    delete_ordinary = ordinary->raw_deleter();
  }

  c10::DataPtr allocate(size_t size) override {
    if (redirect_to < 0) return ordinary_->allocate(size);
    c10::DataPtr data = allocate_on_device(size, redirect_to);
    data.unsafe_set_device(c10::Device(c10::kCPU));
    return data;
  }

  // PyTorch's oneDNN takes its memory by raw_allocate(), inside the fallback and outside, and keeps some of
  // it from one call to the next. Only the address tells which kind it is.
  c10::DeleterFnPtr raw_deleter() const override { return &delete_raw; }

  void copy_data(void* destination, const void* source, size_t count) const override {
    ordinary_->copy_data(destination, source, count);
  }

 private:
  c10::Allocator* ordinary_;
};

}  // namespace

c10::Allocator* redirecting_cpu_allocator() {
  static auto* instance = new RedirectingCpuAllocator(c10::GetCPUAllocator());
  return instance;
}

void install_cpu_allocator() {
  c10::Allocator* redirecting = redirecting_cpu_allocator();
  c10::SetCPUAllocator(redirecting, /*priority=*/UINT8_MAX);
}

AllocateOnDevice::AllocateOnDevice(c10::DeviceIndex device) noexcept : previous_(std::exchange(redirect_to, device)) {}
AllocateOnDevice::~AllocateOnDevice() {
  redirect_to = previous_;
}

c10::DeviceIndex allocating_device() noexcept {
  return redirect_to;
}

}  // namespace quillon::host_device
