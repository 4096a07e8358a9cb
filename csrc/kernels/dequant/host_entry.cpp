#include "kernels/dequant/host_entry.h"

#include <c10/util/Exception.h>
#include <c10/util/SmallVector.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "runtime/backing.h"
#include "runtime/build_options.h"
#include "runtime/device_facts.h"
#include "runtime/kernel_library.h"
#include "runtime/launch_kernel.h"

namespace quillon {
namespace {

using runtime::Backing;

constexpr std::uint64_t kSuperBlock = 256;
// Elements that a work-item of the vector backing has in the flat form (flat_form.h).
constexpr std::uint64_t kFlatElementsOfItem = 16 * 64;

std::string instantiation(const ExpansionKernel& kernel, ElementType type) {
  const expansion_row& row = expansion_table[kernel.row];
  std::string name = std::string(row.name) + "<" + facts_of(type).name;
  if (kernel.constant != 0) name += "," + std::to_string(kernel.constant);
  return name + ">";
}

// The library's entry of an instantiation, looked up once.
runtime::KernelEntry& entry_of(const ExpansionKernel& kernel, ElementType type, Backing backing) {
  constexpr int CONSTANTS = 2;  // that a kernel is instantiated with
  static std::atomic<runtime::KernelEntry*> known[expansion_table.size()][CONSTANTS][kElementTypes][2];
  const bool second = kernel.constant == 32 || kernel.constant == blocks_of_last_items;
  auto& slot = known[kernel.row][second][static_cast<int>(type)][static_cast<int>(backing)];
  runtime::KernelEntry* entry = slot.load(std::memory_order_acquire);
  if (entry == nullptr) {
    entry = &runtime::kernel_entry(expansion_table[kernel.row].header, instantiation(kernel, type),
                                   runtime::backing_options(backing));
    slot.store(entry, std::memory_order_release);
  }
  return *entry;
}

// What is expanded, and to where.
struct Expansion {
  const std::uint8_t* weight;
  const std::int64_t* index;
  void* output;
  std::uint64_t state_size;
  std::uint64_t output_size;
  std::uint64_t weight_blocks;
  region_offsets parts;
};

void check_row_length(const expansion_row& row, std::uint64_t state_size) {
  if (row.row_unit != 0 && state_size % row.row_unit != 0)
    c10::detail::torchCheckFail(row.name, __FILE__, __LINE__, c10::str("%d must be a multiple of 64", state_size));
}

void launch(const ExpansionKernel& kernel, ElementType type, Backing backing, const Expansion& expansion,
            const LaunchRange& range, c10::Device device) {
  const expansion_row& row = expansion_table[kernel.row];
  const row_walk walk = walk_of(row, expansion.state_size);
  c10::SmallVector<KernelArgument, 8> arguments;
  for (const expansion_argument argument : row.arguments) {
    switch (argument) {
      case expansion_argument::end:
        break;
      case expansion_argument::state_size:
        arguments.emplace_back(expansion.state_size);
        break;
      case expansion_argument::elements:
        arguments.emplace_back(element_count_32(expansion.state_size, expansion.output_size));
        break;
      case expansion_argument::rounds:
        arguments.emplace_back(walk.rounds);
        break;
      case expansion_argument::block_step:
        arguments.emplace_back(walk.block_step);
        break;
      case expansion_argument::element_step:
        arguments.emplace_back(walk.element_step);
        break;
      case expansion_argument::blocks_of_row:
        arguments.emplace_back(static_cast<std::int32_t>(expansion.state_size / kSuperBlock));
        break;
      case expansion_argument::weight_blocks:
        arguments.emplace_back(static_cast<std::int32_t>(expansion.weight_blocks));
        break;
      case expansion_argument::short_offset1:
        arguments.emplace_back(static_cast<std::int32_t>(expansion.parts.start[1]));
        break;
      case expansion_argument::index:
        arguments.emplace_back(static_cast<const void*>(expansion.index));
        break;
      case expansion_argument::output:
        arguments.emplace_back(static_cast<const void*>(expansion.output));
        break;
      case expansion_argument::part0:
      case expansion_argument::part1:
      case expansion_argument::part2:
      case expansion_argument::part3: {
        const int part = static_cast<int>(argument) - static_cast<int>(expansion_argument::part0);
        arguments.emplace_back(static_cast<const void*>(expansion.weight + expansion.parts.start[part]));
        break;
      }
    }
  }
  launch_kernel(entry_of(kernel, type, backing), device, range, arguments, row.waits ? Wait::yes : Wait::no);
}

// The range of `groups` work-groups; a work-item of the vector backing has what a work-group has otherwise.
LaunchRange range_of(std::size_t groups, std::size_t work_group, Backing backing) {
  return backing == Backing::vectors ? LaunchRange{groups, 1} : LaunchRange{groups * work_group, work_group};
}

}  // namespace

std::uint64_t expand_whole(const ExpansionKernel& kernel, ElementType type, const std::uint8_t* weight, void* output,
                           std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  const expansion_row& row = expansion_table[kernel.row];
  check_row_length(row, state_size);
  const Backing backing = runtime::backing_on(device.index());
  const Expansion expansion{
      weight, nullptr, output, state_size, output_size, 0, regions_of(row.qtype, state_size, output_size)};
  const auto elements = static_cast<std::uint64_t>(element_count_32(state_size, output_size));
  std::size_t groups = output_size;
  std::size_t work_group = 0;
  switch (row.form) {
    case expansion_form::row:
      work_group = walk_of(row, state_size).work_group;
      break;
    case expansion_form::flat: {
      work_group = row.most_work_group;
      const std::uint64_t of_group = backing == Backing::vectors ? kFlatElementsOfItem : work_group * row.span;
      groups = (elements + of_group - 1) / of_group;
      break;
    }
    case expansion_form::block:
      work_group = row.most_work_group;
      groups = elements / kSuperBlock;
      break;
    case expansion_form::dense:
      TORCH_INTERNAL_ASSERT(false, row.name, " is launched by expand_dense");
  }
  launch(kernel, type, backing, expansion, range_of(groups, work_group, backing), device);
  return row.form == expansion_form::block ? kSuperBlock * groups : elements;
}

std::uint64_t expand_dense(int qtype, ElementType type, const std::uint8_t* weight, void* output,
                           std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  if (type != ElementType::float32 && type != ElementType::float16)
    throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  ExpansionKernel kernel = expansion_kernel(expansion::dense, qtype, table_default);
  const auto elements = static_cast<std::int64_t>(state_size * output_size);
  Expansion expansion{weight, nullptr, output, state_size, output_size, 0, dense_region_offsets(qtype, elements)};
  const std::int64_t blocks = elements / elements_per_block(qtype);
  const std::int64_t items = blocks / kernel.constant;
  // Explicit vectors are all that these kernels have on either kind of device (kernels/simd.h).
  const Backing backing = runtime::device_facts(device.index()).is_cpu ? Backing::vectors : Backing::items;
  launch(kernel, type, backing, expansion, LaunchRange(items, 1), device);
  // The last blocks, too few for a work-item.
  const std::int64_t done = items * kernel.constant;
  kernel.constant = blocks_of_last_items;
  for (int part = 0; part < 4; ++part) expansion.parts.start[part] += done * format_table[qtype].fields[part].bytes;
  expansion.output = static_cast<std::uint8_t*>(output) + done * elements_per_block(qtype) * facts_of(type).size;
  launch(kernel, type, backing, expansion, LaunchRange(blocks - done, 1), device);
  return blocks * elements_per_block(qtype);
}

void expand_tile(const ExpansionKernel& kernel, ElementType type, const std::uint8_t* weight, void* output,
                 std::uint64_t state_size, std::uint64_t output_size, std::uint64_t tile_rows, std::uint64_t row_start,
                 c10::Device device) {
  const expansion_row& row = expansion_table[kernel.row];
  check_row_length(row, state_size);
  const Backing backing = runtime::backing_on(device.index());
  Expansion expansion{weight,
                      nullptr,
                      output,
                      state_size,
                      output_size,
                      0,
                      row.qtype == qtype_fp6 ? tile_fp6_region_offsets(state_size, output_size)
                                             : regions_of(row.qtype, state_size, output_size)};
  const std::int64_t first_block = element_count_32(state_size, row_start) / elements_per_block(row.qtype);
  for (int part = row.first_moving_part; part < 4; ++part)
    expansion.parts.start[part] += first_block * format_table[row.qtype].fields[part].bytes;
  launch(kernel, type, backing, expansion, range_of(tile_rows, walk_of(row, state_size).work_group, backing), device);
}

void expand_rows(const ExpansionKernel& kernel, const std::uint8_t* weight, std::uint64_t weight_blocks,
                 const std::int64_t* index, float* output, std::uint64_t rows0, std::uint64_t rows1,
                 std::uint64_t state_size, std::uint64_t output_size, c10::Device device) {
  const expansion_row& row = expansion_table[kernel.row];
  check_row_length(row, state_size);
  const Backing backing = runtime::backing_on(device.index());
  const Expansion expansion{
      weight, index, output, state_size, output_size, weight_blocks, regions_of(row.qtype, state_size, output_size)};
  const auto groups = static_cast<std::uint32_t>(rows0 * rows1 * (state_size / kSuperBlock));
  launch(kernel, ElementType::float32, backing, expansion, range_of(groups, row.most_work_group, backing), device);
}

}  // namespace quillon
