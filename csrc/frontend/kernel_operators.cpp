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

// The most rows of a call, 0 for any number; and the numbers of FewRows.
using RowsOfCalls = std::tuple<std::int64_t, std::int64_t, std::int64_t, std::int64_t>;

RowsOfCalls rows_at_once_on(c10::Device device, std::int64_t code, at::ScalarType type, std::int64_t state_size,
                            std::int64_t output_size) {
  const int qtype = static_cast<int>(code);
  check_qtype("rows_at_once", qtype);
  const RoadType road_type = type == at::kDouble     ? RoadType::float64
                             : type == at::kBFloat16 ? RoadType::bfloat16
                             : type == at::kHalf     ? RoadType::float16
                                                     : RoadType::float32;
  const XpuDeviceClass device_class = get_device_class(device);
  const std::uint64_t most = rows_at_once(device_class, qtype, road_type, state_size, output_size);
  const FewRows few = few_rows(device_class, qtype, road_type, state_size, output_size);
  return {static_cast<std::int64_t>(most), static_cast<std::int64_t>(few.rows), static_cast<std::int64_t>(few.of_call),
          static_cast<std::int64_t>(few.of_several)};
}

TORCH_LIBRARY(quillon_kernels, library) {
  library.def("expand_weight(Tensor weight, Tensor(a!) output, int qtype) -> ()");
  library.def("expand_rows_of(Tensor weight, Tensor(a!) output, int qtype, int output_size, int row_start) -> ()");
  library.def("expand_weight_fast(Tensor weight, Tensor(a!) output, int qtype) -> ()");
  library.def(
      "rows_at_once(Device device, int qtype, ScalarType type, int state_size, int output_size) -> "
      "(int, int, int, int)",
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
