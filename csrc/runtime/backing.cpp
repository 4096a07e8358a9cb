#include "runtime/backing.h"

#include <cstdlib>
#include <string_view>

namespace quillon::runtime {

Backing backing_of(const DeviceFacts& facts) {
  if (!facts.is_cpu) return Backing::items;
  const char* asked = std::getenv("QUILLON_HOST_BACKING");
  return asked != nullptr && std::string_view(asked) == "items" ? Backing::items : Backing::vectors;
}

}  // namespace quillon::runtime
