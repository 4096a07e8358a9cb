// CPU tensors that stand in for XPU tensors while CPU code works on them, and the way back. No bytes are copied: a
// host device's memory is the CPU's memory.
#pragma once

#include <ATen/core/Tensor.h>
#include <ATen/core/ivalue.h>
#include <c10/util/FunctionRef.h>
#include <c10/util/SmallVector.h>
#include <c10/util/flat_hash_map.h>

#include <string>

namespace quillon::host_device {

/// The bytes of a storage under the name of another device; keeps the storage alive.
c10::DataPtr shared_data(c10::StorageImpl& storage, c10::Device device);
/// The storage whose bytes a storage has by shared_data(), of the other type of device; or null.
c10::StorageImpl* shown_by(const c10::StorageImpl& shown);
/// A reference to a storage that somebody else owns as well.
c10::Storage hold(c10::StorageImpl* storage);

/// Replaces each tensor in `value`, in lists and lists of lists too, by what `replace` makes of it.
void replace_tensors(c10::IValue& value, c10::function_ref<at::Tensor(at::Tensor)> replace);

/// The XPU tensor over the same bytes, if `cpu` is a stand-in or a view of one; else `cpu`.
at::Tensor shown_tensor(at::Tensor cpu);

/// A tensor of `device` over the bytes of a CPU tensor: the one that it shows, or a new one that shares its memory. Memory
/// that does not come from the device allocator is copied.
at::Tensor as_device_tensor(const at::Tensor& cpu, c10::DeviceIndex device);
/// A CPU tensor over the bytes of a tensor of the device, which it keeps alive.
at::Tensor as_cpu_tensor(const at::Tensor& xpu);

/// Maps keys to positions in a vector: by search while there are few, as is usual, by hashing when there are
/// many.
class PointerIndex {
 public:
  void add(const void* key);
  int64_t find(const void* key) const {
    if (C10_UNLIKELY(keys_.size() > kSearched)) return find_hashed(key);
    for (size_t i = 0; i < keys_.size(); ++i) {
      if (keys_[i] == key) return static_cast<int64_t>(i);
    }
    return -1;
  }

 private:
  int64_t find_hashed(const void* key) const;

  static constexpr size_t kSearched = 16;
  c10::SmallVector<const void*, kSearched> keys_;
  ska::flat_hash_map<const void*, size_t> hashed_;
};

/// The stand-ins of one call on one device. Each may outlive the call: it keeps the memory that it shows alive.
class StandIns {
 public:
  /// `caller` names the call in errors.
  StandIns(c10::DeviceIndex device, const std::string& caller) : device_(device), caller_(caller) {}

  /// The stand-in of an XPU tensor, the same one each time; any other tensor is returned as it is.
  at::Tensor to_cpu(const at::Tensor& tensor);
  /// What the CPU code returned, as a tensor of the device: the argument itself where it is a stand-in, a view of an
  /// argument where it shares its storage, else a tensor that takes the result's memory along.
  at::Tensor to_xpu(at::Tensor cpu);

  /// The same for every tensor in lists, lists of lists and optionals.
  void to_cpu(c10::IValue& value);
  void to_xpu(c10::IValue& value);

  /// Gives the arguments the memory, shape or storage that the CPU code gave their stand-ins.
  void restore_arguments();

 private:
  struct TensorPair {
    at::Tensor xpu, cpu;
    const c10::StorageImpl* cpu_storage;  // when the call began
  };
  struct StoragePair {
    c10::Storage xpu, cpu;
    const void* data;
    size_t nbytes;
  };

  c10::Storage cpu_storage(const c10::Storage& xpu);
  c10::Storage xpu_storage(const c10::Storage& cpu);
  void take_data(c10::StorageImpl& cpu, c10::StorageImpl& xpu) const;
  bool convert_in_place(const at::Tensor& cpu) const;

  const c10::DeviceIndex device_;
  const std::string& caller_;
  c10::SmallVector<TensorPair, 4> tensors_;
  PointerIndex xpu_tensors_, cpu_tensors_;
  c10::SmallVector<StoragePair, 4> storages_;
  PointerIndex xpu_storages_, cpu_storages_;
  c10::SmallVector<const c10::TensorImpl*, 4> passed_through_;
};

}  // namespace quillon::host_device
