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

}  // namespace

void launch_kernel(runtime::KernelEntry& entry, c10::Device device, const LaunchRange& range,
                   c10::ArrayRef<KernelArgument> arguments, Wait wait) {
  if (range.global[0] == 0 || range.global[1] == 0) return;
  const c10::xpu::XPUStream stream = c10::xpu::getCurrentXPUStream(device.index());
  const sycl::kernel& kernel = runtime::find_kernel(entry, stream.queue(), stream.device_index());
  sycl::event event = submit_kernel(
      [&](sycl::handler& handler) {
        int index = 0;
        for (const KernelArgument& argument : arguments) set_argument(handler, index++, argument);
        if (range.dimensions == 1)
          handler.parallel_for(sycl::nd_range<1>(range.global[0], range.local[0]), kernel);
        else
          handler.parallel_for(sycl::nd_range<2>(sycl::range<2>(range.global[0], range.global[1]),
                                                 sycl::range<2>(range.local[0], range.local[1])),
                               kernel);
      },
      device);
  if (wait == Wait::yes) event.wait_and_throw();
  if (records_launches()) {
    const auto sizes = [&](const std::array<std::size_t, 2>& of) {
      return std::vector<std::int64_t>(of.begin(), of.begin() + range.dimensions);
    };
    record_launch({entry.name, sizes(range.global), sizes(range.local), device, wait == Wait::yes});
  }
}

}  // namespace quillon
