// The scales of q4_0_woq as oneDNN reads them: `rows` by `groups` become `groups` by `rows`.
//
//   T   element type of the result: half, or float where oneDNN multiplies in float
//
// One work-item moves one scale; a work-group has those of one row.
#pragma once

#include "kernels/kernel.h"
#include "runtime/scalar_types.h"

template <typename T>
QUILLON_KERNEL(1)
void transpose_scale_kernel(const uint8_t* source, T* destination, uint64_t groups, uint64_t rows) {
  const auto i = sycl::ext::oneapi::this_work_item::get_nd_item<1>().get_global_id(0);
  destination[i % groups * rows + i / groups] = quillon::convert<T>(reinterpret_cast<const quillon::half*>(source)[i]);
}
