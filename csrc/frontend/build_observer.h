// Tells Python of run-time kernel builds.
#pragma once

namespace quillon {

// The attribute of vesper_linear that is called after each build as f(kernel, seconds), once somebody has set it. The
// module itself has none and keeps no log.
inline constexpr char kBuildObserverAttribute[] = "__kernel_built__";

void observe_kernel_builds();

}  // namespace quillon
