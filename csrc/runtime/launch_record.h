// What was launched, for whoever wants to know which road a call took: a thread can have its own launches written down.
// Off, a launch pays a look at one variable of the thread.
#pragma once

#include <c10/core/Device.h>

#include <string>
#include <vector>

#include "runtime/launch_kernel.h"

namespace quillon {

struct LaunchRecord {
  std::string
      kernel;  // an instantiation, "qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>", or what a library multiplies by
  std::vector<std::int64_t> global;
  std::vector<std::int64_t> local;
  c10::Device device;
  bool waited;  // the launch returned when the kernel had finished
};

// Begins to write down the calling thread's launches, and ends what the last call of `begin` that has not ended began. They
// nest: a launch is written down by all.
void begin_launch_records();
std::vector<LaunchRecord> end_launch_records();

bool records_launches();
void record_launch(LaunchRecord record);

}  // namespace quillon
