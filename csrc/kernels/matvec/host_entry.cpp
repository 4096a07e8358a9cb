#include "kernels/matvec/host_entry.h"

#include <c10/util/Exception.h>
#include <c10/util/SmallVector.h>

#include <algorithm>
#include <atomic>

#include "runtime/backing.h"
#include "runtime/build_options.h"
#include "runtime/device_facts.h"
#include "runtime/kernel_library.h"
#include "runtime/launch_kernel.h"

namespace quillon {
namespace {

// Weight bytes for which a work-item of the vector backing is worth that it arranges an activation row for itself.
constexpr std::uint64_t kBytesPerActivationRow = 512 << 10;

using runtime::Backing;
using runtime::kVectorLanes;

// Where the parts of a weight start, as the matrix-vector kernels find them.
region_offsets matvec_parts(int qtype, std::uint64_t state_size, std::uint64_t output_size) {
  const std::int64_t blocks = matvec_super_blocks(state_size, output_size);
  switch (qtype) {
    case qtype_q4_0:
    case qtype_q4_1:
    case qtype_nf4:
    case qtype_fp4:
    case qtype_q4_0_woq:
      return {{0, matvec_nibble_scale_offset(state_size, output_size), 0, 0}};
    case qtype_q8_0:
    case qtype_fp8_e4m3:
      return {{0, matvec_q8_0_scale_offset(state_size, output_size), 0, 0}};
    case qtype_fp8_e5m2:
      return matvec_regions_of(qtype_fp8_e5m2, state_size, output_size);
    case qtype_nf3:
      return nf3_region_offsets(state_size, output_size);
    case qtype_fp6:
      return fp6_region_offsets(state_size, output_size);
    case qtype_q4_k:
      return {{0, blocks * 128, blocks * 144, 0}};
    case qtype_q6_k:
      return {{0, blocks * 64, blocks * 192, blocks * 208}};
    case qtype_fp6_k:
      return {{0, blocks * 128, blocks * 192, blocks * 208}};
    default:
      return {{0, 0, 0, 0}};
  }
}

std::string instantiation(const MatvecKernel& kernel, ElementType type) {
  const kernel_row& row = kernel_table[kernel.row];
  std::string name = std::string(row.name) + "<" + facts_of(type).name;
  if (row.constants != template_arguments::none)
    name += "," + std::to_string(kernel.geometry.sub_group) + "," + std::to_string(kernel.geometry.work_group);
  if (row.constants == template_arguments::work_group_rows) name += "," + std::to_string(kernel.geometry.rows);
  return name + ">";
}

// The library's entry of an instantiation, looked up once.
runtime::KernelEntry& entry_of(const MatvecKernel& kernel, ElementType type, Backing backing, int sub_group) {
  constexpr int WORK_GROUPS = 2, ROWS = 2, SUB_GROUPS = 2;
  static std::atomic<runtime::KernelEntry*> known[kernel_table.size()][WORK_GROUPS][ROWS][SUB_GROUPS][kElementTypes][2];
  const kernel_row& row = kernel_table[kernel.row];
  auto& slot = known[kernel.row][kernel.geometry.work_group == 64][kernel.geometry.rows != row.rows][sub_group != 0]
                    [static_cast<int>(type)][static_cast<int>(backing)];
  runtime::KernelEntry* entry = slot.load(std::memory_order_acquire);
  if (entry == nullptr) {
    std::vector<std::string> options = runtime::backing_options(backing);
    if (sub_group != 0) options.push_back(runtime::sub_group_option(sub_group));
    entry = &runtime::kernel_entry(row.header, instantiation(kernel, type), options);
    slot.store(entry, std::memory_order_release);
  }
  return *entry;
}

// Bytes of local memory in which a work-item of the vector backing keeps its arranged activations, `batch` rows of them.
std::uint64_t arranged_bytes(const kernel_row& row, ElementType type, std::uint64_t batch, std::uint64_t state_size) {
  constexpr std::uint64_t ALIGNMENT = 64;
  const std::uint64_t blocks = state_size / elements_per_block(row.qtype);
  const std::uint64_t chunks = state_size / row.elements;
  const std::uint64_t whole = (chunks + kVectorLanes - 1) / kVectorLanes * kVectorLanes;
  switch (row.vectors) {
    case arranged::chunks:
      return batch * whole * row.elements * facts_of(type).lane_size + ALIGNMENT;
    case arranged::chunks_and_sums:
      return whole * (row.elements + 1) * facts_of(type).lane_size + ALIGNMENT;
    case arranged::q8_1_blocks:
      return (blocks + 1) / 2 * 640 + ALIGNMENT;
    case arranged::q2_k_words:
      return blocks * 832 + ALIGNMENT;
    default:
      return 0;
  }
}

// Into how many groups the activation rows are dealt, as few as local memory allows; 0: it holds not even one row.
std::uint64_t batch_groups(const kernel_row& row, ElementType type, std::uint64_t batch, std::uint64_t state_size,
                           const runtime::DeviceFacts& facts) {
  std::uint64_t most = row.range == lane_range::batches ? batch_of_vector_item : 1;
  while (most > 0 && arranged_bytes(row, type, most, state_size) > facts.local_memory) --most;
  return most == 0 ? 0 : (batch + most - 1) / most;
}

// Vectors need rows that start on blocks, and activations that local memory holds.
Backing choose_backing(const kernel_row& row, std::uint64_t state_size, std::uint64_t batches,
                       const runtime::DeviceFacts& facts) {
  if (row.vectors == arranged::none || state_size % elements_per_block(row.qtype) != 0) return Backing::items;
  if (state_size == 0 || batches == 0) return Backing::items;
  return runtime::backing_of(facts);
}

// A range and the elements of local memory that a work-group of it has.
struct Geometry {
  LaunchRange range;
  std::uint64_t local_elements;
};

// The output rows that a kernel computes.
std::uint64_t computed_rows(const MatvecKernel& kernel, std::uint64_t output_size) {
  const auto tile = static_cast<std::uint64_t>(kernel.geometry.rows);
  return leaves_short_tile(kernel_table[kernel.row]) ? output_size / tile * tile : output_size;
}

std::uint64_t weights_of(const kernel_row& row) {
  return row.family == kernel_family::mlp ? 2 : 1;
}

Geometry items_geometry(const MatvecKernel& kernel, std::uint64_t batch, std::uint64_t output_size) {
  const kernel_row& row = kernel_table[kernel.row];
  const std::size_t lanes = kernel.geometry.work_group;
  const std::size_t rows = kernel.geometry.rows;
  const std::size_t groups = (output_size + rows - 1) / rows;
  const std::size_t sums = weights_of(row) * rows * lanes;
  // The lanes of a row are the last dimension, because sub-groups follow it: with {32, 1} in its place those of the CPU
  // device would be one work-item each, and the sub-group sum of iq1_s wrong; with {32, 2} a GPU's would be half of
  // each of two rows, whose loads are half as wide.
  if (row.range == lane_range::slices) return {{{rows, groups * lanes}, {rows, lanes}}, sums};
  if (row.range == lane_range::batches)
    return {{{(batch + batch_tile - 1) / batch_tile, groups * lanes}, {1, lanes}}, batch_tile * sums};
  // Kernels that are not told the output size see in the elements behind their sums that the last tile is short: one if so
  // where a tile has one or two rows, and in the fused MLP one for each row that it lacks.
  const std::size_t lacking = groups * rows - output_size;
  if (row.family == kernel_family::mlp) return {{groups * lanes, lanes}, sums + lacking};
  const bool short_tile = row.vectors == arranged::row_count && lacking != 0;
  return {{groups * lanes, lanes}, sums + short_tile};
}

Geometry vectors_geometry(const kernel_row& row, std::uint64_t batches, std::uint64_t batch_of_item,
                          std::uint64_t state_size, std::uint64_t output_size, std::uint64_t local_size,
                          std::uint64_t arranged, const runtime::DeviceFacts& facts) {
  if (row.vectors == arranged::row_count) {
    const std::uint64_t items = (output_size + rows_of_vector_item - 1) / rows_of_vector_item;
    return {{items, 1}, output_size - (items - 1) * rows_of_vector_item};
  }
  // Enough work-items for all processors to share the work evenly to the end, and as few as that takes.
  const std::uint64_t bytes =
      weights_of(row) * (state_size * output_size / elements_per_block(row.qtype)) * bytes_per_block(row.qtype);
  const auto units = static_cast<std::uint64_t>(facts.compute_units);
  const std::uint64_t worth = bytes / (kBytesPerActivationRow * batch_of_item);
  const std::uint64_t items = std::min(std::max(units, worth / units * units), output_size);
  const std::uint64_t elements = (arranged + local_size - 1) / local_size;
  if (row.range == lane_range::slices) return {{{1, items}, {1, 1}}, elements};
  if (row.range == lane_range::batches) return {{{batches, items}, {1, 1}}, elements};
  return {{items, 1}, elements};
}

// What a kernel is called with. The second weight and act_type are those of the fused MLP.
struct Operands {
  const void* input;
  const std::uint8_t* weight;
  const std::uint8_t* second_weight;
  std::int32_t act_type;
  void* output;
  std::uint64_t batch;
  std::uint64_t state_size;
  std::uint64_t output_size;
};

// A part of a weight; `first` is the argument that stands for part 0.
const void* part_of(const std::uint8_t* weight, const region_offsets& parts, kernel_argument argument,
                    kernel_argument first) {
  return weight + parts.start[static_cast<int>(argument) - static_cast<int>(first)];
}

void launch(const MatvecKernel& kernel, ElementType type, const Operands& operands, c10::Device device) {
  const kernel_row& row = kernel_table[kernel.row];
  const std::uint64_t batch = operands.batch, state_size = operands.state_size, output_size = operands.output_size;
  const std::uint64_t rows = computed_rows(kernel, output_size);
  if (batch == 0 || rows == 0) return;
  const runtime::DeviceFacts& facts = runtime::device_facts(device.index());
  const std::uint64_t batches = batch_groups(row, type, batch, state_size, facts);
  const Backing backing = choose_backing(row, state_size, batches, facts);
  const region_offsets parts = matvec_parts(row.qtype, state_size, output_size);
  const std::size_t local_size = row.local == local_elements::of_float ? sizeof(float) : facts_of(type).size;
  const auto in_vectors = [&] {
    const std::uint64_t batch_of_item = (batch + batches - 1) / batches;
    const std::uint64_t bytes = arranged_bytes(row, type, batch_of_item, state_size);
    return vectors_geometry(row, batches, batch_of_item, state_size, rows, local_size, bytes, facts);
  };
  const Geometry geometry = backing == Backing::vectors ? in_vectors() : items_geometry(kernel, batch, rows);

  c10::SmallVector<KernelArgument, 13> arguments;
  for (const kernel_argument argument : row.arguments) {
    switch (argument) {
      case kernel_argument::end:
        break;
      case kernel_argument::state_size:
        arguments.emplace_back(state_size);
        break;
      case kernel_argument::batch:
        arguments.emplace_back(batch);
        break;
      case kernel_argument::output_size:
        arguments.emplace_back(output_size);
        break;
      case kernel_argument::block_count:
        arguments.emplace_back(static_cast<std::int32_t>(state_size / elements_per_block(row.qtype)));
        break;
      case kernel_argument::input:
        arguments.emplace_back(operands.input);
        break;
      case kernel_argument::output:
        arguments.emplace_back(static_cast<const void*>(operands.output));
        break;
      case kernel_argument::part0:
      case kernel_argument::part1:
      case kernel_argument::part2:
      case kernel_argument::part3:
        arguments.emplace_back(part_of(operands.weight, parts, argument, kernel_argument::part0));
        break;
      case kernel_argument::second0:
      case kernel_argument::second1:
      case kernel_argument::second2:
        arguments.emplace_back(part_of(operands.second_weight, parts, argument, kernel_argument::second0));
        break;
      case kernel_argument::act_type:
        arguments.emplace_back(operands.act_type);
        break;
      case kernel_argument::offset1:
      case kernel_argument::offset2:
      case kernel_argument::offset3:
        arguments.emplace_back(static_cast<std::uint64_t>(
            parts.start[1 + static_cast<int>(argument) - static_cast<int>(kernel_argument::offset1)]));
        break;
      case kernel_argument::short_offset1:
        arguments.emplace_back(static_cast<std::int32_t>(parts.start[1]));
        break;
      case kernel_argument::vectors_rows:
        if (backing == Backing::vectors) arguments.emplace_back(rows);
        break;
      case kernel_argument::vectors_local:
        if (backing == Backing::items) break;
        [[fallthrough]];
      case kernel_argument::local:
        arguments.push_back(KernelArgument::local_array(geometry.local_elements, local_size));
        break;
    }
  }
  const int sub_group =
      chooses_sub_group(row) && backing == Backing::items ? sub_group_choices[facts.has_sub_groups_of_8 ? 0 : 1] : 0;
  launch_kernel(entry_of(kernel, type, backing, sub_group), device, geometry.range, arguments,
                row.waits ? Wait::yes : Wait::no);
}

}  // namespace

void launch_matvec(const MatvecKernel& kernel, ElementType type, const void* input, const std::uint8_t* weight,
                   void* output, std::uint64_t batch, std::uint64_t state_size, std::uint64_t output_size,
                   c10::Device device) {
  const kernel_row& row = kernel_table[kernel.row];
  if (row.row_unit != 0 && state_size % row.row_unit != 0)
    c10::detail::torchCheckFail(row.name, __FILE__, __LINE__,
                                c10::str("%d must be a multiple of %d", state_size, row.row_unit));
  launch(kernel, type, {input, weight, nullptr, 0, output, batch, state_size, output_size}, device);
}

void launch_mlp(const MatvecKernel& kernel, ElementType type, const void* input, const std::uint8_t* weight1,
                const std::uint8_t* weight2, std::int32_t act_type, void* output, std::uint64_t state_size,
                std::uint64_t output_size, c10::Device device) {
  launch(kernel, type, {input, weight1, weight2, act_type, output, 1, state_size, output_size}, device);
}

}  // namespace quillon
