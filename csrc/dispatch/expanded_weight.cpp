#include "dispatch/expanded_weight.h"

#include <ATen/TensorIndexing.h>
#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>
#include <c10/core/impl/LocalDispatchKeySet.h>
#include <c10/util/Exception.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "dispatch/road.h"
#include "dispatch/scalar_type_dispatch.h"
#include "kernels/dequant/host_entry.h"

namespace quillon {
namespace {

// at::linear beneath everything that watches operators: a launcher has neither derivatives nor autocast.
at::Tensor multiply_by(const at::Tensor& input, const at::Tensor& dense) {
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  const c10::impl::ExcludeDispatchKeyGuard below_autocast(c10::autocast_dispatch_keyset);
  return at::linear(input, dense);
}

at::Tensor expanded(int qtype, launcher_table_index table, const at::Tensor& weight, at::ScalarType type,
                    std::uint64_t state_size, std::uint64_t output_size) {
  const bool fast = (type == at::kFloat || type == at::kHalf) && has_fast_dense(qtype, state_size, output_size);
  const ExpansionKernel whole = expansion_kernel(expansion::whole, qtype, table);
  const auto* bytes = weight.const_data_ptr<std::uint8_t>();
  at::Tensor dense;
  dispatch_element_type(type, [&](auto element) {
    if (!fast && whole.row < 0) throw std::runtime_error("Unsupported input dtype, only fp32 and fp16 are supported");
    dense = make_dense(weight, type, output_size, state_size);
    const ElementType of_element = element_type_of<decltype(element)>();
    void* to = dense.mutable_data_ptr();
    fill_behind(dense, fast ? expand_dense(qtype, of_element, bytes, to, state_size, output_size, weight.device())
                            : expand_whole(whole, of_element, bytes, to, state_size, output_size, weight.device()));
  });
  return dense;
}

}  // namespace

at::Tensor make_dense(const at::Tensor& weight, at::ScalarType type, std::uint64_t rows, std::uint64_t columns) {
  return at::empty({static_cast<std::int64_t>(rows), static_cast<std::int64_t>(columns)},
                   weight.options().dtype(type).memory_format(at::MemoryFormat::Contiguous));
}

void fill_behind(const at::Tensor& result, std::uint64_t written) {
  const auto elements = static_cast<std::uint64_t>(result.numel());
  if (written < elements)
    result.view({-1})
        .narrow(0, static_cast<std::int64_t>(written), static_cast<std::int64_t>(elements - written))
        .fill_(std::numeric_limits<double>::quiet_NaN());
}

at::Tensor multiply_expanded(int qtype, launcher_table_index table, const at::Tensor& input, const at::Tensor& weight,
                             std::uint64_t state_size, std::uint64_t output_size) {
  return multiply_by(input, expanded(qtype, table, weight, input.scalar_type(), state_size, output_size));
}

at::Tensor multiply_in_tiles(int qtype, launcher_table_index table, const at::Tensor& input, const at::Tensor& weight,
                             std::uint64_t tile_size, std::uint64_t batch, std::uint64_t state_size,
                             std::uint64_t output_size) {
  using at::indexing::Slice;
  TORCH_CHECK(tile_size > 0, "forward_new: TILE_SIZE is 0; it must be the number of rows of a tile, at least 1");
  at::Tensor output = make_dense(weight, input.scalar_type(), batch, output_size);
  const ExpansionKernel kernel = expansion_kernel(expansion::tile, qtype, table);
  const auto* bytes = weight.const_data_ptr<std::uint8_t>();
  // fp6 leaves out what is behind the last round of a row.
  const row_walk walk = walk_of(expansion_table[kernel.row], state_size);
  const bool whole_rounds = state_size % walk.element_step == 0;
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    const ElementType type = element_type_of<decltype(element)>();
    std::uint64_t tile_rows = 0;
    for (std::uint64_t start = 0; start < output_size; start += tile_rows) {
      tile_rows = std::min(tile_size, output_size - start);
      const at::Tensor tile = make_dense(weight, input.scalar_type(), tile_rows, state_size);
      if (!whole_rounds) fill_behind(tile, 0);
      expand_tile(kernel, type, bytes, tile.mutable_data_ptr(), state_size, output_size, tile_rows, start,
                  weight.device());
      const at::Tensor partial = multiply_by(input, tile);
      const auto from = static_cast<std::int64_t>(start);
      output.index_put_({Slice(), Slice(from, from + static_cast<std::int64_t>(tile_rows))}, partial);
    }
  });
  return output;
}

}  // namespace quillon
