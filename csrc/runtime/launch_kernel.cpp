#include "runtime/launch_kernel.h"

#include "runtime/launch_record.h"
#include "runtime/submit_kernel.h"

namespace quillon {
namespace {

template <typename Element>
void set_local_array(sycl::handler& handler, int index, std::size_t count) {
  handler.set_arg(index, sycl::local_accessor<Element, 1>(sycl::range<1>(count), handler));
}

void set_argument(sycl::handler& handler, int index, const KernelArgument& argument) {
  switch (argument.kind) {
    case KernelArgument::Kind::pointer:
      return handler.set_arg(index, argument.pointer);
    case KernelArgument::Kind::int32:
      return handler.set_arg(index, argument.int32);
    case KernelArgument::Kind::uint64:
      return handler.set_arg(index, argument.uint64);
    case KernelArgument::Kind::local_array:
      // The device sees a size in bytes; the element size matters for its alignment alone.
      switch (argument.element_size) {
        case 2:
          return set_local_array<std::uint16_t>(handler, index, argument.uint64);
        case 4:
          return set_local_array<std::uint32_t>(handler, index, argument.uint64);
        default:
          return set_local_array<std::uint64_t>(handler, index, argument.uint64);
      }
  }
}

template <int DIMENSIONS>
sycl::nd_range<DIMENSIONS> nd_range_of(const LaunchRange& range) {
  sycl::range<DIMENSIONS> global, local;
  for (int i = 0; i < DIMENSIONS; ++i) {
    global[i] = range.global[i];
    local[i] = range.local[i];
  }
  return {global, local};
}

}  // namespace

void launch_kernel(runtime::KernelEntry& entry, c10::Device device, const LaunchRange& range,
                   c10::ArrayRef<KernelArgument> arguments, Wait wait) {
  for (const std::size_t size : range.global)
    if (size == 0) return;
  const c10::xpu::XPUStream stream = c10::xpu::getCurrentXPUStream(device.index());
  const sycl::kernel& kernel = runtime::find_kernel(entry, stream.queue(), stream.device_index());
  sycl::event event = submit_kernel(
      [&](sycl::handler& handler) {
        int index = 0;
        for (const KernelArgument& argument : arguments) set_argument(handler, index++, argument);
        switch (range.dimensions) {
          case 1:
            return handler.parallel_for(nd_range_of<1>(range), kernel);
          case 2:
            return handler.parallel_for(nd_range_of<2>(range), kernel);
          default:
            return handler.parallel_for(nd_range_of<3>(range), kernel);
        }
      },
      device);
  if (wait == Wait::yes) event.wait_and_throw();
  if (records_launches()) {
    const auto sizes = [&](const LaunchRange::Sizes& of) {
      return std::vector<std::int64_t>(of.begin(), of.begin() + range.dimensions);
    };
    record_launch({entry.name, sizes(range.global), sizes(range.local), device, wait == Wait::yes});
  }
}

}  // namespace quillon
