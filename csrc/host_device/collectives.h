// Collectives of torch.distributed: what a communication on stand-ins tells its caller about afterwards.
#pragma once

#include <ATen/core/ivalue.h>

namespace quillon::host_device {

/// Replaces the work object of a collective, if `value` is one, by one whose results are the caller's tensors on
/// `device`, not the stand-ins that the CPU's backend was given.
void return_work_to_device(c10::IValue& value, c10::DeviceIndex device);

}  // namespace quillon::host_device
