// The one SYCL device and context behind all host devices; for the sources of libc10_xpu.so only.
#pragma once

#include <c10/xpu/XPUException.h>
#include <sycl/sycl.hpp>

namespace quillon::host_device {

struct Platform {
  sycl::device device;
  sycl::context context;
};

/// Of all memory: a cache line, and the widest vector of the CPU device.
inline constexpr size_t kAlignment = 64;

/// Made on first use, never destroyed. Throws where there is no CPU device and in a forked child.
Platform& platform();

/// Throws PyTorch's error for XPU use in a child forked after initialization.
void check_not_forked();

}  // namespace quillon::host_device
