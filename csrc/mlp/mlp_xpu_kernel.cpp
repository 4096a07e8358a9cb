#include "mlp/mlp_xpu_kernel.h"

#include <ATen/core/ivalue.h>
#include <ATen/record_function.h>
#include <c10/util/Exception.h>

#include <array>
#include <string>
#include <utility>

#include "dispatch/aligned_tensor.h"
#include "dispatch/device_class_query.h"
#include "dispatch/expanded_weight.h"
#include "dispatch/format_check.h"
#include "dispatch/read_extent.h"
#include "dispatch/tensor_memory.h"
#include "kernels/matvec/host_entry.h"
#include "kernels/matvec/quantize_q8_1_host.h"

namespace quillon {
namespace {

constexpr char NAME[] = "mlp_forward_xpu";

using Recorded = std::array<c10::IValue, 1>;

struct Operands {
  at::Tensor input;
  at::Tensor weight1;
  at::Tensor weight2;
  std::int64_t batch_size;
  std::uint64_t state_size;
  std::uint64_t output_size;
  std::int32_t act_type;
};

// Nothing behind the tensors' memory may be read, also of rows that end inside a block, of which some kernels read on.
ReadExtent check_operands(const Operands& operands, int qtype) {
  const ReadExtent extent = read_extent(qtype, operands.state_size, operands.output_size);
  check_memory(NAME, {{"input", operands.input}},
               {extent.activations, static_cast<std::uint64_t>(operands.input.element_size())});
  check_memory(NAME, {{"weight1", operands.weight1}, {"weight2", operands.weight2}},
               {extent.blocks, static_cast<std::uint64_t>(bytes_per_block(qtype))});
  return extent;
}

// The element type, or an error in the words of PyTorch's dispatch, whose macro would fix the launcher's name.
ElementType element_type(at::ScalarType type, const kernel_row& row) {
  switch (type) {
    case at::kFloat:
      return ElementType::float32;
    case at::kDouble:
      return ElementType::float64;
    case at::kHalf:
      return ElementType::float16;
    case at::kBFloat16:
      return ElementType::bfloat16;
    default:
      TORCH_CHECK_NOT_IMPLEMENTED(false, "\"mlp_forward_", format_table[row.qtype].name,
                                  takes_q8_1(row) ? "_xpu" : "_xpu_t", "\" not implemented for '", type, "'");
  }
}

at::Tensor launch(const MatvecKernel& kernel, Operands operands) {
  const kernel_row& row = kernel_table[kernel.row];
  const bool quantized = takes_q8_1(row);
  at::Tensor blocks;
  ReadExtent extent{};
  if (quantized) {
    TORCH_CHECK(operands.state_size == 0 ||
                    static_cast<std::uint64_t>(operands.batch_size) <= max_elements / operands.state_size,
                NAME, ": ", operands.batch_size, " rows of ", operands.state_size,
                " activations are too many for one call");
    extent = check_operands(operands, row.qtype);
    operands.input = at_aligned_address(std::move(operands.input), extent.activations);
    blocks = quantize_input_q8_1(operands.input, operands.batch_size, operands.state_size);
  }
  at::Tensor output =
      make_dense(operands.weight1, operands.input.scalar_type(), operands.batch_size, operands.output_size);
  const ElementType type = element_type(operands.input.scalar_type(), row);
  // An error of the weights' types is told before others.
  operands.weight1.const_data_ptr<std::uint8_t>();
  operands.weight2.const_data_ptr<std::uint8_t>();
  if (row.row_unit != 0 && operands.state_size % row.row_unit != 0)
    c10::detail::torchCheckFail(row.name, __FILE__, __LINE__,
                                c10::str("%d must be a multiple of %d", operands.state_size, row.row_unit));
  if (!quantized) extent = check_operands(operands, row.qtype);
  if (operands.batch_size == 0) return output;
  const std::uint64_t weight_bytes = extent.blocks * bytes_per_block(row.qtype);
  operands.input = at_aligned_address(std::move(operands.input), extent.activations);
  operands.weight1 = at_aligned_address(std::move(operands.weight1), weight_bytes);
  operands.weight2 = at_aligned_address(std::move(operands.weight2), weight_bytes);
  launch_mlp(kernel, type, (quantized ? blocks : operands.input).const_data_ptr(),
             operands.weight1.const_data_ptr<std::uint8_t>(), operands.weight2.const_data_ptr<std::uint8_t>(),
             operands.act_type, output.mutable_data_ptr(), operands.state_size, operands.output_size,
             operands.weight1.device());
  return output;
}

// What each launcher table runs, by qtype; -1 where there is no kernel.
using MlpLauncherTable = std::array<MatvecKernel, qtype_count>;

constexpr MlpLauncherTable make_table(launcher_table_index table) {
  MlpLauncherTable launchers{};
  for (MatvecKernel& kernel : launchers) kernel.row = -1;
  for (std::size_t i = 0; i < kernel_table.size(); ++i) {
    const kernel_row& row = kernel_table[i];
    if (row.family == kernel_family::mlp && is_launched(row, table))
      launchers[row.qtype] = {static_cast<int>(i), geometry_of(row, launcher_geometries[table])};
  }
  return launchers;
}

constexpr MlpLauncherTable mlp_launchers_elm = make_table(table_elm);
constexpr MlpLauncherTable mlp_launchers_legacy = make_table(table_legacy);
constexpr MlpLauncherTable mlp_launchers_default = make_table(table_default);

const MlpLauncherTable& launcher_table(XpuDeviceClass device_class) {
  switch (device_class) {
    case XpuDeviceClass::legacy:
      return mlp_launchers_legacy;
    case XpuDeviceClass::elm:
      return mlp_launchers_elm;
    default:
      return mlp_launchers_default;
  }
}

std::string served_formats(const MlpLauncherTable& table) {
  std::string names;
  for (int qtype = 0; qtype < qtype_count; ++qtype)
    if (table[qtype].row >= 0) names += (names.empty() ? "" : ", ") + describe_format(qtype);
  return names;
}

void check_sizes(std::int64_t batch_size, std::int64_t state_size, std::int64_t output_size) {
  TORCH_CHECK(batch_size >= 0 && state_size >= 0 && output_size >= 0, NAME,
              ": batch_size, state_size and output_size are sizes, got ", batch_size, ", ", state_size, " and ",
              output_size);
  TORCH_CHECK(state_size <= max_elements && (state_size == 0 || output_size <= max_elements / state_size), NAME,
              ": a weight of ", output_size, " rows of ", state_size, " elements is too large; a weight has at most ",
              max_elements, " elements");
}

}  // namespace

at::Tensor mlp_forward_xpu(at::Tensor input, at::Tensor weight1, at::Tensor weight2, std::int64_t batch_size,
                           std::int64_t state_size, std::int64_t output_size, std::int64_t act_type,
                           std::int64_t qtype) {
  RECORD_FUNCTION("mlp_forward", (Recorded{input}));
  check_on_one_xpu(NAME, {"input", input}, {{"weight1", weight1}, {"weight2", weight2}});
  const XpuDeviceClass device_class = get_device_class(input.device());
  const MlpLauncherTable& table = launcher_table(device_class);
  TORCH_CHECK(qtype >= 0 && qtype < qtype_count, NAME, ": qtype ", qtype, ", a code without a format; served are ",
              served_formats(table));
  const MatvecKernel& kernel = table[static_cast<std::size_t>(qtype)];
  TORCH_CHECK_NOT_IMPLEMENTED(kernel.row >= 0, NAME, ": no kernel for ", describe_format(static_cast<int>(qtype)),
                              " on device class ", device_class_name(device_class), "; served are ",
                              served_formats(table));
  check_sizes(batch_size, state_size, output_size);
  return launch(kernel, {std::move(input), std::move(weight1), std::move(weight2), batch_size,
                         static_cast<std::uint64_t>(state_size), static_cast<std::uint64_t>(output_size),
                         static_cast<std::int32_t>(act_type)});
}

}  // namespace quillon
