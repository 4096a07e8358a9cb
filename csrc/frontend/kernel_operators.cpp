// The torch library quillon_kernels, for the Python package.
//
//   expansions      They write into a tensor of the caller's, by the kernels of all formats that have one, where the
//                   operators of the library quillon serve the few that callers from outside need.
//   RWKV attention  The operators of the library quillon, whose schemas do not say that they write to the states: the
//                   compiler of graphs has to know.
//   launches        The record of a thread's launches, and what a layer has to know of the roads.
#include <torch/library.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dispatch/dequantize_operators.h"
#include "dispatch/device_class_query.h"
#include "dispatch/format_check.h"
#include "dispatch/rows_at_once.h"
#include "runtime/launch_record.h"
#include "rwkv/rwkv_operators.h"

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

std::int64_t rows_at_once_on(c10::Device device, std::int64_t qtype, at::ScalarType type, std::int64_t state_size,
                             std::int64_t output_size) {
  check_qtype("rows_at_once", static_cast<int>(qtype));
  const RoadType road_type = type == at::kDouble     ? RoadType::float64
                             : type == at::kBFloat16 ? RoadType::bfloat16
                                                     : RoadType::float_or_half;
  return static_cast<std::int64_t>(
      rows_at_once(get_device_class(device), static_cast<int>(qtype), road_type, state_size, output_size));
}

TORCH_LIBRARY(quillon_kernels, library) {
  library.def("expand_weight(Tensor weight, Tensor(a!) output, int qtype) -> ()");
  library.def("expand_rows_of(Tensor weight, Tensor(a!) output, int qtype, int output_size, int row_start) -> ()");
  library.def("expand_weight_fast(Tensor weight, Tensor(a!) output, int qtype) -> ()");
  library.def("rows_at_once(Device device, int qtype, ScalarType type, int state_size, int output_size) -> int",
              &rows_at_once_on);
  library.def("begin_launches() -> ()", &begin_launch_records);
  library.def("end_launches() -> (str[], int[][], int[][], int[], bool[])", &end_launches);
  library.def(
      "rwkv_linear_attention_v4(Tensor time_decay, Tensor time_first, Tensor key, Tensor value, "
      "Tensor(a!) num_state, Tensor(b!) den_state, Tensor(c!) max_state) -> Tensor");
  library.def(
      "rwkv_linear_attention_v5(Tensor time_decay, Tensor time_first, Tensor receptance, Tensor key, "
      "Tensor value, Tensor(a!) state) -> Tensor");
}

TORCH_LIBRARY_IMPL(quillon_kernels, XPU, library) {
  library.impl("expand_weight", &expand_weight);
  library.impl("expand_rows_of", &expand_rows_of);
  library.impl("expand_weight_fast", &expand_weight_fast);
  library.impl("rwkv_linear_attention_v4", &rwkv_linear_attention_v4);
  library.impl("rwkv_linear_attention_v5", &rwkv_linear_attention_v5);
}

}  // namespace
}  // namespace quillon
