#include "dispatch/dequantize_operators.h"

#include <c10/util/Exception.h>

#include "dispatch/format_check.h"

namespace quillon {

at::Tensor qlinear_forward_xpu(at::Tensor, at::Tensor, int qtype) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, "dequant: this release has no whole-weight dequantizer for ",
                              describe_format(qtype));
}

at::Tensor dequantize_rows_xpu(at::Tensor, at::Tensor, int qtype, std::int64_t, std::int64_t) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, "dequantize_rows: this release has no row dequantizer for ",
                              describe_format(qtype));
}

}  // namespace quillon
