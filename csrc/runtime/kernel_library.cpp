#include "runtime/kernel_library.h"

#include <c10/util/Exception.h>

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <new>
#include <stdexcept>
#include <sycl/ext/oneapi/get_kernel_info.hpp>
#include <tuple>
#include <utility>
#include <vector>

#include "runtime/device_build.h"
#include "runtime/device_sources.h"
#include "runtime/submit_kernel.h"

namespace quillon::runtime {

struct BuiltKernel {
  sycl::context context;
  sycl::kernel kernel;
};

namespace {

namespace syclexp = sycl::ext::oneapi::experimental;

std::atomic<BuildObserver> build_observer{nullptr};

using Seconds = std::chrono::duration<double>;

syclexp::include_files embedded_headers() {
  syclexp::include_files files;
  for (std::size_t i = 0; i < kDeviceSourceCount; ++i) files.add(kDeviceSources[i].path, kDeviceSources[i].text);
  return files;
}

const BuiltKernel* build(const KernelEntry& entry, const sycl::context& context, const sycl::device& device) {
  const BuiltKernel* built = nullptr;
  std::string log;
  std::string reason;
  try {
    auto source = syclexp::create_kernel_bundle_from_source(context, syclexp::source_language::sycl,
                                                            device_build_text(entry.header, {entry.name}),
                                                            syclexp::properties{embedded_headers()});
    auto executable = syclexp::build(
        source, {device},
        syclexp::properties{syclexp::registered_names{entry.name},
                            syclexp::build_options{device_build_options(entry.options)}, syclexp::save_log{&log}});
    built = new BuiltKernel{context, executable.ext_oneapi_get_kernel(entry.name)};
  } catch (const std::exception& error) {
    reason = error.what();
    // What the SYCL runtime fails with when it takes a size from a file of its cache that is damaged.
    const bool no_memory =
        dynamic_cast<const std::bad_alloc*>(&error) || dynamic_cast<const std::length_error*>(&error);
    if (const char* folder = std::getenv("SYCL_CACHE_DIR"); no_memory && folder != nullptr)
      reason += std::string(". A file of the kernel cache may be damaged; delete the folder ") + folder;
  }
  TORCH_CHECK(built != nullptr, "Building the kernel ", entry.name, " for the device \"",
              device.get_info<sycl::info::device::name>(), "\" failed: ", reason,
              log.empty() ? "" : "\nCompiler log:\n", log);
  return built;
}

using BuildKey = std::tuple<const KernelEntry*, std::size_t, std::size_t>;  // entry, context hash, device hash
using Build = std::shared_future<const BuiltKernel*>;

struct Library {
  std::mutex mutex;  // guards the rest and is never held while a kernel is being built
  std::map<BuildKey, Build> builds;
  int under_way = 0;
  bool closed = false;
  std::condition_variable changed;
  const pid_t process = getpid();
};

Library& library() {
  static Library& instance = *new Library;
  return instance;
}

// Goes on while the library is open, and waits to the end of the process once it is closed.
void pass_if_open(std::unique_lock<std::mutex>& lock) {
  library().changed.wait(lock, [] { return !library().closed; });
}

void leave_build() {
  std::unique_lock lock(library().mutex);
  --library().under_way;
  library().changed.notify_all();
  pass_if_open(lock);
}

// The slow road: joins a build of the same kernel that another thread has begun, or begins it.
const BuiltKernel* find_or_build(KernelEntry& entry, const sycl::queue& queue) {
  const sycl::context context = queue.get_context();
  const sycl::device device = queue.get_device();
  const BuildKey key{&entry, std::hash<sycl::context>{}(context), std::hash<sycl::device>{}(device)};

  std::promise<const BuiltKernel*> promise;
  {
    std::unique_lock lock(library().mutex);
    pass_if_open(lock);
    const auto known = library().builds.find(key);
    if (known != library().builds.end()) {
      const Build build = known->second;
      lock.unlock();
      build.wait();
      lock.lock();
      pass_if_open(lock);
      return build.get();
    }
    library().builds.emplace(key, promise.get_future().share());
    ++library().under_way;
  }

  const auto start = std::chrono::steady_clock::now();
  const BuiltKernel* built = nullptr;
  try {
    built = build(entry, context, device);
  } catch (...) {
    {
      // Forgotten, so that a later call tries again (a full disk or an interrupted compiler may be gone by then).
      std::lock_guard lock(library().mutex);
      library().builds.erase(key);
    }
    promise.set_exception(std::current_exception());
    leave_build();
    throw;
  }
  promise.set_value(built);
  leave_build();
  if (const BuildObserver observer = build_observer.load())
    observer(entry.name, Seconds(std::chrono::steady_clock::now() - start).count());
  return built;
}

}  // namespace

KernelEntry& kernel_entry(const std::string& header, const std::string& name, const std::vector<std::string>& options) {
  static std::mutex& mutex = *new std::mutex;
  static auto& entries = *new std::map<std::tuple<std::string, std::string, std::vector<std::string>>, KernelEntry>;
  const std::lock_guard lock(mutex);
  KernelEntry& entry = entries[{header, name, options}];
  if (entry.name.empty()) {
    entry.header = header;
    entry.name = name;
    entry.options = options;
  }
  return entry;
}

void check_device_index(c10::DeviceIndex index) {
  TORCH_CHECK(index >= 0 && index < kMaxDevices, "XPU device index ", static_cast<int>(index),
              " is outside what the kernel library serves: 0 to ", kMaxDevices - 1);
}

const sycl::kernel& find_kernel(KernelEntry& entry, const sycl::queue& queue, c10::DeviceIndex index) {
  check_device_index(index);
  auto& slot = entry.built[index];
  const BuiltKernel* built = slot.load(std::memory_order_acquire);
  // A queue that a caller made in a context of its own needs a kernel of that context.
  if (built == nullptr || built->context != queue.get_context()) {
    built = find_or_build(entry, queue);
    slot.store(built, std::memory_order_release);
  }
  return built->kernel;
}

void set_build_observer(BuildObserver observer) {
  build_observer.store(observer);
}

void close_library() {
  if (library().process != getpid()) return;  // a forked child has none of the threads that build
  std::unique_lock lock(library().mutex);
  library().closed = true;
  library().changed.wait(lock, [] { return library().under_way == 0; });
}

}  // namespace quillon::runtime
