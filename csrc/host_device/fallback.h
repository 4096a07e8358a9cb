// Running an operator of the host device on the CPU without copying a tensor.
#pragma once

#include <ATen/core/dispatch/Dispatcher.h>
#include <ATen/core/stack.h>

namespace quillon::host_device {

/// Boxed kernel: runs `op` for XPU tensors by its CPU kernel. See cpu_call.cpp.
void run_on_cpu(const c10::OperatorHandle& op, torch::jit::Stack* stack);

/// Boxed kernel that throws NotImplementedError: the host device has no nested tensors.
void refuse_nested(const c10::OperatorHandle& op, torch::jit::Stack* stack);

}  // namespace quillon::host_device
