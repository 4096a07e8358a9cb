// Every kernel, one row each: what it is, how it is instantiated, how it is called. Products with one row of activations
// stand in kernel_table, expansions in expansion_table, the kernels of RWKV in rwkv_table. Host entry, launch, launcher
// tables, the instantiations that the offline GPU compile checks, the geometry that tests and benchmarks use and the row
// rules that Python shows all follow from these rows.
//
// Free of torch and SYCL.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "formats/registry.h"

namespace quillon {

// A launcher table fixes the geometry of its kernels; a device class has one of the tables.
struct launcher_geometry {
  const char* name;  // of the table, behind "qlinear_launchers_"
  int sub_group;
  int work_group;
  bool many_rows;  // whether the q4_0 kernels take their larger number of rows
};
enum launcher_table_index { table_elm, table_legacy, table_default };
inline constexpr std::array<launcher_geometry, 3> launcher_geometries = {{
    {"elm", 32, 64, false},
    {"legacy", 16, 32, true},
    {"default", 16, 32, false},
}};

// The template arguments of a kernel behind its element type.
enum class template_arguments {
  none,             // one instantiation for all tables
  work_group,       // SG_SIZE, WG_SIZE
  work_group_rows,  // SG_SIZE, WG_SIZE, ROW_TILE
};

// What a kernel makes of a weight.
enum class kernel_family {
  matvec,     // the product with one activation row
  by_batch,   // the product with a handful of activation rows
  mlp,        // with a second weight, the gated product of a fused MLP with one activation row
  quantizer,  // nothing: it packs activations
};

// How the lanes of a work-group are told to the device.
enum class lane_range {
  rows,      // one dimension: a work-group for each tile of rows
  slices,    // two dimensions, of which the second holds the 32 lanes of a row, the first the rows of a tile
  batches,   // two dimensions, of which the second is that of `rows`, and the first has a place for two activation rows
  elements,  // one dimension, a work-item for each element of the activations
};

// One argument of a kernel. Parts are the regions of a weight in storage order, part 0 being its start.
enum class kernel_argument {
  end,
  state_size,   // uint64: K
  batch,        // uint64: activation rows
  output_size,  // uint64: N
  block_count,  // int32: blocks of a row
  input,        // pointer: activations as they are, or their q8_1 blocks
  output,       // pointer
  part0,        // pointers to the parts of the weight
  part1,
  part2,
  part3,
  offset1,  // uint64: byte offset of a part
  offset2,
  offset3,
  short_offset1,  // int32
  second0,        // pointers to the parts of a second weight
  second1,
  second2,
  act_type,       // int32: which activation
  local,          // local memory: the lanes' accumulators, in the form of vectors what `vectors` says
  vectors_local,  // local memory that the form of vectors alone has
  vectors_rows,   // uint64: the output rows, which the form of vectors alone is told
};

// The element type of local memory.
enum class local_elements { none, of_t, of_float };

// What a kernel in the form of vectors keeps in local memory in place of accumulators (kernels/lanes.h).
enum class arranged {
  none,             // the kernel has no form of vectors
  chunks,           // activations in the order of the lanes' chunks
  chunks_and_sums,  // and the sum of each chunk
  row_count,        // an element for each row of the last work-item; work-items have sixteen rows each
  q8_1_blocks,      // 640 bytes for the slices of two super-blocks
  q2_k_words,       // 832 bytes for those of one
};

struct kernel_row {
  int qtype;
  kernel_family family;
  const char* name;
  const char* header;  // relative to csrc/
  template_arguments constants;
  lane_range range;
  int sub_group;    // required sub-group size where it is no template argument; 0: none
  int rows;         // output rows of a work-group
  int many_rows;    // the same in a table with many rows
  int lanes;        // work-items on the rows of a work-group where that is no template argument
  int elements;     // of K that a lane takes in a round
  int row_unit;     // state_size must be a multiple; 0: nothing tests it
  bool drops_tail;  // chunks behind the last full round are left out of the sum
  local_elements local;
  arranged vectors;
  bool waits;  // the host entry returns when the kernel has finished
  std::array<kernel_argument, 13> arguments;
};

// clang-format off
inline constexpr auto kernel_table = [] {
  using k = kernel_argument;
  constexpr auto group = template_arguments::work_group, group_rows = template_arguments::work_group_rows, none = template_arguments::none;
  constexpr auto matvec = kernel_family::matvec, by_batch = kernel_family::by_batch, mlp = kernel_family::mlp, quantizer = kernel_family::quantizer;
  constexpr auto rows = lane_range::rows, slices = lane_range::slices, batches = lane_range::batches, elements = lane_range::elements;
  constexpr auto of_t = local_elements::of_t, of_float = local_elements::of_float, no_local = local_elements::none;
  constexpr auto chunks = arranged::chunks, chunks_and_sums = arranged::chunks_and_sums, row_count = arranged::row_count, q8_1_blocks = arranged::q8_1_blocks, q2_k_words = arranged::q2_k_words, no_vectors = arranged::none;
  // Argument orders that several kernels share.
  constexpr std::array<k, 13> q4_0_order = {k::state_size, k::part0, k::short_offset1, k::input, k::local, k::output_size, k::output};
  constexpr std::array<k, 13> scaled_order = {k::state_size, k::part0, k::short_offset1, k::input, k::local, k::output, k::output_size};
  constexpr std::array<k, 13> q5_order = {k::state_size, k::part0, k::input, k::local, k::output};
  constexpr std::array<k, 13> batch_order = {k::state_size, k::batch, k::part0, k::short_offset1, k::input, k::local, k::output_size, k::output};
  constexpr std::array<k, 13> mlp_order = {k::state_size, k::part0, k::short_offset1, k::input, k::local, k::second0, k::act_type, k::output, k::vectors_rows};
  constexpr std::array<k, 13> q8_1_order = {k::output_size, k::block_count, k::part0, k::input, k::local, k::output};
  return std::array{
  //          format           family     name, header                                                              constants   range   sub- rows,   lanes elem. unit drops  local     vectors          waits  arguments
  //                                                                                                                                    group  many              tail
  kernel_row{qtype_q4_0,     matvec,    "qlinear_xpu_kernel_q4_0_2x16",     "kernels/matvec/q4_0_2x16.h",     group_rows, rows,     0, 2, 8,  0, 16, 16, false, of_t,     chunks,          false, q4_0_order},
  kernel_row{qtype_q4_0_woq, matvec,    "qlinear_xpu_kernel_q4_0_woq_2x16", "kernels/matvec/q4_0_woq_2x16.h", group_rows, rows,     0, 2, 8,  0, 16, 16, false, of_t,     chunks,          false, q4_0_order},
  kernel_row{qtype_q4_1,     matvec,    "qlinear_xpu_kernel_q4_1_2x16",     "kernels/matvec/q4_1_2x16.h",     group,      rows,     0, 2, 2,  0, 16, 16, false, of_t,     chunks_and_sums, false, scaled_order},
  kernel_row{qtype_q5_0,     matvec,    "qlinear_xpu_kernel_q5_0",          "kernels/matvec/q5_0.h",          group,      rows,     0, 1, 1,  0,  2,  0, false, of_t,     row_count,       false, q5_order},
  kernel_row{qtype_q5_1,     matvec,    "qlinear_xpu_kernel_q5_1",          "kernels/matvec/q5_1.h",          group,      rows,     0, 1, 1,  0,  2,  0, false, of_t,     row_count,       false, q5_order},
  kernel_row{qtype_q8_0,     matvec,    "qlinear_xpu_kernel_q8_0_2x8",      "kernels/matvec/q8_0_2x8.h",      group,      rows,     0, 2, 2,  0,  8,  8, false, of_t,     chunks,          false, scaled_order},
  kernel_row{qtype_nf4,      matvec,    "qlinear_xpu_kernel_nf4_2x16",      "kernels/matvec/nf4_2x16.h",      group,      rows,     0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, scaled_order},
  kernel_row{qtype_nf3,      matvec,    "qlinear_xpu_kernel_nf3_2x16",      "kernels/matvec/nf3_2x16.h",      group,      rows,     0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, scaled_order},
  kernel_row{qtype_fp8_e4m3, matvec,    "qlinear_xpu_kernel_fp8_e4m3_2x8",  "kernels/matvec/fp8_e4m3_2x8.h",  group,      rows,     0, 2, 2,  0,  8,  8, false, of_t,     chunks,          false, scaled_order},
  kernel_row{qtype_fp4,      matvec,    "qlinear_xpu_kernel_fp4_2x16",      "kernels/matvec/fp4_2x16.h",      group,      rows,     0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, scaled_order},
  kernel_row{qtype_fp8_e5m2, matvec,    "qlinear_xpu_kernel_fp8_e5m2_2x8",  "kernels/matvec/fp8_e5m2_2x8.h",  group,      rows,     0, 2, 2,  0,  8,  8, false, of_t,     chunks,          false, {k::state_size, k::part0, k::input, k::local, k::output, k::output_size}},
  kernel_row{qtype_iq2_xxs,  matvec,    "qlinear_xpu_kernel_iq2_xxs_q8_1",  "kernels/matvec/iq2_xxs_q8_1.h",  none,       slices,  32, 2, 2, 32, 32,  0, false, of_t,     q8_1_blocks,     true,  q8_1_order},
  kernel_row{qtype_q2_k,     matvec,    "qlinear_xpu_kernel_q2_k_q8_1",     "kernels/matvec/q2_k_q8_1.h",     none,       slices,   0, 1, 1, 32, 16,  0, false, of_t,     q2_k_words,      true,  q8_1_order},
  kernel_row{qtype_iq1_s,    matvec,    "qlinear_xpu_kernel_iq1_s_q8_1",    "kernels/matvec/iq1_s_q8_1.h",    none,       slices,  32, 1, 1, 32, 32,  0, false, of_float, q8_1_blocks,     true,  {k::output_size, k::block_count, k::part0, k::input, k::output, k::vectors_local}},
  kernel_row{qtype_q6_k,     matvec,    "qlinear_xpu_kernel_q6_k_2x16",     "kernels/matvec/q6_k_2x16.h",     group,      rows,     0, 2, 2,  0, 16, 16, true,  of_t,     chunks,          false, {k::state_size, k::part0, k::part1, k::input, k::part3, k::part2, k::local, k::output, k::output_size}},
  kernel_row{qtype_q4_k,     matvec,    "qlinear_xpu_kernel_q4_k_2x16",     "kernels/matvec/q4_k_2x16.h",     group,      rows,     0, 2, 2,  0, 16, 16, true,  of_t,     chunks_and_sums, false, {k::state_size, k::part0, k::input, k::part1, k::part2, k::local, k::output, k::output_size}},
  kernel_row{qtype_q5_k,     matvec,    "qlinear_xpu_kernel_q5_k",          "kernels/matvec/q5_k.h",          none,       rows,     8, 2, 2, 32, 16,  0, false, of_float, row_count,       false, {k::state_size, k::part0, k::input, k::local, k::output}},
  kernel_row{qtype_fp6,      matvec,    "qlinear_xpu_kernel_fp6_2x16",      "kernels/matvec/fp6_2x16.h",      group_rows, rows,     0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, {k::state_size, k::part1, k::part0, k::input, k::part2, k::block_count, k::local, k::output_size, k::output}},
  kernel_row{qtype_fp6_k,    matvec,    "qlinear_xpu_kernel_fp6_k_2x16",    "kernels/matvec/fp6_k_2x16.h",    group_rows, rows,     0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, {k::state_size, k::part0, k::offset1, k::offset2, k::offset3, k::input, k::local, k::output_size, k::output}},
  kernel_row{qtype_q4_0,     by_batch,  "qlinear_xpu_kernel_q4_0_2x16_by_batch", "kernels/by_batch/q4_0_2x16_by_batch.h", group, batches, 0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, batch_order},
  kernel_row{qtype_nf4,      by_batch,  "qlinear_xpu_kernel_nf4_2x16_batch", "kernels/by_batch/nf4_2x16_batch.h", group,    batches,  0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, batch_order},
  kernel_row{qtype_q4_0,     mlp,       "mlp_forward_q4_0_kernel",          "kernels/mlp/q4_0.h",             group_rows, rows,     0, 2, 8,  0, 16, 16, false, of_t,     chunks,          false, mlp_order},
  kernel_row{qtype_q4_0_woq, mlp,       "mlp_forward_q4_0_woq_kernel",      "kernels/mlp/q4_0_woq.h",         group_rows, rows,     0, 2, 8,  0, 16, 16, false, of_t,     chunks,          false, mlp_order},
  kernel_row{qtype_fp4,      mlp,       "mlp_forward_fp4_kernel",           "kernels/mlp/fp4.h",              group,      rows,     0, 2, 2,  0, 16, 16, false, of_t,     chunks,          false, mlp_order},
  kernel_row{qtype_fp8_e5m2, mlp,       "mlp_forward_fp8_e5m2_kernel",      "kernels/mlp/fp8_e5m2.h",         group,      rows,     0, 2, 2,  0,  8,  8, false, of_t,     chunks,          false, mlp_order},
  kernel_row{qtype_fp6,      mlp,       "mlp_forward_fp6_kernel",           "kernels/mlp/fp6.h",              group_rows, rows,     0, 2, 8,  0, 16, 16, false, of_t,     chunks,          false, {k::state_size, k::part1, k::part0, k::input, k::part2, k::block_count, k::local, k::second1, k::second0, k::second2, k::act_type, k::output, k::vectors_rows}},
  kernel_row{qtype_iq2_xxs,  mlp,       "mlp_forward_iq2_xxs_kernel",       "kernels/mlp/iq2_xxs.h",          none,       slices,  32, 2, 2, 32, 32,  0, false, of_t,     q8_1_blocks,     false, {k::output_size, k::block_count, k::part0, k::input, k::second0, k::local, k::act_type, k::output}},
  kernel_row{qtype_q8_1,     quantizer, "quantize_xpu_kernel_q8_1",         "kernels/matvec/quantize_q8_1.h", none,       elements,32, 1, 1,256,  1,  0, false, no_local, no_vectors,        false, {k::input, k::output}},
  };
}();
// clang-format on

// An instantiation's numbers in a launcher table.
struct kernel_geometry {
  int sub_group;
  int work_group;  // lanes
  int rows;
};
constexpr kernel_geometry geometry_of(const kernel_row& row, const launcher_geometry& table) {
  if (row.constants == template_arguments::none) return {row.sub_group, row.lanes, row.rows};
  return {table.sub_group, table.work_group, table.many_rows ? row.many_rows : row.rows};
}

// The sizes of which a kernel that asks for sub-groups of 8 by a build option (runtime/build_options.h) gets the first
// that the device has; nothing in its arithmetic refers to the size.
inline constexpr std::array<int, 2> sub_group_choices = {8, 16};
constexpr bool chooses_sub_group(const kernel_row& row) {
  return row.constants == template_arguments::none && row.sub_group == sub_group_choices[0];
}

// Rounds in one pass of a GPU's loop over K: the kernels of q5_0 and q5_1 take four at a time (matvec/five_bits.h).
constexpr int rounds_of_pass(const kernel_row& row) {
  return row.qtype == qtype_q5_0 || row.qtype == qtype_q5_1 ? 4 : 1;
}

// Whether a launcher table has a kernel: no device of the default one runs the fused MLP of iq2_xxs.
constexpr bool is_launched(const kernel_row& row, launcher_table_index table) {
  return row.family != kernel_family::mlp || row.qtype != qtype_iq2_xxs || table != table_default;
}

// Whether rows that do not fill a tile at the end are left out, and their outputs not written: in the fused MLP of the
// formats with nibbles.
constexpr bool leaves_short_tile(const kernel_row& row) {
  return row.family == kernel_family::mlp &&
         (row.qtype == qtype_q4_0 || row.qtype == qtype_q4_0_woq || row.qtype == qtype_fp4);
}

// Whether the activations are q8_1 blocks.
constexpr bool takes_q8_1(const kernel_row& row) {
  return row.range == lane_range::slices;
}

// Rows of a work-item in the form of vectors, for the kernels that say so in `vectors`.
inline constexpr int rows_of_vector_item = 16;

// The row of a format's kernel of a family; -1: there is none.
constexpr int kernel_index(kernel_family family, int qtype) {
  for (std::size_t i = 0; i < kernel_table.size(); ++i)
    if (kernel_table[i].family == family && kernel_table[i].qtype == qtype) return static_cast<int>(i);
  return -1;
}

// Activation rows of a work-group of the by-batch kernels, and in the form of vectors those of a work-item at the most and
// of a tile: BATCH_TILE, BATCH_OF_ITEM, which has room for no more, and BATCH_OF_TILE of their text.
inline constexpr int batch_tile = 2;
inline constexpr int batch_of_vector_item = 8;
inline constexpr int batch_of_vector_tile = 4;

// ---- expansion --------------------------------------------------------------------------------------------
//
// The kernels that write a packed weight as a dense matrix.

enum class expansion {
  whole,
  tile,   // a band of rows
  rows,   // those that an index names
  dense,  // all of it, for a large batch: results are float or half
};

// How the work is dealt out (kernels/dequant/*_form.h).
enum class expansion_form {
  row,    // a work-group has one row
  flat,   // work-items have elements counted over the whole weight
  block,  // a work-group has one super-block
  dense,  // a work-group is a single work-item, which has a number of blocks
};

// Which device classes run a kernel: those of one launcher table, of the others, or all.
enum class expansion_tables { elm, others, all };

enum class expansion_argument {
  end,
  state_size,     // uint64
  elements,       // int32: of the weight
  rounds,         // int32: of a work-item on its row
  block_step,     // int32: blocks of a round
  element_step,   // int32: elements of a round
  blocks_of_row,  // int32
  weight_blocks,  // int32: blocks in the whole weight
  short_offset1,  // int32: byte offset of part 1
  index,          // pointer to the row numbers, int64
  output,         // pointer
  part0,          // pointers to the parts of the weight, or of the tile
  part1,
  part2,
  part3,
};

struct expansion_row {
  int qtype;
  const char* name;
  const char* header;  // relative to csrc/
  expansion operation;
  expansion_form form;
  expansion_tables tables;
  int span;              // elements that a work-item writes in a round
  int least_work_group;  // work-items of a work-group where the row length allows no more
  int most_work_group;
  int row_unit;           // state_size must be a multiple; 0: nothing tests it
  int first_moving_part;  // the parts in front of it do not move with a tile
  bool waits;             // the host entry returns when the kernel has finished
  std::array<expansion_argument, 8> arguments;
};

// clang-format off
inline constexpr auto expansion_table = [] {
  using a = expansion_argument;
  constexpr auto whole = expansion::whole, tile = expansion::tile, rows = expansion::rows, dense = expansion::dense;
  constexpr auto row = expansion_form::row, flat = expansion_form::flat, block = expansion_form::block, blocks = expansion_form::dense;
  constexpr auto elm = expansion_tables::elm, others = expansion_tables::others, all = expansion_tables::all;
  constexpr std::array<a, 8> scaled_rows = {a::state_size, a::rounds, a::part1, a::part0, a::output, a::block_step, a::element_step};
  constexpr std::array<a, 8> plain_rows = {a::state_size, a::rounds, a::part0, a::output, a::block_step, a::element_step};
  constexpr std::array<a, 8> flat_records = {a::elements, a::part0, a::output};
  constexpr std::array<a, 8> records = {a::part0, a::output};
  constexpr std::array<a, 8> two_parts = {a::part0, a::part1, a::output};
  constexpr std::array<a, 8> three_parts = {a::part0, a::part1, a::part2, a::output};
  constexpr std::array<a, 8> four_parts = {a::part0, a::part1, a::part2, a::part3, a::output};
  return std::array{
  //             format          name, header                                                                             operation form   tables  span work-group unit moves waits  arguments
  //                                                                                                                                                     least most
  expansion_row{qtype_q4_0,     "qlinear_xpu_dequantize_kernel_q4_0_1x4",          "kernels/dequant/q4_0_1x4.h",     whole, row,   elm,    4, 16, 256, 64, 0, false, scaled_rows},
  expansion_row{qtype_q4_0,     "qlinear_xpu_dequantize_kernel_q4_0_1x2",          "kernels/dequant/q4_0_1x2.h",     whole, row,   others, 2, 32, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_q4_1,     "qlinear_xpu_dequantize_kernel_q4_1_1x4",          "kernels/dequant/q4_1_1x4.h",     whole, row,   elm,    4, 16, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_q4_1,     "qlinear_xpu_dequantize_kernel_q4_1_1x2",          "kernels/dequant/q4_1_1x2.h",     whole, row,   others, 2, 32, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_q5_0,     "qlinear_xpu_dequantize_kernel_q5_0",              "kernels/dequant/q5_0.h",         whole, flat,  all,    2, 256, 256, 0, 0, true,  flat_records},
  expansion_row{qtype_q5_1,     "qlinear_xpu_dequantize_kernel_q5_1",              "kernels/dequant/q5_1.h",         whole, flat,  all,    2, 256, 256, 0, 0, false, flat_records},
  expansion_row{qtype_q8_0,     "qlinear_xpu_dequantize_kernel_q8_0_1x2",          "kernels/dequant/q8_0_1x2.h",     whole, row,   elm,    2, 32, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_q8_0,     "qlinear_xpu_dequantize_kernel_q8_0_1x1",          "kernels/dequant/q8_0_1x1.h",     whole, row,   others, 1, 64, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_nf4,      "qlinear_xpu_dequantize_kernel_nf4_1x4",           "kernels/dequant/nf4_1x4.h",      whole, row,   elm,    4, 16, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_nf4,      "qlinear_xpu_dequantize_kernel_nf4_1x2",           "kernels/dequant/nf4_1x2.h",      whole, row,   others, 2, 32, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_nf3,      "qlinear_xpu_dequantize_kernel_nf3_new",           "kernels/dequant/nf3_new.h",      whole, flat,  all,    4, 256, 256, 0, 0, true,  {a::elements, a::part0, a::short_offset1, a::output}},
  expansion_row{qtype_fp4,      "qlinear_xpu_dequantize_kernel_fp4_1x4",           "kernels/dequant/fp4_1x4.h",      whole, row,   elm,    4, 16, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_fp4,      "qlinear_xpu_dequantize_kernel_fp4_1x2",           "kernels/dequant/fp4_1x2.h",      whole, row,   others, 2, 32, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_fp8_e5m2, "qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2",      "kernels/dequant/fp8_e5m2_1x2.h", whole, row,   elm,    2, 32, 256, 64, 0, true,  plain_rows},
  expansion_row{qtype_fp8_e5m2, "qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1",      "kernels/dequant/fp8_e5m2_1x1.h", whole, row,   others, 1, 64, 256, 64, 0, true,  plain_rows},
  expansion_row{qtype_iq2_xxs,  "qlinear_xpu_dequantize_kernel_iq2_xxs",           "kernels/dequant/iq2_xxs.h",      whole, block, all,    8, 32, 32,  64, 0, true,  records},
  expansion_row{qtype_q2_k,     "qlinear_xpu_dequantize_kernel_q2_k",              "kernels/dequant/q2_k.h",         whole, block, all,    4, 64, 64,  64, 0, true,  records},
  expansion_row{qtype_iq1_s,    "qlinear_xpu_dequantize_kernel_iq1_s",             "kernels/dequant/iq1_s.h",        whole, block, all,    8, 32, 32,  64, 0, true,  records},
  expansion_row{qtype_q6_k,     "qlinear_xpu_dequantize_kernel_q6_k",              "kernels/dequant/q6_k.h",         whole, block, all,    4, 64, 64,  64, 0, false, four_parts},
  expansion_row{qtype_q4_k,     "qlinear_xpu_dequantize_kernel_q4_k",              "kernels/dequant/q4_k.h",         whole, block, all,    8, 32, 32,  64, 0, false, three_parts},
  expansion_row{qtype_q5_k,     "qlinear_xpu_dequantize_kernel_q5_k",              "kernels/dequant/q5_k.h",         whole, block, all,    4, 64, 64,  64, 0, false, records},
  expansion_row{qtype_q4_0,     "qlinear_xpu_tile_dequantize_kernel_q4_0_1x4",     "kernels/dequant/q4_0_1x4.h",     tile,  row,   elm,    4, 16, 256, 64, 0, false, scaled_rows},
  expansion_row{qtype_q4_0,     "qlinear_xpu_tile_dequantize_kernel_q4_0_1x2",     "kernels/dequant/q4_0_1x2.h",     tile,  row,   others, 2, 32, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_q8_0,     "qlinear_xpu_tile_dequantize_kernel_q8_0_1x1",     "kernels/dequant/q8_0_1x1.h",     tile,  row,   all,    1, 64, 256, 64, 0, true,  scaled_rows},
  expansion_row{qtype_fp8_e5m2, "qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1", "kernels/dequant/fp8_e5m2_1x1.h", tile,  row,   all,    1, 64, 256, 64, 0, true,  plain_rows},
  expansion_row{qtype_fp6,      "qlinear_xpu_tile_dequantize_kernel_fp6_1x16",     "kernels/dequant/fp6_1x16.h",     tile,  row,   all,   16, 64, 256, 64, 2, true,  {a::state_size, a::rounds, a::part1, a::part0, a::part2, a::output, a::block_step, a::element_step}},
  expansion_row{qtype_q2_k,     "xpu_dequantize_rows_kernel_q2_k",                 "kernels/dequant/q2_k.h",         rows,  block, all,    4, 64, 64,  64, 0, false, {a::blocks_of_row, a::index, a::part0, a::output, a::weight_blocks}},
  expansion_row{qtype_q4_k,     "xpu_dequantize_rows_kernel_q4_k",                 "kernels/dequant/q4_k.h",         rows,  block, all,    8, 32, 32,  64, 0, false, {a::blocks_of_row, a::index, a::output, a::part2, a::part0, a::part1}},
  expansion_row{qtype_q4_0,     "dequantize_q4_0_kernel",                         "kernels/dequant/q4_0_dense.h",   dense, blocks, all,  512, 1,  1,   0,  0, false, two_parts},
  expansion_row{qtype_q4_1,     "dequantize_q4_1_kernel",                         "kernels/dequant/q4_1_dense.h",   dense, blocks, all,  512, 1,  1,   0,  0, false, two_parts},
  expansion_row{qtype_q8_0,     "dequantize_q8_0_kernel",                         "kernels/dequant/q8_0_dense.h",   dense, blocks, all,  256, 1,  1,   0,  0, false, two_parts},
  expansion_row{qtype_fp8_e4m3, "dequantize_fp8_e4m3_kernel",                     "kernels/dequant/fp8_e4m3_dense.h", dense, blocks, all,  256, 1,  1,   0,  0, false, two_parts},
  expansion_row{qtype_fp8_e5m2, "dequantize_fp8_e5m2_kernel",                     "kernels/dequant/fp8_e5m2_dense.h", dense, blocks, all,  256, 1,  1,   0,  0, false, records},
  expansion_row{qtype_fp4,      "dequantize_fp4_kernel",                          "kernels/dequant/fp4_dense.h",    dense, blocks, all,  512, 1,  1,   0,  0, false, two_parts},
  expansion_row{qtype_fp6,      "dequantize_fp6_kernel",                          "kernels/dequant/fp6_dense.h",    dense, blocks, all,  512, 1,  1,   0,  0, false, three_parts},
  expansion_row{qtype_fp6_k,    "dequantize_fp6_k_kernel",                        "kernels/dequant/fp6_k_dense.h",  dense, blocks, all,  512, 1,  1,   0,  0, false, four_parts},
  expansion_row{qtype_q4_k,     "dequantize_q4_k_kernel",                         "kernels/dequant/q4_k_dense.h",   dense, blocks, all,  512, 1,  1,   0,  0, false, three_parts},
  expansion_row{qtype_q6_k,     "dequantize_q6_k_kernel",                         "kernels/dequant/q6_k_dense.h",   dense, blocks, all,  512, 1,  1,   0,  0, false, four_parts},
  };
}();
// clang-format on

constexpr bool runs_on(const expansion_row& row, launcher_table_index table) {
  switch (row.tables) {
    case expansion_tables::elm:
      return table == table_elm;
    case expansion_tables::others:
      return table != table_elm;
    case expansion_tables::all:
      break;
  }
  return true;
}

// The row of a format's expansion on the device classes of a launcher table; -1 if there is none.
constexpr int expansion_index(expansion operation, int qtype, launcher_table_index table) {
  for (std::size_t i = 0; i < expansion_table.size(); ++i)
    if (expansion_table[i].operation == operation && expansion_table[i].qtype == qtype &&
        runs_on(expansion_table[i], table))
      return static_cast<int>(i);
  return -1;
}

// Super-blocks ask for no sub-group size, and are no template over it; neither are single work-items.
constexpr bool has_sub_group(const expansion_row& row) {
  return row.form == expansion_form::row || row.form == expansion_form::flat;
}

// Blocks of a work-item in the form that deals them out so, and the number behind the last full work-item.
constexpr int blocks_of_item(const expansion_row& row) {
  return row.span / elements_per_block(row.qtype);
}
inline constexpr int blocks_of_last_items = 1;

// How the work-items of one work-group walk over a row.
struct row_walk {
  int32_t work_group;
  int32_t element_step;
  int32_t block_step;
  int32_t rounds;
};

// The largest work-group whose rounds fill the row, which a row of one block has as well.
constexpr row_walk walk_of(const expansion_row& row, uint64_t state_size) {
  constexpr int BLOCK = 64;
  int work_group = row.least_work_group;
  while (2 * work_group <= row.most_work_group && state_size % (2 * work_group * row.span) == 0) work_group *= 2;
  const int element_step = work_group * row.span;
  return {work_group, element_step, element_step / BLOCK, static_cast<int32_t>(state_size / element_step)};
}

// ---- RWKV -------------------------------------------------------------------------------------------------
//
// The kernels of the RWKV operators, which have no packed weight. Every device class runs the same instantiations.

enum class rwkv_kernel { attention_v4, attention_v5, time_shift };

struct rwkv_row {
  const char* name;
  const char* header;  // relative to csrc/
  int head_size;       // the first template argument, where it is not the element type, which then is float; else 0
  int work_group;      // the second one: work-items, each with one channel
  int sub_group;       // the third one, which is required
};

// Indexed by rwkv_kernel.
inline constexpr std::array<rwkv_row, 3> rwkv_table = {{
    {"rwkv_linear_attention_kernel_v4", "kernels/rwkv/attention_v4.h", 0, 32, 16},
    {"rwkv_linear_attention_kernel_v5", "kernels/rwkv/attention_v5.h", 64, 32, 16},
    {"rwkv_time_shift_kernel", "kernels/rwkv/time_shift.h", 0, 64, 32},
}};
constexpr const rwkv_row& row_of(rwkv_kernel kernel) {
  return rwkv_table[static_cast<int>(kernel)];
}

// ---- matrix engine ----------------------------------------------------------------------------------------
//
// The one kernel that multiplies on a matrix engine. It is instantiated for each element type that has operands, for
// each number of activation rows that a last tile may have, and for the engine of each class.

struct engine_kernel_row {
  const char* name;
  const char* header;  // relative to csrc/
  int row_tile;        // activation rows of a tile, and of the last one at the most
  int k_split;         // work-items of a work-group
};
inline constexpr engine_kernel_row engine_kernel = {"loom_forward_kernel",
                                                    "kernels/matrix_engine/loom_forward_kernel.h", 8, 8};

// Its types, by that of input and output: operands, the engine's sums, partial tiles.
struct engine_types {
  const char* input;
  const char* operand;
  const char* sum;
  const char* partial;
};
inline constexpr std::array<engine_types, 3> engine_type_table = {{
    {"float", "c10::Half", "float", "c10::Half"},
    {"c10::Half", "c10::Half", "float", "c10::Half"},
    {"c10::BFloat16", "c10::BFloat16", "float", "c10::BFloat16"},
}};

// The engines: how many output columns an operation of theirs has.
struct engine_geometry {
  const char* device_class;
  int columns;
};
enum engine_index { engine_oak, engine_elm };
inline constexpr std::array<engine_geometry, 2> engine_geometries = {{{"oak", 8}, {"elm", 16}}};

}  // namespace quillon
