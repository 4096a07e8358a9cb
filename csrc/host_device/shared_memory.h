// Memory of a host device that several processes share: the shared memory of CPU tensors, under the name of the device.
#pragma once

#include <pybind11/pybind11.h>

namespace quillon::host_device {

/// Adds the functions to the module quillon._host_device. python/quillon/host_device.py calls them when a tensor is sent.
void define_shared_memory(pybind11::module_& module);

}  // namespace quillon::host_device
