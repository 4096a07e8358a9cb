#include "frontend/guards.h"

#include <ATen/core/ivalue.h>
#include <ATen/record_function.h>
#include <c10/util/Exception.h>

#include <array>
#include <utility>

#include "dispatch/dequantize_operators.h"
#include "dispatch/linear_xpu_kernel.h"
#include "dispatch/tensor_memory.h"

// forward_new says "weights" where the others say "weight": callers match on these texts. A macro, because the site
// that PyTorch reports with a failed check is the function the check stands in.
#define QUILLON_CHECK_XPU_TENSOR(tensor, name)                  \
  TORCH_CHECK((tensor).is_xpu(), name " must be a XPU tensor"); \
  TORCH_CHECK((tensor).is_contiguous(), name " must be contiguous")

namespace quillon {

namespace {

// The dispatcher of torch.ops resolves a tensor that stands for its negative, the functions of the module do not.
at::Tensor as_stored(at::Tensor tensor) {
  return tensor.is_neg() ? tensor.resolve_neg() : tensor;
}

void check_device_and_memory(const char* operator_name, const at::Tensor& input, const at::Tensor& weight) {
  TORCH_CHECK(input.device() == weight.device(), operator_name, ": input is on ", input.device(), " and weight on ",
              weight.device(), "; both must be on one device");
  check_elements(operator_name, {{"input", input}, {"weight", weight}});
}

}  // namespace

using Recorded = std::array<c10::IValue, 1>;

at::Tensor linear_forward_new(at::Tensor input, at::Tensor weight, std::int64_t qtype, std::int64_t input_size) {
  QUILLON_CHECK_XPU_TENSOR(input, "input");
  QUILLON_CHECK_XPU_TENSOR(weight, "weights");
  check_device_and_memory("forward_new", input, weight);
  RECORD_FUNCTION("sorrel_qlinear_forward", (Recorded{input}));
  return linear_xpu_forward_new(as_stored(std::move(input)), weight, static_cast<int>(qtype), input_size);
}

at::Tensor dequant(at::Tensor input, at::Tensor weight, std::int64_t qtype) {
  QUILLON_CHECK_XPU_TENSOR(input, "input");
  QUILLON_CHECK_XPU_TENSOR(weight, "weight");
  check_device_and_memory("dequant", input, weight);
  RECORD_FUNCTION("sorrel_xpu_dequant", (Recorded{weight}));
  return qlinear_forward_xpu(input, weight, static_cast<int>(qtype));
}

at::Tensor dequantize_rows(at::Tensor input, at::Tensor weight, std::int64_t qtype, std::int64_t state_size,
                           std::int64_t output_size) {
  QUILLON_CHECK_XPU_TENSOR(input, "input");
  QUILLON_CHECK_XPU_TENSOR(weight, "weight");
  check_device_and_memory("dequantize_rows", input, weight);
  RECORD_FUNCTION("sorrel_dequantize_rows", (Recorded{input}));
  return dequantize_rows_xpu(input, weight, static_cast<int>(qtype), state_size, output_size);
}

}  // namespace quillon
