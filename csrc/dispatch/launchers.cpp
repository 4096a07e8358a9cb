#include "dispatch/launchers.h"

#include <c10/util/Exception.h>

#include <utility>

#include "dispatch/aligned_tensor.h"
#include "dispatch/device_class_query.h"
#include "dispatch/environment.h"
#include "dispatch/expanded_weight.h"
#include "dispatch/format_check.h"
#include "dispatch/onednn_s4_gemv.h"
#include "dispatch/read_extent.h"
#include "dispatch/road.h"
#include "dispatch/scalar_type_dispatch.h"
#include "dispatch/tensor_memory.h"
#include "kernels/matvec/host_entry.h"
#include "kernels/matvec/quantize_q8_1_host.h"

namespace quillon {
namespace {

// What the launcher of a format looks at. The environment is read before all else.
template <int QTYPE>
RoadFacts road_facts(c10::Device device, std::uint64_t batch, std::uint64_t output_size, std::int64_t input_size) {
  constexpr Environment VARIABLES = environment_of(QTYPE);
  RoadFacts facts{XpuDeviceClass::unknown, batch, output_size, input_size, 0, false, 0};
  if constexpr (VARIABLES != Environment::none) facts.tile_threshold = read_tile_threshold();
  if constexpr (VARIABLES == Environment::tiles_and_low_mem) facts.low_mem = read_low_mem();
  if constexpr (VARIABLES != Environment::none) facts.tile_size = read_tile_size();
  if (batch != 1) facts.device_class = get_device_class(device);
  return facts;
}

// The kernel of a family for a format in the geometry of a launcher table.
template <kernel_family FAMILY, int QTYPE, int SUB_GROUP, int WORK_GROUP>
constexpr MatvecKernel kernel_of() {
  constexpr int ROW = kernel_index(FAMILY, QTYPE);
  return {ROW, {SUB_GROUP, WORK_GROUP, kernel_table[ROW].rows}};
}

// How far a kernel reads. Rows that end inside a block, which the kernels admit, make some of them read on: in a larger
// tensor of which the argument is a part they meet its other elements, behind the end of it nothing may be read.
ReadExtent check_reads(int qtype, const at::Tensor& input, const at::Tensor& weight, const MatvecKernel& kernel,
                       std::uint64_t batch, std::uint64_t state_size, std::uint64_t output_size) {
  if (batch == 0) return {0, 0};
  ReadExtent extent = read_extent(kernel_table[kernel.row].qtype, state_size, output_size);
  extent.activations += (batch - 1) * state_size;
  if (state_size % elements_per_block(qtype) == 0) return extent;
  const std::uint64_t activations = bytes_behind(input) / input.element_size();
  TORCH_CHECK(extent.activations <= activations, "forward_new: rows of ", state_size,
              " elements end inside a block of ", describe_format(qtype), ", whose kernel then reads ",
              extent.activations, " activations, and input has ", activations);
  const std::uint64_t blocks = bytes_behind(weight) / bytes_per_block(qtype);
  TORCH_CHECK(extent.blocks <= blocks, "forward_new: rows of ", state_size, " elements end inside a block of ",
              describe_format(qtype), ", whose kernel then reads ", extent.blocks, " blocks, and weight has ", blocks);
  return extent;
}

// The packed weight meets the activations as they are. The format is that of the weight, whatever the kernel's own is.
at::Tensor multiply_packed(int qtype, const MatvecKernel& kernel, at::Tensor input, at::Tensor weight,
                           std::uint64_t batch, std::uint64_t state_size, std::uint64_t output_size) {
  const kernel_row& row = kernel_table[kernel.row];
  const ReadExtent extent = check_reads(qtype, input, weight, kernel, batch, state_size, output_size);
  input = at_aligned_address(std::move(input), extent.activations);
  weight = at_aligned_address(std::move(weight), extent.blocks * bytes_per_block(qtype));
  at::Tensor output = make_dense(weight, input.scalar_type(), batch, output_size);
  at::Tensor blocks;
  if (takes_q8_1(row)) blocks = quantize_input_q8_1(input, 1, state_size);
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    using T = decltype(element);
    const void* x = input.data_ptr<T>();
    if (takes_q8_1(row)) x = blocks.data_ptr<std::uint8_t>();
    launch_matvec(kernel, element_type_of<T>(), x, weight.data_ptr<std::uint8_t>(), output.data_ptr<T>(), batch,
                  state_size, output_size, weight.device());
  });
  return output;
}

// The launcher of one kernel of kernel_table in one geometry. A geometry is that of its table where the kernel has such
// template arguments; launchers that tables share are one function.
template <int ROW, int SUB_GROUP, int WORK_GROUP, int ROWS>
at::Tensor launch(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                  std::uint64_t output_size, std::int64_t input_size) {
  constexpr int QTYPE = kernel_table[ROW].qtype;
  const RoadFacts facts = road_facts<QTYPE>(input.device(), batch, output_size, input_size);
  const Road road = choose_road(QTYPE, facts);
  if (road == Road::matvec) {
    static constexpr MatvecKernel kernel{ROW, {SUB_GROUP, WORK_GROUP, ROWS}};
    return multiply_packed(QTYPE, kernel, std::move(input), std::move(weight), batch, state_size, output_size);
  }
  if constexpr (by_batch_road(QTYPE).has_value()) {
    static constexpr MatvecKernel kernel =
        kernel_of<kernel_family::by_batch, by_batch_road(QTYPE)->kernel_qtype, SUB_GROUP, WORK_GROUP>();
    if (road == Road::by_batch)
      return multiply_packed(QTYPE, kernel, std::move(input), std::move(weight), batch, state_size, output_size);
  }
  if constexpr (QTYPE == qtype_q4_0_woq) {
    if (road == Road::onednn) return linear_xpu_forward_onednn_s4_gemv(input, weight, facts.device_class);
    TORCH_CHECK_NOT_IMPLEMENTED(false, "forward_new: ", describe_format(QTYPE), " is not served with a batch of ",
                                batch, " where weights of more than ", facts.tile_threshold,
                                " rows are expanded in tiles, got ", output_size);
  }
  constexpr launcher_table_index TABLE =
      SUB_GROUP == launcher_geometries[table_elm].sub_group ? table_elm : table_default;
  if (road == Road::tiled)
    return multiply_in_tiles(QTYPE, TABLE, input, at_aligned_address(std::move(weight)), facts.tile_size, batch,
                             state_size, output_size);
  return multiply_expanded(QTYPE, TABLE, input, at_aligned_address(std::move(weight)), state_size, output_size);
}

template <int TABLE, std::size_t... ROW>
constexpr LauncherTable make_table(std::index_sequence<ROW...>) {
  LauncherTable table{};
  const auto put = [&](auto row) {
    constexpr kernel_row entry = kernel_table[row];
    constexpr kernel_geometry geometry = geometry_of(entry, launcher_geometries[TABLE]);
    if constexpr (entry.family == kernel_family::matvec)
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
