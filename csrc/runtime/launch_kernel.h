// Launches a kernel of the library: range and arguments as plain values, free of SYCL.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/ArrayRef.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "runtime/kernel_library.h"

namespace quillon {

// One argument of a kernel, in the order of the kernel's parameters.
struct KernelArgument {
  enum class Kind : std::uint8_t { pointer, int32, uint64, local_array };
  Kind kind;
  std::uint8_t element_size;  // of a local array: 2, 4 or 8
  union {
    const void* pointer;
    std::int32_t int32;
    std::uint64_t uint64;  // value, or number of elements of a local array
  };

  KernelArgument(const void* value) : kind(Kind::pointer), element_size(0), pointer(value) {}
  KernelArgument(std::int32_t value) : kind(Kind::int32), element_size(0), int32(value) {}
  KernelArgument(std::uint64_t value) : kind(Kind::uint64), element_size(0), uint64(value) {}

  // A local array of `count` elements of `size` bytes for each work-group.
  static KernelArgument local_array(std::uint64_t count, std::size_t size) {
    KernelArgument argument(count);
    argument.kind = Kind::local_array;
    argument.element_size = static_cast<std::uint8_t>(size);
    return argument;
  }
};

// Work-items in all and per work-group, in one to three dimensions.
struct LaunchRange {
  using Sizes = std::array<std::size_t, 3>;
  Sizes global;
  Sizes local;
  int dimensions;

  LaunchRange(std::size_t global_size, std::size_t local_size)
      : global{global_size, 1, 1}, local{local_size, 1, 1}, dimensions(1) {}
  LaunchRange(std::array<std::size_t, 2> global_size, std::array<std::size_t, 2> local_size)
      : global{global_size[0], global_size[1], 1}, local{local_size[0], local_size[1], 1}, dimensions(2) {}

  static LaunchRange of_three(Sizes global_size, Sizes local_size) {
    LaunchRange range(0, 0);
    range.global = global_size;
    range.local = local_size;
    range.dimensions = 3;
    return range;
  }
};

// Whether the caller goes on at once or when the kernel has finished.
enum class Wait : bool { no, yes };

// Submits the kernel to the current XPU stream of `device`; nothing when the range is empty.
void launch_kernel(runtime::KernelEntry& entry, c10::Device device, const LaunchRange& range,
                   c10::ArrayRef<KernelArgument> arguments, Wait wait = Wait::no);

}  // namespace quillon
