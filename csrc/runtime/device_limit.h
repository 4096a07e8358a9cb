// How many XPU devices the library serves.
#pragma once

namespace quillon {

// Device indices from this on are refused; PyTorch itself drives at most 64 XPUs.
inline constexpr int kMaxDevices = 64;

}  // namespace quillon
