// The torch library quillon_kernels: the expansion kernels by themselves, for the Python package. They write into a tensor of
// the caller's, by the kernels of all formats that have one, where the operators of the library quillon serve the few that
// callers from outside need.
#include <torch/library.h>

#include "dispatch/dequantize_operators.h"

namespace quillon {
namespace {

TORCH_LIBRARY(quillon_kernels, library) {
  library.def("expand_weight(Tensor weight, Tensor(a!) output, int qtype) -> ()");
  library.def("expand_rows_of(Tensor weight, Tensor(a!) output, int qtype, int output_size, int row_start) -> ()");
}

TORCH_LIBRARY_IMPL(quillon_kernels, XPU, library) {
  library.impl("expand_weight", &expand_weight);
  library.impl("expand_rows_of", &expand_rows_of);
}

}  // namespace
}  // namespace quillon
