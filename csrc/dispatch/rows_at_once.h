// How many activation rows a layer may give to one call of forward_new: what the roads serve, and serve right. A pure
// function, free of torch, so that it can be tested exhaustively by itself.
#pragma once

#include <cstdint>
#include <limits>

#include "dispatch/path.h"
#include "dispatch/road.h"
#include "kernels/kernel_table.h"

namespace quillon {

// Of activations, as far as roads tell them apart.
enum class RoadType { float_or_half, bfloat16, float64 };

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
      if (type == RoadType::float_or_half && has_fast_dense(qtype, state_size, output_size)) return true;
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

}  // namespace quillon
