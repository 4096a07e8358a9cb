// What the RWKV kernels share: neighbouring channels as numbers of a lane, computed with in float.
//
//   work-items   a lane is a work-item and has one channel
//   vectors      a work-item has sixteen neighbouring channels, and walks over what a work-group has otherwise
#pragma once

#include "kernels/kernel.h"
#include "kernels/lanes.h"
#ifdef QUILLON_VECTOR_LANES
#include "kernels/matvec/vectors.h"
#endif

namespace quillon {

// The channels from an address on.
template <typename T>
inline lanes<float> load_channels(const T* from) {
#ifdef QUILLON_VECTOR_LANES
  return as_floats<T>(load_values<T>(from));
#else
  return convert<float>(*from);
#endif
}

template <typename T>
inline void store_channels(lanes<float> channels, T* to) {
#ifdef QUILLON_VECTOR_LANES
  if constexpr (std::is_same_v<T, half>)
    store_vector(to, converted<_Float16>(channels));
  else
    store_vector(to, channels);
#else
  *to = convert<T>(channels);
#endif
}

}  // namespace quillon
