// How a layer cuts its activation rows into calls of forward_new: what the roads serve, and serve right, and what moves
// little memory. Pure functions, free of torch, so that they can be tested exhaustively by themselves.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

#include "dispatch/path.h"
#include "dispatch/road.h"
#include "kernels/kernel_table.h"

namespace quillon {

// Of activations, as far as roads tell them apart.
enum class RoadType { float32, float16, bfloat16, float64 };

constexpr bool serves(XpuDeviceClass device_class, int qtype, RoadType type, std::uint64_t batch,
                      std::uint64_t state_size, std::uint64_t output_size) {
  if (choose_path(device_class, qtype, batch, output_size) == Path::matrix_engine) return type != RoadType::float64;
  const RoadFacts facts{device_class, batch, output_size, 0, std::numeric_limits<std::int64_t>::max(), false, 0};
  switch (choose_road(qtype, facts)) {
    case Road::matvec:
      return true;
    case Road::by_batch:
      return by_batch_road(qtype)->kernel_qtype == qtype;
    case Road::dense: {
      if ((type == RoadType::float32 || type == RoadType::float16) && has_fast_dense(qtype, state_size, output_size))
        return true;
      const int whole =
          expansion_index(expansion::whole, qtype, device_class == XpuDeviceClass::elm ? table_elm : table_default);
      if (whole < 0) return false;
      const int unit = expansion_table[whole].row_unit;
      return unit == 0 || state_size % unit == 0;
    }
    case Road::tiled:
    case Road::onednn:
    case Road::none:
      break;
  }
  return false;
}

// The most rows for which one call and every smaller one is served; 0: any number is.
constexpr std::uint64_t rows_at_once(XpuDeviceClass device_class, int qtype, RoadType type, std::uint64_t state_size,
                                     std::uint64_t output_size) {
  constexpr std::uint64_t kLastChange = 65;  // from this batch on all take one road
  for (std::uint64_t batch = 1; batch <= kLastChange; ++batch)
    if (!serves(device_class, qtype, type, batch, state_size, output_size)) return batch - 1;
  return 0;
}

// Up to `rows` rows of a layer go in one call where they are at most `of_call`, else in calls of `of_several` and one of
// what is left.
struct FewRows {
  std::uint64_t rows;
  std::uint64_t of_call;
  std::uint64_t of_several;
};

// A few rows of float32 meet the packed weight, a handful at a time where the format has such a road, else one by one, as
// long as this reads less than what an expansion reads and writes and its product reads again; of a small weight, no more
// than the launches are worth. Several calls for a large weight are of whole tiles. The 16-bit types have less to gain, and
// lose where a processor has no arithmetic of theirs. A kernel that rounds the activations to eight bits would be a loss of
// another kind.
constexpr FewRows few_rows(XpuDeviceClass device_class, int qtype, RoadType type, std::uint64_t state_size,
                           std::uint64_t output_size) {
  const int matvec = kernel_index(kernel_family::matvec, qtype);
  if (type != RoadType::float32 || matvec < 0 || takes_q8_1(kernel_table[matvec])) return {0, 0, 0};
  const std::optional<ByBatchRoad> by_batch = by_batch_road(qtype);
  const bool by_handful = by_batch.has_value() && by_batch->kernel_qtype == qtype &&
                          (by_batch->on_elm || device_class != XpuDeviceClass::elm);
  const bool is_large = state_size * output_size >= std::uint64_t{1} << 20;
  constexpr std::uint64_t kOfSmallWeight = 16, kRowsOfReading = 2;
  const auto packed = static_cast<std::uint64_t>(bytes_per_block(qtype));
  const std::uint64_t dense = sizeof(float) * static_cast<std::uint64_t>(elements_per_block(qtype));
  const std::uint64_t readings = (packed + 2 * dense) / packed;
  const std::uint64_t rows =
      by_handful ? (is_large ? kRowsOfReading * readings : kOfSmallWeight) : (is_large ? readings : 0);
  std::uint64_t without_engine = 0;
  while (without_engine < rows &&
         choose_path(device_class, qtype, without_engine + 1, output_size) != Path::matrix_engine)
    ++without_engine;
  if (!by_handful) return {without_engine, 1, 1};
  const auto of_call = std::min<std::uint64_t>(by_batch->most, batch_of_vector_item);
  return {without_engine, of_call, is_large ? of_call / batch_of_vector_tile * batch_of_vector_tile : of_call};
}

}  // namespace quillon
