// The torch library quillon_kernels, for the Python package: the expansion kernels by themselves, which write into a tensor
// of the caller's by the kernels of all formats that have one, where the operators of the library quillon serve the few that
// callers from outside need; the record of launches; and what a layer has
// to know of the roads.
#include <torch/library.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dispatch/dequantize_operators.h"
#include "runtime/launch_record.h"

namespace quillon {
namespace {

// By field, as schemas have no lists of tuples: kernels, global and local ranges, device indices, whether waited for.
using LaunchFields = std::tuple<std::vector<std::string>, std::vector<std::vector<std::int64_t>>,
                                std::vector<std::vector<std::int64_t>>, std::vector<std::int64_t>, c10::List<bool>>;

LaunchFields end_launches() {
  LaunchFields fields;
  auto& [kernels, globals, locals, devices, waited] = fields;
  for (LaunchRecord& record : end_launch_records()) {
    kernels.push_back(std::move(record.kernel));
    globals.push_back(std::move(record.global));
    locals.push_back(std::move(record.local));
    devices.push_back(record.device.index());
    waited.push_back(record.waited);
  }
  return fields;
}

TORCH_LIBRARY(quillon_kernels, library) {
  library.def("expand_weight(Tensor weight, Tensor(a!) output, int qtype) -> ()");
  library.def("expand_rows_of(Tensor weight, Tensor(a!) output, int qtype, int output_size, int row_start) -> ()");
  library.def("begin_launches() -> ()", &begin_launch_records);
  library.def("end_launches() -> (str[], int[][], int[][], int[], bool[])", &end_launches);
}

TORCH_LIBRARY_IMPL(quillon_kernels, XPU, library) {
  library.impl("expand_weight", &expand_weight);
  library.impl("expand_rows_of", &expand_rows_of);
}

}  // namespace
}  // namespace quillon
