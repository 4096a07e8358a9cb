// The road of a launcher: by which sequence of kernels it forms the product. A pure function of what it looks at, free
// of torch, so that it can be tested exhaustively by itself.
//
//   matvec    one activation row: the packed weight is read directly
//   by_batch  the same for a handful of activation rows
//   tiled     TILE_SIZE rows of the weight at a time are expanded and multiplied: a small peak of memory
//   dense     the whole weight is expanded and multiplied
//   onednn    oneDNN multiplies the packed weight
//   none      a case that is not served
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "dispatch/device_class.h"
#include "formats/registry.h"

namespace quillon {

enum class Road : int { matvec, by_batch, tiled, dense, onednn, none };

// The by-batch road of a format, for batches up to `most`.
struct ByBatchRoad {
  int qtype;
  int kernel_qtype;  // whose by-batch kernel runs; that of q4_0 reads the nibbles of q4_0_woq in q4_0's order
  std::uint64_t most;
  bool on_elm;
};
inline constexpr std::array<ByBatchRoad, 3> kByBatchRoads = {{
    {qtype_q4_0, qtype_q4_0, 7, false},
    {qtype_q4_0_woq, qtype_q4_0, 7, false},
    {qtype_nf4, qtype_nf4, 14, true},
}};
constexpr std::optional<ByBatchRoad> by_batch_road(int qtype) {
  for (const ByBatchRoad& road : kByBatchRoads)
    if (road.qtype == qtype) return road;
  return std::nullopt;
}

// Which environment variables the launcher of a format reads. They are parsed before all else, so that a bad value fails
// every call, though only the tiled road uses them.
enum class Environment { none, tiles, tiles_and_low_mem };
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

// What a launcher looks at. From input_size on it matters to formats with a tiled road alone, and tile_size only on it.
struct RoadFacts {
  XpuDeviceClass device_class;
  std::uint64_t batch;
  std::uint64_t output_size;
  std::int64_t input_size;
  std::int64_t tile_threshold;
  bool low_mem;
  std::uint64_t tile_size;
};

// Whether the weight is expanded in tiles.
constexpr bool is_tiled(int qtype, const RoadFacts& facts) {
  constexpr std::int64_t kLeastInputSize = 129;
  const auto rows = static_cast<std::int64_t>(facts.output_size);
  switch (environment_of(qtype)) {
    case Environment::tiles_and_low_mem:
      return (facts.device_class == XpuDeviceClass::ash || facts.low_mem) && facts.tile_threshold < rows &&
             facts.input_size >= kLeastInputSize;
    case Environment::tiles:
      return facts.device_class == XpuDeviceClass::oak && facts.tile_threshold <= rows;
    default:
      return false;
  }
}

constexpr Road choose_road(int qtype, const RoadFacts& facts) {
  if (facts.batch == 1) return Road::matvec;
  const std::optional<ByBatchRoad> by_batch = by_batch_road(qtype);
  if (by_batch.has_value() && facts.batch <= by_batch->most &&
      (by_batch->on_elm || facts.device_class != XpuDeviceClass::elm))
    return Road::by_batch;
  const bool tiled = is_tiled(qtype, facts);
  if (qtype == qtype_q4_0_woq) return tiled ? Road::none : Road::onednn;
  return tiled ? Road::tiled : Road::dense;
}

// Where the expansion for large batches serves a dense road: for float32 and float16, if the weight has a number of blocks
// that is a multiple of `blocks`, or rows of a multiple of `columns`. Elsewhere the whole-weight kernel of the format does,
// if it has one.
struct FastDense {
  int qtype;
  std::uint64_t blocks;
  std::uint64_t columns;
};
inline constexpr std::array<FastDense, 10> kFastDense = {{
    {qtype_q4_0, 8, 1},
    {qtype_q4_1, 8, 1},
    {qtype_q8_0, 4, 1},
    {qtype_fp8_e4m3, 1, 1},
    {qtype_fp4, 8, 1},
    {qtype_fp8_e5m2, 4, 1},
    {qtype_q6_k, 1, 256},
    {qtype_q4_k, 1, 256},
    {qtype_fp6, 8, 1},
    {qtype_fp6_k, 8, 1},
}};

// Blocks of 64 elements, of super-blocks too, in 32 bits of the number of elements.
constexpr bool has_fast_dense(int qtype, std::uint64_t state_size, std::uint64_t output_size) {
  constexpr std::uint32_t kBlock = 64;
  const std::uint64_t blocks = static_cast<std::uint32_t>(state_size * output_size) / kBlock;
  for (const FastDense& fast : kFastDense)
    if (fast.qtype == qtype) return blocks % fast.blocks == 0 && state_size % fast.columns == 0;
  return false;
}

}  // namespace quillon
