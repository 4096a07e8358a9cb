// Launchers: the last host layer before the device, one per weight format and launcher table. A launcher looks at
// batch, shape, element type, device class and environment, picks kernels, checks, allocates the output and submits.
//
// The three tables differ in the geometry of the matrix-vector kernels, which is all that a launcher template takes:
//
//   table                      sub-group  work-group  rows per work-group of q4_0 and q4_0 woq
//   qlinear_launchers_elm        32         64        2
//   qlinear_launchers_legacy     16         32        8
//   qlinear_launchers_default    16         32        2
#pragma once

#include <ATen/core/Tensor.h>

#include <array>
#include <cstdint>

#include "formats/registry.h"

namespace quillon {

using Launcher = at::Tensor (*)(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                                std::uint64_t output_size, std::int64_t input_size);
using LauncherTable = std::array<Launcher, qtype_count>;

// Indexed by qtype; codes without a launcher hold null.
extern const LauncherTable qlinear_launchers_elm;
extern const LauncherTable qlinear_launchers_legacy;
extern const LauncherTable qlinear_launchers_default;

}  // namespace quillon
