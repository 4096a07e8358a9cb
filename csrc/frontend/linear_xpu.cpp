// The extension module vesper_linear and the torch operator library quillon.
//
// Both come from one table, kOperators: an operator joins the library by one row of it. Seven rows exist on both
// routes and reach the same body; the rows without a schema are module functions only.
//
//   import vesper_linear ──► library loaded ──► static registrations: schemas, then bodies for the key XPU
//                        └─► PyInit_vesper_linear ──► version and XPU check ──► module ──► nine functions

#include <pybind11/stl.h>
#include <torch/csrc/Exceptions.h>
#include <torch/csrc/utils/pybind.h>
#include <torch/library.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "dispatch/device_class_query.h"
#include "frontend/build_observer.h"
#include "frontend/guards.h"
#include "frontend/interpreter_version.h"
#include "frontend/moe_indexes.h"
#include "frontend/python_types.h"
#include "mlp/mlp_xpu_kernel.h"
#include "runtime/kernel_library.h"
#include "rwkv/rwkv_operators.h"

namespace quillon {
namespace {

struct Operator {
  const char* name;
  const char* doc;
  const char* schema;  // null for a module function without a torch operator
  void (*bind)(pybind11::module_& module, const Operator& row);
  void (*implement)(torch::Library& library, const Operator& row);
};

template <auto Body, typename Signature>
struct Binding;

template <auto Body, typename Result, typename... Arguments>
struct Binding<Body, Result (*)(Arguments...)> {
  // What both routes call. The C++ library's exceptions become PyTorch's, and so RuntimeError: pybind11, which is behind
  // torch.ops as well, would make ValueError and IndexError of them.
  static Result call(Arguments... arguments) {
    try {
      return Body(std::move(arguments)...);
    } catch (const std::logic_error& error) {
      TORCH_CHECK(false, error.what());
    }
  }
  static void bind(pybind11::module_& module, const Operator& row) {
    module.def(
        row.name,
        [](typename PythonArgument<Arguments>::type... arguments) -> Result { return call(std::move(arguments)...); },
        row.doc);
  }
  static void implement(torch::Library& library, const Operator& row) {
    library.impl(row.name, torch::CppFunction(c10::CompileTimeFunctionPointer<Result(Arguments...), &call>()));
  }
};

template <auto Body>
constexpr Operator torch_operator(const char* name, const char* doc, const char* schema) {
  using Row = Binding<Body, decltype(Body)>;
  return {name, doc, schema, &Row::bind, &Row::implement};
}

template <auto Body>
constexpr Operator module_function(const char* name, const char* doc) {
  return {name, doc, nullptr, &Binding<Body, decltype(Body)>::bind, nullptr};
}

std::string get_xpu_device_name(c10::Device device) {
  return device_class_name(get_device_class(device));
}

constexpr std::array kOperators = {
    torch_operator<&linear_forward_new>(
        "forward_new", "Linear forward (XPU) new format",
        "forward_new(Tensor input, Tensor weight, int qtype, int input_size) -> Tensor"),
    torch_operator<&dequant>("dequant", "Dequantize weight (XPU)",
                             "dequant(Tensor input, Tensor weight, int qtype) -> Tensor"),
    torch_operator<&mlp_forward_xpu>(
        "mlp_forward_xpu", "fused mlp",
        "mlp_forward_xpu(Tensor input, Tensor weight1, Tensor weight2, int batch_size, int state_size, "
        "int output_size, int act_type, int qtype) -> Tensor"),
    torch_operator<&rwkv_linear_attention_v4>(
        "rwkv_linear_attention_v4", "rwkv v4 attention",
        "rwkv_linear_attention_v4(Tensor time_decay, Tensor time_first, Tensor key, Tensor value, "
        "Tensor num_state, Tensor den_state, Tensor max_state) -> Tensor"),
    torch_operator<&rwkv_linear_attention_v5>(
        "rwkv_linear_attention_v5", "rwkv v5 attention",
        "rwkv_linear_attention_v5(Tensor time_decay, Tensor time_first, Tensor receptance, Tensor key, "
        "Tensor value, Tensor state) -> Tensor"),
    torch_operator<&rwkv_time_shift>("rwkv_time_shift", "rwkv time shift",
                                     "rwkv_time_shift(Tensor hidden, Tensor shifted, Tensor mix) -> Tensor"),
    torch_operator<&dequantize_rows>(
        "dequantize_rows", "Dequantize rows of weight",
        "dequantize_rows(Tensor input, Tensor weight, int qtype, int state_size, int output_size) -> Tensor"),
    module_function<&get_moe_indexes>("get_moe_indexes", "get moe indexes"),
    module_function<&get_xpu_device_name>("get_xpu_device_name", "get xpu device name"),
};

constexpr const char* kBuiltForPython = PYBIND11_TOSTRING(PY_MAJOR_VERSION) "." PYBIND11_TOSTRING(PY_MINOR_VERSION);

// PyTorch's own XPU layer, or the host device, which is up by the time that quillon imports this module. Asked in Python:
// the C++ side remembers its first answer.
bool xpu_layer_is_up() {
  return pybind11::module_::import("torch").attr("_C").attr("_has_xpu").cast<bool>();
}

// A PyTorch error reaches Python from a module function as it does from torch.ops: the same type, the plain message, and
// the C++ backtrace only under TORCH_SHOW_CPP_STACKTRACES. pybind11 by itself would always append the backtrace.
void translate_exception(std::exception_ptr pending) {
  try {
    std::rethrow_exception(pending);
  } catch (const c10::Error&) {
    torch::translate_exception_to_python(pending);
  }
}

PyObject* create_module() {
  static PyModuleDef definition;
  auto module = pybind11::module_::create_extension_module("vesper_linear", nullptr, &definition);
  try {
    for (const Operator& row : kOperators) row.bind(module, row);
    return module.ptr();
  } catch (pybind11::error_already_set& error) {
    pybind11::raise_from(error, PyExc_ImportError, "initialization failed");
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_ImportError, error.what());
  }
  return nullptr;
}

TORCH_LIBRARY_FRAGMENT(quillon, library) {
  for (const Operator& row : kOperators)
    if (row.schema != nullptr) library.def(row.schema);
}

TORCH_LIBRARY_IMPL(quillon, XPU, library) {
  for (const Operator& row : kOperators)
    if (row.implement != nullptr) row.implement(library, row);
}

}  // namespace
}  // namespace quillon

// Written out because pybind11's macro makes a multi-phase module; this one is single-phase, without per-module state.
extern "C" PYBIND11_EXPORT PyObject* PyInit_vesper_linear() {
  const char* interpreter = Py_GetVersion();
  if (!quillon::interpreter_matches(quillon::kBuiltForPython, interpreter)) {
    PyErr_SetString(PyExc_ImportError,
                    quillon::interpreter_mismatch_message(quillon::kBuiltForPython, interpreter).c_str());
    return nullptr;
  }
  try {
    if (!quillon::xpu_layer_is_up()) {
      PyErr_SetString(
          PyExc_ImportError,
          "vesper_linear needs an XPU layer and this PyTorch has none: put `import quillon`, which brings up "
          "the host device, before `import vesper_linear`");
      return nullptr;
    }
    pybind11::detail::get_internals();
    pybind11::register_local_exception_translator(quillon::translate_exception);
    quillon::observe_kernel_builds();
    Py_AtExit(&quillon::runtime::close_library);
    return quillon::create_module();
  } catch (pybind11::error_already_set& error) {
    error.restore();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_ImportError, error.what());
  }
  return nullptr;
}
