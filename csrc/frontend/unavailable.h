// A body for an operator whose kernels are not part of this release: registered like the others, it fails with its
// name instead of being absent.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/util/Exception.h>

namespace quillon {

template <const char* Name, typename... Arguments>
at::Tensor unavailable(Arguments...) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, Name, " is not available in this release of vesper_linear");
}

}  // namespace quillon
