#include "missing_kernels.h"

#include <ATen/ATen.h>
#include <ATen/Dispatch.h>
#include <torch/library.h>

#include <algorithm>
#include <utility>

#include "fallback.h"
#include "host_device.h"

namespace quillon::host_device {
namespace {

using c10::IValue;
using torch::jit::Stack;

/// The bin of `value`: bins are closed below and open above, the last one is closed on both sides.
int64_t bin_of(__int128 value, __int128 lowest, __int128 highest, int64_t bins) {
  return std::min(static_cast<int64_t>((value - lowest) * bins / (highest - lowest)), bins - 1);
}

at::Tensor integer_histogram(const at::Tensor& self, int64_t bins, const at::Scalar& min, const at::Scalar& max) {
  TORCH_CHECK(bins > 0, "histc: bins must be > 0, but got ", bins);
  auto lowest = min.to<int64_t>(), highest = max.to<int64_t>();
  if (lowest == highest && self.numel() > 0) {
    lowest = self.min().item().to<int64_t>();
    highest = self.max().item().to<int64_t>();
  }
  if (lowest == highest) {
    --lowest;
    ++highest;
  }
  TORCH_CHECK(lowest < highest, "histc: max must be larger than min, but got min ", min, " and max ", max);

  at::Tensor counts = at::zeros({bins}, self.options().dtype(at::kLong));
  const at::Tensor values = self.contiguous();
  wait_for_current_stream(self.get_device());
  auto* count = counts.mutable_data_ptr<int64_t>();
  AT_DISPATCH_INTEGRAL_TYPES(self.scalar_type(), "histc", [&] {
    const auto* value = values.const_data_ptr<scalar_t>();
    for (int64_t i = 0; i < values.numel(); ++i) {
      if (value[i] >= lowest && value[i] <= highest) ++count[bin_of(value[i], lowest, highest, bins)];
    }
  });
  return counts.to(self.scalar_type());
}

/// histc(self, bins, min, max) and histc.out, which ends in the tensor to write.
void histogram(const c10::OperatorHandle& op, Stack* stack) {
  const size_t arguments = op.schema().arguments().size(), first = stack->size() - arguments;
  const auto argument = [&](size_t i) -> const IValue& { return (*stack)[first + i]; };
  const at::Tensor self = argument(0).toTensor();
  if (!at::isIntegralType(self.scalar_type(), /*includeBool=*/false)) {
    run_on_cpu(op, stack);
    return;
  }
  at::Tensor result = integer_histogram(self, argument(1).toInt(), argument(2).toScalar(), argument(3).toScalar());
  if (arguments > 4) {
    at::Tensor out = argument(4).toTensor();
    TORCH_CHECK(out.device() == self.device() && out.scalar_type() == self.scalar_type(), "histc: out must be on ",
                self.device(), " and of type ", self.scalar_type(), ", but is on ", out.device(), " and of type ",
                out.scalar_type());
    out.resize_(result.sizes());
    result = out.copy_(result);
  }
  torch::jit::drop(*stack, arguments);
  stack->emplace_back(std::move(result));
}

constexpr const char* kWithoutHalfPrecision[] = {"_fft_c2c",
                                                 "_fft_c2r",
                                                 "_fft_r2c",
                                                 "_upsample_bicubic2d_aa",
                                                 "_upsample_bicubic2d_aa_backward",
                                                 "_upsample_bilinear2d_aa",
                                                 "_upsample_bilinear2d_aa_backward",
                                                 "avg_pool3d",
                                                 "avg_pool3d_backward",
                                                 "multi_margin_loss",
                                                 "multi_margin_loss_backward",
                                                 "multilabel_margin_loss_backward",
                                                 "multilabel_margin_loss_forward",
                                                 "rrelu_with_noise",
                                                 "rrelu_with_noise_backward"};

/// The type to compute in, or `type` itself.
at::ScalarType wide(at::ScalarType type) {
  switch (type) {
    case at::kHalf:
    case at::kBFloat16:
      return at::kFloat;
    case at::kComplexHalf:
      return at::kComplexFloat;
    default:
      return type;
  }
}

at::ScalarType narrow(at::ScalarType type, at::ScalarType real) {
  if (type == at::kFloat) return real;
  return type == at::kComplexFloat && real == at::kHalf ? at::kComplexHalf : type;
}

void run_in_float(const c10::OperatorHandle& op, Stack* stack) {
  const size_t arguments = op.schema().arguments().size(), returns = op.schema().returns().size();
  std::optional<at::ScalarType> real;
  // rrelu_with_noise writes its noise.
  std::vector<std::pair<at::Tensor, at::Tensor>> written;
  for (size_t i = 0; i < arguments; ++i) {
    IValue& value = (*stack)[stack->size() - arguments + i];
    if (!value.isTensor() || !value.toTensor().defined()) continue;
    const at::Tensor given = value.toTensor();
    const at::ScalarType type = given.scalar_type();
    if (wide(type) == type) continue;
    real = type == at::kComplexHalf ? at::kHalf : type;
    const at::Tensor converted = given.to(wide(type));
    const auto* alias = op.schema().arguments()[i].alias_info();
    if (alias && alias->isWrite()) written.emplace_back(given, converted);
    value = converted;
  }
  run_on_cpu(op, stack);
  if (!real) return;
  for (const auto& [given, converted] : written) given.copy_(converted);
  for (size_t i = stack->size() - returns; i < stack->size(); ++i) {
    const at::Tensor result = (*stack)[i].toTensor();
    (*stack)[i] = result.to(narrow(result.scalar_type(), *real));
  }
}

}  // namespace

std::vector<std::string> operators_beyond_the_cpu() {
  std::vector<std::string> names{"aten::histc"};
  for (const char* name : kWithoutHalfPrecision) names.push_back(std::string("aten::") + name);
  return names;
}

}  // namespace quillon::host_device

TORCH_LIBRARY_IMPL(aten, XPU, m) {
  using namespace quillon::host_device;
  for (const char* name : {"histc", "histc.out"}) {
    m.impl(name, torch::CppFunction::makeFromBoxedFunction<&histogram>());
  }
  for (const char* name : kWithoutHalfPrecision) {
    m.impl(name, torch::CppFunction::makeFromBoxedFunction<&run_in_float>());
  }
}
