// The call of the fallback: every operator that has no kernel of its own for the host device runs on the CPU, in
// place, because a host device's memory is the CPU's memory.
//
//   1. Find the device of the call and refuse a mixture of devices as PyTorch's generated code does.
//   2. Wait until the current streams of the devices involved are idle (they mostly are: tens of
//      nanoseconds).
//   3. Give the CPU kernel, for each XPU tensor, a CPU tensor over the same bytes; XPU device arguments
//      become CPU, XPU generators the CPU generators inside them.
//   4. Run the CPU kernel. What it allocates comes from the host device's allocator.
//   5. Turn results back: a result that is an argument is that argument; one that shares an argument's
//      storage is a view of it; any other takes its memory along. Arguments that the kernel resized get
//      their new shape and memory.
//
// The call is finished when it returns, so no stream ever needs to wait for it.
#include <ATen/EmptyTensor.h>
#include <ATen/core/op_registration/adaption.h>
#include <c10/core/impl/COW.h>
#include <c10/util/SmallVector.h>
#include <c10/util/flat_hash_map.h>
#include <omp.h>

#include <cstring>

#include "fallback.h"
#include "generator.h"
#include "host_device.h"
#include "operator_traits.h"

namespace quillon::host_device {
namespace {

using c10::Device;
using c10::DeviceIndex;
using c10::IValue;
using torch::jit::Stack;

// A small call runs on the calling thread alone. PyTorch's threads go on spinning for a while after a parallel
// region, and the SYCL CPU device's threads need the same cores for the kernels in between: on two cores, a language
// model's tokens came at 11 a second with the spinning and at 19 without.
constexpr int64_t kSmallCallElements = int64_t{1} << 17;

/// While it lives, the calling thread starts no parallel regions.
class SerialScope {
 public:
  explicit SerialScope(bool serial) : threads_(serial ? omp_get_max_threads() : 1) {
    if (threads_ > 1) omp_set_num_threads(1);
  }
  ~SerialScope() {
    if (threads_ > 1) omp_set_num_threads(threads_);
  }
  SerialScope(const SerialScope&) = delete;
  SerialScope& operator=(const SerialScope&) = delete;

 private:
  const int threads_;
};

template <typename Visit>
void for_each_tensor(const IValue& value, Visit&& visit) {
  if (value.isTensor()) {
    const at::Tensor& tensor = value.toTensor();
    if (tensor.defined()) visit(tensor);
  } else if (value.isList()) {
    for (const IValue& item : value.toListRef()) for_each_tensor(item, visit);
  }
}

/// Maps keys to positions in a vector: by search while there are few, as is usual, by hashing when there are
/// many.
class PointerIndex {
 public:
  void add(const void* key) {
    keys_.push_back(key);
    if (keys_.size() > kSearched) {
      if (hashed_.empty()) {
        for (size_t i = 0; i < keys_.size(); ++i) hashed_.emplace(keys_[i], i);
      } else {
        hashed_.emplace(key, keys_.size() - 1);
      }
    }
  }
  int64_t find(const void* key) const {
    if (keys_.size() > kSearched) {
      const auto found = hashed_.find(key);
      return found == hashed_.end() ? -1 : static_cast<int64_t>(found->second);
    }
    for (size_t i = 0; i < keys_.size(); ++i) {
      if (keys_[i] == key) return static_cast<int64_t>(i);
    }
    return -1;
  }

 private:
  static constexpr size_t kSearched = 16;
  c10::SmallVector<const void*, kSearched> keys_;
  ska::flat_hash_map<const void*, size_t> hashed_;
};

/// One call of the fallback: the CPU stand-ins of its XPU arguments, and the way back.
class CpuCall {
 public:
  CpuCall(const c10::OperatorHandle& op, const OperatorTraits& traits, Stack& stack)
      : op_(op), traits_(traits), stack_(stack), first_argument_(stack.size() - op.schema().arguments().size()) {}

  void run() {
    settle_device();
    for (const ArgumentTraits& argument : traits_.arguments) replace_argument(argument);
    {
      const AllocateOnDevice scope(device_);
      const SerialScope serial(!traits_.work_grows_faster_than_data && elements_ <= kSmallCallElements);
      op_.redispatchBoxed(c10::DispatchKeySet(c10::DispatchKey::CPU), &stack_);
    }
    const size_t results = op_.schema().returns().size();
    for (size_t i = stack_.size() - results; i < stack_.size(); ++i) restore_result(stack_[i]);
    restore_arguments();
  }

 private:
  struct TensorPair {
    at::Tensor xpu, cpu;
  };
  struct StoragePair {
    c10::Storage xpu, cpu;
    const void* data;
    size_t nbytes;
  };

  IValue& value_of(const ArgumentTraits& argument) { return stack_[first_argument_ + argument.position]; }

  /// Finds the device of the call, refuses mixtures, and waits for the streams that may still write the
  /// arguments.
  void settle_device() {
    bool mixed = false;
    for (const ArgumentTraits& argument : traits_.arguments) {
      const IValue& value = value_of(argument);
      if (argument.kind == ArgumentKind::kTensors) {
        for_each_tensor(value, [&](const at::Tensor& tensor) {
          const Device device = tensor.device();
          elements_ += tensor.numel();
          if (!device.is_xpu()) {
            mixed |= !argument.any_device && (tensor.dim() > 0 || argument.written || !device.is_cpu());
          } else if (device_ < 0) {
            device_ = device.index();
            wait_for_current_stream(device_);
          } else if (device.index() != device_) {
            mixed |= !argument.any_device;
            wait_for_current_stream(device.index());
          }
        });
      } else if (argument.kind == ArgumentKind::kDevice && device_ < 0 && value.isDevice() &&
                 value.toDevice().is_xpu()) {
        const Device device = value.toDevice();
        device_ = device.has_index() ? device.index() : c10::impl::getDeviceGuardImpl(c10::kXPU)->getDevice().index();
      }
    }
    TORCH_CHECK(device_ >= 0, op_.schema().operator_name(), ": no argument is on an XPU device.");
    if (mixed) fail_for_mixture();
  }

  [[noreturn]] void fail_for_mixture() {
    const std::string& overload = op_.schema().overload_name();
    const std::string method = "wrapper_XPU_" + op_.schema().name().substr(op_.schema().name().find("::") + 2) +
                               (overload.empty() ? "" : "_" + overload);
    std::optional<Device> common;
    for (const ArgumentTraits& argument : traits_.arguments) {
      if (argument.kind != ArgumentKind::kTensors || argument.any_device) continue;
      for_each_tensor(value_of(argument), [&](const at::Tensor& tensor) {
        if (tensor.device().is_cpu() && tensor.dim() == 0 && !argument.written) return;
        c10::impl::check_and_update_common_device(common, tensor, method.c_str(),
                                                  op_.schema().arguments()[argument.position].name().c_str());
      });
    }
    // Left over: a scalar on the CPU that the call would write.
    TORCH_CHECK(false, "Expected all tensors to be on the same device, but found at least two devices, cpu and xpu:",
                static_cast<int>(device_), "! (when checking arguments in method ", method, ")");
  }

  void replace_argument(const ArgumentTraits& argument) {
    IValue& value = value_of(argument);
    switch (argument.kind) {
      case ArgumentKind::kTensors:
        replace_tensors(value);
        return;
      case ArgumentKind::kDevice:
        if (value.isDevice() && value.toDevice().is_xpu()) value = Device(c10::kCPU);
        return;
      case ArgumentKind::kGenerator:
        value = cpu_generator_for(value.isGenerator() ? std::optional(value.toGenerator()) : std::nullopt, device_);
        return;
    }
  }

  void replace_tensors(IValue& value) {
    if (value.isTensor()) {
      const at::Tensor& tensor = value.toTensor();
      if (tensor.defined()) value = to_cpu(tensor);
    } else if (value.isTensorList()) {
      c10::List<at::Tensor> replaced;
      replaced.reserve(value.toListRef().size());
      for (const IValue& item : value.toListRef()) {
        replaced.push_back(item.toTensor().defined() ? to_cpu(item.toTensor()) : item.toTensor());
      }
      value = std::move(replaced);
    } else if (value.isOptionalTensorList()) {
      c10::List<std::optional<at::Tensor>> replaced;
      replaced.reserve(value.toListRef().size());
      for (const IValue& item : value.toListRef()) {
        if (item.isNone()) {
          replaced.push_back(std::nullopt);
        } else {
          replaced.push_back(item.toTensor().defined() ? to_cpu(item.toTensor()) : item.toTensor());
        }
      }
      value = std::move(replaced);
    }
  }

  at::Tensor to_cpu(const at::Tensor& tensor) {
    if (!tensor.device().is_xpu()) {
      passed_through_.push_back(tensor.unsafeGetTensorImpl());
      return tensor;
    }
    const int64_t known = xpu_tensors_.find(tensor.unsafeGetTensorImpl());
    if (known >= 0) return tensors_[known].cpu;
    // An ordinary tensor, not one of type TensorImpl::VIEW: that kind keeps no autograd keys, and kernels
    // that are composed of other operators rely on them.
    at::Tensor cpu = at::detail::make_tensor<c10::TensorImpl>(
        c10::Storage(cpu_storage(tensor.storage())), c10::DispatchKeySet(c10::DispatchKey::CPU), tensor.dtype());
    copy_view(tensor, cpu);
    xpu_tensors_.add(tensor.unsafeGetTensorImpl());
    cpu_tensors_.add(cpu.unsafeGetTensorImpl());
    tensors_.push_back({tensor, cpu});
    return cpu;
  }

  static void copy_view(const at::Tensor& from, const at::Tensor& to) {
    c10::TensorImpl* impl = to.unsafeGetTensorImpl();
    impl->set_sizes_and_strides(from.sizes(), from.strides(), from.storage_offset());
    copy_flags(from, to);
    if (from.unsafeGetTensorImpl()->is_wrapped_number()) impl->set_wrapped_number(true);
  }

  static void copy_flags(const at::Tensor& from, const at::Tensor& to) {
    if (from.is_conj()) to._set_conj(true);
    if (from.is_neg()) to._set_neg(true);
    if (from._is_zerotensor()) to._set_zero(true);
  }

  c10::Storage cpu_storage(const c10::Storage& xpu) {
    c10::StorageImpl* impl = xpu.unsafeGetStorageImpl();
    const int64_t known = xpu_storages_.find(impl);
    if (known >= 0) return storages_[known].cpu;
    if (c10::impl::cow::is_cow_data_ptr(impl->_mutable_data_ptr_no_checks())) impl->mutable_data();
    void* data = impl->_mutable_data_ptr_no_checks().get();
    c10::Storage cpu(c10::make_intrusive<c10::StorageImpl>(c10::StorageImpl::use_byte_size_t(), impl->sym_nbytes(),
                                                           c10::DataPtr(data, Device(c10::kCPU)),
                                                           redirecting_cpu_allocator(), impl->resizable()));
    xpu_storages_.add(impl);
    cpu_storages_.add(cpu.unsafeGetStorageImpl());
    storages_.push_back({xpu, cpu, data, impl->nbytes()});
    return cpu;
  }

  void restore_result(IValue& value) {
    if (value.isTensor()) {
      if (value.toTensor().defined()) value = to_xpu(std::move(value).toTensor());
    } else if (value.isTensorList()) {
      c10::List<at::Tensor> restored;
      restored.reserve(value.toListRef().size());
      for (const IValue& item : value.toListRef()) {
        restored.push_back(item.toTensor().defined() ? to_xpu(item.toTensor()) : item.toTensor());
      }
      value = std::move(restored);
    }
  }

  at::Tensor to_xpu(at::Tensor cpu) {
    const int64_t argument = cpu_tensors_.find(cpu.unsafeGetTensorImpl());
    if (argument >= 0) return tensors_[argument].xpu;
    for (const c10::TensorImpl* passed : passed_through_) {
      if (cpu.unsafeGetTensorImpl() == passed) return cpu;
    }
    if (!cpu.device().is_cpu()) return cpu;
    TORCH_CHECK_NOT_IMPLEMENTED(cpu.layout() == at::kStrided && !cpu.is_quantized() && !cpu.is_nested(),
                                op_.schema().operator_name(), " would make a ", cpu.is_quantized() ? "quantized" : "",
                                cpu.is_nested() ? "nested" : "", cpu.layout() == at::kStrided ? "" : "sparse",
                                " tensor, which quillon's host device does not support. Use a CPU tensor.");
    at::Tensor xpu = at::detail::make_tensor<c10::TensorImpl>(xpu_storage(cpu.storage()),
                                                              c10::DispatchKeySet(c10::DispatchKey::XPU), cpu.dtype());
    copy_view(cpu, xpu);
    return xpu;
  }

  c10::Storage xpu_storage(const c10::Storage& cpu) {
    c10::StorageImpl* impl = cpu.unsafeGetStorageImpl();
    const int64_t argument = cpu_storages_.find(impl);
    if (argument >= 0) return storages_[argument].xpu;
    c10::Storage xpu(c10::make_intrusive<c10::StorageImpl>(c10::StorageImpl::use_byte_size_t(), impl->nbytes(),
                                                           take_data(*impl), c10::GetAllocator(c10::kXPU),
                                                           /*resizable=*/true));
    // Results may share a storage: the next one finds this one.
    xpu_storages_.add(xpu.unsafeGetStorageImpl());
    cpu_storages_.add(impl);
    storages_.push_back({xpu, cpu, impl->_mutable_data_ptr_no_checks().get(), impl->nbytes()});
    return xpu;
  }

  /// The memory of a CPU storage as memory of the device: taken out of it, or copied where it came from
  /// elsewhere.
  c10::DataPtr take_data(c10::StorageImpl& cpu) {
    const c10::DataPtr& data = cpu._mutable_data_ptr_no_checks();
    if (is_device_block(data)) {
      c10::DataPtr taken = cpu.set_data_ptr(c10::DataPtr(data.get(), Device(c10::kCPU)));
      taken.unsafe_set_device(Device(c10::kXPU, device_));
      return taken;
    }
    c10::DataPtr copy = allocate_on_device(cpu.nbytes(), device_);
    if (data.get() && cpu.nbytes() > 0) std::memcpy(copy.get(), data.get(), cpu.nbytes());
    return copy;
  }

  /// Arguments that the kernel gave other memory, another shape or another storage.
  void restore_arguments() {
    // By index: xpu_storage() below may add pairs.
    for (size_t i = 0; i < storages_.size(); ++i) {
      c10::StorageImpl& cpu = *storages_[i].cpu.unsafeGetStorageImpl();
      c10::StorageImpl& xpu = *storages_[i].xpu.unsafeGetStorageImpl();
      if (cpu._mutable_data_ptr_no_checks().get() != storages_[i].data) xpu.set_data_ptr_noswap(take_data(cpu));
      if (cpu.nbytes() != storages_[i].nbytes) xpu.set_nbytes(cpu.nbytes());
    }
    for (size_t i = 0; i < tensors_.size(); ++i) {
      const auto& [xpu, cpu] = tensors_[i];
      c10::TensorImpl* impl = xpu.unsafeGetTensorImpl();
      c10::Storage storage = xpu_storage(cpu.storage());
      if (storage.unsafeGetStorageImpl() != xpu.storage().unsafeGetStorageImpl()) {
        impl->set_storage_keep_dtype(std::move(storage));
      }
      if (cpu.sizes() != xpu.sizes() || cpu.strides() != xpu.strides() ||
          cpu.storage_offset() != xpu.storage_offset()) {
        impl->set_sizes_and_strides(cpu.sizes(), cpu.strides(), cpu.storage_offset());
      }
      if (cpu.is_conj() != xpu.is_conj()) xpu._set_conj(cpu.is_conj());
      if (cpu.is_neg() != xpu.is_neg()) xpu._set_neg(cpu.is_neg());
      if (cpu._is_zerotensor() != xpu._is_zerotensor()) xpu._set_zero(cpu._is_zerotensor());
    }
  }

  const c10::OperatorHandle& op_;
  const OperatorTraits& traits_;
  Stack& stack_;
  const size_t first_argument_;
  DeviceIndex device_ = -1;
  int64_t elements_ = 0;

  c10::SmallVector<TensorPair, 4> tensors_;
  PointerIndex xpu_tensors_, cpu_tensors_;
  c10::SmallVector<StoragePair, 4> storages_;
  PointerIndex xpu_storages_, cpu_storages_;
  c10::SmallVector<const c10::TensorImpl*, 4> passed_through_;
};

}  // namespace

void run_on_cpu(const c10::OperatorHandle& op, Stack* stack) {
  const c10::FunctionSchema& schema = op.schema();
  if (is_builtin(schema)) {
    CpuCall(op, traits_of_builtin(schema), *stack).run();
  } else {
    const OperatorTraits traits = make_traits(schema);
    CpuCall(op, traits, *stack).run();
  }
}

}  // namespace quillon::host_device
