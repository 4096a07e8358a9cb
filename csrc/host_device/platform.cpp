// The one SYCL device and context behind all host devices: made on first use, useless in a forked child, and left
// alone once the interpreter exits.
#include "platform.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "host_device.h"

namespace quillon::host_device {
namespace {

std::atomic<bool> initialized{false};
std::atomic<bool> bad_fork{false};
std::atomic<bool> shut_down_done{false};

sycl::device find_cpu_device() {
  std::vector<sycl::device> devices;
  std::string reason;
  try {
    devices = sycl::device::get_devices(sycl::info::device_type::cpu);
  } catch (const sycl::exception& error) {
    reason = std::string(" (") + error.what() + ")";
  }
  const auto show = [](const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "unset";
  };
  TORCH_CHECK(!devices.empty(), "quillon's host device needs the SYCL runtime's CPU device, and there is none", reason,
              ". Its driver, libintelocl.so, comes with: pip install 'quillon[host]'. OCL_ICD_FILENAMES names that "
              "driver and is ",
              show("OCL_ICD_FILENAMES"),
              "; ONEAPI_DEVICE_SELECTOR, if set, must allow opencl:cpu "
              "and is ",
              show("ONEAPI_DEVICE_SELECTOR"), ".");
  return devices.front();
}

std::vector<std::pair<std::string, std::string>>& environment_at_first_use() {
  static auto& variables = *new std::vector<std::pair<std::string, std::string>>;
  return variables;
}

Platform make_platform() {
  for (const auto& [name, value] : environment_at_first_use()) ::setenv(name.c_str(), value.c_str(), /*overwrite=*/0);
  sycl::device device = find_cpu_device();
  sycl::context context(device, c10::xpu::asyncHandler);
  return {std::move(device), std::move(context)};
}

void on_fork_in_child() {
  bad_fork.store(initialized.load(), std::memory_order_relaxed);
  let_go_of_allocator();
}

}  // namespace

void check_not_forked() {
  TORCH_CHECK(!in_bad_fork(),
              "Cannot re-initialize XPU in forked subprocess. To use XPU with multiprocessing, you must use the "
              "'spawn' start method");
}

Platform& platform() {
  check_not_forked();
  // Never destroyed: the SYCL runtime may be gone by the time static objects are.
  static Platform& instance = [&]() -> Platform& {
    auto* made = new Platform(make_platform());
    pthread_atfork(hold_allocator, let_go_of_allocator, on_fork_in_child);
    initialized.store(true);
    return *made;
  }();
  return instance;
}

void initialize() {
  platform();
}
void set_environment_at_first_use(std::vector<std::pair<std::string, std::string>> variables) {
  environment_at_first_use() = std::move(variables);
}
bool is_initialized() noexcept {
  return initialized.load(std::memory_order_relaxed);
}
bool in_bad_fork() noexcept {
  return bad_fork.load(std::memory_order_relaxed);
}
bool is_shut_down() noexcept {
  return shut_down_done.load(std::memory_order_relaxed);
}

void shut_down() noexcept {
  if (shut_down_done.load()) return;
  if (is_initialized() && !in_bad_fork()) {
    try {
      synchronize_all_devices();
    } catch (const std::exception& error) {
      TORCH_WARN("host device: pending work failed at exit: ", error.what());
    }
  }
  shut_down_done.store(true);
}

}  // namespace quillon::host_device
