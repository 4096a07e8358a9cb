#include "runtime/backing.h"

#include <cstdlib>
#include <string_view>

#include "runtime/build_options.h"

namespace quillon::runtime {
namespace {

// Whether a vector register of the processor holds sixteen floats, as the CPU device's compiler sees it: the environment
// can make it build for less.
bool has_wide_vectors() {
  const char* target = std::getenv("CL_CONFIG_CPU_TARGET_ARCH");
  if (target != nullptr && std::string_view(target).substr(0, 4) == "core")
    return false;  // core-avx2, corei7-avx, corei7
#if defined(__x86_64__)
  return __builtin_cpu_supports("avx512f");
#else
  return false;
#endif
}

}  // namespace

bool has_bfloat16_pairs() {
#if defined(__x86_64__)
  // Whatever processor the CPU device's compiler is told to build for, it is taken for one without.
  return std::getenv("CL_CONFIG_CPU_TARGET_ARCH") == nullptr && __builtin_cpu_supports("avx512f") &&
         __builtin_cpu_supports("avx512bf16");
#else
  return false;
#endif
}

Backing backing_of(const DeviceFacts& facts) {
  if (!facts.is_cpu) return Backing::items;
  const char* asked = std::getenv("QUILLON_HOST_BACKING");
  return asked != nullptr && std::string_view(asked) == "items" ? Backing::items : Backing::vectors;
}

Backing backing_on(c10::DeviceIndex index) {
  return backing_of(device_facts(index));
}

std::vector<std::string> backing_options(Backing backing) {
  if (backing == Backing::items) return {};
  std::vector<std::string> options = {kVectorBacking};
  if (!has_wide_vectors()) options.emplace_back(kNarrowVectors);
  return options;
}

}  // namespace quillon::runtime
