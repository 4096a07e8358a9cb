// The class of a device at hand.
#pragma once

#include <c10/core/Device.h>

#include "dispatch/device_class.h"

namespace quillon {

// Only the device's index is read; -1 means the current device. Fails as PyTorch's XPU layer does for an index that
// does not exist.
XpuDeviceClass get_device_class(c10::Device device);

}  // namespace quillon
