// The tables behind operator_traits.h, and the reading of schemas.
#include "operator_traits.h"

#include <c10/util/flat_hash_map.h>
#include <c10/util/string_view.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace quillon::host_device {
namespace {

constexpr std::string_view kBuiltinNamespace = "aten::";

// PyTorch's operators whose work grows faster than their data: the number of elements says little about it. By
// their names without the underscore of the in-place forms.
constexpr std::string_view kWorkGrowsFasterThanData[] = {
    // matrix products
    "mm", "addmm", "bmm", "baddbmm", "addbmm", "linear", "linear_backward", "_addmm_activation", "_foreach_mm",
    "_grouped_mm", "_int_mm", "_scaled_mm", "_scaled_mm_v2", "_trilinear", "_dyn_quant_matmul_4bit",
    "_weight_int4pack_mm_for_cpu", "_weight_int8pack_mm", "mkldnn_linear", "mkldnn_linear_backward",
    "mkldnn_linear_backward_input", "mkldnn_linear_backward_weights", "mkldnn_rnn_layer", "mkldnn_rnn_layer_backward",
    // convolutions
    "convolution", "_convolution", "convolution_backward", "conv_depthwise3d", "conv_tbc", "conv_tbc_backward",
    "mkldnn_convolution", "_nnpack_spatial_convolution", "_slow_conv2d_forward", "_slow_conv2d_backward",
    "slow_conv3d_forward", "slow_conv_dilated2d", "slow_conv_dilated3d", "slow_conv_transpose2d",
    "slow_conv_transpose3d",
    // distances of all pairs
    "_cdist_forward", "_cdist_backward", "_euclidean_dist", "_pdist_forward", "_pdist_backward",
    // factorizations and solvers
    "cholesky", "cholesky_inverse", "cholesky_solve", "_cholesky_solve_helper", "geqrf", "ormqr", "triangular_solve",
    "_linalg_det", "_linalg_eigh", "_linalg_eigvals", "_linalg_slogdet", "_linalg_solve_ex", "_linalg_svd",
    "linalg_cholesky_ex", "linalg_eig", "linalg_eigvals", "linalg_householder_product", "linalg_inv_ex",
    "linalg_ldl_factor_ex", "linalg_ldl_solve", "linalg_lstsq", "linalg_lu", "linalg_lu_factor_ex", "linalg_lu_solve",
    "linalg_matrix_exp", "linalg_pinv", "linalg_qr", "linalg_solve_triangular"};

// Arguments that may lie on another device than the rest of the call. The operators say so in their own
// checks.
constexpr std::pair<const char*, const char*> kAnyDeviceArguments[] = {
    {"aten::copy_", "self"},
    {"aten::copy_", "src"},
    {"aten::index", "indices"},
    {"aten::index_put", "indices"},
    {"aten::index_put_", "indices"},
    {"aten::_index_put_impl_", "indices"},
    {"aten::_index_put_impl", "indices"},
    {"aten::_unsafe_index", "indices"},
    {"aten::_unsafe_index_put", "indices"},
    {"aten::_unsafe_masked_index", "indices"},
    {"aten::_unsafe_masked_index_put_accumulate", "indices"},
    {"aten::_foreach_addcdiv", "scalars"},
    {"aten::_foreach_addcdiv_", "scalars"},
    {"aten::_foreach_addcmul", "scalars"},
    {"aten::_foreach_addcmul_", "scalars"},
};

bool may_be_on_any_device(const std::string& op, const std::string& argument) {
  for (const auto& [allowed_op, allowed_argument] : kAnyDeviceArguments) {
    if (op == allowed_op && argument == allowed_argument) return true;
  }
  return false;
}

std::optional<ArgumentKind> kind_of(const c10::Argument& argument) {
  c10::TypePtr type = argument.type();
  while (true) {
    if (const auto optional = type->cast<c10::OptionalType>()) {
      type = optional->getElementType();
    } else if (const auto list = type->cast<c10::ListType>()) {
      type = list->getElementType();
    } else {
      break;
    }
  }
  switch (type->kind()) {
    case c10::TypeKind::TensorType:
      return ArgumentKind::kTensors;
    case c10::TypeKind::DeviceObjType:
      return ArgumentKind::kDevice;
    case c10::TypeKind::GeneratorType:
      return ArgumentKind::kGenerator;
    default:
      return std::nullopt;
  }
}

}  // namespace

bool work_grows_faster_than_data(std::string_view name) {
  if (!c10::starts_with(name, kBuiltinNamespace)) return false;
  name.remove_prefix(kBuiltinNamespace.size());
  if (name.back() == '_') name.remove_suffix(1);
  return std::find(std::begin(kWorkGrowsFasterThanData), std::end(kWorkGrowsFasterThanData), name) !=
         std::end(kWorkGrowsFasterThanData);
}

OperatorTraits make_traits(const c10::FunctionSchema& schema) {
  OperatorTraits traits{};
  traits.work_grows_faster_than_data = work_grows_faster_than_data(schema.name());
  traits.is_collective = c10::starts_with(schema.name(), "c10d::");
  for (size_t i = 0; i < schema.arguments().size(); ++i) {
    const c10::Argument& argument = schema.arguments()[i];
    if (const auto kind = kind_of(argument)) {
      const bool written = argument.alias_info() && argument.alias_info()->isWrite();
      traits.writes_arguments |= written;
      const bool any_device = may_be_on_any_device(schema.name(), argument.name());
      traits.arguments.push_back({static_cast<uint32_t>(i), *kind, written, any_device});
    }
  }
  return traits;
}

const OperatorTraits& traits_of_builtin(const c10::FunctionSchema& schema) {
  thread_local ska::flat_hash_map<const c10::FunctionSchema*, std::unique_ptr<const OperatorTraits>> known;
  auto& traits = known[&schema];
  if (!traits) traits = std::make_unique<const OperatorTraits>(make_traits(schema));
  return *traits;
}

bool is_builtin(const c10::FunctionSchema& schema) {
  return c10::starts_with(schema.name(), kBuiltinNamespace);
}

}  // namespace quillon::host_device
