// What libc10_xpu.so (devices, queues, memory) offers to the Python module quillon._host_device (PyTorch's
// registrations) beyond the interface of c10/xpu/*.h. No SYCL in here: most users of this header need none.
#pragma once

#include <c10/core/Allocator.h>
#include <c10/core/Device.h>
#include <c10/core/Stream.h>
#include <c10/xpu/XPUMacros.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "runtime/device_limit.h"

namespace quillon::host_device {

/// The 64-bit architecture identifiers of QUILLON_HOST_DEVICES, one per device in index order. Read once.
/// Throws c10::ValueError if the variable is malformed.
C10_XPU_API const std::vector<uint64_t>& declared_architectures();

/// Finds the SYCL CPU device and makes the context that all host devices share. Throws if there is none.
C10_XPU_API void initialize();
/// Environment variables that initialize() sets before it asks the SYCL runtime, where they are unset.
C10_XPU_API void set_environment_at_first_use(std::vector<std::pair<std::string, std::string>> variables);
/// True once initialize() has succeeded in this process or in the one it was forked from.
C10_XPU_API bool is_initialized() noexcept;
/// True in a process forked after initialize(): the SYCL runtime's threads do not live on there.
C10_XPU_API bool in_bad_fork() noexcept;

/// Blocks until the current stream of `device` is idle. Costs tens of nanoseconds if it already is.
C10_XPU_API void wait_for_current_stream(c10::DeviceIndex device);
/// Blocks until every stream of every device is idle.
C10_XPU_API void synchronize_all_devices();
/// Whether `stream` is idle. In place of c10::xpu::XPUStream::query(), which the SYCL runtime answers to one thread alone.
C10_XPU_API bool is_idle(c10::DeviceIndex device, c10::StreamId stream);
/// Blocks until `stream` is idle.
C10_XPU_API void wait_for_stream(c10::DeviceIndex device, c10::StreamId stream);

/// Memory of `device`, whichever device is current. Size in bytes.
C10_XPU_API c10::DataPtr allocate_on_device(size_t size, c10::DeviceIndex device);
/// Keeps the allocator from changing while the process forks: a child that inherited it locked by another thread would
/// wait for ever at the next tensor that it frees. To be called in pairs, by the thread that forks.
C10_XPU_API void hold_allocator();
C10_XPU_API void let_go_of_allocator();
/// True if `data` is a whole block of the device allocator, so that its ownership can change hands.
C10_XPU_API bool is_device_block(const c10::DataPtr& data) noexcept;
/// True if a block of the device allocator starts at `pointer`.
C10_XPU_API bool owns_block(void* pointer);
/// The index of the device whose allocator owns the block around `pointer`, or -1.
C10_XPU_API c10::DeviceIndex find_device_of_pointer(const void* pointer);

/// PyTorch's CPU allocator, except that a thread inside an AllocateOnDevice scope gets memory of that device,
/// still labelled CPU. This is how results of CPU kernels become tensors of a host device without a copy.
C10_XPU_API c10::Allocator* redirecting_cpu_allocator();
/// Installs redirecting_cpu_allocator() as PyTorch's CPU allocator.
C10_XPU_API void install_cpu_allocator();

/// While it lives, this thread's CPU allocations come from `device`.
class C10_XPU_API AllocateOnDevice {
 public:
  explicit AllocateOnDevice(c10::DeviceIndex device) noexcept;
  ~AllocateOnDevice();
  AllocateOnDevice(const AllocateOnDevice&) = delete;
  AllocateOnDevice& operator=(const AllocateOnDevice&) = delete;

 private:
  c10::DeviceIndex previous_;
};

/// The device that this thread's CPU allocations come from, or -1.
C10_XPU_API c10::DeviceIndex allocating_device() noexcept;

/// Page-locked memory for PyTorch's pinned tensors: SYCL host memory.
C10_XPU_API c10::Allocator* pinned_allocator();
C10_XPU_API bool is_pinned_pointer(const void* pointer);

/// Free and total bytes of the machine's memory, which is what every host device draws on.
C10_XPU_API std::pair<size_t, size_t> memory_info();

/// Called at interpreter exit: finishes pending work, after which frees no longer touch the SYCL runtime.
C10_XPU_API void shut_down() noexcept;
/// True after shut_down().
C10_XPU_API bool is_shut_down() noexcept;

}  // namespace quillon::host_device
