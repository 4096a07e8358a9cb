// Page-locked memory for PyTorch's pinned tensors: SYCL host memory.
#include <c10/core/Allocator.h>
#include <c10/util/Exception.h>

#include "host_device.h"
#include "platform.h"

namespace quillon::host_device {
namespace {

void delete_pinned(void* pointer) {
  if (pointer && !is_shut_down() && !in_bad_fork()) sycl::free(pointer, platform().context);
}

// Copies to and from a host device are finished when they return, so no kernel can still use freed pinned
// memory.
class PinnedAllocator final : public c10::Allocator {
 public:
  c10::DataPtr allocate(size_t size) override {
    void* pointer = nullptr;
    if (size > 0) {
      pointer = sycl::aligned_alloc_host(kAlignment, size, platform().context);
      TORCH_CHECK_WITH(OutOfMemoryError, pointer, "Cannot allocate ", size, " bytes of pinned memory.");
    }
    return {pointer, pointer, &delete_pinned, c10::Device(c10::kCPU)};
  }
  c10::DeleterFnPtr raw_deleter() const override { return &delete_pinned; }
  void copy_data(void* destination, const void* source, size_t count) const override {
    default_copy_data(destination, source, count);
  }
};

}  // namespace

c10::Allocator* pinned_allocator() {
  static auto* instance = new PinnedAllocator();
  return instance;
}

bool is_pinned_pointer(const void* pointer) {
  if (!is_initialized() || in_bad_fork() || is_shut_down()) return false;
  return sycl::get_pointer_type(pointer, platform().context) == sycl::usm::alloc::host;
}

}  // namespace quillon::host_device
