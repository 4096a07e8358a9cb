// Writes what Python shares with C++ as Python modules of plain data, which the build installs into the package:
//
//   _format_table.py   formats/registry.h: codes, names, block sizes and fields
//   _device_table.py   dispatch/device_class.h and runtime/device_limit.h: classes, architectures, number of devices
//   _kernel_table.py   kernels/kernel_table.h and dispatch/path.h: kernels, their instantiations and who launches them
//   _value_tables.py   grids, sign patterns and code books of csrc/formats/
//
// Run by the build as  write_python_tables FOLDER.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "dispatch/device_class.h"
#include "dispatch/path.h"
#include "formats/formats.h"
#include "kernels/kernel_table.h"
#include "runtime/build_options.h"
#include "runtime/device_limit.h"

namespace {

using namespace quillon;

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

const char* truth(bool value) {
  return value ? "True" : "False";
}

std::string hexadecimal(std::uint64_t value) {
  char text[19];
  std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
  return text;
}

// Seventeen digits are exactly this value in Python's double precision as well.
std::string decimal(float value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.17g", static_cast<double>(value));
  return text;
}

std::string format_table_text() {
  std::ostringstream text;
  text << "FORMATS = (\n";
  for (const format_entry& entry : formats) {
    if (entry.storage == storage_kind::none) continue;
    text << "    (" << entry.qtype << ", " << quoted(entry.name) << ", " << entry.elements_per_block << ", "
         << quoted(entry.storage == storage_kind::records ? "records" : "regions") << ", (";
    for (const format_field& field : entry.fields)
      if (field.bytes > 0) text << "(" << quoted(field.name) << ", " << field.bytes << "),";
    text << "), " << truth(is_weight_format(entry)) << "),\n";
  }
  text << ")\n\nMAX_ELEMENTS = " << max_elements << "\n";
  return text.str();
}

std::string device_table_text() {
  std::ostringstream text;
  text << "DEVICE_CLASSES = (\n";
  for (const char* name : kDeviceClassNames) text << "    " << quoted(name) << ",\n";
  text << ")\n\nARCHITECTURES = {\n";
  for (const ListedArchitecture& listed : kListedArchitectures)
    text << "    " << hexadecimal(listed.identifier) << ": " << quoted(device_class_name(listed.device_class)) << ",\n";
  text << "}\n\nMAX_DEVICES = " << kMaxDevices << "\n";
  return text.str();
}

// In the order of kernel_argument, up to those that the backing of vectors alone has, and of lane_range.
constexpr const char* kArgumentNames[] = {"end",     "state_size", "batch",   "output_size", "block_count",
                                          "input",   "output",     "part0",   "part1",       "part2",
                                          "part3",   "offset1",    "offset2", "offset3",     "short_offset1",
                                          "second0", "second1",    "second2", "act_type",    "local"};
static_assert(std::size(kArgumentNames) == static_cast<std::size_t>(kernel_argument::local) + 1);
constexpr const char* kRangeNames[] = {"rows", "slices", "batches", "elements"};
static_assert(std::size(kRangeNames) == static_cast<std::size_t>(lane_range::elements) + 1);
constexpr const char* kFamilyNames[] = {"matvec", "by_batch", "mlp", "quantizer"};
static_assert(std::size(kFamilyNames) == static_cast<std::size_t>(kernel_family::quantizer) + 1);

// The launcher table of a device class. It depends on the class alone where the matrix engine is not taken, as for one
// row.
const char* launcher_table_of(XpuDeviceClass device_class) {
  switch (choose_path(device_class, qtype_q4_0, 1, 1)) {
    case Path::launchers_elm:
      return launcher_geometries[table_elm].name;
    case Path::launchers_legacy:
      return launcher_geometries[table_legacy].name;
    default:
      return launcher_geometries[table_default].name;
  }
}

// A kernel's template arguments behind the element type.
std::vector<int> constants_of(const kernel_row& row, const kernel_geometry& geometry) {
  switch (row.constants) {
    case template_arguments::none:
      return {};
    case template_arguments::work_group:
      return {geometry.sub_group, geometry.work_group};
    case template_arguments::work_group_rows:
      return {geometry.sub_group, geometry.work_group, geometry.rows};
  }
  return {};
}

std::string kernel_text(const kernel_row& row) {
  std::ostringstream text;
  text << "    {\n        \"format\": " << quoted(format_table[row.qtype].name)
       << ",\n        \"family\": " << quoted(kFamilyNames[static_cast<int>(row.family)])
       << ",\n        \"name\": " << quoted(row.name) << ",\n        \"header\": " << quoted(row.header)
       << ",\n        \"geometries\": {";
  for (std::size_t index = 0; index < launcher_geometries.size(); ++index) {
    if (!is_launched(row, static_cast<launcher_table_index>(index))) continue;
    const launcher_geometry& table = launcher_geometries[index];
    const kernel_geometry geometry = geometry_of(row, table);
    text << quoted(table.name) << ": ((";
    for (const int constant : constants_of(row, geometry)) text << constant << ",";
    text << "), " << (geometry.sub_group != 0 ? std::to_string(geometry.sub_group) : "None") << ", "
         << geometry.work_group << ", " << geometry.rows << "), ";
  }
  text << "},\n        \"build_options\": {";
  if (chooses_sub_group(row))
    for (const int size : sub_group_choices) text << size << ": (" << quoted(runtime::sub_group_option(size)) << ",), ";
  text << "},\n        \"range\": " << quoted(kRangeNames[static_cast<int>(row.range)])
       << ",\n        \"elements\": " << row.elements << ",\n        \"rounds_of_pass\": " << rounds_of_pass(row)
       << ",\n        \"row_unit\": " << row.row_unit << ",\n        \"drops_tail\": " << truth(row.drops_tail)
       << ",\n        \"arguments\": (";
  for (const kernel_argument argument : row.arguments)
    if (argument != kernel_argument::end && argument <= kernel_argument::local)
      text << quoted(kArgumentNames[static_cast<int>(argument)]) << ",";
  const auto local_arrays = std::count(row.arguments.begin(), row.arguments.end(), kernel_argument::local);
  text << "),\n        \"local_arrays\": " << local_arrays
       << ",\n        \"leaves_short_tile\": " << truth(leaves_short_tile(row)) << ",\n    },\n";
  return text.str();
}

constexpr const char* kExpansionNames[] = {"whole", "tile", "rows", "dense"};
static_assert(std::size(kExpansionNames) == static_cast<std::size_t>(expansion::dense) + 1);
constexpr const char* kFormNames[] = {"row", "flat", "block", "dense"};
static_assert(std::size(kFormNames) == static_cast<std::size_t>(expansion_form::dense) + 1);

std::string expansion_text(const expansion_row& row) {
  std::ostringstream text;
  text << "    {\n        \"format\": " << quoted(format_table[row.qtype].name)
       << ",\n        \"name\": " << quoted(row.name) << ",\n        \"header\": " << quoted(row.header)
       << ",\n        \"operation\": " << quoted(kExpansionNames[static_cast<int>(row.operation)])
       << ",\n        \"form\": " << quoted(kFormNames[static_cast<int>(row.form)]) << ",\n        \"sub_groups\": {";
  for (int table = 0; table < static_cast<int>(launcher_geometries.size()); ++table)
    if (runs_on(row, static_cast<launcher_table_index>(table)))
      text << quoted(launcher_geometries[table].name) << ": "
           << (has_sub_group(row) ? std::to_string(launcher_geometries[table].sub_group) : "None") << ", ";
  text << "},\n        \"blocks_of_item\": " << (row.form == expansion_form::dense ? blocks_of_item(row) : 0)
       << ",\n        \"span\": " << row.span << ",\n        \"work_group\": " << row.most_work_group
       << ",\n        \"row_unit\": " << row.row_unit << ",\n        \"waits\": " << truth(row.waits) << ",\n    },\n";
  return text.str();
}

std::string rwkv_text(const rwkv_row& row) {
  std::ostringstream text;
  text << "    {\n        \"name\": " << quoted(row.name) << ",\n        \"header\": " << quoted(row.header)
       << ",\n        \"head_size\": " << row.head_size << ",\n        \"work_group\": " << row.work_group
       << ",\n        \"sub_group\": " << row.sub_group << ",\n    },\n";
  return text.str();
}

std::string engine_text() {
  std::ostringstream text;
  text << "ENGINE = {\n    \"name\": " << quoted(engine_kernel.name)
       << ",\n    \"header\": " << quoted(engine_kernel.header) << ",\n    \"row_tile\": " << engine_kernel.row_tile
       << ",\n    \"k_split\": " << engine_kernel.k_split << ",\n    \"types\": (";
  for (const engine_types& types : engine_type_table) {
    text << "(";
    for (const char* type : {types.input, types.operand, types.sum, types.partial}) text << quoted(type) << ", ";
    text << "), ";
  }
  text << "),\n    \"columns\": {";
  for (const engine_geometry& engine : engine_geometries)
    text << quoted(engine.device_class) << ": " << engine.columns << ", ";
  text << "},\n    \"batches\": {";
  for (const engine_geometry& engine : engine_geometries) {
    text << quoted(engine.device_class) << ": {";
    for (const MatrixEngineRange& range : kMatrixEngineRanges)
      if (std::strcmp(device_class_name(range.device_class), engine.device_class) == 0)
        text << quoted(format_table[range.qtype].name) << ": (" << range.first_batch << ", " << range.last_batch
             << "), ";
    text << "}, ";
  }
  text << "},\n}\n";
  return text.str();
}

std::string kernel_table_text() {
  std::ostringstream text;
  text << "LAUNCHER_TABLES = {\n";
  for (std::size_t code = 0; code < kDeviceClassNames.size(); ++code)
    text << "    " << quoted(kDeviceClassNames[code]) << ": "
         << quoted(launcher_table_of(static_cast<XpuDeviceClass>(code))) << ",\n";
  text << "}\n\nKERNELS = (\n";
  for (const kernel_row& row : kernel_table) text << kernel_text(row);
  text << ")\n\nEXPANSIONS = (\n";
  for (const expansion_row& row : expansion_table) text << expansion_text(row);
  text << ")\n\nRWKV_KERNELS = (\n";
  for (const rwkv_row& row : rwkv_table) text << rwkv_text(row);
  text << ")\n\n" << engine_text();
  return text.str();
}

template <typename Value, std::size_t COUNT, typename Show>
std::string tuple(const char* name, const Value (&values)[COUNT], const Show& show) {
  std::ostringstream text;
  text << name << " = (\n";
  for (const Value& value : values) text << "    " << show(value) << ",\n";
  text << ")\n\n";
  return text.str();
}

std::string value_tables_text() {
  float fp4[8];
  for (std::uint32_t code = 0; code < 8; ++code) {
    const std::uint32_t bits = fp4_float_bits(code);
    std::memcpy(&fp4[code], &bits, sizeof(bits));
  }
  const auto number = [](int value) { return std::to_string(value); };
  return tuple("IQ2XXS_GRID", iq2xxs_grid, hexadecimal) + tuple("IQ1S_GRID", iq1s_grid, hexadecimal) +
         tuple("KSIGNS_IQ2XS", ksigns_iq2xs, number) + tuple("NF4", dequantNF4, decimal) +
         tuple("NF3", dequantNF3, decimal) + tuple("FP4_MAGNITUDES", fp4, decimal);
}

bool write(const std::string& file, const std::string& text) {
  std::ofstream out(file);
  out << "# Written by the build from the C++ headers of the same facts; see csrc/tables/write_python_tables.cpp.\n\n"
      << text;
  out.close();
  if (!out) std::fprintf(stderr, "cannot write %s\n", file.c_str());
  return static_cast<bool>(out);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: write_python_tables FOLDER\n");
    return EXIT_FAILURE;
  }
  const std::string folder = std::string(arguments[1]) + "/";
  const bool written = write(folder + "_format_table.py", format_table_text()) &&
                       write(folder + "_device_table.py", device_table_text()) &&
                       write(folder + "_kernel_table.py", kernel_table_text()) &&
                       write(folder + "_value_tables.py", value_tables_text());
  return written ? EXIT_SUCCESS : EXIT_FAILURE;
}
