// How a reader finds what belongs to a chunk. A place `at` says where a chunk lies in a weight (kernels/matvec/chunks.h);
// a reader asks it for entries of its regions:
//
//   at.entry_of_chunks<Entry, CHUNKS>(region)   of a region that holds one for each CHUNKS neighbouring chunks of a block
//   at.entry_by_unit<Entry>(region)             of one that holds one for each chunk, found by the chunk's unit
//
// and with these functions for entries of whole blocks, and for codes. An entry is a half, a float, an integer or a
// word_pair.
#pragma once

#include "kernels/lanes.h"

namespace quillon {

// The entry of a region that holds one for each block.
template <typename Entry, typename Place>
inline auto entry_of_block(const Place& at, const void* region) {
  return at.template entry_of_chunks<Entry, Place::CHUNKS_PER_BLOCK>(region);
}
// The entry of a region that holds one for each chunk, found by the chunk's block.
template <typename Entry, typename Place>
inline auto entry_by_block(const Place& at, const void* region) {
  return at.template entry_of_chunks<Entry, 1>(region);
}

// Two neighbouring halves.
struct half_pair {
  values<half> first;
  values<half> second;
};

#ifdef QUILLON_VECTOR_LANES

template <typename Place>
inline half_pair halves_of_block(const Place& at, const void* region) {
  return entry_of_block<half_pair>(at, region);
}

// A chunk's codes of four or eight bits.
struct chunk_codes {
  word_pair half_words;

  // Nibble I, less `bias`.
  template <typename T, int I>
  values<T> nibble(int bias) const {
    constexpr int SHIFT = I % 8 < 5 ? 0 : 16;
    return biased_codes_at<T, 4 * (I % 8) - SHIFT, 4>(half_words[I / 8] >> SHIFT, bias);
  }
  lanes<int32_t> signed_byte(int i) const {
    return bit_cast<lanes<int32_t>>(half_words[i / 4] << (24 - 8 * (i % 4))) >> 24;
  }
  words byte(int i) const { return (half_words[i / 4] >> (8 * (i % 4))) & 0xFFu; }
};

template <typename Place>
inline chunk_codes codes_of_chunk(const Place& at, const void* region) {
  return {at.template entry_by_unit<word_pair>(region)};
}
template <typename Place>
inline chunk_codes plain_codes_of_chunk(const Place& at, const void* region) {
  return codes_of_chunk(at, region);
}

#else

template <typename Place>
inline half_pair halves_of_block(const Place& at, const void* region) {
  const uint32_t pair = entry_of_block<uint32_t>(at, region);
  return {halves_of_bits<half>(pair & 0xFFFFu), halves_of_bits<half>(pair >> 16)};
}

// A chunk's codes of four or eight bits. Nibbles become bytes four at a time, which takes fewer operations than a shift
// and a mask for each. `low_nibbles` is 0x0F0F0F0F and must not look like it: the compiler would shift and mask each nibble
// again.
struct chunk_codes {
  word_pair half_words;
  uint32_t low_nibbles;

  template <typename T, int I>
  values<T> nibble(int bias) const {
    return biased_codes<T>(byte_of(half_words[I / 8] >> (4 * (I % 2)) & low_nibbles, I % 8 / 2), bias);
  }
  int signed_byte(int i) const { return static_cast<int8_t>(byte(i)); }
  uint32_t byte(int i) const { return byte_of(half_words[i / 4], i % 4); }

 private:
  static uint32_t byte_of(uint32_t word, int i) { return (word >> (8 * i)) & 0xFFu; }
};

template <typename Place>
inline chunk_codes codes_of_chunk(const Place& at, const void* region) {
  return {at.template entry_by_unit<word_pair>(region), at.low_nibbles};
}
// The same where no register is left for the mask.
template <typename Place>
inline chunk_codes plain_codes_of_chunk(const Place& at, const void* region) {
  return {at.template entry_by_unit<word_pair>(region), 0x0F0F0F0Fu};
}

#endif

}  // namespace quillon
