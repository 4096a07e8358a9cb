#include "kernels/matrix_engine/host_entry.h"

#include <c10/util/SmallVector.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "formats/registry.h"
#include "runtime/backing.h"
#include "runtime/build_options.h"
#include "runtime/device_facts.h"
#include "runtime/kernel_library.h"
#include "runtime/launch_kernel.h"

namespace quillon {
namespace {

using runtime::Backing;

// Columns of a strip of the form of vectors, and of what a work-item has at the least (tile_on_vectors.h).
constexpr std::uint64_t kStripColumns = 64;
constexpr std::uint64_t kLeastColumns = 16;
constexpr std::uint64_t kItemsOfUnit = 16;

std::string instantiation(ElementType type, int m_tail, engine_index engine) {
  const auto types = std::find_if(engine_type_table.begin(), engine_type_table.end(), [&](const engine_types& row) {
    return std::strcmp(row.input, facts_of(type).name) == 0;
  });
  std::string name = std::string(engine_kernel.name) + "<";
  for (const char* one : {types->input, types->operand, types->sum, types->partial}) name += std::string(one) + ",";
  for (const int constant : {m_tail, engine_geometries[engine].columns}) name += std::to_string(constant) + ",";
  return name + std::to_string(engine_kernel.k_split) + ">";
}

// The library's entry of an instantiation, looked up once. Explicit-SIMD code runs on GPUs alone, so that the form
// follows from the device, and nothing in the environment changes it.
runtime::KernelEntry& entry_of(ElementType type, int m_tail, engine_index engine, Backing backing) {
  static std::atomic<runtime::KernelEntry*> known[kElementTypes][engine_kernel.row_tile][engine_geometries.size()][2];
  auto& slot = known[static_cast<int>(type)][m_tail - 1][engine][static_cast<int>(backing)];
  runtime::KernelEntry* entry = slot.load(std::memory_order_acquire);
  if (entry == nullptr) {
    std::vector<std::string> options = runtime::backing_options(backing);
    if (backing == Backing::vectors && type == ElementType::bfloat16 && runtime::has_bfloat16_pairs())
      options.emplace_back(runtime::kBfloat16Pairs);
    entry = &runtime::kernel_entry(engine_kernel.header, instantiation(type, m_tail, engine), options);
    slot.store(entry, std::memory_order_release);
  }
  return *entry;
}

}  // namespace

void launch_matrix_engine(ElementType type, int qtype, engine_index engine, const void* input,
                          const std::uint8_t* weight, void* output, std::uint64_t batch, std::uint64_t state_size,
                          std::uint64_t output_size, c10::Device device) {
  const runtime::DeviceFacts& facts = runtime::device_facts(device.index());
  const Backing backing = facts.is_cpu ? Backing::vectors : Backing::items;
  const std::uint64_t blocks = state_size / elements_per_block(qtype);
  const std::uint64_t row_tiles = (batch + engine_kernel.row_tile - 1) / engine_kernel.row_tile;
  const int m_tail = batch % engine_kernel.row_tile == 0 ? engine_kernel.row_tile : batch % engine_kernel.row_tile;
  const auto elements = static_cast<std::int64_t>(output_size * state_size);
  const std::uint8_t* scales = weight + dense_region_offsets(qtype, elements).start[1];

  c10::SmallVector<KernelArgument, 9> arguments = {
      input,
      static_cast<const void*>(weight),
      static_cast<const void*>(scales),
      static_cast<const void*>(output),
      blocks,
      (blocks + engine_kernel.k_split - 1) / engine_kernel.k_split,
      output_size,
      static_cast<std::int32_t>(qtype),
  };
  const std::size_t threads = engine_kernel.k_split;
  LaunchRange range{{output_size / engine_geometries[engine].columns * threads, row_tiles}, {threads, 1}};
  if (backing == Backing::vectors) {
    // Enough work-items for all processors to share the work evenly to the end, of whole strips where there are as many.
    const auto units = static_cast<std::uint64_t>(facts.compute_units);
    const std::uint64_t items = std::max(units, std::min(output_size / kStripColumns, kItemsOfUnit * units));
    range = {{std::min(items, output_size / kLeastColumns), 1}, {1, 1}};
    arguments.emplace_back(row_tiles);
  }
  launch_kernel(entry_of(type, m_tail, engine, backing), device, range, arguments);
}

}  // namespace quillon
