// Running CPU code on the calling thread alone.
#pragma once

#include <omp.h>

#include <cstdint>

namespace quillon::host_device {

// A small call runs on the calling thread alone. PyTorch's threads go on spinning for a while after a parallel
// region, and the SYCL CPU device's threads need the same cores for the kernels in between: on two cores, a language
// model's tokens came at 11 a second with the spinning and at 19 without.
inline constexpr int64_t kSmallCallElements = int64_t{1} << 17;

/// While it lives, the calling thread starts no parallel regions.
class SerialScope {
 public:
  explicit SerialScope(bool serial) : threads_(serial ? omp_get_max_threads() : 1) {
    if (threads_ > 1) omp_set_num_threads(1);
  }
  ~SerialScope() {
    if (threads_ > 1) omp_set_num_threads(threads_);
  }
  SerialScope(const SerialScope&) = delete;
  SerialScope& operator=(const SerialScope&) = delete;

 private:
  const int threads_;
};

}  // namespace quillon::host_device
