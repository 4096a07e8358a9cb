#include "dispatch/dequantize_operators.h"

#include <c10/util/Exception.h>

#include <array>
#include <string>
#include <utility>

#include "dispatch/aligned_tensor.h"
#include "dispatch/device_class_query.h"
#include "dispatch/expanded_weight.h"
#include "dispatch/format_check.h"
#include "dispatch/scalar_type_dispatch.h"
#include "dispatch/tensor_memory.h"
#include "formats/registry.h"
#include "kernels/dequant/host_entry.h"

namespace quillon {
namespace {

// Formats that the operators serve. Others have kernels too, which launchers alone use.
constexpr std::array kWholeFormats = {qtype_q4_0, qtype_q4_1,     qtype_q8_0,   qtype_nf4,
                                      qtype_fp4,  qtype_fp8_e5m2, qtype_iq2_xxs};
constexpr std::array kRowFormats = {qtype_q2_k, qtype_q4_k};

template <typename Formats>
void check_served(const char* operator_name, const Formats& formats, int qtype) {
  std::string names;
  for (const int served : formats) {
    if (served == qtype) return;
    names += (names.empty() ? "" : ", ") + describe_format(served);
  }
  TORCH_CHECK_NOT_IMPLEMENTED(false, operator_name, ": not for ", describe_format(qtype), "; it serves ", names);
}

launcher_table_index table_of(c10::Device device) {
  return get_device_class(device) == XpuDeviceClass::elm ? table_elm : table_default;
}

constexpr std::uint64_t kSuperBlock = 256;

// Calls `expand(kernel, type, output memory, state_size)` for a result of the caller's, if there is a kernel and the weight
// has the bytes of its rows.
template <typename Expand>
void expand_into(const char* operator_name, expansion operation, const at::Tensor& weight, at::Tensor& output,
                 int qtype, std::uint64_t output_size, const Expand& expand) {
  check_qtype(operator_name, qtype);
  TORCH_CHECK(weight.is_xpu() && weight.device() == output.device(), operator_name, ": weight is on ", weight.device(),
              " and output on ", output.device(), "; both must be on one XPU");
  TORCH_CHECK(weight.is_contiguous() && output.is_contiguous() && output.dim() == 2, operator_name,
              ": weight and output must be contiguous, and output of two dimensions");
  check_elements(operator_name, {{"weight", weight}, {"output", output}});
  const ExpansionKernel kernel = expansion_kernel(operation, qtype, table_of(output.device()));
  TORCH_CHECK_NOT_IMPLEMENTED(kernel.row >= 0, operator_name, ": no kernel for ", describe_format(qtype));
  const auto state_size = static_cast<std::uint64_t>(output.size(1));
  TORCH_CHECK(state_size == 0 || output_size <= max_elements / state_size, operator_name, ": a weight of ", output_size,
              " rows of ", state_size, " elements is too large; a weight has at most ", max_elements, " elements");
  const auto elements = static_cast<std::uint64_t>(elements_per_block(qtype));
  const std::uint64_t bytes = (output_size * state_size + elements - 1) / elements * bytes_per_block(qtype);
  TORCH_CHECK(bytes <= static_cast<std::uint64_t>(weight.numel()), operator_name, ": ", output_size, " rows of ",
              state_size, " elements in ", describe_format(qtype), " have ", bytes, " bytes, and weight has ",
              weight.numel());
  const at::Tensor aligned = at_aligned_address(weight);
  dispatch_element_type(output.scalar_type(), [&](auto element) {
    using T = decltype(element);
    expand(kernel, element_type_of<T>(), aligned.data_ptr<std::uint8_t>(), output.data_ptr<T>(), state_size);
  });
}

}  // namespace

at::Tensor qlinear_forward_xpu(at::Tensor input, at::Tensor weight, int qtype) {
  const launcher_table_index table = table_of(input.device());
  const auto state_size = static_cast<std::uint64_t>(input.size(1));
  check_qtype("dequant", qtype);
  check_served("dequant", kWholeFormats, qtype);
  TORCH_CHECK(state_size != 0, "dequant: input has rows of 0 elements (shape ", input.sizes(),
              "); a row needs at least one block of the format");
  const auto elements = static_cast<std::uint64_t>(elements_per_block(qtype));
  const auto blocks = static_cast<std::uint64_t>(weight.size(0)) / static_cast<std::uint64_t>(bytes_per_block(qtype));
  const std::uint64_t output_size = blocks * elements / state_size;
  TORCH_CHECK(weight.numel() > 0 || output_size == 0, "dequant: weight of shape ", weight.sizes(),
              " has no bytes; give the flat tensor that a quantizer returns");
  TORCH_CHECK(output_size * state_size <= max_elements, "dequant: a weight of ", output_size, " rows of ", state_size,
              " elements is too large; a weight has at most ", max_elements, " elements");
  at::Tensor result = make_dense(weight, input.scalar_type(), output_size, state_size);
  weight = at_aligned_address(std::move(weight));
  const ExpansionKernel kernel = expansion_kernel(expansion::whole, qtype, table);
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    using T = decltype(element);
    fill_behind(result, expand_whole(kernel, element_type_of<T>(), weight.data_ptr<std::uint8_t>(),
                                     result.data_ptr<T>(), state_size, output_size, weight.device()));
  });
  return result;
}

at::Tensor dequantize_rows_xpu(at::Tensor input, at::Tensor weight, int qtype, std::int64_t state_size,
                               std::int64_t output_size) {
  const std::int64_t rows0 = input.size(0);
  const std::int64_t rows1 = input.size(1);
  check_qtype("dequantize_rows", qtype);
  check_served("dequantize_rows", kRowFormats, qtype);
  TORCH_CHECK(state_size >= 0 && output_size >= 0, "dequantize_rows: state_size and output_size are sizes, got ",
              state_size, " and ", output_size);
  TORCH_CHECK(state_size <= max_elements && (state_size == 0 || output_size <= max_elements / state_size),
              "dequantize_rows: a weight of ", output_size, " rows of ", state_size,
              " elements is too large; a weight has at most ", max_elements, " elements");
  TORCH_CHECK(rows0 * rows1 <= input.numel(), "dequantize_rows: input of shape ", input.sizes(), " has no elements");
  at::Tensor result = make_dense(weight, at::kFloat, rows0 * rows1, state_size).view({rows0, rows1, state_size});

  const auto bytes = static_cast<std::uint64_t>(bytes_per_block(qtype));
  const auto held = static_cast<std::uint64_t>(weight.numel()) / bytes;
  const auto columns = static_cast<std::uint64_t>(state_size);
  // Regions follow from the sizes given, while records need none; their number is what there is.
  const bool regions = format_table[qtype].storage == storage_kind::regions;
  const std::uint64_t blocks = regions ? columns * static_cast<std::uint64_t>(output_size) / kSuperBlock : held;
  TORCH_CHECK(blocks <= held, "dequantize_rows: a weight of ", output_size, " rows of ", state_size, " elements in ",
              describe_format(qtype), " has ", blocks * bytes, " bytes, and weight has ", weight.numel());
  const std::uint64_t groups = static_cast<std::uint64_t>(rows0) * rows1 * (columns / kSuperBlock);
  TORCH_CHECK(groups <= max_elements, "dequantize_rows: ", rows0, " x ", rows1, " rows of ", state_size,
              " elements are too many for one call");
  weight = at_aligned_address(std::move(weight));
  expand_rows(expansion_kernel(expansion::rows, qtype, table_default), weight.data_ptr<std::uint8_t>(), blocks,
              input.data_ptr<std::int64_t>(), result.data_ptr<float>(), rows0, rows1, columns, output_size,
              weight.device());
  fill_behind(result, groups * kSuperBlock);
  return result;
}

void expand_weight(at::Tensor weight, at::Tensor output, std::int64_t qtype) {
  const auto output_size = static_cast<std::uint64_t>(output.size(0));
  expand_into("expand_weight", expansion::whole, weight, output, static_cast<int>(qtype), output_size,
              [&](const ExpansionKernel& kernel, ElementType type, const std::uint8_t* bytes, void* to,
                  std::uint64_t state_size) {
                expand_whole(kernel, type, bytes, to, state_size, output_size, output.device());
              });
}

void expand_weight_fast(at::Tensor weight, at::Tensor output, std::int64_t qtype) {
  const auto output_size = static_cast<std::uint64_t>(output.size(0));
  expand_into(
      "expand_weight_fast", expansion::dense, weight, output, static_cast<int>(qtype), output_size,
      [&](const ExpansionKernel&, ElementType type, const std::uint8_t* bytes, void* to, std::uint64_t state_size) {
        expand_dense(static_cast<int>(qtype), type, bytes, to, state_size, output_size, output.device());
      });
}

void expand_rows_of(at::Tensor weight, at::Tensor output, std::int64_t qtype, std::int64_t output_size,
                    std::int64_t row_start) {
  const std::int64_t tile_rows = output.size(0);
  TORCH_CHECK(row_start >= 0 && row_start <= output_size && tile_rows <= output_size - row_start,
              "expand_rows_of: ", tile_rows, " rows from row ", row_start, " on of a weight of ", output_size);
  expand_into("expand_rows_of", expansion::tile, weight, output, static_cast<int>(qtype), output_size,
              [&](const ExpansionKernel& kernel, ElementType type, const std::uint8_t* bytes, void* to,
                  std::uint64_t state_size) {
                expand_tile(kernel, type, bytes, to, state_size, output_size, tile_rows, row_start, output.device());
              });
}

}  // namespace quillon
