// Work that is surely still pending when the call returns: the tests' stand-in for a long kernel.
#include <cstddef>
#include <string>

#include <sycl/sycl.hpp>

/// Fills `bytes` at `data` `repeats` times with other values and then with `value`, in order, without waiting. What the
/// runtime threw, or null: an exception that reached the caller, a foreign-function call, would end the process.
extern "C" const char* fill_slowly(void* queue, void* data, int value, size_t bytes, int repeats) try {
  auto& in_order = *static_cast<sycl::queue*>(queue);
  for (int i = 0; i < repeats; ++i) in_order.memset(data, value + 1 + i % 7, bytes);
  in_order.memset(data, value, bytes);
  return nullptr;
} catch (const std::exception& error) {
  static std::string message;
  message = error.what();
  return message.c_str();
}
