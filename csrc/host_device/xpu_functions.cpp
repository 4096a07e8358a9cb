// c10/xpu/XPUFunctions.h over the SYCL CPU device: how many host devices there are, which one is current, and
// what each says of itself. All of them are the same SYCL device in the same context, so kernels and memory
// are shared; only their declared architecture tells them apart.
#include <c10/util/Exception.h>
#include <c10/xpu/PeerToPeerAccess.h>
#include <c10/xpu/XPUFunctions.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "host_device.h"
#include "platform.h"

namespace quillon::host_device {
namespace {

constexpr const char* kDevicesVariable = "QUILLON_HOST_DEVICES";

thread_local c10::DeviceIndex current_index = 0;

std::string_view trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

uint64_t parse_architecture(std::string_view item, size_t position) {
  const bool hexadecimal = item.size() > 2 && item[0] == '0' && (item[1] == 'x' || item[1] == 'X');
  const std::string digits(hexadecimal ? item.substr(2) : item);
  const char* allowed = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
  errno = 0;
  const bool well_formed = !digits.empty() && digits.find_first_not_of(allowed) == std::string::npos;
  const uint64_t value = well_formed ? std::strtoull(digits.c_str(), nullptr, hexadecimal ? 16 : 10) : 0;
  TORCH_CHECK_VALUE(well_formed && errno == 0, kDevicesVariable, ": item ", position, " is '", item,
                    "', which is not a 64-bit architecture identifier. Allowed is a comma-separated list of 1 to ",
                    kMaxDevices, " identifiers, each decimal or hexadecimal with 0x (for example 0x30F000700,0).");
  return value;
}

std::vector<uint64_t> read_architectures() {
  const char* value = std::getenv(kDevicesVariable);
  std::string_view list = value ? trim(value) : std::string_view{};
  if (list.empty()) return {0};
  std::vector<uint64_t> architectures;
  for (size_t start = 0; start <= list.size();) {
    const size_t end = std::min(list.find(',', start), list.size());
    architectures.push_back(parse_architecture(trim(list.substr(start, end - start)), architectures.size() + 1));
    start = end + 1;
  }
  TORCH_CHECK_VALUE(architectures.size() <= kMaxDevices, kDevicesVariable, " lists ", architectures.size(),
                    " devices. Allowed are 1 to ", kMaxDevices, ".");
  return architectures;
}

}  // namespace

const std::vector<uint64_t>& declared_architectures() {
  static const auto& architectures = *new std::vector<uint64_t>(read_architectures());
  return architectures;
}

}  // namespace quillon::host_device

namespace c10::xpu {

using namespace quillon::host_device;

DeviceIndex device_count() {
  static const auto count = static_cast<DeviceIndex>(declared_architectures().size());
  return count;
}

DeviceIndex device_count_ensure_non_zero() {
  return device_count();
}

DeviceIndex current_device() {
  return current_index;
}

void set_device(DeviceIndex device) {
  check_device_index(device);
  current_index = device;
}

DeviceIndex exchange_device(DeviceIndex device) {
  check_device_index(device);
  return std::exchange(current_index, device);
}

DeviceIndex maybe_exchange_device(DeviceIndex to_device) {
  return exchange_device(to_device);
}

sycl::device& get_raw_device(DeviceIndex device) {
  check_device_index(device);
  return platform().device;
}

sycl::context& get_device_context() {
  return platform().context;
}

void get_device_properties(DeviceProp* device_prop, DeviceIndex device) {
  TORCH_CHECK(device_prop, "get_device_properties: device_prop must not be null.");
  sycl::device& raw = get_raw_device(device);

// The headers list the properties by macro, so reading them takes macros too.
#define READ_PROPERTY(property) device_prop->property = raw.get_info<sycl::info::device::property>();
#define READ_EXTENSION(property, aspect_name, default_value)                             \
  device_prop->property = raw.has(sycl::aspect::ext_intel_##aspect_name)                 \
                              ? raw.get_info<sycl::ext::intel::info::device::property>() \
                              : static_cast<sycl::ext::intel::info::device::property::return_type>(default_value);
#define READ_ASPECT(member) device_prop->has_##member = raw.has(sycl::aspect::member);
#define READ_EXPERIMENTAL_ASPECT(member) device_prop->has_##member = raw_has_##member;

  AT_FORALL_XPU_DEVICE_PROPERTIES(READ_PROPERTY)
  device_prop->platform_name = raw.get_info<sycl::info::device::platform>().get_info<sycl::info::platform::name>();
  AT_FORALL_XPU_EXT_DEVICE_PROPERTIES(READ_EXTENSION)
  // All are one device to the SYCL runtime.
  device_prop->uuid.back() ^= static_cast<unsigned char>(device);
#if SYCL_COMPILER_VERSION >= 20260000
  device_prop->is_integrated_gpu = false;
#endif
  AT_FORALL_XPU_DEVICE_ASPECT(READ_ASPECT)
  // A CPU device has none of these OpenCL extensions of GPUs.
  const bool raw_has_bfloat16_conversions = false, raw_has_subgroup_matrix_multiply_accumulate = false,
             raw_has_subgroup_matrix_multiply_accumulate_tensor_float32 = false, raw_has_subgroup_2d_block_io = false;
  AT_FORALL_XPU_EXP_CL_ASPECT(READ_EXPERIMENTAL_ASPECT)
  device_prop->architecture =
      static_cast<sycl::ext::oneapi::experimental::architecture>(declared_architectures().at(device));

#undef READ_PROPERTY
#undef READ_EXTENSION
#undef READ_ASPECT
#undef READ_EXPERIMENTAL_ASPECT
}

DeviceIndex get_device_idx_from_pointer(void* ptr) {
  const DeviceIndex device = find_device_of_pointer(ptr);
  TORCH_CHECK(device >= 0, "The pointer ", ptr, " is not memory of an XPU device.");
  return device;
}

namespace detail {

void init_p2p_access_cache(DeviceIndex /*num_devices*/) {}

}  // namespace detail

// All host devices share one memory.
bool get_p2p_access(DeviceIndex dev, DeviceIndex dev_to_access) {
  check_device_index(dev);
  check_device_index(dev_to_access);
  return true;
}

}  // namespace c10::xpu
