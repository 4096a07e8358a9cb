// The one choice by element type of all linear code: Half, Float, Double and BFloat16.
#pragma once

#include <ATen/Dispatch.h>

namespace quillon {

// Calls `body(T{})` with a value of the element type that `scalar_type` names. Any other type is PyTorch's dispatch
// failure under the name "qlinear_forward_xpu".
template <typename Body>
auto dispatch_element_type(at::ScalarType scalar_type, Body&& body) {
  return AT_DISPATCH_FLOATING_TYPES_AND2(at::kHalf, at::kBFloat16, scalar_type, "qlinear_forward_xpu",
                                         [&] { return body(scalar_t{}); });
}

}  // namespace quillon
