// The decision of a linear forward: matrix-engine path, or one of three launcher tables. A pure function of the
// device class, the format and two sizes, free of torch, so that it can be tested exhaustively by itself.
#pragma once

#include <array>
#include <cstdint>

#include "dispatch/device_class.h"
#include "formats/registry.h"

namespace quillon {

enum class Path : int { matrix_engine, launchers_legacy, launchers_elm, launchers_default };

// One row: this class and format takes the matrix-engine path for batches in [first_batch, last_batch].
struct MatrixEngineRange {
  XpuDeviceClass device_class;
  int qtype;
  std::uint64_t first_batch;
  std::uint64_t last_batch;
};

inline constexpr std::array<MatrixEngineRange, 8> kMatrixEngineRanges = {{
    {XpuDeviceClass::elm, qtype_q4_0, 2, 16},
    {XpuDeviceClass::elm, qtype_q8_0, 2, 16},
    {XpuDeviceClass::elm, qtype_fp8_e4m3, 2, 16},
    {XpuDeviceClass::elm, qtype_fp8_e5m2, 2, 16},
    {XpuDeviceClass::oak, qtype_fp8_e4m3, 2, 64},  // fp8_e4m3 alone starts below 7 on oak
    {XpuDeviceClass::oak, qtype_q4_0, 7, 64},
    {XpuDeviceClass::oak, qtype_q8_0, 7, 64},
    {XpuDeviceClass::oak, qtype_fp8_e5m2, 7, 64},
}};

// The matrix engine writes tiles of this many output columns.
inline constexpr std::uint64_t kMatrixEngineColumns = 16;

constexpr Path choose_path(XpuDeviceClass device_class, int qtype, std::uint64_t batch, std::uint64_t output_size) {
  if (output_size % kMatrixEngineColumns == 0)
    for (const MatrixEngineRange& range : kMatrixEngineRanges)
      if (range.device_class == device_class && range.qtype == qtype && range.first_batch <= batch &&
          batch <= range.last_batch)
        return Path::matrix_engine;
  switch (device_class) {
    case XpuDeviceClass::legacy:
      return Path::launchers_legacy;
    case XpuDeviceClass::elm:
      return Path::launchers_elm;
    default:
      return Path::launchers_default;
  }
}

}  // namespace quillon
