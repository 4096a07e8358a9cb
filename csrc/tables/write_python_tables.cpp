// Writes what Python shares with C++ as Python modules of plain data, which the build installs into the package:
//
//   _format_table.py   formats/registry.h: codes, names, block sizes and fields
//   _device_table.py   dispatch/device_class.h and runtime/device_limit.h: classes, architectures, number of devices
//   _value_tables.py   grids, sign patterns and code books of csrc/formats/
//
// Run by the build as  write_python_tables FOLDER.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "dispatch/device_class.h"
#include "formats/formats.h"
#include "runtime/device_limit.h"

namespace {

using namespace quillon;

std::string quoted(const char* text) {
  return std::string("\"") + text + "\"";
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
    text << "), " << (is_weight_format(entry) ? "True" : "False") << "),\n";
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
                       write(folder + "_value_tables.py", value_tables_text());
  return written ? EXIT_SUCCESS : EXIT_FAILURE;
}
