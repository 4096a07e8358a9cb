// Random numbers of the host device: each device has a generator of its own, and each is a CPU generator with
// an XPU face, so a host device draws the same numbers as the CPU does for the same seed.
#pragma once

#include <ATen/core/Generator.h>
#include <c10/core/Device.h>

#include <optional>

namespace quillon::host_device {

/// The generator that operators on `device` use when they are given none. Made on first use, then always the
/// same.
const at::Generator& default_generator(c10::DeviceIndex device);
at::Generator new_generator(c10::DeviceIndex device);

/// The CPU generator behind what the caller passed to an operator on `device`: behind that device's default
/// generator if that was nothing. Throws if the caller passed a generator that is not of an XPU device.
at::Generator cpu_generator_for(const std::optional<at::Generator>& given, c10::DeviceIndex device);

}  // namespace quillon::host_device
