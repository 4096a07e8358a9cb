// Host entries of the expansion kernels, which write a packed weight as a dense matrix: all of it, a tile of its rows, or
// the rows that an index names. For large batches there is a second kernel for all of it, whose values are formed in half.
//
// All are functions over the rows of expansion_table (kernels/kernel_table.h). They check the row length, form the range and
// the arguments in the kernel's own order, and submit; they wait for the kernel only where the row says so. A row length
// that is no multiple of the kernel's row unit is a RuntimeError whose check site is the kernel's name.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

#include "kernels/kernel_table.h"
#include "runtime/element_type.h"

namespace quillon {

// An instantiation of a kernel, for all its element types.
struct ExpansionKernel {
  int row;       // of expansion_table
  int constant;  // the template argument behind the element type: a sub-group size or blocks of a work-item; 0: none
};

// The kernel of a format on the device classes of a launcher table; `row` is -1 if there is none.
constexpr ExpansionKernel expansion_kernel(expansion operation, int qtype, launcher_table_index table) {
  const int row = expansion_index(operation, qtype, table);
  if (row < 0) return {row, 0};
  const expansion_row& found = expansion_table[row];
  if (found.form == expansion_form::dense) return {row, blocks_of_item(found)};
  return {row, has_sub_group(found) ? launcher_geometries[table].sub_group : 0};
}

// weight  packed bytes of output_size rows of state_size elements
// output  output_size by state_size elements of T
//
// Returns how many of them, from the first one on, the kernel writes: a weight may end inside a super-block.
std::uint64_t expand_whole(const ExpansionKernel& kernel, ElementType type, const std::uint8_t* weight, void* output,
                           std::uint64_t state_size, std::uint64_t output_size, c10::Device device);

// The same by the kernels for large batches, float32 and float16 alone: another type is a std::runtime_error. They write
// whole blocks.
std::uint64_t expand_dense(int qtype, ElementType type, const std::uint8_t* weight, void* output,
                           std::uint64_t state_size, std::uint64_t output_size, c10::Device device);

// output  tile_rows by state_size elements of T: rows row_start and on of the weight, which has output_size rows
//
// fp6 is not what it says: the planes do not move with the tile, so that a later tile has the codes of the first rows and the
// scales of its own.
void expand_tile(const ExpansionKernel& kernel, ElementType type, const std::uint8_t* weight, void* output,
                 std::uint64_t state_size, std::uint64_t output_size, std::uint64_t tile_rows, std::uint64_t row_start,
                 c10::Device device);

// index          rows0 * rows1 row numbers, of which 32 bits count
// weight_blocks  super-blocks that the weight has: what an index leads to outside of them is NaN
// output         float; 256 elements for each super-block of a row, a row behind the other
void expand_rows(const ExpansionKernel& kernel, const std::uint8_t* weight, std::uint64_t weight_blocks,
                 const std::int64_t* index, float* output, std::uint64_t rows0, std::uint64_t rows1,
                 std::uint64_t state_size, std::uint64_t output_size, c10::Device device);

}  // namespace quillon
