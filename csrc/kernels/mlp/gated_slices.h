// The skeleton of the fused MLP over the readers of matvec/q8_1_dot.h. A work-group has two rows of 32 lanes each; lines of
// 32 elements in local memory get the lanes' sums:
//
//   | gate, row 0 | gate, row 1 | up, row 0 | up, row 1 |
//
// The tree over the lanes is in T, the activation in float for all T.
#pragma once

#include "kernels/matvec/q8_1_dot.h"
#include "kernels/mlp/gated.h"

namespace quillon {

template <typename T, typename Reader>
inline void multiply_gated_slices(uint64_t output_size, int32_t blocks_per_row, const typename Reader::block* gate,
                                  const block_q8_1* activations, const typename Reader::block* up,
                                  const sycl::local_accessor<T, 1>& local, int32_t act_type, T* output) {
#ifdef QUILLON_VECTOR_LANES
  const arranged_slices<Reader> arranged(blocks_per_row, activations, local);
  with_run_of_rows(output_size, [&](uint64_t first, uint64_t last) {
    write_gated_rows<T, float>(act_type, first, last, output, [&](int which, uint64_t row) {
      return arranged.multiply(which == 0 ? gate : up, row).template total<T>();
    });
  });
#else
  constexpr int ROW_TILE = 2;
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<2>();
  const int lane = static_cast<int>(place.get_local_id(1));
  const int y = static_cast<int>(place.get_local_id(0));
  const uint64_t row = place.get_group(1) * ROW_TILE + y;
  const bool active = row < output_size;  // the others meet these at the barriers
  const int of_gate = y * q8_1_lanes + lane, of_up = of_gate + ROW_TILE * q8_1_lanes;
  const auto sum_of = [&](const typename Reader::block* weight) {
    return active ? sum_of_slices<Reader>(weight + row * blocks_per_row, activations, blocks_per_row, lane) : 0.0f;
  };
  local[of_gate] = convert<T>(sum_of(gate));
  local[of_up] = convert<T>(sum_of(up));
  sycl::group_barrier(place.get_group());
  for (int stride = q8_1_lanes / 2; stride > 0; stride /= 2) {
    if (lane < stride) {
      local[of_gate] = local[of_gate] + local[of_gate + stride];
      local[of_up] = local[of_up] + local[of_up + stride];
    }
    sycl::group_barrier(place.get_group());
  }
  if (lane == 0 && active) output[row] = gated_element<T, float>(act_type, local[of_gate], local[of_up]);
#endif
}

}  // namespace quillon
