// Operators that a GPU has for element types for which the CPU's kernel is missing. Code that asks for them on an
// accelerator alone would fail on a host device: histograms of integers (mixtures of experts count their tokens so), and
// some operators in half precision and bfloat16, which are computed in float32 and rounded.
#pragma once

#include <string>
#include <vector>

namespace quillon::host_device {

/// Their names, with the namespace and without the overload.
std::vector<std::string> operators_beyond_the_cpu();

}  // namespace quillon::host_device
