#include "compiled_graphs.h"

#include <ATen/CPUGeneratorImpl.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <torch/csrc/autograd/python_variable.h>
#include <torch/csrc/utils/pybind.h>
#include <torch/library.h>

#include "generator.h"
#include "host_device.h"
#include "missing_kernels.h"
#include "operator_traits.h"
#include "serial_scope.h"
#include "stand_ins.h"

namespace py = pybind11;

namespace quillon::host_device {
namespace {

const std::string kGraphName = "A compiled graph";
constexpr const char* kTwinNamespace = "quillon_host_device";

/// While it lives, random numbers of the CPU are drawn from the generator of a device.
class DrawFromDevice {
 public:
  explicit DrawFromDevice(c10::DeviceIndex device)
      : cpu_(at::detail::getDefaultCPUGenerator()), device_(default_generator(device)), saved_(cpu_.get_state()) {
    cpu_.set_state(device_.get_state());
  }
  ~DrawFromDevice() {
    device_.set_state(cpu_.get_state());
    cpu_.set_state(saved_);
  }
  DrawFromDevice(const DrawFromDevice&) = delete;
  DrawFromDevice& operator=(const DrawFromDevice&) = delete;

 private:
  at::Generator cpu_, device_;
  at::Tensor saved_;
};

/// Calls `function`, compiled for the CPU, with stand-ins of the tensors in `arguments`, a list that it empties. Of the
/// results, those that `on_device` marks are tensors of the device, all others tensors of the CPU with memory of their own.
py::list call_on_cpu(const py::function& function, py::list arguments, c10::DeviceIndex device,
                     const std::vector<bool>& on_device, bool draws_random_numbers, bool is_small) {
  StandIns stand_ins(device, kGraphName);
  py::list replaced(arguments.size());
  for (size_t i = 0; i < arguments.size(); ++i) {
    const py::handle argument = arguments[i];
    replaced[i] = THPVariable_Check(argument.ptr()) ? py::cast(stand_ins.to_cpu(THPVariable_Unpack(argument.ptr())))
                                                    : py::reinterpret_borrow<py::object>(argument);
  }
  arguments.attr("clear")();
  wait_for_current_stream(device);
  py::sequence results = [&] {
    const AllocateOnDevice scope(device);
    const SerialScope serial(is_small);
    std::optional<DrawFromDevice> generator;
    if (draws_random_numbers) generator.emplace(device);
    return function(std::move(replaced)).cast<py::sequence>();
  }();
  TORCH_INTERNAL_ASSERT(results.size() == on_device.size());
  py::list restored(results.size());
  for (size_t i = 0; i < results.size(); ++i) {
    py::object result = results[i];
    if (THPVariable_Check(result.ptr())) {
      const at::Tensor& tensor = THPVariable_Unpack(result.ptr());
      result = py::cast(on_device[i] ? stand_ins.to_xpu(tensor) : tensor.clone());
    }
    restored[i] = std::move(result);
  }
  stand_ins.restore_arguments();
  return restored;
}

/// The twin of an operator that the CPU has no kernel for: called with the CPU tensors of a compiled graph, it runs the
/// operator on the device.
class DeviceCall final : public c10::OperatorKernel {
 public:
  explicit DeviceCall(const c10::OperatorHandle& op) : op_(op) {}

  void operator()(const c10::OperatorHandle&, c10::DispatchKeySet, torch::jit::Stack* stack) {
    const c10::DeviceIndex device = allocating_device();
    TORCH_CHECK(device >= 0, op_.schema().operator_name(), ": only a compiled graph calls this form of the operator.");
    const size_t arguments = op_.schema().arguments().size(), results = op_.schema().returns().size();
    for (size_t i = stack->size() - arguments; i < stack->size(); ++i) {
      replace_tensors((*stack)[i], [device](at::Tensor cpu) { return as_device_tensor(cpu, device); });
    }
    {
      const AllocateOnDevice ordinary(-1);
      op_.callBoxed(stack);
    }
    for (size_t i = stack->size() - results; i < stack->size(); ++i) {
      replace_tensors((*stack)[i], [](at::Tensor xpu) { return xpu.is_xpu() ? as_cpu_tensor(xpu) : xpu; });
    }
    wait_for_current_stream(device);
  }

 private:
  const c10::OperatorHandle op_;
};

torch::Library& twin_library() {
  static auto& library =
      *new torch::Library(torch::Library::FRAGMENT, kTwinNamespace, std::nullopt, __FILE__, __LINE__);
  return library;
}

/// Defines the twin of an operator; returns its name without the namespace.
std::string define_twin(const std::string& name, const std::string& overload) {
  const auto op = c10::Dispatcher::singleton().findSchemaOrThrow(name.c_str(), overload.c_str());
  std::string twin = name + (overload.empty() ? "" : "." + overload);
  std::replace_if(twin.begin(), twin.end(), [](char c) { return c == ':' || c == '.'; }, '_');
  twin_library().def(op.schema().cloneWithName(std::string(kTwinNamespace) + "::" + twin, ""));
  twin_library().impl(twin.c_str(), c10::DispatchKey::CPU,
                      torch::CppFunction::makeFromBoxedFunctor(std::make_unique<DeviceCall>(op)));
  return twin;
}

}  // namespace

void define_compiled_graphs(py::module_& module) {
  module.def("call_on_cpu", &call_on_cpu);
  module.def("as_cpu_tensor", &as_cpu_tensor);
  module.def("define_twin", &define_twin);
  // What a call may hold to run on one thread, and the operators of which the number of elements does not tell.
  module.attr("small_call_elements") = kSmallCallElements;
  module.def("work_grows_faster_than_data", &work_grows_faster_than_data);
  // Operators that run on the device though the CPU has a kernel of that name.
  module.def("operators_beyond_the_cpu", &operators_beyond_the_cpu);
}

}  // namespace quillon::host_device
