// The kernel library: device source text embedded in the extension, compiled by the SYCL runtime at first use, one
// instantiation at a time, for the device of the call, and found in memory from then on.
//
//   first call                                             later calls
//   ----------                                             -----------
//   KernelEntry ── slot of the device empty ──► Library     KernelEntry ── slot of the device ──► sycl::kernel
//        name + header  ──► source text                      (one atomic load)
//        ──► kernel bundle ──► sycl::kernel ──► slot
//
// This header is free of SYCL, which takes a compiler ten seconds to read: host entries of kernels need only this and
// runtime/launch_kernel.h.
//
// Two threads that need the same kernel build it once, builds of different kernels run side by side. Entries and
// built kernels are never destroyed: the SYCL runtime may be gone before static destructors run.
#pragma once

#include <c10/core/Device.h>

#include <array>
#include <atomic>
#include <string>
#include <vector>

#include "runtime/device_limit.h"

namespace quillon::runtime {

struct BuiltKernel;  // a sycl::kernel and the context it lives in

// Fails for an index that the kernel library does not serve.
void check_device_index(c10::DeviceIndex index);

// One kernel instantiation in one backing, e.g. "qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>" of
// "kernels/matvec/q4_0_2x16.h".
struct KernelEntry {
  std::string header;
  std::string name;
  std::vector<std::string> options;  // of the build, behind those that all builds have
  std::array<std::atomic<const BuiltKernel*>, kMaxDevices> built{};
};

// The one entry of these three. Takes a lock: meant to be kept by the caller.
KernelEntry& kernel_entry(const std::string& header, const std::string& name, const std::vector<std::string>& options);

// Called after each build, outside all locks, with the kernel's name and the seconds it took. One observer at a time.
using BuildObserver = void (*)(const std::string& kernel, double seconds);
void set_build_observer(BuildObserver observer);

// For the end of the process, before static objects are destroyed: waits for the builds under way, because the
// compiler crashes when it is torn down at work. A thread that still comes for a kernel it has not used yet, or comes
// back with one, a daemon thread of Python's for instance, stays in the library for good.
void close_library();

}  // namespace quillon::runtime
