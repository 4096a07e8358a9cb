// What the skeletons share where a work-item has all the lanes of a work-group: stored activations, the tree over lanes,
// and runs of rows.
#pragma once

#include "kernels/kernel.h"
#include "kernels/lanes.h"

namespace quillon {

// The form in which a lane's activation waits in local memory.
template <typename T>
using stored_lane = std::conditional_t<is_in_float<T>, float, T>;

// Where vectors begin in local memory, which is given out at multiples of sixteen bytes and is larger by a line than what
// lies there. A vector across two lines takes two loads.
template <typename To, typename Local>
inline To* first_line(const Local& local) {
  constexpr uint64_t LINE = 64;
  return reinterpret_cast<To*>((reinterpret_cast<uint64_t>(&local[0]) + LINE - 1) / LINE * LINE);
}

// Sixteen neighbouring activations.
template <typename T>
inline values<T> load_values(const T* from) {
  if constexpr (std::is_same_v<T, bfloat16>)
    return {bit_cast<lanes<float>>(converted<uint32_t>(load_vector<uint16_t, LANES>(from)) << 16)};
  else if constexpr (std::is_same_v<T, half>)
    return {converted<float>(load_vector<_Float16, LANES>(from))};
  else
    return load_vector<T, LANES>(from);
}

// Lane l + STRIDE in lane l.
template <int STRIDE, typename E, int... I>
inline vector<E, LANES> moved_down(vector<E, LANES> from, constants<I...>) {
  return __builtin_shufflevector(from, from, ((I + STRIDE) % LANES)...);
}
template <int STRIDE, typename T>
inline values<T> moved_down(values<T> from) {
  if constexpr (is_in_float<T>)
    return {moved_down<STRIDE, float>(from.value, first_constants<LANES>{})};
  else
    return moved_down<STRIDE, T>(from, first_constants<LANES>{});
}

// The tree over all lanes; the sum comes out in lane 0.
template <typename T, int VECTORS>
inline T sum_of_lanes(values<T> (&acc)[VECTORS]) {
  for (int stride = VECTORS / 2; stride > 0; stride /= 2)
    for (int i = 0; i < stride; ++i) acc[i] = acc[i] + acc[i + stride];
  values<T> sum = acc[0];
  sum = sum + moved_down<8, T>(sum);
  sum = sum + moved_down<4, T>(sum);
  sum = sum + moved_down<2, T>(sum);
  sum = sum + moved_down<1, T>(sum);
  if constexpr (is_in_float<T>)
    return convert<T>(static_cast<float>(sum.value[0]));
  else
    return sum[0];
}

// `changed` in the first `count` lanes and `kept` in the others.
template <typename T>
inline values<T> in_first_lanes(int count, values<T> changed, values<T> kept) {
  using number = std::conditional_t<sizeof(T) == 8, int64_t, int32_t>;
  const lanes<number> lane = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  const lanes<number> chosen = lane < static_cast<number>(count);
  if constexpr (is_in_float<T>)
    return {chosen ? changed.value : kept.value};
  else
    return chosen ? changed : kept;
}

// Rows of a work-item of a kernel that is not told how many rows there are: local memory has one element for each row of
// the last work-item.
inline constexpr int ROWS_OF_ITEM = 16;

// Calls `body(first, rows)` with the rows of the work-item; or `body(row)` with each of them.
template <typename Local, typename Body>
inline void with_rows_of_item(const Local& local, Body body) {
  const auto place = sycl::ext::oneapi::this_work_item::get_nd_item<1>();
  const bool is_last = place.get_group(0) + 1 == place.get_group_range(0);
  body(place.get_group(0) * ROWS_OF_ITEM, is_last ? static_cast<int>(local.size()) : ROWS_OF_ITEM);
}
template <typename Local, typename Body>
inline void for_each_row_of_item(const Local& local, Body body) {
  with_rows_of_item(local, [&](uint64_t first, int rows) {
    for (int r = 0; r < rows; ++r) body(first + r);
  });
}

}  // namespace quillon
