#include "shared_memory.h"

#include <c10/core/Allocator.h>
#include <torch/csrc/Storage.h>

#include <cstring>

#include "host_device.h"
#include "stand_ins.h"

namespace py = pybind11;

namespace quillon::host_device {
namespace {

c10::Storage unpack(const py::handle& storage) {
  TORCH_CHECK_TYPE(THPStorage_Check(storage.ptr()), "expected a torch.UntypedStorage");
  return THPStorage_Unpack(storage.ptr());
}

py::object wrap(c10::Storage storage) {
  return py::reinterpret_steal<py::object>(THPStorage_Wrap(std::move(storage)));
}

/// The CPU storage whose memory an XPU storage has, or None.
py::object shared_storage_of(const py::handle& xpu) {
  const c10::Storage storage = unpack(xpu);
  c10::StorageImpl* shown = shown_by(*storage.unsafeGetStorageImpl());
  return shown ? wrap(hold(shown)) : py::none();
}

/// Moves the bytes of an XPU storage into a CPU storage, whose memory it then has.
void move_into(const py::handle& xpu, const py::handle& shared) {
  const c10::Storage storage = unpack(xpu), target = unpack(shared);
  TORCH_INTERNAL_ASSERT(storage.device().is_xpu() && target.device().is_cpu() && target.nbytes() >= storage.nbytes());
  wait_for_current_stream(storage.device().index());
  if (storage.nbytes() > 0) std::memcpy(target.mutable_data(), storage.data(), storage.nbytes());
  storage.unsafeGetStorageImpl()->set_data_ptr_noswap(shared_data(*target.unsafeGetStorageImpl(), storage.device()));
}

/// An XPU storage with the memory of a CPU storage.
py::object device_storage(const py::handle& shared, c10::DeviceIndex device) {
  const c10::Storage storage = unpack(shared);
  return wrap(c10::Storage(c10::make_intrusive<c10::StorageImpl>(
      c10::StorageImpl::use_byte_size_t(), storage.nbytes(),
      shared_data(*storage.unsafeGetStorageImpl(), c10::Device(c10::kXPU, device)), c10::GetAllocator(c10::kXPU),
      /*resizable=*/false)));
}

}  // namespace

void define_shared_memory(py::module_& module) {
  module.def("shared_storage_of", &shared_storage_of);
  module.def("move_into", &move_into);
  module.def("device_storage", &device_storage);
}

}  // namespace quillon::host_device
