// The operators that the host device does not leave to the fallback: those that make memory or views of it,
// and those whose device-independent form would look for XPU kernels that are not there.
#include <ATen/ATen.h>
#include <ATen/EmptyTensor.h>
#include <ATen/SDPBackend.h>
#include <ATen/native/Resize.h>
#include <ATen/ops/_efficientzerotensor_native.h>
#include <ATen/ops/_fused_sdp_choice_native.h>
#include <ATen/ops/_reshape_alias_native.h>
#include <ATen/ops/_scaled_dot_product_attention_math_native.h>
#include <ATen/ops/as_strided_native.h>
#include <ATen/ops/unfold_native.h>
#include <ATen/ops/view_native.h>
#include <c10/core/DeviceGuard.h>
#include <torch/library.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "fallback.h"
#include "host_device.h"

namespace quillon::host_device {
namespace {

using Layout = std::optional<at::Layout>;
using ScalarType = std::optional<at::ScalarType>;
using Device = std::optional<at::Device>;

constexpr c10::DispatchKeySet kXpuKeys(c10::DispatchKey::XPU);

c10::DeviceGuard guard_for(Device device) {
  return c10::DeviceGuard(device.value_or(at::Device(c10::kXPU)));
}

void check_options(Layout layout, std::optional<bool> pin_memory) {
  TORCH_CHECK_NOT_IMPLEMENTED(layout.value_or(at::kStrided) == at::kStrided, *layout,
                              " tensors are not supported on quillon's host device. Allowed is torch.strided.");
  TORCH_CHECK(!pin_memory.value_or(false), "Only dense CPU tensors can be pinned");
}

at::Tensor empty(at::IntArrayRef size, ScalarType dtype, Layout layout, Device device, std::optional<bool> pin_memory,
                 std::optional<at::MemoryFormat> memory_format) {
  check_options(layout, pin_memory);
  const auto guard = guard_for(device);
  return at::detail::empty_generic(size, c10::GetAllocator(c10::kXPU), kXpuKeys, at::dtype_or_default(dtype),
                                   memory_format);
}

at::Tensor empty_strided(at::IntArrayRef size, at::IntArrayRef stride, ScalarType dtype, Layout layout, Device device,
                         std::optional<bool> pin_memory) {
  check_options(layout, pin_memory);
  const auto guard = guard_for(device);
  return at::detail::empty_strided_generic(size, stride, c10::GetAllocator(c10::kXPU), kXpuKeys,
                                           at::dtype_or_default(dtype));
}

// A tensor of zeros that has no memory.
struct NoMemory final : c10::Allocator {
  explicit NoMemory(at::Device device) : device_(device) {}
  at::DataPtr allocate(size_t) override {
    return {nullptr, nullptr, [](void*) {}, device_};
  }
  void copy_data(void*, const void*, size_t) const override {}
  at::Device device_;
};

c10::Allocator* no_memory_of(c10::DeviceIndex device) {
  // Storages keep the pointer, so these live for ever.
  static auto& allocators = *new std::vector<NoMemory>([] {
    std::vector<NoMemory> made;
    for (c10::DeviceIndex i = 0; i < kMaxDevices; ++i) made.emplace_back(at::Device(c10::kXPU, i));
    return made;
  }());
  return &allocators[device];
}

at::Tensor efficientzerotensor(at::IntArrayRef size, ScalarType dtype, Layout layout, Device device,
                               std::optional<bool> pin_memory) {
  check_options(layout, pin_memory);
  const auto guard = guard_for(device);
  return at::detail::empty_generic(size, no_memory_of(guard.current_device().index()),
                                   kXpuKeys | c10::DispatchKeySet(c10::DispatchKey::ZeroTensor),
                                   at::dtype_or_default(dtype), std::nullopt);
}

at::Tensor& set_source_storage(at::Tensor& self, at::Storage source, int64_t offset, at::IntArrayRef size,
                               at::IntArrayRef stride) {
  at::native::checkSetStorage(self, source, offset, size, stride);
  self.unsafeGetTensorImpl()->set_storage_offset(offset);
  // A storage that is too small grows, and takes along what is in it.
  const auto guard = guard_for(self.device());
  wait_for_current_stream(self.get_device());
  at::native::resize_impl_cpu_(self.unsafeGetTensorImpl(), size,
                               stride.data() ? at::OptionalIntArrayRef(stride) : std::nullopt);
  return self;
}

at::Tensor& set_whole_storage(at::Tensor& self, at::Storage source) {
  const auto elements = static_cast<int64_t>(source.nbytes() / self.dtype().itemsize());
  return set_source_storage(self, std::move(source), 0, {elements}, {});
}

at::Tensor& set_empty(at::Tensor& self) {
  const auto guard = guard_for(self.device());
  c10::Allocator* allocator = c10::GetAllocator(c10::kXPU);
  c10::Storage storage(c10::make_intrusive<c10::StorageImpl>(c10::StorageImpl::use_byte_size_t(), 0,
                                                             allocator->allocate(0), allocator, /*resizable=*/true));
  return set_source_storage(self, std::move(storage), 0, {0}, {});
}

at::Tensor& set_tensor(at::Tensor& self, const at::Tensor& source) {
  if (self.unsafeGetTensorImpl() == source.unsafeGetTensorImpl()) return self;
  return set_source_storage(self, source.storage(), source.storage_offset(), source.sizes(), source.strides());
}

void record_stream(at::Tensor& self, c10::Stream stream) {
  c10::getDeviceAllocator(c10::kXPU)->recordStream(self.storage().data_ptr(), stream);
}

// The CPU kernel calls no generator that the caller could have given, so it would draw from the CPU's own.
std::tuple<at::Tensor, at::Tensor> native_dropout(const at::Tensor& input, double p, std::optional<bool> train) {
  if (input.numel() == 0) return {input, at::empty_like(input, input.options())};
  if (train.has_value() && !*train) return {input.clone(), at::ones_like(input, input.options().dtype(at::kBool))};
  at::Tensor mask = at::empty(input.sizes(), input.options().dtype(at::kBool)).bernoulli_(1 - p);
  const double scale = p == 1 ? 0.0 : 1.0 / (1.0 - p);
  return {input.mul(mask).mul_(scale), mask};
}

// Above the device, PyTorch's attention is made of a choice and of the operators chosen, and the choice looks in a table
// that has no entry for XPU. The same with the CPU's choice: its fused kernel has a derivative of its own, and
// a FakeTensor passes through.
at::Tensor attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                     const std::optional<at::Tensor>& mask, double dropout_p, bool is_causal,
                     std::optional<double> scale, bool enable_gqa) {
  const int64_t choice =
      at::native::_fused_sdp_choice_cpp(query, key, value, mask, dropout_p, is_causal, scale, enable_gqa);
  std::optional<at::Tensor> float_mask = mask;
  if (mask && mask->defined() && mask->scalar_type() == at::kBool) {
    const double minus_infinity = -std::numeric_limits<double>::infinity();
    float_mask = at::zeros_symint(mask->sym_sizes(), query.options()).masked_fill_(mask->logical_not(), minus_infinity);
  }
  if (choice == static_cast<int64_t>(at::SDPBackend::flash_attention)) {
    return std::get<0>(
        at::_scaled_dot_product_flash_attention_for_cpu(query, key, value, dropout_p, is_causal, float_mask, scale));
  }
  return std::get<0>(at::_scaled_dot_product_attention_math(query, key, value, float_mask, dropout_p, is_causal,
                                                            std::nullopt, scale, enable_gqa));
}

/// PyTorch prefers an operator's device-independent form to a fallback. Where the CPU has a kernel of its own, that form
/// is the slower one, and rounds differently; and one that writes into given tensors may look for a kernel in a table
/// that has no entry for XPU.
bool is_better_off_whole(const c10::OperatorHandle& op) {
  if (!op.hasKernelForDispatchKey(c10::DispatchKey::CompositeExplicitAutograd) &&
      !op.hasKernelForDispatchKey(c10::DispatchKey::CompositeExplicitAutogradNonFunctional)) {
    return false;
  }
  if (op.hasKernelForDispatchKey(c10::DispatchKey::CPU)) return true;
  // Without an argument for it, a random operator would draw from the CPU's generator.
  if (op.hasTag(at::Tag::nondeterministic_seeded)) return false;
  const auto& arguments = op.schema().arguments();
  return std::any_of(arguments.begin(), arguments.end(), [](const c10::Argument& one) { return one.is_out(); });
}

}  // namespace
}  // namespace quillon::host_device

using namespace quillon::host_device;

TORCH_LIBRARY_IMPL(aten, XPU, m) {
  m.impl("empty.memory_format", TORCH_FN(empty));
  m.impl("empty_strided", TORCH_FN(empty_strided));
  m.impl("_efficientzerotensor", TORCH_FN(efficientzerotensor));

  m.impl("as_strided", TORCH_FN(at::native::as_strided_tensorimpl));
  m.impl("view", TORCH_FN(at::native::view));
  m.impl("_reshape_alias", TORCH_FN(at::native::_reshape_alias));
  m.impl("unfold", TORCH_FN(at::native::unfold));

  m.impl("set_.source_Storage", TORCH_FN(set_whole_storage));
  m.impl("set_.source_Storage_storage_offset", TORCH_FN(set_source_storage));
  m.impl("set_.source_Tensor", TORCH_FN(set_tensor));
  m.impl("set_", TORCH_FN(set_empty));

  m.impl("record_stream", TORCH_FN(record_stream));
  m.impl("native_dropout", TORCH_FN(native_dropout));

  // Whole, where PyTorch would first look for an XPU form of the parts.
  for (const char* name : {"copy_", "convolution", "_convolution", "convolution_backward", "native_group_norm_backward",
                           "scaled_dot_product_attention"}) {
    m.impl(name, torch::CppFunction::makeFromBoxedFunction<&run_on_cpu>());
  }

  // Its device-independent form would go through, and everything after it fail.
  m.impl("_nested_tensor_from_tensor_list", torch::CppFunction::makeFromBoxedFunction<&refuse_nested>());

  auto& dispatcher = c10::Dispatcher::singleton();
  for (const c10::OperatorName& name : dispatcher.getAllOpNames()) {
    if (name.getNamespace() != "aten") continue;
    const auto op = dispatcher.findOp(name);
    if (op && !op->hasKernelForDispatchKey(c10::DispatchKey::XPU) && is_better_off_whole(*op)) {
      m.impl(toString(name).c_str(), torch::CppFunction::makeFromBoxedFunction<&run_on_cpu>());
    }
  }
}

TORCH_LIBRARY_IMPL(aten, AutogradXPU, m) {
  m.impl("scaled_dot_product_attention", TORCH_FN(attention));
}
