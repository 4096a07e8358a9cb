#include "frontend/build_log.h"

#include <pybind11/pybind11.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "runtime/kernel_library.h"

namespace quillon {
namespace {

// Waits below this, added up over a process, go by without a word at the default log level.
constexpr double kLongSeconds = 5.0;

bool interpreter_is_going() {
#if PY_VERSION_HEX >= 0x030D0000
  return !Py_IsInitialized() || Py_IsFinalizing();
#else
  return !Py_IsInitialized() || _Py_IsFinalizing();
#endif
}

void log_build(const std::string& kernel, double seconds) {
  static std::atomic<double> total{0.0};
  static std::atomic<bool> told{false};
  double before = total.load();
  while (!total.compare_exchange_weak(before, before + seconds)) {
  }
  const double all = before + seconds;
  const bool tell = all >= kLongSeconds && !told.exchange(true);

  if (interpreter_is_going()) {
    // Python ends a thread that asks for the GIL now, here or in torch.ops, and its end aborts the process when it comes
    // in the midst of C++. So a daemon thread stays until the process is gone.
    while (!PyGILState_Check()) std::this_thread::sleep_for(std::chrono::hours(1));
    return;
  }
  const PyGILState_STATE gil = PyGILState_Ensure();
  try {
    const auto logger = pybind11::module_::import("logging").attr("getLogger")("quillon.kernels");
    logger.attr("info")("built %s in %.2f s", kernel, seconds);
    if (tell)
      logger.attr("warning")(
          "compiling kernels for this device at their first use has taken %.0f s so far; each is built once, and "
          "with the SYCL runtime's persistent cache later processes find it ready",
          all);
  } catch (pybind11::error_already_set& error) {
    error.discard_as_unraisable("quillon.kernels");  // a log handler's failure must not fail the operator
  }
  PyGILState_Release(gil);
}

}  // namespace

void log_kernel_builds() {
  runtime::set_build_observer(&log_build);
}

}  // namespace quillon
