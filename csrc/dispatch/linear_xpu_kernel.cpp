#include "dispatch/linear_xpu_kernel.h"

#include <c10/util/Exception.h>

#include "dispatch/device_class_query.h"
#include "dispatch/format_check.h"
#include "dispatch/launchers.h"
#include "dispatch/path.h"
#include "dispatch/read_extent.h"
#include "formats/registry.h"

namespace quillon {
namespace {

const LauncherTable& launcher_table(Path path) {
  switch (path) {
    case Path::launchers_elm:
      return qlinear_launchers_elm;
    case Path::launchers_legacy:
      return qlinear_launchers_legacy;
    default:
      return qlinear_launchers_default;
  }
}

// Kernels take their numbers from the first sizes alone, so these have to be backed by elements; and they form offsets
// inside a weight from 32-bit products.
void check_extents(const at::Tensor& input, const at::Tensor& weight, std::uint64_t batch, std::uint64_t state_size,
                   std::uint64_t output_size) {
  TORCH_CHECK(input.numel() > 0 || batch == 0, "forward_new: input of shape ", input.sizes(), " has no elements");
  TORCH_CHECK(weight.numel() > 0 || output_size == 0, "forward_new: weight of shape ", weight.sizes(),
              " has no bytes; give the flat tensor that a quantizer returns");
  TORCH_CHECK(output_size == 0 || output_size * state_size <= max_elements, "forward_new: a weight of ", output_size,
              " rows of ", state_size, " elements is too large; a weight has at most ", max_elements, " elements");
}

// Bytes from the first element of a tensor to the end of its memory.
std::uint64_t bytes_behind(const at::Tensor& tensor) {
  const auto start = static_cast<std::uint64_t>(tensor.storage_offset()) * tensor.element_size();
  const auto end = static_cast<std::uint64_t>(tensor.storage().nbytes());
  return end > start ? end - start : 0;
}

// Rows that end inside a block, which the kernels admit, make some of them read on: in a larger tensor of which the
// argument is a part they meet its other elements, behind the end of it nothing may be read.
void check_reads(const at::Tensor& input, const at::Tensor& weight, int qtype, Path path, std::uint64_t state_size,
                 std::uint64_t output_size) {
  const ReadExtent extent = read_extent(qtype, path == Path::launchers_elm ? 64 : 32, state_size, output_size);
  const std::uint64_t activations = bytes_behind(input) / input.element_size();
  TORCH_CHECK(extent.activations <= activations, "forward_new: rows of ", state_size,
              " elements end inside a block of ", describe_format(qtype), ", whose kernel then reads ",
              extent.activations, " activations, and input has ", activations);
  const std::uint64_t blocks = bytes_behind(weight) / bytes_per_block(qtype);
  TORCH_CHECK(extent.blocks <= blocks, "forward_new: rows of ", state_size, " elements end inside a block of ",
              describe_format(qtype), ", whose kernel then reads ", extent.blocks, " blocks, and weight has ", blocks);
}

}  // namespace

at::Tensor linear_xpu_forward_new(at::Tensor input, at::Tensor weight, int qtype, std::int64_t input_size) {
  const auto batch = static_cast<std::uint64_t>(input.size(0));
  const auto state_size = static_cast<std::uint64_t>(input.size(1));
  const auto weight_bytes = static_cast<std::uint64_t>(weight.size(0));
  check_qtype("forward_new", qtype);
  TORCH_CHECK(state_size != 0, "forward_new: input has rows of 0 elements (shape ", input.sizes(),
              "); a row needs at least one block of the format");
  const std::uint64_t blocks = weight_bytes / bytes_per_block(qtype);
  const std::uint64_t output_size = elements_per_block(qtype) * blocks / state_size;

  check_extents(input, weight, batch, state_size, output_size);
  const XpuDeviceClass device_class = get_device_class(input.device());
  const Path path = choose_path(device_class, qtype, batch, output_size);
  TORCH_CHECK_NOT_IMPLEMENTED(path != Path::matrix_engine, "forward_new: the matrix-engine path, which ",
                              describe_format(qtype), " takes with a batch of ", batch, " on device class ",
                              device_class_name(device_class),
                              ", is not available in this release; give one row at a time");
  const Launcher launcher = launcher_table(path)[qtype];
  TORCH_CHECK_NOT_IMPLEMENTED(launcher != nullptr, "forward_new: no kernels for ", describe_format(qtype),
                              " in this release");
  if (batch == 1 && state_size % elements_per_block(qtype) != 0)
    check_reads(input, weight, qtype, path, state_size, output_size);
  return launcher(input, weight, batch, state_size, output_size, input_size);
}

}  // namespace quillon
