#include "kernels/matvec/quantize_q8_1_host.h"

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include "dispatch/scalar_type_dispatch.h"
#include "formats/registry.h"
#include "runtime/element_type.h"
#include "runtime/launch_kernel.h"

namespace quillon {

at::Tensor quantize_input_q8_1(const at::Tensor& input, std::uint64_t batch, std::uint64_t state_size) {
  constexpr std::size_t WG_SIZE = 256;
  const std::uint64_t blocks = batch * state_size / elements_per_block(qtype_q8_1);
  // The size is cut to 32 bits, as every reader of the blocks counts.
  const auto bytes = static_cast<std::uint32_t>(blocks * bytes_per_block(qtype_q8_1));
  at::Tensor result = at::empty({static_cast<std::int64_t>(bytes)},
                                input.options().dtype(at::kByte).memory_format(at::MemoryFormat::Contiguous));
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    using T = decltype(element);
    // A work-group is eight whole blocks. Not every SYCL runtime refuses a range that its work-groups do not
    // divide.
    TORCH_CHECK(state_size % WG_SIZE == 0, "quantize_input_q8_1: state_size must be a multiple of ", WG_SIZE,
                ", the size of a super-block, got ", state_size);
    if (blocks == 0) return;
    static runtime::KernelEntry& entry =
        runtime::kernel_entry("kernels/matvec/quantize_q8_1.h",
                              std::string("quantize_xpu_kernel_q8_1<") + facts_of(element_type_of<T>()).name + ">", {});
    launch_kernel(entry, input.device(), {state_size, WG_SIZE}, {input.data_ptr<T>(), result.data_ptr<std::uint8_t>()});
  });
  return result;
}

}  // namespace quillon
