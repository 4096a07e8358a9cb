#include "frontend/build_observer.h"

#include <pybind11/pybind11.h>

#include <chrono>
#include <string>
#include <thread>

#include "runtime/kernel_library.h"

namespace quillon {
namespace {

bool interpreter_is_going() {
#if PY_VERSION_HEX >= 0x030D0000
  return !Py_IsInitialized() || Py_IsFinalizing();
#else
  return !Py_IsInitialized() || _Py_IsFinalizing();
#endif
}

void tell_python(const std::string& kernel, double seconds) {
  if (interpreter_is_going()) {
    // Python ends a thread that asks for the GIL now, here or in torch.ops, and its end aborts the process when it comes
    // in the midst of C++. So a daemon thread stays until the process is gone.
    while (!PyGILState_Check()) std::this_thread::sleep_for(std::chrono::hours(1));
    return;
  }
  const PyGILState_STATE gil = PyGILState_Ensure();
  try {
    const auto module = pybind11::module_::import("vesper_linear");
    if (pybind11::hasattr(module, kBuildObserverAttribute)) module.attr(kBuildObserverAttribute)(kernel, seconds);
  } catch (pybind11::error_already_set& error) {
    error.discard_as_unraisable("vesper_linear");  // an observer's failure must not fail the operator
  }
  PyGILState_Release(gil);
}

}  // namespace

void observe_kernel_builds() {
  runtime::set_build_observer(&tell_python);
}

}  // namespace quillon
