#include "dispatch/tensor_memory.h"

#include <c10/util/Exception.h>

#include <algorithm>
#include <limits>

namespace quillon {
namespace {

// Sums and products that stop at the largest number in place of starting again from 0.
constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

std::uint64_t product(std::uint64_t a, std::uint64_t b) {
  std::uint64_t result = 0;
  return __builtin_mul_overflow(a, b, &result) ? kMost : result;
}

std::uint64_t sum(std::uint64_t a, std::uint64_t b) {
  std::uint64_t result = 0;
  return __builtin_add_overflow(a, b, &result) ? kMost : result;
}

void check_bytes(const char* operator_name, NamedTensors tensors, std::uint64_t bytes) {
  for (const NamedTensor& one : tensors) {
    TORCH_CHECK(bytes <= bytes_behind(one.tensor), operator_name, ": ", one.name, " must have ", bytes,
                " bytes for the sizes of this call, got ", bytes_behind(one.tensor), " in a tensor of shape ",
                one.tensor.sizes());
    TORCH_CHECK(bytes == 0 || one.tensor.const_data_ptr() != nullptr, operator_name, ": ", one.name,
                " has no memory, as a fake tensor has none; torch.ops takes those");
  }
}

}  // namespace

void check_on_one_xpu(const char* operator_name, NamedTensor first, NamedTensors others) {
  TORCH_CHECK(first.tensor.is_xpu(), operator_name, ": ", first.name, " must be a XPU tensor, got one on ",
              first.tensor.device());
  for (const NamedTensor& one : others)
    TORCH_CHECK(one.tensor.device() == first.tensor.device(), operator_name, ": ", first.name, " is on ",
                first.tensor.device(), " and ", one.name, " on ", one.tensor.device(), "; all must be on one device");
  const auto check_plain = [&](const NamedTensor& one) {
    TORCH_CHECK(one.tensor.layout() == at::kStrided && !one.tensor.is_neg(), operator_name, ": ", one.name,
                " must be a plain dense tensor");
  };
  check_plain(first);
  for (const NamedTensor& one : others) check_plain(one);
}

void check_elements(const char* operator_name, NamedTensors tensors) {
  for (const NamedTensor& one : tensors)
    check_bytes(operator_name, {one}, product(one.tensor.numel(), one.tensor.element_size()));
}

void check_memory(const char* operator_name, NamedTensors tensors, std::initializer_list<std::uint64_t> factors) {
  if (std::count(factors.begin(), factors.end(), 0) > 0) return;
  std::uint64_t bytes = 1;
  for (const std::uint64_t factor : factors) bytes = product(bytes, factor);
  check_bytes(operator_name, tensors, bytes);
}

void check_strided_memory(const char* operator_name, NamedTensors tensors,
                          std::initializer_list<Dimension> dimensions) {
  std::uint64_t elements = 1;
  for (const Dimension& one : dimensions) {
    if (one.size == 0) return;
    elements = sum(elements, product(one.size - 1, one.stride));
  }
  for (const NamedTensor& one : tensors)
    check_bytes(operator_name, {one}, product(elements, one.tensor.element_size()));
}

}  // namespace quillon
