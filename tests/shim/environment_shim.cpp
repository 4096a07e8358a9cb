// C entries over the environment variables of the launchers, which tell by which exception a bad value fails.
#include "dispatch/environment.cpp"

#include <cstring>

namespace {

// 0 and the value, 1 for std::invalid_argument and 2 for std::out_of_range with the text.
template <typename Reader>
int outcome(Reader read, long long* value, char* text, std::size_t size) {
  try {
    *value = static_cast<long long>(read());
    return 0;
  } catch (const std::invalid_argument& error) {
    std::strncpy(text, error.what(), size);
    return 1;
  } catch (const std::out_of_range& error) {
    std::strncpy(text, error.what(), size);
    return 2;
  }
}

}  // namespace

extern "C" {

int shim_tile_threshold(long long* value, char* text, std::size_t size) {
  return outcome(quillon::read_tile_threshold, value, text, size);
}
int shim_low_mem(long long* value, char* text, std::size_t size) {
  return outcome(quillon::read_low_mem, value, text, size);
}
int shim_tile_size(long long* value, char* text, std::size_t size) {
  return outcome(quillon::read_tile_size, value, text, size);
}

}  // extern "C"
