// Work that is surely still pending when the call returns: the tests' stand-in for a long kernel.
#include <cstddef>
#include <sycl/sycl.hpp>

/// Fills `bytes` at `data` `repeats` times with other values and then with `value`, in order, without
/// waiting.
extern "C" void fill_slowly(void* queue, void* data, int value, size_t bytes, int repeats) {
  auto& in_order = *static_cast<sycl::queue*>(queue);
  for (int i = 0; i < repeats; ++i) in_order.memset(data, value + 1 + i % 7, bytes);
  in_order.memset(data, value, bytes);
}
