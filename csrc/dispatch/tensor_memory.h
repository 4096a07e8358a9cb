// Checks of the operators that take shapes from one argument and read the others as they come: that all are on one XPU, and
// that nothing behind a tensor's memory is read or written.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <initializer_list>

namespace quillon {

struct NamedTensor {
  const char* name;
  const at::Tensor& tensor;
};
using NamedTensors = std::initializer_list<NamedTensor>;

// Bytes from the first element of a tensor to the end of its memory. Without an element there is no address either.
inline std::uint64_t bytes_behind(const at::Tensor& tensor) {
  if (tensor.numel() == 0) return 0;
  const auto start = static_cast<std::uint64_t>(tensor.storage_offset()) * tensor.element_size();
  const auto end = static_cast<std::uint64_t>(tensor.storage().nbytes());
  return end > start ? end - start : 0;
}

// Fails unless `first` is on an XPU and `others` are on the same one. Nor may any of them stand for its negative.
void check_on_one_xpu(const char* operator_name, NamedTensor first, NamedTensors others);

// Fails unless the memory of each of these contiguous tensors holds its elements: a storage can be made smaller, or freed,
// under the tensors that it has.
void check_elements(const char* operator_name, NamedTensors tensors);

// Fails unless each tensor has as many bytes as the product of `factors`, from its first element on.
void check_memory(const char* operator_name, NamedTensors tensors, std::initializer_list<std::uint64_t> factors);

// The same for elements that lie apart: dimensions of a size and a stride.
struct Dimension {
  std::uint64_t size;
  std::uint64_t stride;
};
void check_strided_memory(const char* operator_name, NamedTensors tensors, std::initializer_list<Dimension> dimensions);

}  // namespace quillon
