// How work reaches the device, for code that deals with SYCL itself. Host entries of kernels use launch_kernel.h.
#pragma once

#include <c10/xpu/XPUStream.h>

#include <utility>

#include "runtime/kernel_library.h"

namespace quillon {

// Submits a command group to the current XPU stream of the device and returns its event.
template <typename CommandGroup>
sycl::event submit_kernel(CommandGroup&& command_group, c10::Device device) {
  return c10::xpu::getCurrentXPUStream(device.index()).queue().submit(std::forward<CommandGroup>(command_group));
}

namespace runtime {

// The ready kernel of `entry` for the device of `queue`, which is device number `index`. Builds it when this is its
// first use; a failing build is a RuntimeError with the kernel's name and the compiler's log.
const sycl::kernel& find_kernel(KernelEntry& entry, const sycl::queue& queue, c10::DeviceIndex index);

}  // namespace runtime
}  // namespace quillon
