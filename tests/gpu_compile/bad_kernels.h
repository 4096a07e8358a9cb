// Kernels that the checks must not let pass.
#pragma once

#include <cstdint>
#include <sycl/ext/oneapi/experimental/free_function_traits.hpp>
#include <sycl/ext/oneapi/free_function_queries.hpp>
#include <sycl/ext/oneapi/kernel_properties/properties.hpp>
#include <sycl/nd_item.hpp>

// More live values than there are registers.
template <typename T, int SG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void spilling_kernel(const T* input, T* output) {
  constexpr int VALUES = 200;
  const auto first = sycl::ext::oneapi::this_work_item::get_nd_item<1>().get_global_id(0) * VALUES;
  T values[VALUES];
#pragma unroll
  for (int i = 0; i < VALUES; ++i) values[i] = input[first + i];
  for (int round = 0; round < 100; ++round) {
#pragma unroll
    for (int i = 0; i < VALUES; ++i) values[i] = values[i] * values[(i + 1) % VALUES];
  }
#pragma unroll
  for (int i = 0; i < VALUES; ++i) output[first + i] = values[i];
}

// An array that is indexed by data cannot live in registers.
template <typename T, int SG_SIZE>
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::sub_group_size<SG_SIZE>))
void private_array_kernel(const T* input, const int32_t* order, T* output) {
  constexpr int VALUES = 500;
  const auto first = sycl::ext::oneapi::this_work_item::get_nd_item<1>().get_global_id(0) * VALUES;
  T values[VALUES];
  for (int i = 0; i < VALUES; ++i) values[order[i]] = input[first + i];
  for (int i = 0; i < VALUES; ++i) output[first + i] = values[i] * values[order[i]];
}
