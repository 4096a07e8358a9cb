#include "frontend/moe_indexes.h"

#include <c10/util/Exception.h>

#include <limits>
#include <utility>

#include "dispatch/tensor_memory.h"

namespace quillon {
namespace {

constexpr std::int64_t kMaxCount = std::numeric_limits<std::int32_t>::max();

}  // namespace

std::vector<std::vector<std::vector<std::int32_t>>> get_moe_indexes(at::Tensor ids, std::int64_t num_experts) {
  using Lists = std::vector<std::vector<std::int32_t>>;
  TORCH_CHECK(ids.dim() == 2, "ids must have two dimensions, tokens by top-k slots, got shape ", ids.sizes());
  TORCH_CHECK(ids.is_contiguous(), "ids must be contiguous, got shape ", ids.sizes(), " with strides ", ids.strides(),
              "; give ids.contiguous()");
  TORCH_CHECK(ids.numel() == 0 || (ids.size(0) <= kMaxCount && ids.size(1) <= kMaxCount), "ids has shape ", ids.sizes(),
              ", but rows and columns are counted in 32 bits");
  if (!ids.is_meta()) check_elements("get_moe_indexes", {{"ids", ids}});
  ids = ids.cpu();
  const std::int32_t* next = ids.data_ptr<std::int32_t>();
  const auto rows = static_cast<std::int32_t>(ids.size(0));
  const auto cols = static_cast<std::int32_t>(ids.size(1));
  // A negative number is a vector length past every limit. The C++ library's own text for that is another.
  TORCH_CHECK(static_cast<std::uint64_t>(num_experts) <= Lists().max_size(), "vector too long");
  Lists slots(num_experts);
  Lists tokens(num_experts);
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t col = 0; col < cols; ++col) {
      const std::int32_t expert = *next++;
      TORCH_CHECK(expert >= 0 && expert < num_experts, "ids[", row, "][", col, "] is expert ", expert,
                  ", but an expert number must be at least 0 and below num_experts, which is ", num_experts);
      slots[expert].push_back(col);
      tokens[expert].push_back(row);
    }
  }
  return {std::move(slots), std::move(tokens)};
}

}  // namespace quillon
