#include "stand_ins.h"

#include <ATen/EmptyTensor.h>
#include <c10/core/impl/COW.h>

#include <cstring>

#include "host_device.h"

namespace quillon::host_device {
namespace {

using c10::Device;
using c10::DispatchKey;
using c10::DispatchKeySet;
using c10::IValue;

void release_storage(void* storage) {
  c10::raw::intrusive_ptr::decref(static_cast<c10::StorageImpl*>(storage));
}

c10::Storage make_storage(c10::SymInt nbytes, c10::DataPtr data, c10::Allocator* allocator, bool resizable) {
  return c10::Storage(c10::make_intrusive<c10::StorageImpl>(c10::StorageImpl::use_byte_size_t(), std::move(nbytes),
                                                            std::move(data), allocator, resizable));
}

void copy_flags(const at::Tensor& from, const at::Tensor& to) {
  if (from.is_conj()) to._set_conj(true);
  if (from.is_neg()) to._set_neg(true);
  if (from._is_zerotensor()) to._set_zero(true);
}

/// A tensor like `from` over `storage`. An ordinary one, not one of type TensorImpl::VIEW: that kind keeps no
/// autograd keys, and kernels that are composed of other operators rely on them.
at::Tensor make_like(const at::Tensor& from, c10::Storage storage, DispatchKey key) {
  at::Tensor made = at::detail::make_tensor<c10::TensorImpl>(std::move(storage), DispatchKeySet(key), from.dtype());
  c10::TensorImpl* impl = made.unsafeGetTensorImpl();
  impl->set_sizes_and_strides(from.sizes(), from.strides(), from.storage_offset());
  copy_flags(from, made);
  if (from.unsafeGetTensorImpl()->is_wrapped_number()) impl->set_wrapped_number(true);
  return made;
}

bool may_hold_tensors(const IValue& list) {
  const c10::TypeKind kind = list.toList().elementType()->kind();
  return kind == c10::TypeKind::TensorType || kind == c10::TypeKind::OptionalType || kind == c10::TypeKind::ListType;
}

}  // namespace

c10::DataPtr shared_data(c10::StorageImpl& storage, Device device) {
  c10::raw::intrusive_ptr::incref(&storage);
  return {storage._mutable_data_ptr_no_checks().get(), &storage, &release_storage, device};
}

c10::StorageImpl* shown_by(const c10::StorageImpl& shown) {
  const c10::DataPtr& data = shown.data_ptr();
  if (data.get_deleter() != &release_storage) return nullptr;
  auto* storage = static_cast<c10::StorageImpl*>(data.get_context());
  const bool current = storage->device_type() != shown.device_type() && storage->data_ptr().get() == data.get();
  return current ? storage : nullptr;
}

c10::Storage hold(c10::StorageImpl* storage) {
  return c10::Storage(c10::intrusive_ptr<c10::StorageImpl>::reclaim_copy(storage));
}

void replace_tensors(IValue& value, c10::function_ref<at::Tensor(at::Tensor)> replace) {
  if (value.isTensor()) {
    if (value.toTensor().defined()) value = replace(std::move(value).toTensor());
  } else if (value.isList() && may_hold_tensors(value)) {
    const auto old = value.toList();
    c10::impl::GenericList replaced(old.elementType());
    replaced.reserve(old.size());
    for (const IValue& item : value.toListRef()) {
      IValue one = item;
      replace_tensors(one, replace);
      replaced.push_back(std::move(one));
    }
    value = std::move(replaced);
  }
}

at::Tensor shown_tensor(at::Tensor cpu) {
  if (!cpu.defined() || !cpu.device().is_cpu() || cpu.layout() != at::kStrided) return cpu;
  c10::StorageImpl* shown = shown_by(*cpu.unsafeGetTensorImpl()->unsafe_storage().unsafeGetStorageImpl());
  if (!shown) return cpu;
  return make_like(cpu, hold(shown), DispatchKey::XPU);
}

at::Tensor as_device_tensor(const at::Tensor& cpu, c10::DeviceIndex index) {
  const Device device(c10::kXPU, index);
  c10::StorageImpl* storage = cpu.unsafeGetTensorImpl()->unsafe_storage().unsafeGetStorageImpl();
  if (c10::StorageImpl* shown = shown_by(*storage)) return make_like(cpu, hold(shown), DispatchKey::XPU);
  if (!is_device_block(storage->_mutable_data_ptr_no_checks())) return cpu.to(device);
  c10::Storage shared = make_storage(storage->sym_nbytes(), shared_data(*storage, device), c10::GetAllocator(c10::kXPU),
                                     /*resizable=*/false);
  return make_like(cpu, std::move(shared), DispatchKey::XPU);
}

at::Tensor as_cpu_tensor(const at::Tensor& xpu) {
  c10::StorageImpl* storage = xpu.unsafeGetTensorImpl()->unsafe_storage().unsafeGetStorageImpl();
  if (c10::StorageImpl* shown = shown_by(*storage)) return make_like(xpu, hold(shown), DispatchKey::CPU);
  c10::Storage shared = make_storage(storage->sym_nbytes(), shared_data(*storage, Device(c10::kCPU)),
                                     redirecting_cpu_allocator(), /*resizable=*/false);
  return make_like(xpu, std::move(shared), DispatchKey::CPU);
}

void PointerIndex::add(const void* key) {
  keys_.push_back(key);
  if (keys_.size() <= kSearched) return;
  if (hashed_.empty()) {
    for (size_t i = 0; i < keys_.size(); ++i) hashed_.emplace(keys_[i], i);
  } else {
    hashed_.emplace(key, keys_.size() - 1);
  }
}

int64_t PointerIndex::find_hashed(const void* key) const {
  const auto found = hashed_.find(key);
  return found == hashed_.end() ? -1 : static_cast<int64_t>(found->second);
}

at::Tensor StandIns::to_cpu(const at::Tensor& tensor) {
  if (!tensor.device().is_xpu()) {
    passed_through_.push_back(tensor.unsafeGetTensorImpl());
    return tensor;
  }
  const int64_t known = xpu_tensors_.find(tensor.unsafeGetTensorImpl());
  if (known >= 0) return tensors_[known].cpu;
  at::Tensor cpu = make_like(tensor, cpu_storage(tensor.storage()), DispatchKey::CPU);
  xpu_tensors_.add(tensor.unsafeGetTensorImpl());
  cpu_tensors_.add(cpu.unsafeGetTensorImpl());
  tensors_.push_back({tensor, cpu, cpu.unsafeGetTensorImpl()->unsafe_storage().unsafeGetStorageImpl()});
  return cpu;
}

c10::Storage StandIns::cpu_storage(const c10::Storage& xpu) {
  c10::StorageImpl* impl = xpu.unsafeGetStorageImpl();
  const int64_t known = xpu_storages_.find(impl);
  if (known >= 0) return storages_[known].cpu;
  if (c10::impl::cow::is_cow_data_ptr(impl->_mutable_data_ptr_no_checks())) impl->mutable_data();
  c10::Storage cpu = make_storage(impl->sym_nbytes(), shared_data(*impl, Device(c10::kCPU)),
                                  redirecting_cpu_allocator(), impl->resizable());
  xpu_storages_.add(impl);
  cpu_storages_.add(cpu.unsafeGetStorageImpl());
  storages_.push_back({xpu, cpu, impl->_mutable_data_ptr_no_checks().get(), impl->nbytes()});
  return cpu;
}

at::Tensor StandIns::to_xpu(at::Tensor cpu) {
  const int64_t argument = cpu_tensors_.find(cpu.unsafeGetTensorImpl());
  if (argument >= 0) return tensors_[argument].xpu;
  for (const c10::TensorImpl* passed : passed_through_) {
    if (cpu.unsafeGetTensorImpl() == passed) return cpu;
  }
  if (!cpu.device().is_cpu()) return cpu;
  TORCH_CHECK_NOT_IMPLEMENTED(cpu.layout() == at::kStrided && !cpu.is_quantized() && !cpu.is_nested(), caller_,
                              " would make a ", cpu.is_quantized() ? "quantized" : "", cpu.is_nested() ? "nested" : "",
                              cpu.layout() == at::kStrided ? "" : "sparse",
                              " tensor, which quillon's host device does not support. Use a CPU tensor.");
  if (convert_in_place(cpu)) return cpu;
  return make_like(cpu, xpu_storage(cpu.storage()), DispatchKey::XPU);
}

/// Makes a result that nobody else holds a tensor of the device where it stands: the usual case, and the cheapest.
bool StandIns::convert_in_place(const at::Tensor& cpu) const {
  c10::TensorImpl* impl = cpu.unsafeGetTensorImpl();
  c10::StorageImpl* storage = impl->unsafe_storage().unsafeGetStorageImpl();
  if (cpu.use_count() != 1 || impl->unsafe_storage().use_count() != 1 || impl->autograd_meta() ||
      impl->pyobj_slot()->load_pyobj() || storage->pyobj_slot()->load_pyobj() ||
      !is_device_block(storage->_mutable_data_ptr_no_checks())) {
    return false;
  }
  const Device device(c10::kXPU, device_);
  storage->_mutable_data_ptr_no_checks().unsafe_set_device(device);
  storage->set_allocator(c10::GetAllocator(c10::kXPU));
  impl->_change_backend_component_keys(device);
  impl->set_storage_keep_dtype(impl->unsafe_storage());  // for the device, which the tensor keeps a copy of
  return true;
}

c10::Storage StandIns::xpu_storage(const c10::Storage& cpu) {
  c10::StorageImpl* impl = cpu.unsafeGetStorageImpl();
  const int64_t argument = cpu_storages_.find(impl);
  if (argument >= 0) return storages_[argument].xpu;
  if (c10::StorageImpl* shown = shown_by(*impl)) {  // the stand-in of an earlier call
    return hold(shown);
  }
  c10::Storage xpu = make_storage(impl->nbytes(), c10::DataPtr(nullptr, Device(c10::kXPU, device_)),
                                  c10::GetAllocator(c10::kXPU), /*resizable=*/true);
  take_data(*impl, *xpu.unsafeGetStorageImpl());
  // Results may share a storage: the next one finds this one.
  xpu_storages_.add(xpu.unsafeGetStorageImpl());
  cpu_storages_.add(impl);
  storages_.push_back({xpu, cpu, impl->_mutable_data_ptr_no_checks().get(), impl->nbytes()});
  return xpu;
}

/// Makes the memory of a CPU storage that of a device storage, or a copy of it where it came from elsewhere. Whoever
/// still holds the CPU storage goes on seeing the same bytes.
void StandIns::take_data(c10::StorageImpl& cpu, c10::StorageImpl& xpu) const {
  const Device device(c10::kXPU, device_);
  if (is_device_block(cpu._mutable_data_ptr_no_checks())) {
    c10::DataPtr taken = cpu.set_data_ptr(c10::DataPtr(nullptr, Device(c10::kCPU)));
    taken.unsafe_set_device(device);
    xpu.set_data_ptr_noswap(std::move(taken));
    cpu.set_data_ptr_noswap(shared_data(xpu, Device(c10::kCPU)));
    return;
  }
  const void* data = cpu._mutable_data_ptr_no_checks().get();
  c10::DataPtr copy = allocate_on_device(cpu.nbytes(), device_);
  if (data && cpu.nbytes() > 0) std::memcpy(copy.get(), data, cpu.nbytes());
  xpu.set_data_ptr_noswap(std::move(copy));
}

void StandIns::to_cpu(IValue& value) {
  replace_tensors(value, [this](at::Tensor tensor) { return to_cpu(tensor); });
}
void StandIns::to_xpu(IValue& value) {
  replace_tensors(value, [this](at::Tensor tensor) { return to_xpu(std::move(tensor)); });
}

void StandIns::restore_arguments() {
  // By index: xpu_storage() below may add pairs.
  for (size_t i = 0; i < storages_.size(); ++i) {
    c10::StorageImpl& cpu = *storages_[i].cpu.unsafeGetStorageImpl();
    c10::StorageImpl& xpu = *storages_[i].xpu.unsafeGetStorageImpl();
    if (cpu._mutable_data_ptr_no_checks().get() != storages_[i].data) take_data(cpu, xpu);
    if (cpu.nbytes() != storages_[i].nbytes) xpu.set_nbytes(cpu.nbytes());
  }
  for (size_t i = 0; i < tensors_.size(); ++i) {
    const auto& [xpu, cpu, cpu_storage] = tensors_[i];
    c10::TensorImpl* impl = xpu.unsafeGetTensorImpl();
    const c10::Storage& storage = cpu.unsafeGetTensorImpl()->unsafe_storage();
    if (storage.unsafeGetStorageImpl() != cpu_storage) impl->set_storage_keep_dtype(xpu_storage(storage));
    if (cpu.sizes() != xpu.sizes() || cpu.strides() != xpu.strides() || cpu.storage_offset() != xpu.storage_offset()) {
      impl->set_sizes_and_strides(cpu.sizes(), cpu.strides(), cpu.storage_offset());
    }
    if (cpu.is_conj() != xpu.is_conj()) xpu._set_conj(cpu.is_conj());
    if (cpu.is_neg() != xpu.is_neg()) xpu._set_neg(cpu.is_neg());
    if (cpu._is_zerotensor() != xpu._is_zerotensor()) xpu._set_zero(cpu._is_zerotensor());
  }
}

}  // namespace quillon::host_device
