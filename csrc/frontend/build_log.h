// Tells the user of run-time kernel builds through Python's logging.
#pragma once

namespace quillon {

// From now on each kernel build is logged to the logger "quillon.kernels" at level INFO, and, once in a process, a
// WARNING explains what takes the time when builds have taken long.
void log_kernel_builds();

}  // namespace quillon
