// The environment variables of the launchers, read anew on every call. A bad value throws what the C++ library's parser
// throws: std::invalid_argument ("invalid stoll argument") or std::out_of_range ("stoll argument out of range"), with
// stoull in place of stoll for TILE_SIZE. Free of torch.
#pragma once

#include <cstdint>

namespace quillon {

// TILE_THRESHOLD: output sizes above it may take the tiled road. Default 50000.
std::int64_t read_tile_threshold();

// QUILLON_LOW_MEM: on only when the value parses to exactly 1. Default off.
bool read_low_mem();

// TILE_SIZE: weight rows per tile. Default 4096.
std::uint64_t read_tile_size();

}  // namespace quillon
