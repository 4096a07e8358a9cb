// What torch.compile needs to run a graph that was compiled for the CPU on tensors of a host device.
// python/quillon/_compile.py makes such graphs.
#pragma once

#include <pybind11/pybind11.h>

namespace quillon::host_device {

/// Adds the functions to the module quillon._host_device.
void define_compiled_graphs(pybind11::module_& module);

}  // namespace quillon::host_device
