// The call of the fallback: every operator that has no kernel of its own for the host device runs on the CPU, in
// place, because a host device's memory is the CPU's memory.
//
//   1. Find the device of the call and refuse a mixture of devices as PyTorch's generated code does.
//   2. Wait until the current streams of the devices involved are idle (they mostly are: tens of
//      nanoseconds).
//   3. Give the CPU kernel, for each XPU tensor, a CPU tensor over the same bytes; XPU device arguments
//      become CPU, XPU generators the CPU generators inside them.
//   4. Run the CPU kernel. What it allocates comes from the host device's allocator.
//   5. Turn results back: a result that is an argument is that argument; one that shares an argument's
//      storage is a view of it; any other takes its memory along. Arguments that the kernel resized get
//      their new shape and memory.
//
// The call is finished when it returns, so no stream ever needs to wait for it.
#include <ATen/core/op_registration/adaption.h>
#include "collectives.h"
#include "fallback.h"
#include "generator.h"
#include "host_device.h"
#include "operator_traits.h"
#include "serial_scope.h"
#include "stand_ins.h"

namespace quillon::host_device {
namespace {

using c10::Device;
using c10::DeviceIndex;
using c10::IValue;
using torch::jit::Stack;

template <typename Visit>
void for_each_tensor(const IValue& value, Visit&& visit) {
  if (value.isTensor()) {
    const at::Tensor& tensor = value.toTensor();
    if (tensor.defined()) visit(tensor);
  } else if (value.isList()) {
    for (const IValue& item : value.toListRef()) for_each_tensor(item, visit);
  }
}

/// One call of the fallback: the CPU stand-ins of its XPU arguments, and the way back.
class CpuCall {
 public:
  CpuCall(const c10::OperatorHandle& op, const OperatorTraits& traits, Stack& stack)
      : op_(op), traits_(traits), stack_(stack), first_argument_(stack.size() - op.schema().arguments().size()) {}

  void run() {
    settle_device();
    StandIns stand_ins(device_, op_.schema().name());
    for (const ArgumentTraits& argument : traits_.arguments) {
      replace_argument(value_of(argument), argument.kind, stand_ins, device_);
    }
    {
      const AllocateOnDevice scope(device_);
      const SerialScope serial(!traits_.work_grows_faster_than_data && elements_ <= kSmallCallElements);
      op_.redispatchBoxed(c10::DispatchKeySet(c10::DispatchKey::CPU), &stack_);
    }
    const size_t results = op_.schema().returns().size();
    for (size_t i = stack_.size() - results; i < stack_.size(); ++i) {
      stand_ins.to_xpu(stack_[i]);
      if (traits_.is_collective) return_work_to_device(stack_[i], device_);
    }
    if (traits_.writes_arguments) stand_ins.restore_arguments();
  }

 private:
  IValue& value_of(const ArgumentTraits& argument) { return stack_[first_argument_ + argument.position]; }

  /// Finds the device of the call, refuses mixtures, and waits for the streams that may still write the
  /// arguments.
  void settle_device() {
    bool mixed = false;
    for (const ArgumentTraits& argument : traits_.arguments) {
      const IValue& value = value_of(argument);
      if (argument.kind == ArgumentKind::kTensors) {
        for_each_tensor(value, [&](const at::Tensor& tensor) {
          const Device device = tensor.device();
          elements_ += tensor.numel();
          if (!device.is_xpu()) {
            mixed |= !argument.any_device && (tensor.dim() > 0 || argument.written || !device.is_cpu());
          } else if (device_ < 0) {
            device_ = device.index();
            wait_for_current_stream(device_);
          } else if (device.index() != device_) {
            mixed |= !argument.any_device;
            wait_for_current_stream(device.index());
          }
        });
      } else if (argument.kind == ArgumentKind::kDevice && device_ < 0 && value.isDevice() &&
                 value.toDevice().is_xpu()) {
        const Device device = value.toDevice();
        device_ = device.has_index() ? device.index() : c10::impl::getDeviceGuardImpl(c10::kXPU)->getDevice().index();
      }
    }
    TORCH_CHECK(device_ >= 0, op_.schema().operator_name(), ": no argument is on an XPU device.");
    if (mixed) fail_for_mixture();
  }

  [[noreturn]] void fail_for_mixture() {
    const std::string& overload = op_.schema().overload_name();
    const std::string method = "wrapper_XPU_" + op_.schema().name().substr(op_.schema().name().find("::") + 2) +
                               (overload.empty() ? "" : "_" + overload);
    std::optional<Device> common;
    for (const ArgumentTraits& argument : traits_.arguments) {
      if (argument.kind != ArgumentKind::kTensors || argument.any_device) continue;
      for_each_tensor(value_of(argument), [&](const at::Tensor& tensor) {
        if (tensor.device().is_cpu() && tensor.dim() == 0 && !argument.written) return;
        c10::impl::check_and_update_common_device(common, tensor, method.c_str(),
                                                  op_.schema().arguments()[argument.position].name().c_str());
      });
    }
    // Left over: a scalar on the CPU that the call would write.
    TORCH_CHECK(false, "Expected all tensors to be on the same device, but found at least two devices, cpu and xpu:",
                static_cast<int>(device_), "! (when checking arguments in method ", method, ")");
  }

  static void replace_argument(IValue& value, ArgumentKind kind, StandIns& stand_ins, DeviceIndex device) {
    switch (kind) {
      case ArgumentKind::kTensors:
        stand_ins.to_cpu(value);
        return;
      case ArgumentKind::kDevice:
        if (value.isDevice() && value.toDevice().is_xpu()) value = Device(c10::kCPU);
        return;
      case ArgumentKind::kGenerator:
        value = cpu_generator_for(value.isGenerator() ? std::optional(value.toGenerator()) : std::nullopt, device);
        return;
    }
  }

  const c10::OperatorHandle& op_;
  const OperatorTraits& traits_;
  Stack& stack_;
  const size_t first_argument_;
  DeviceIndex device_ = -1;
  int64_t elements_ = 0;
};

}  // namespace

void run_on_cpu(const c10::OperatorHandle& op, Stack* stack) {
  const c10::FunctionSchema& schema = op.schema();
  if (is_builtin(schema)) {
    CpuCall(op, traits_of_builtin(schema), *stack).run();
  } else {
    const OperatorTraits traits = make_traits(schema);
    CpuCall(op, traits, *stack).run();
  }
}

}  // namespace quillon::host_device
