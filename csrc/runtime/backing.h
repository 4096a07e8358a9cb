// In which of its two forms a kernel runs (kernels/lanes.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/device_facts.h"

namespace quillon::runtime {

enum class Backing : int { items, vectors };

// Lanes of a vector of the latter, LANES of kernels/lanes.h.
inline constexpr std::uint64_t kVectorLanes = 16;

// Vectors on the host device, unless a developer compares the two and sets QUILLON_HOST_BACKING to "items".
Backing backing_of(const DeviceFacts& facts);

// The same by the number of a device.
Backing backing_on(c10::DeviceIndex index);

// The build options of that form.
std::vector<std::string> backing_options(Backing backing);

// Whether code of the form of vectors may add up products of pairs of bfloat16 in one instruction.
bool has_bfloat16_pairs();

}  // namespace quillon::runtime
