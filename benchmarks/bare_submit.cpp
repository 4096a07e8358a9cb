// The bare runtime's side of benchmarks/call_cost.py: an empty kernel submitted to a queue like that of the library.
//
// The kernel takes what a matrix-vector kernel takes (two sizes, three pointers, a number and local memory) and is
// launched with as few work-items, so that the difference to `forward_new` is what the library and PyTorch add.
#define SYCL_DISABLE_FSYCL_SYCLHPP_WARNING  // this is host code alone
#include <chrono>
#include <cstdint>
#include <sycl/sycl.hpp>

namespace {

namespace syclexp = sycl::ext::oneapi::experimental;
using Clock = std::chrono::steady_clock;

constexpr char kKernel[] = R"(
#include <sycl/sycl.hpp>
extern "C" SYCL_EXTERNAL SYCL_EXT_ONEAPI_FUNCTION_PROPERTY((sycl::ext::oneapi::experimental::nd_range_kernel<1>))
void empty(uint64_t, const uint8_t*, int32_t, const float*, sycl::local_accessor<float, 1>, uint64_t, float*) {}
)";

double microseconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::micro>(to - from).count();
}

}  // namespace

// Submits `calls` empty kernels, waits for each, and writes the microseconds of each submit and of each wait.
extern "C" void bare_submit(int calls, double* submits, double* waits) {
  sycl::queue queue(sycl::cpu_selector_v, sycl::property::queue::in_order());
  auto source = syclexp::create_kernel_bundle_from_source(queue.get_context(), syclexp::source_language::sycl, kKernel);
  const sycl::kernel kernel = syclexp::build(source).ext_oneapi_get_kernel("empty");
  auto* memory = sycl::malloc_device<float>(64, queue);
  for (int call = 0; call < calls; ++call) {
    const auto start = Clock::now();
    queue.submit([&](sycl::handler& handler) {
      handler.set_arg(0, std::uint64_t{64});
      handler.set_arg(1, static_cast<void*>(memory));
      handler.set_arg(2, std::int32_t{0});
      handler.set_arg(3, static_cast<void*>(memory));
      handler.set_arg(4, sycl::local_accessor<float, 1>(sycl::range<1>(64), handler));
      handler.set_arg(5, std::uint64_t{2});
      handler.set_arg(6, static_cast<void*>(memory));
      handler.parallel_for(sycl::nd_range<1>(2, 1), kernel);
    });
    const auto submitted = Clock::now();
    queue.wait();
    submits[call] = microseconds(start, submitted);
    waits[call] = microseconds(submitted, Clock::now());
  }
  sycl::free(memory, queue);
}
