// Expert index lists of a mixture-of-experts layer. A host routine: it launches nothing.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

namespace quillon {

// For each expert, which tokens go to it.
//   ids          int32, tokens by top-k slots, contiguous, each entry an expert number; what is not in the CPU's memory
//                is copied there
//   num_experts  number of lists to produce
// Returns {slots, tokens}: slots[e] and tokens[e] hold column and row of each occurrence of expert e in `ids`, in
// scan order. An expert number outside 0 to num_experts - 1 is a RuntimeError that names it.
std::vector<std::vector<std::vector<std::int32_t>>> get_moe_indexes(at::Tensor ids, std::int64_t num_experts);

}  // namespace quillon
