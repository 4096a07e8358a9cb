// Integer formats with 64-element blocks: q4_0, q4_0 woq, q4_1, q5_0, q5_1, q8_0.
//
// q4_0 (34 bytes; regions: quants, scales)                  q4_1 (36 bytes; regions: quants, pairs)
//
//   quants   byte 0      byte 1            byte 31            quants as q4_0
//           | e32  e0 | e33  e1 |  ...  | e63  e31 |         pairs  | d half | m half |
//   scales  | d half |
//
// A byte is drawn with its high nibble on the left. q4_0 woq has the regions of q4_0 and neighbouring nibbles:
//
//   quants  |  e1  e0 |  e3  e2 |  ...  | e63  e62 |
//
// Two ranks of functions serve every format: `code_<format>` takes a code out of the bytes, and
// `decode_<format><T>` gives the value of element e of block b of a whole weight.
#pragma once

#include <cstdint>

#include "formats/packed_bits.h"
#include "formats/registry.h"
#include "runtime/scalar_types.h"

namespace quillon {

struct block_q4_0_qs {
  uint8_t qs[32];
};
static_assert(sizeof(block_q4_0_qs) == 32);

// The 4-bit code of element e of a 64-element block whose byte j holds elements j (low nibble) and j + 32 (high
// nibble): q4_0, q4_1, fp4, and the qs field of q5_0 and q5_1.
inline int code_split_nibbles(const uint8_t* qs, int e) {
  const uint8_t byte = qs[e % 32];
  return static_cast<int>(e < 32 ? low_nibble(byte) : high_nibble(byte));
}

// ---- q4_0 --------------------------------------------------------------------------------------------------

inline int code_q4_0(const uint8_t* qs, int e) { return code_split_nibbles(qs, e) - 8; }

// Arithmetic in T.
template <typename T>
inline T decode_q4_0(const weight_parts& weight, int64_t b, int e) {
  const int code = code_q4_0(weight.part[0] + sizeof(block_q4_0_qs) * b, e);
  const half d = load_half(weight.part[1] + 2 * b);
  return multiply(convert<T>(d), convert<T>(code));
}

}  // namespace quillon
