#include "dispatch/onednn_s4_gemv.h"

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>
#include <c10/xpu/XPUStream.h>
#include <dlfcn.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <sycl/platform.hpp>
#include <sycl/usm.hpp>

#include "dispatch/format_check.h"
#include "formats/registry.h"
#include "onednn/s4_matmul.h"
#include "runtime/device_limit.h"
#include "runtime/element_type.h"
#include "runtime/launch_record.h"
#include "runtime/submit_kernel.h"

namespace quillon {
namespace {

constexpr std::int64_t kGroup = 64;
constexpr std::size_t kScaleCapacity = 0x600000 / sizeof(c10::Half);  // elements of the buffer of transposed scales
constexpr std::uint8_t kZeroPoint = 8;

// ---- the library that holds oneDNN ------------------------------------------------------------------------

std::filesystem::path folder_of(const void* symbol) {
  Dl_info info;
  TORCH_CHECK(dladdr(symbol, &info) != 0 && info.dli_fname != nullptr, "a loaded library has no file");
  return std::filesystem::path(info.dli_fname).parent_path();
}

void* open_library(const std::filesystem::path& file) {
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  TORCH_CHECK(library != nullptr,
              "forward_new: q4_0_woq with several rows needs oneDNN: pip install onednn==2026.1.*: ", dlerror());
  return library;
}

S4MatmulFunction* load_s4_matmul() {
  // oneDNN does not say where the libraries are that it needs. They lie beside the SYCL runtime, and are found once they
  // are loaded; one that is missing here oneDNN may find elsewhere, or it tells.
  const std::filesystem::path runtime = folder_of(reinterpret_cast<const void*>(&sycl::platform::get_platforms));
  for (const char* needed : {"libimf.so", "libintlc.so.5", "libsvml.so", "libtbb.so.12", "libdnnl.so.3"})
    dlopen((runtime / needed).c_str(), RTLD_NOW | RTLD_LOCAL);
  const std::filesystem::path own = folder_of(reinterpret_cast<const void*>(&linear_xpu_forward_onednn_s4_gemv));
  void* library = open_library(own / "quillon" / "lib" / kS4MatmulLibrary);
  auto* function = reinterpret_cast<S4MatmulFunction*>(dlsym(library, kS4MatmulSymbol));
  TORCH_CHECK(function != nullptr, "forward_new: ", kS4MatmulLibrary, " lacks ", kS4MatmulSymbol);
  return function;
}

S4MatmulFunction& s4_matmul() {
  static S4MatmulFunction* const function = load_s4_matmul();  // a failure is tried again by the next call
  return *function;
}

// ---- what stays on a device -------------------------------------------------------------------------------

// Made by a device's first call and never freed. Calls take turns with the scales, on whichever queue they are.
struct DeviceObjects {
  std::once_flag made;
  std::uint8_t* zero_point;
  void* half_scales;
  std::atomic<void*> float_scales{nullptr};  // null until oneDNN has shown to have no half precision here
  std::mutex turn;                           // held while a call submits its two kernels
  std::optional<sycl::event> last;           // what reads or writes the scales
};

DeviceObjects& device_objects(sycl::queue& queue, c10::DeviceIndex index) {
  static std::array<DeviceObjects, kMaxDevices>& all = *new std::array<DeviceObjects, kMaxDevices>;
  DeviceObjects& objects = all[index];
  std::call_once(objects.made, [&] {
    objects.half_scales = sycl::malloc_device<c10::Half>(kScaleCapacity, queue);
    objects.zero_point = sycl::malloc_device<std::uint8_t>(1, queue);
    TORCH_CHECK(objects.half_scales != nullptr && objects.zero_point != nullptr,
                "forward_new: no device memory for the scales of oneDNN's product");
    queue.memcpy(objects.zero_point, &kZeroPoint, 1).wait();
  });
  return objects;
}

// In the caller's turn.
void* float_scales(DeviceObjects& objects, sycl::queue& queue) {
  if (objects.float_scales == nullptr) objects.float_scales = sycl::malloc_device<float>(kScaleCapacity, queue);
  TORCH_CHECK(objects.float_scales != nullptr, "forward_new: no memory for the scales of oneDNN's product");
  return objects.float_scales;
}

// ---- the product ------------------------------------------------------------------------------------------

template <typename T>
const sycl::kernel& transpose_scale_kernel(const sycl::queue& queue, c10::DeviceIndex index) {
  static runtime::KernelEntry& entry =
      runtime::kernel_entry("kernels/onednn/transpose_scale.h",
                            std::string("transpose_scale_kernel<") + facts_of(element_type_of<T>()).name + ">", {});
  return runtime::find_kernel(entry, queue, index);
}

// Both kernels of a product. Whatever may take the interpreter's lock, as the observer of a build does, has been done by
// now: a thread may hold that lock and wait for its turn.
S4Outcome transpose_and_multiply(sycl::queue& queue, DeviceObjects& objects, const sycl::kernel& transpose,
                                 S4MatmulFunction& multiply, const std::uint8_t* scales, const S4Matmul& matmul) {
  const auto groups = static_cast<std::uint64_t>(matmul.state_size / kGroup);
  const auto rows = static_cast<std::uint64_t>(matmul.output_size);
  objects.last = queue.submit([&](sycl::handler& handler) {
    if (objects.last) handler.depends_on(*objects.last);
    handler.set_args(scales, const_cast<void*>(matmul.scales), groups, rows);
    handler.parallel_for(sycl::nd_range<1>(rows * groups, groups), transpose);
  });
  const S4Outcome outcome = multiply(queue, matmul);
  objects.last = queue.ext_oneapi_submit_barrier();
  return outcome;
}

void record_matmul(c10::Device device) {
  if (records_launches()) record_launch({"oneDNN matmul", {}, {}, device, false});
}

}  // namespace

at::Tensor linear_xpu_forward_onednn_s4_gemv(const at::Tensor& input, const at::Tensor& weight,
                                             XpuDeviceClass /*device_class*/) {
  const std::int64_t batch = input.size(0), state_size = input.size(1);
  const std::int64_t output_size =
      weight.size(0) / bytes_per_block(qtype_q4_0_woq) * elements_per_block(qtype_q4_0_woq) / state_size;
  const std::string format = describe_format(qtype_q4_0_woq);
  TORCH_CHECK(input.scalar_type() == at::kHalf, "forward_new: ", format, " takes float16 activations with a batch of ",
              batch, " on this device, got ", input.scalar_type());
  TORCH_CHECK(state_size % kGroup == 0, "forward_new: ", format, " takes rows of a multiple of ", kGroup,
              " elements with a batch of ", batch, ", got ", state_size);
  const std::int64_t groups = state_size / kGroup;
  TORCH_CHECK(static_cast<std::uint64_t>(output_size * groups) <= kScaleCapacity, "forward_new: ", format,
              " takes weights of at most ", kScaleCapacity, " scales with a batch of ", batch, ", got ", output_size,
              " rows of ", groups);
  at::Tensor output = at::empty({batch, output_size}, weight.options().dtype(input.scalar_type()));
  if (batch == 0 || output_size == 0) return output;

  const c10::xpu::XPUStream stream = c10::xpu::getCurrentXPUStream(weight.device().index());
  sycl::queue& queue = stream.queue();
  const c10::DeviceIndex index = stream.device_index();
  runtime::check_device_index(index);
  DeviceObjects& objects = device_objects(queue, index);
  const auto* codes = weight.const_data_ptr<std::uint8_t>();
  const std::uint8_t* scales = codes + output_size * state_size / 2;
  S4Matmul matmul{input.const_data_ptr(),    codes, objects.half_scales, objects.zero_point,
                  output.data_ptr(),         batch, state_size,          output_size,
                  /*single_precision=*/false};

  S4MatmulFunction& multiply = s4_matmul();
  if (objects.float_scales == nullptr) {
    const sycl::kernel& transpose = transpose_scale_kernel<c10::Half>(queue, index);
    const std::lock_guard turn(objects.turn);
    if (transpose_and_multiply(queue, objects, transpose, multiply, scales, matmul) == S4Outcome::submitted) {
      record_matmul(weight.device());
      return output;
    }
  }
  // A processor without half precision: the halves' own values, multiplied in float and rounded once.
  const at::Tensor source = input.to(at::kFloat);
  const at::Tensor destination = at::empty({batch, output_size}, output.options().dtype(at::kFloat));
  const sycl::kernel& transpose = transpose_scale_kernel<float>(queue, index);
  matmul.source = source.const_data_ptr();
  matmul.destination = destination.data_ptr();
  matmul.single_precision = true;
  {
    const std::lock_guard turn(objects.turn);
    matmul.scales = float_scales(objects, queue);
    transpose_and_multiply(queue, objects, transpose, multiply, scales, matmul);
  }
  record_matmul(weight.device());
  output.copy_(destination);
  return output;
}

}  // namespace quillon
