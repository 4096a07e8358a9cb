// Tensors as kernels want them.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace quillon {

// Kernels load up to sixteen bytes at once, which a device may demand to stand at a multiple of sixteen. What PyTorch
// allocates does; a view that starts elsewhere is copied.
inline at::Tensor at_aligned_address(at::Tensor tensor) {
  const auto address = reinterpret_cast<std::uintptr_t>(tensor.const_data_ptr());
  return address % 16 == 0 ? tensor : tensor.clone();
}

}  // namespace quillon
