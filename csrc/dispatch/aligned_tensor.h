// Tensors as kernels want them.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// Kernels load up to sixteen bytes at once, which a device may demand to stand at a multiple of sixteen. What PyTorch
// allocates does; a view that starts elsewhere is copied.
inline bool is_at_aligned_address(const at::Tensor& tensor) {
  return reinterpret_cast<std::uintptr_t>(tensor.const_data_ptr()) % 16 == 0;
}
inline at::Tensor at_aligned_address(at::Tensor tensor) {
  return is_at_aligned_address(tensor) ? tensor : tensor.clone();
}

// The same for a kernel that reads `elements` neighbours from the first element on, whatever the tensor's shape and strides
// say of them; the copy has these in one dimension. The caller has made sure that the memory is there.
inline at::Tensor at_aligned_address(at::Tensor tensor, std::uint64_t elements) {
  if (is_at_aligned_address(tensor)) return tensor;
  return tensor.as_strided({static_cast<std::int64_t>(elements)}, {1}).clone();
}

}  // namespace quillon
