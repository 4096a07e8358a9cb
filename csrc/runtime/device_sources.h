// The device source text that the build embeds into the extension (generated: see cmake/EmbedDeviceSources.cmake).
#pragma once

#include <cstddef>

namespace quillon::runtime {

struct DeviceSource {
  const char* path;  // relative to csrc/, as it stands in #include lines
  const char* text;
};

extern const DeviceSource kDeviceSources[];
extern const std::size_t kDeviceSourceCount;

}  // namespace quillon::runtime
