// What the launch side asks of a device, once.
#pragma once

#include <c10/core/Device.h>

#include <cstddef>

#include "runtime/kernel_library.h"

namespace quillon::runtime {

struct DeviceFacts {
  bool is_cpu;
  int compute_units;
  std::size_t local_memory;  // bytes of a work-group
  bool has_sub_groups_of_8;
};

const DeviceFacts& device_facts(c10::DeviceIndex index);

}  // namespace quillon::runtime
