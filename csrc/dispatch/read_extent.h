// How far the kernels of a single activation row read where rows end inside a block. Free of torch, so that it can be
// tested by itself.
//
// Kernels with nibbles pair an element with the one half a block further on, so the last chunk of such a row reads
// activations behind it:
//
//   row of 80, block of 64      0 ........ 63 | 64 ... 79 |
//   q4_0   last chunk of 16                   | 64 .. 71    96 .. 103 |
//
// Those of q5_0 and q5_1 leave out a block that does not lie whole in the row. Where rows are whole blocks nothing is
// read but the row, and the weight's own bytes.
#pragma once

#include <cstdint>

#include "formats/registry.h"

namespace quillon {

struct ReadExtent {
  std::uint64_t activations;
  std::uint64_t blocks;  // of the weight
};

// A `state_size` that the kernel's own check refuses gives no more than the row.
constexpr ReadExtent read_extent(int qtype, std::uint64_t state_size, std::uint64_t output_size) {
  constexpr std::uint64_t kBlock = 64;
  const auto elements = static_cast<std::uint64_t>(elements_per_block(qtype));
  ReadExtent extent{state_size, (state_size * output_size + elements - 1) / elements};
  if (state_size % elements == 0 || output_size == 0) return extent;
  switch (qtype) {
    case qtype_q4_0:
    case qtype_q4_1:
    case qtype_nf4:
    case qtype_fp4: {
      if (state_size % 16 != 0) break;
      const std::uint64_t chunk = state_size - 16;
      extent.activations = chunk / kBlock * kBlock + chunk % kBlock / 2 + kBlock / 2 + 8;
      break;
    }
    default:
      break;
  }
  return extent;
}

}  // namespace quillon
