// Build options of one kernel, behind those that all builds have (runtime/device_build.h). Free of torch and SYCL.
#pragma once

#include <string>

namespace quillon::runtime {

inline const char* const kVectorBacking = "-DQUILLON_VECTOR_LANES";    // see kernels/lanes.h
inline const char* const kNarrowVectors = "-DQUILLON_NARROW_VECTORS";  // see kernels/lanes.h
inline const char* const kBfloat16Pairs = "-DQUILLON_BFLOAT16_PAIRS";  // see kernels/matrix_engine/tile_on_vectors.h
inline std::string sub_group_option(int size) {
  return "-DQUILLON_SUB_GROUP_SIZE=" + std::to_string(size);
}

}  // namespace quillon::runtime
