#include "dispatch/environment.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace quillon {
namespace {

// The exceptions are the parser's own; their texts differ from one C++ library to the next, these are fixed.
template <typename Number>
Number read_number(const char* variable, Number default_value, Number (*parse)(const std::string&, std::size_t*, int),
                   const char* parser) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return default_value;
  try {
    return parse(text, nullptr, 10);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument(std::string("invalid ") + parser + " argument");
  } catch (const std::out_of_range&) {
    throw std::out_of_range(std::string(parser) + " argument out of range");
  }
}

long long read_signed(const char* variable, long long default_value) {
  return read_number<long long>(variable, default_value, std::stoll, "stoll");
}

}  // namespace

std::int64_t read_tile_threshold() {
  return read_signed("TILE_THRESHOLD", 50000);
}

bool read_low_mem() {
  return read_signed("QUILLON_LOW_MEM", 0) == 1;
}

std::uint64_t read_tile_size() {
  return read_number<unsigned long long>("TILE_SIZE", 4096, std::stoull, "stoull");
}

}  // namespace quillon
