// What the table of expansion kernels says, for tests.
#include <cstdint>

#include "kernels/kernel_table.h"

using namespace quillon;

extern "C" {

// Row of expansion_table, or -1.
int shim_expansion_index(int operation, int qtype, int table) {
  return expansion_index(static_cast<expansion>(operation), qtype, static_cast<launcher_table_index>(table));
}

// Work-items of a work-group, elements and blocks of a round, rounds.
void shim_walk(int row, std::uint64_t state_size, std::int32_t* walk) {
  const row_walk found = walk_of(expansion_table[row], state_size);
  walk[0] = found.work_group;
  walk[1] = found.element_step;
  walk[2] = found.block_step;
  walk[3] = found.rounds;
}

}  // extern "C"
