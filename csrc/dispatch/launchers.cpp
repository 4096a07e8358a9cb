#include "dispatch/launchers.h"

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include "dispatch/environment.h"
#include "dispatch/format_check.h"
#include "dispatch/scalar_type_dispatch.h"
#include "kernels/matvec/q4_0_2x16_host.h"

namespace quillon {
namespace {

// The output of a road: batch by output_size, element type of `input`, on the device of `weight`.
at::Tensor make_output(const at::Tensor& input, const at::Tensor& weight, std::uint64_t batch,
                       std::uint64_t output_size) {
  return at::empty({static_cast<std::int64_t>(batch), static_cast<std::int64_t>(output_size)},
                   weight.options().dtype(input.scalar_type()).memory_format(at::MemoryFormat::Contiguous));
}

[[noreturn]] void fail_batch(int qtype, std::uint64_t batch) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, "forward_new: ", describe_format(qtype), " has no road for a batch of ", batch,
                              " in this release; give one row at a time");
}

// The batch-1 road: `submit(input, weight, output)` gets typed pointers and submits the format's kernel.
template <typename Submit>
at::Tensor matrix_vector_road(const at::Tensor& input, const at::Tensor& weight, std::uint64_t output_size,
                              Submit&& submit) {
  at::Tensor output = make_output(input, weight, 1, output_size);
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    using T = decltype(element);
    submit(input.data_ptr<T>(), weight.data_ptr<std::uint8_t>(), output.data_ptr<T>());
  });
  return output;
}

template <int SG_SIZE, int WG_SIZE, int ROW_TILE>
at::Tensor launch_q4_0(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                       std::uint64_t output_size, std::int64_t /*input_size*/) {
  // Parsed before all else, so that a bad value fails every call; the tiled road alone uses the values.
  read_tile_threshold();
  read_low_mem();
  read_tile_size();
  if (batch != 1) fail_batch(qtype_q4_0, batch);
  return matrix_vector_road(input, weight, output_size, [&](auto* in, auto* bytes, auto* out) {
    qlinear_xpu_kernel_q4_0_2x16<std::remove_pointer_t<decltype(out)>, SG_SIZE, WG_SIZE, ROW_TILE>(
        in, bytes, out, batch, state_size, output_size, weight.device());
  });
}

// One row for each format with a launcher of its own in every table.
template <int SG_SIZE, int WG_SIZE, int Q4_0_ROW_TILE>
constexpr LauncherTable make_table() {
  LauncherTable table{};
  table[qtype_q4_0] = &launch_q4_0<SG_SIZE, WG_SIZE, Q4_0_ROW_TILE>;
  return table;
}

}  // namespace

const LauncherTable qlinear_launchers_elm = make_table<32, 64, 2>();
const LauncherTable qlinear_launchers_legacy = make_table<16, 32, 8>();
const LauncherTable qlinear_launchers_default = make_table<16, 32, 2>();

}  // namespace quillon
