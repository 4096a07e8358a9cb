// What the readers of the grid formats share: rows of a table in memory by their index.
#pragma once

#include "formats/grids.h"
#include "kernels/lanes.h"

namespace quillon {

#ifdef QUILLON_VECTOR_LANES
template <typename Entry>
inline lanes<Entry> entries_of(const Entry* table, words index) {
  lanes<Entry> entries;
#pragma unroll
  for (int i = 0; i < LANES; ++i) entries[i] = table[index[i]];
  return entries;
}
inline words look_up(const uint32_t* table, words index) {
  return entries_of(table, index);
}
inline word_pair look_up(const uint64_t* table, words index) {
  const lanes<uint64_t> entries = entries_of(table, index);
  return {{__builtin_convertvector(entries, words), __builtin_convertvector(entries >> 32, words)}};
}
#else
inline uint32_t look_up(const uint32_t* table, uint32_t index) {
  return table[index];
}
inline word_pair look_up(const uint64_t* table, uint32_t index) {
  const uint64_t entry = table[index];
  return {static_cast<uint32_t>(entry), static_cast<uint32_t>(entry >> 32)};
}
#endif

}  // namespace quillon
