// What every kernel text includes: how a kernel is marked for the run-time compiler.
#pragma once

#include <sycl/accessor.hpp>
#include <sycl/ext/oneapi/experimental/free_function_traits.hpp>
#include <sycl/ext/oneapi/free_function_queries.hpp>
#include <sycl/ext/oneapi/kernel_properties/properties.hpp>
#include <sycl/nd_item.hpp>

// Marks a function template as a kernel over an nd-range of DIMENSIONS. A sub-group size is what a GPU is asked for; in
// the form of vectors a work-item is alone in its work-group and must not be widened into a sub-group. It is asked for by
// SYCL's own attribute: the run-time compiler of SYCL 2025.3 drops the property of the same meaning without a word.
#define QUILLON_KERNEL(DIMENSIONS) \
  SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<DIMENSIONS>))
#ifdef QUILLON_VECTOR_LANES
#define QUILLON_SUB_GROUP(SIZE)
#else
#define QUILLON_SUB_GROUP(SIZE) [[sycl::reqd_sub_group_size(SIZE)]]
#endif
