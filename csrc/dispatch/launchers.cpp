#include "dispatch/launchers.h"

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include <utility>

#include "dispatch/environment.h"
#include "dispatch/format_check.h"
#include "dispatch/scalar_type_dispatch.h"
#include "kernels/matvec/host_entry.h"
#include "kernels/matvec/quantize_q8_1_host.h"

namespace quillon {
namespace {

// The output of a road: batch by output_size, element type of `input`, on the device of `weight`.
at::Tensor make_output(const at::Tensor& input, const at::Tensor& weight, std::uint64_t batch,
                       std::uint64_t output_size) {
  return at::empty({static_cast<std::int64_t>(batch), static_cast<std::int64_t>(output_size)},
                   weight.options().dtype(input.scalar_type()).memory_format(at::MemoryFormat::Contiguous));
}

// Kernels load up to sixteen bytes at once, which a device may demand to stand at a multiple of sixteen. What PyTorch
// allocates does; a view that starts elsewhere is copied.
at::Tensor at_aligned_address(at::Tensor tensor) {
  const auto address = reinterpret_cast<std::uintptr_t>(tensor.const_data_ptr());
  return address % 16 == 0 ? tensor : tensor.clone();
}

[[noreturn]] void fail_batch(int qtype, std::uint64_t batch) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, "forward_new: ", describe_format(qtype), " has no road for a batch of ", batch,
                              " in this release; give one row at a time");
}

// Which environment variables a launcher reads. They are parsed before all else, so that a bad value fails
// every call, though only the tiled road uses them.
enum class Environment { none, tiles, tiles_and_low_mem };

template <Environment VARIABLES>
void read_environment() {
  if constexpr (VARIABLES != Environment::none) read_tile_threshold();
  if constexpr (VARIABLES == Environment::tiles_and_low_mem) read_low_mem();
  if constexpr (VARIABLES != Environment::none) read_tile_size();
}

// Which variables the launcher of a format reads.
constexpr Environment environment_of(int qtype) {
  switch (qtype) {
    case qtype_q4_0:
    case qtype_q4_0_woq:
    case qtype_fp6:
      return Environment::tiles_and_low_mem;
    case qtype_q8_0:
    case qtype_fp8_e5m2:
      return Environment::tiles;
    default:
      return Environment::none;
  }
}

// The launcher of one kernel of kernel_table in one geometry. A geometry is that of its table where the kernel has such
// template arguments; launchers that tables share are one function.
template <int ROW, int SUB_GROUP, int WORK_GROUP, int ROWS>
at::Tensor launch(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                  std::uint64_t output_size, std::int64_t /*input_size*/) {
  static constexpr kernel_row row = kernel_table[ROW];
  static constexpr MatvecKernel kernel{ROW, {SUB_GROUP, WORK_GROUP, ROWS}};
  read_environment<environment_of(row.qtype)>();
  if (batch != 1) fail_batch(row.qtype, batch);
  input = at_aligned_address(std::move(input));
  weight = at_aligned_address(std::move(weight));
  at::Tensor output = make_output(input, weight, 1, output_size);
  at::Tensor blocks;
  if constexpr (takes_q8_1(row)) blocks = quantize_input_q8_1(input, 1, state_size);
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    using T = decltype(element);
    const void* x = input.data_ptr<T>();
    if constexpr (takes_q8_1(row)) x = blocks.data_ptr<std::uint8_t>();
    launch_matvec(kernel, element_type_of<T>(), x, weight.data_ptr<std::uint8_t>(), output.data_ptr<T>(), batch,
                  state_size, output_size, weight.device());
  });
  return output;
}

template <int TABLE, std::size_t... ROW>
constexpr LauncherTable make_table(std::index_sequence<ROW...>) {
  LauncherTable table{};
  const auto put = [&](auto row) {
    constexpr kernel_row entry = kernel_table[row];
    constexpr kernel_geometry geometry = geometry_of(entry, launcher_geometries[TABLE]);
    if constexpr (entry.range != lane_range::elements)
      table[entry.qtype] = &launch<row, geometry.sub_group, geometry.work_group, geometry.rows>;
  };
  (put(std::integral_constant<std::size_t, ROW>{}), ...);
  return table;
}
template <int TABLE>
constexpr LauncherTable make_table() {
  return make_table<TABLE>(std::make_index_sequence<kernel_table.size()>{});
}

}  // namespace

const LauncherTable qlinear_launchers_elm = make_table<table_elm>();
const LauncherTable qlinear_launchers_legacy = make_table<table_legacy>();
const LauncherTable qlinear_launchers_default = make_table<table_default>();

}  // namespace quillon
