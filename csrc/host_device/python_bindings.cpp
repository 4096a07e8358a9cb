// Python module quillon._host_device: importing it registers the guard, the hooks and the operators (static
// objects of the other sources), and its functions are what torch.xpu calls in torch._C on a PyTorch built
// with XPU. quillon.host_device puts them there.
#include <ATen/detail/XPUHooksInterface.h>
#include <c10/core/AllocatorConfig.h>
#include <c10/xpu/XPUCachingAllocator.h>
#include <torch/csrc/Event.h>
#include <torch/csrc/Generator.h>
#include <torch/csrc/utils/pybind.h>

#include <array>
#include <iomanip>
#include <optional>
#include <sstream>
#include <string>

#include "compiled_graphs.h"
#include "generator.h"
#include "host_device.h"
#include "shared_memory.h"

namespace py = pybind11;

namespace quillon::host_device {
namespace {

using c10::DeviceIndex;
using c10::xpu::DeviceProp;

py::tuple describe(const c10::Stream& stream) {
  return py::make_tuple(stream.id(), static_cast<int>(stream.device_index()), static_cast<int>(stream.device_type()));
}

py::dict describe(const c10::CachingAllocator::StatArray& stat) {
  static constexpr const char* kNames[] = {"all", "small_pool", "large_pool"};
  py::dict result;
  for (size_t i = 0; i < stat.size(); ++i) {
    py::dict one;
    one["current"] = stat[i].current;
    one["peak"] = stat[i].peak;
    one["allocated"] = stat[i].allocated;
    one["freed"] = stat[i].freed;
    result[kNames[i]] = one;
  }
  return result;
}

py::dict memory_stats(DeviceIndex device) {
  const auto stats = c10::getDeviceAllocator(c10::kXPU)->getDeviceStats(device);
  py::dict result;
  result["num_alloc_retries"] = stats.num_alloc_retries;
  result["num_ooms"] = stats.num_ooms;
  result["num_device_alloc"] = stats.num_device_alloc;
  result["num_device_free"] = stats.num_device_free;
  result["allocation"] = describe(stats.allocation);
  result["segment"] = describe(stats.segment);
  result["active"] = describe(stats.active);
  result["inactive_split"] = describe(stats.inactive_split);
  result["allocated_bytes"] = describe(stats.allocated_bytes);
  result["reserved_bytes"] = describe(stats.reserved_bytes);
  result["active_bytes"] = describe(stats.active_bytes);
  result["inactive_split_bytes"] = describe(stats.inactive_split_bytes);
  result["requested_bytes"] = describe(stats.requested_bytes);
  return result;
}

std::string hex(uint64_t value) {
  std::ostringstream text;
  text << "0x" << std::hex << std::uppercase << value;
  return text.str();
}

std::string type_name(const DeviceProp& prop) {
  return prop.device_type == sycl::info::device_type::cpu ? "cpu" : "unknown";
}

/// 16 bytes, shown as people write them: 8-4-4-4-12 hexadecimal digits.
struct Uuid {
  std::array<unsigned char, 16> bytes;

  std::string text() const {
    std::ostringstream text;
    text << std::hex << std::setfill('0');
    for (size_t i = 0; i < bytes.size(); ++i) {
      if (i == 4 || i == 6 || i == 8 || i == 10) text << '-';
      text << std::setw(2) << static_cast<int>(bytes[i]);
    }
    return text.str();
  }
};

void define_properties(py::module_& module) {
  py::class_<Uuid>(module, "_XpuUuid")
      .def_property_readonly("bytes",
                             [](const Uuid& uuid) {
                               return py::bytes(reinterpret_cast<const char*>(uuid.bytes.data()), uuid.bytes.size());
                             })
      .def("__str__", &Uuid::text)
      .def("__repr__", &Uuid::text);
  py::class_<DeviceProp>(module, "_XpuDeviceProperties")
      .def_readonly("name", &DeviceProp::name)
      .def_readonly("platform_name", &DeviceProp::platform_name)
      .def_readonly("vendor", &DeviceProp::vendor)
      .def_readonly("driver_version", &DeviceProp::driver_version)
      .def_readonly("version", &DeviceProp::version)
      .def_readonly("max_compute_units", &DeviceProp::max_compute_units)
      .def_readonly("gpu_eu_count", &DeviceProp::gpu_eu_count)
      .def_readonly("max_work_group_size", &DeviceProp::max_work_group_size)
      .def_readonly("max_num_sub_groups", &DeviceProp::max_num_sub_groups)
      .def_readonly("memory_clock_rate", &DeviceProp::memory_clock_rate)
      .def_readonly("memory_bus_width", &DeviceProp::memory_bus_width)
      .def_readonly("sub_group_sizes", &DeviceProp::sub_group_sizes)
      .def_readonly("local_mem_size", &DeviceProp::local_mem_size)
      .def_readonly("last_level_cache_size", &DeviceProp::global_mem_cache_size)
      .def_readonly("has_fp16", &DeviceProp::has_fp16)
      .def_readonly("has_fp64", &DeviceProp::has_fp64)
      .def_readonly("has_atomic64", &DeviceProp::has_atomic64)
      .def_readonly("has_bfloat16_conversions", &DeviceProp::has_bfloat16_conversions)
      .def_readonly("has_subgroup_matrix_multiply_accumulate", &DeviceProp::has_subgroup_matrix_multiply_accumulate)
      .def_readonly("has_subgroup_matrix_multiply_accumulate_tensor_float32",
                    &DeviceProp::has_subgroup_matrix_multiply_accumulate_tensor_float32)
      .def_readonly("has_subgroup_2d_block_io", &DeviceProp::has_subgroup_2d_block_io)
      .def_property_readonly("is_integrated_gpu", [](const DeviceProp&) { return false; })
      .def_readonly("total_memory", &DeviceProp::global_mem_size)
      .def_readonly("device_id", &DeviceProp::device_id)
      .def_property_readonly("gpu_subslice_count",
                             [](const DeviceProp& prop) { return prop.gpu_eu_count / prop.gpu_eu_count_per_subslice; })
      .def_property_readonly("uuid", [](const DeviceProp& prop) { return Uuid{prop.uuid}; })
      .def_property_readonly("type", &type_name)
      .def_property_readonly("architecture",
                             [](const DeviceProp& prop) { return static_cast<uint64_t>(prop.architecture); })
      .def("__repr__", [](const DeviceProp& prop) {
        std::ostringstream text;
        text << "_XpuDeviceProperties(name='" << prop.name << "', platform_name='" << prop.platform_name << "', type='"
             << type_name(prop) << "', driver_version='" << prop.driver_version
             << "', total_memory=" << (prop.global_mem_size >> 20) << "MB, max_compute_units=" << prop.max_compute_units
             << ", architecture=" << hex(static_cast<uint64_t>(prop.architecture)) << ")";
        return text.str();
      });
}

void define_devices(py::module_& module) {
  // The architecture identifiers that QUILLON_HOST_DEVICES declares; ValueError if it is malformed.
  module.def("declared_architectures", &declared_architectures);
  // True if PyTorch took up the hooks of this module, False if it had settled for "no XPU" before.
  module.def("hooks_are_active", [] { return at::detail::getXPUHooks().hasXPU(); });
  module.def("set_environment_at_first_use", &set_environment_at_first_use);
  module.def("install", &install_cpu_allocator);
  module.def("is_initialized", &is_initialized);
  module.def("shut_down", &shut_down, py::call_guard<py::gil_scoped_release>());
  module.def("default_generators", [] {
    py::tuple generators(c10::xpu::device_count());
    for (DeviceIndex i = 0; i < c10::xpu::device_count(); ++i) {
      generators[i] = py::reinterpret_steal<py::object>(THPGenerator_initDefaultGenerator(default_generator(i)));
    }
    return generators;
  });
  module.def("get_device_properties", [](DeviceIndex device) {
    DeviceProp prop;
    c10::xpu::get_device_properties(&prop, device);
    return prop;
  });

  module.def("_xpu_init", &initialize, py::call_guard<py::gil_scoped_release>());
  module.def("_xpu_isInBadFork", &in_bad_fork);
  module.def("_xpu_getDeviceCount", [] { return static_cast<int>(c10::xpu::device_count()); });
  module.def("_xpu_getDevice", [] { return static_cast<int>(c10::xpu::current_device()); });
  module.def("_xpu_setDevice", [](int device) { c10::xpu::set_device(static_cast<DeviceIndex>(device)); });
  // A negative index stands for "leave the device as it is", in both directions.
  module.def("_xpu_exchangeDevice", [](int device) {
    return device < 0 ? -1 : static_cast<int>(c10::xpu::exchange_device(static_cast<DeviceIndex>(device)));
  });
  module.def("_xpu_maybeExchangeDevice", [](int device) {
    return device < 0 ? -1 : static_cast<int>(c10::xpu::maybe_exchange_device(static_cast<DeviceIndex>(device)));
  });
  module.def("_xpu_canDeviceAccessPeer", [](int device, int peer) {
    c10::xpu::check_device_index(static_cast<DeviceIndex>(device));
    c10::xpu::check_device_index(static_cast<DeviceIndex>(peer));
    return true;
  });
  module.def("_xpu_getArchFlags", []() -> std::optional<std::string> { return std::nullopt; });
  module.def(
      "_xpu_synchronize", [](int device) { c10::xpu::syncStreamsOnDevice(static_cast<DeviceIndex>(device)); },
      py::call_guard<py::gil_scoped_release>());
}

void define_streams(py::module_& module) {
  module.def("_xpu_getCurrentStream",
             [](int device) { return describe(c10::xpu::getCurrentXPUStream(static_cast<DeviceIndex>(device))); });
  module.def("_xpu_getCurrentRawStream", [](int device) {
    return reinterpret_cast<uintptr_t>(&c10::xpu::getCurrentXPUStream(static_cast<DeviceIndex>(device)).queue());
  });
  module.def("_xpu_getStreamFromExternal", [](uintptr_t queue, int device) {
    return describe(
        c10::xpu::getStreamFromExternal(reinterpret_cast<sycl::queue*>(queue), static_cast<DeviceIndex>(device)));
  });
  // Makes the device of the stream the current one, too.
  module.def(
      "_xpu_setStream",
      [](int64_t stream_id, int64_t device_index, int64_t device_type) {
        const auto stream = c10::xpu::XPUStream::unpack3(stream_id, static_cast<DeviceIndex>(device_index),
                                                         static_cast<c10::DeviceType>(device_type));
        c10::xpu::set_device(stream.device_index());
        c10::xpu::setCurrentXPUStream(stream);
      },
      py::arg("stream_id"), py::arg("device_index"), py::arg("device_type"));
  module.def("stream_queue", [](int64_t stream_id, int device) {
    return reinterpret_cast<uintptr_t>(
        &c10::xpu::XPUStream::unpack3(stream_id, static_cast<DeviceIndex>(device), c10::kXPU).queue());
  });
  module.def("stream_priority", [](int64_t stream_id, int device) {
    return c10::xpu::XPUStream::unpack3(stream_id, static_cast<DeviceIndex>(device), c10::kXPU).priority();
  });
  module.def("stream_priority_range", &c10::xpu::XPUStream::priority_range);
  module.def("stream_from_pool", [](int priority) { return describe(c10::xpu::getStreamFromPool(priority)); });
  // torch.Event compares exact types and so refuses the events of a subclass.
  module.def("event_elapsed_time", [](const py::object& start, const py::object& end) {
    TORCH_CHECK_TYPE(THPEvent_Check(start.ptr()) && THPEvent_Check(end.ptr()), "elapsed_time: expected an event");
    return reinterpret_cast<THPEvent*>(start.ptr())->event.elapsedTime(reinterpret_cast<THPEvent*>(end.ptr())->event);
  });
  module.def("_xpu_isCurrentStreamCapturing", [] { return false; });
}

void define_memory(py::module_& module) {
  module.def("_xpu_memoryStats", &memory_stats);
  module.def(
      "_xpu_emptyCache", [] { c10::getDeviceAllocator(c10::kXPU)->emptyCache(); },
      py::call_guard<py::gil_scoped_release>());
  module.def("_xpu_resetPeakMemoryStats",
             [](DeviceIndex device) { c10::getDeviceAllocator(c10::kXPU)->resetPeakStats(device); });
  module.def("_xpu_resetAccumulatedMemoryStats",
             [](DeviceIndex device) { c10::getDeviceAllocator(c10::kXPU)->resetAccumulatedStats(device); });
  module.def("_xpu_getMemoryInfo",
             [](DeviceIndex device) { return c10::getDeviceAllocator(c10::kXPU)->getMemoryInfo(device); });
  module.def("_xpu_getMemoryFraction", &c10::xpu::XPUCachingAllocator::getMemoryFraction);
  module.def("_xpu_setMemoryFraction", &c10::xpu::XPUCachingAllocator::setMemoryFraction);
  // Unsupported: says so. (Its one caller asks for the "segments" of what it returns.)
  module.def("_xpu_memorySnapshot", [](const py::object&) { c10::xpu::XPUCachingAllocator::snapshot(); });
  module.def("_xpu_recordMemoryHistory",
             [](const std::optional<std::string>& enabled, const py::args&, const py::kwargs&) {
               c10::xpu::XPUCachingAllocator::recordHistory(enabled.has_value(), nullptr, 0, {}, false, {});
             });
}

}  // namespace
}  // namespace quillon::host_device

PYBIND11_MODULE(_host_device, module) {
  using namespace quillon::host_device;
  module.doc() = "PyTorch's XPU layer over the SYCL CPU device";
  define_properties(module);
  define_devices(module);
  define_streams(module);
  define_memory(module);
  define_compiled_graphs(module);
  define_shared_memory(module);
}
