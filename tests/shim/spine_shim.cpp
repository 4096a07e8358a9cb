// C entries over the headers that decide without a device: version rule, device classes, paths.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dispatch/device_class.h"
#include "dispatch/path.h"
#include "dispatch/read_extent.h"
#include "formats/registry.h"
#include "frontend/interpreter_version.h"

extern "C" {

int shim_interpreter_matches(const char* built_for, const char* interpreter) {
  return quillon::interpreter_matches(built_for, interpreter);
}

// Writes the text into `to` and gives its length.
std::size_t shim_interpreter_message(const char* built_for, const char* interpreter, char* to, std::size_t size) {
  const std::string text = quillon::interpreter_mismatch_message(built_for, interpreter);
  std::strncpy(to, text.c_str(), size);
  return text.size();
}

int shim_classify(std::uint64_t identifier) {
  return static_cast<int>(quillon::classify_architecture(identifier));
}

const char* shim_class_name(int device_class) {
  return quillon::device_class_name(static_cast<quillon::XpuDeviceClass>(device_class));
}

// 0 matrix engine, 1 launchers of legacy, 2 of elm, 3 default.
int shim_path(int device_class, int qtype, std::uint64_t batch, std::uint64_t output_size) {
  const auto path = quillon::choose_path(static_cast<quillon::XpuDeviceClass>(device_class), qtype, batch, output_size);
  switch (path) {
    case quillon::Path::matrix_engine:
      return 0;
    case quillon::Path::launchers_legacy:
      return 1;
    case quillon::Path::launchers_elm:
      return 2;
    case quillon::Path::launchers_default:
      return 3;
  }
  return -1;
}

std::uint64_t shim_activations_read(int qtype, std::uint64_t state_size, std::uint64_t output_size) {
  return quillon::read_extent(qtype, state_size, output_size).activations;
}
std::uint64_t shim_blocks_read(int qtype, std::uint64_t state_size, std::uint64_t output_size) {
  return quillon::read_extent(qtype, state_size, output_size).blocks;
}

int shim_qtype_count() {
  return quillon::qtype_count;
}

}  // extern "C"
