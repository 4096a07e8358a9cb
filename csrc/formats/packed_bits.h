// Loads from packed weights and extraction of codes from words, for the host and the device.
#pragma once

#include <cstdint>

#include "runtime/scalar_types.h"

namespace quillon {

// Loads a little-endian field of type V from an address that is a multiple of ALIGNMENT. Records of 44, 50,
// 66 and 84 bytes keep an alignment of two, so the wider fields of a record are loaded with the default.
template <typename V, int ALIGNMENT = 2>
inline V load(const void* address) {
  V value;
  __builtin_memcpy(&value, __builtin_assume_aligned(address, ALIGNMENT), sizeof(V));
  return value;
}

inline uint16_t load_u16(const void* address) {
  return load<uint16_t>(address);
}
inline uint32_t load_u32(const void* address) {
  return load<uint32_t>(address);
}
inline uint64_t load_u64(const void* address) {
  return load<uint64_t>(address);
}
inline half load_half(const void* address) {
  return bit_cast<half>(load_u16(address));
}
inline float load_float(const void* address) {
  return load<float>(address);
}

// Byte `index` of a word, counted from the low end; the nibbles of that byte.
constexpr uint32_t byte_of(uint64_t word, int index) {
  return (word >> (8 * index)) & 0xFF;
}
constexpr uint32_t low_nibble_of(uint64_t word, int index) {
  return (word >> (8 * index)) & 15;
}
constexpr uint32_t high_nibble_of(uint64_t word, int index) {
  return (word >> (8 * index + 4)) & 15;
}

constexpr uint32_t low_nibble(uint8_t byte) {
  return byte & 15u;
}
constexpr uint32_t high_nibble(uint8_t byte) {
  return byte >> 4;
}

}  // namespace quillon
