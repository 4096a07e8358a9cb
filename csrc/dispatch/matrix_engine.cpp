#include "dispatch/matrix_engine.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "dispatch/aligned_tensor.h"
#include "dispatch/expanded_weight.h"
#include "dispatch/scalar_type_dispatch.h"
#include "kernels/matrix_engine/host_entry.h"

namespace quillon {
namespace {

// Without the destructors of static objects, which other threads may still use.
[[noreturn]] void end_for_unsupported_type() {
  std::fputs("unsupported dtype\n", stderr);
  std::fflush(nullptr);
  std::_Exit(2);
}

}  // namespace

at::Tensor linear_xpu_matrix_engine(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                                    std::uint64_t output_size, std::int64_t /*input_size*/, int qtype, bool is_elm) {
  input = at_aligned_address(std::move(input));
  weight = at_aligned_address(std::move(weight));
  at::Tensor output = make_dense(weight, input.scalar_type(), batch, output_size);
  const at::ScalarType type = input.scalar_type();
  if (type != at::kFloat && type != at::kHalf && type != at::kBFloat16) end_for_unsupported_type();
  dispatch_element_type(type, [&](auto element) {
    using T = decltype(element);
    launch_matrix_engine(element_type_of<T>(), qtype, is_elm ? engine_elm : engine_oak, input.data_ptr<T>(),
                         weight.data_ptr<std::uint8_t>(), output.data_ptr<T>(), batch, state_size, output_size,
                         weight.device());
  });
  return output;
}

}  // namespace quillon
