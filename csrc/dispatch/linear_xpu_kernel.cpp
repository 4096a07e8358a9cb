#include "dispatch/linear_xpu_kernel.h"

#include <c10/util/Exception.h>

#include "dispatch/device_class_query.h"
#include "dispatch/format_check.h"
#include "dispatch/launchers.h"
#include "dispatch/matrix_engine.h"
#include "dispatch/path.h"
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
  if (path == Path::matrix_engine)
    return linear_xpu_matrix_engine(input, weight, batch, state_size, output_size, input_size, qtype,
                                    device_class == XpuDeviceClass::elm);
  const Launcher launcher = launcher_table(path)[qtype];
  TORCH_CHECK_NOT_IMPLEMENTED(launcher != nullptr, "forward_new: there are no kernels for ", describe_format(qtype));
  return launcher(input, weight, batch, state_size, output_size, input_size);
}

}  // namespace quillon
